# Video input node: without a network (API, frames, file streams, recorder,
# camera settings) and against the loopback RTSP server.
qo_add_gtest(node_video_in_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_test.cc
  LIBS qosdkmm qotesthost qotestmedia qotestlayer qotestcommon
  LABELS node)
if(TARGET qotestrtsp)
  qo_add_gtest(node_video_in_rtsp_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_rtsp_test.cc
    LIBS qosdkmm qotesthost qotestrtsp qotestcommon
    LABELS node)
endif()
