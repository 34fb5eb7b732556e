# File input node, driven through the library's registered functions.
foreach(_qo_file_in_test api sequence)
  qo_add_gtest(node_file_in_${_qo_file_in_test}_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_in_${_qo_file_in_test}_test.cc
    LIBS qotesthost qotestmedia
    LABELS node)
endforeach()
# Also linked to the library: sync mode calls the node class directly.
qo_add_gtest(node_file_in_stream_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_in_stream_test.cc
  LIBS qotesthost qotestmedia qosdkmm
  LABELS node)
