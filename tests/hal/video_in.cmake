# Live-stream layer: without a network, and against the loopback RTSP server.
qo_add_gtest(hal_video_in_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_test.cc
  LIBS qosdkmm qotestlayer qotestcommon qotestmedia PkgConfig::GST
  LABELS hal)
if(TARGET qotestrtsp)
  qo_add_gtest(hal_video_in_rtsp_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_rtsp_test.cc
    LIBS qosdkmm qotestlayer qotestcommon qotestrtsp PkgConfig::GST
    LABELS hal)
endif()

# What a host program sees on its standard output, with and without sinks.
add_executable(sink_host ${CMAKE_CURRENT_LIST_DIR}/sink_host.cc)
target_link_libraries(sink_host PRIVATE qosdkmm)
qo_add_gtest(hal_sink_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/sink_test.cc
  LIBS qotestmedia PkgConfig::GST
  LABELS hal)
target_compile_definitions(hal_sink_test PRIVATE QO_SINK_HOST="$<TARGET_FILE:sink_host>")
add_dependencies(hal_sink_test sink_host)
