# File decoder layer: data path against the parser reference, flow control
# and life cycle.
qo_add_gtest(hal_file_in_roundtrip_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_in_roundtrip_test.cc
  LIBS qosdkmm qotestmedia PkgConfig::GST
  LABELS hal)
qo_add_gtest(hal_file_in_control_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/file_in_control_test.cc
  LIBS qosdkmm qotestmedia PkgConfig::GST
  LABELS hal)
