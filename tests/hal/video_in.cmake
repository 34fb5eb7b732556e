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
