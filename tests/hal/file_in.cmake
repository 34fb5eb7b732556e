# File decoder layer: access units against the parser reference.
qo_add_gtest(hal_file_in_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_in_test.cc
  LIBS qosdkmm qotestlayer qotestcommon qotestmedia PkgConfig::GST
  LABELS hal)
