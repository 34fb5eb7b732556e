# File input node, through the library's registered functions.
qo_add_gtest(node_file_in_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_in_test.cc
  LIBS qotesthost qotestmedia qotestcommon qosdkmm
  LABELS node)
