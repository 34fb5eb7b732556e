# qotestlayer: the two C layers' diagnostics taken through their sinks (see
# layer/test_layer_capture.h). Links libqosdkmm, so core tests stay without it.
add_library(qotestlayer STATIC ${CMAKE_CURRENT_LIST_DIR}/layer/test_layer_capture.cc)
target_include_directories(qotestlayer PUBLIC ${CMAKE_CURRENT_LIST_DIR}/layer)
target_link_libraries(qotestlayer PUBLIC qosdkmm qotestcommon)
