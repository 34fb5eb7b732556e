# Video input node: the API without a stream, RTSP streams from the loopback
# server, file streams with pacing and recording, and a server that freezes
# or goes away. Separate binaries keep a stream that the live-stream layer
# holds on purpose (a failed start) from keeping the main loop of another.
add_library(qo_video_in_node_util STATIC ${CMAKE_CURRENT_LIST_DIR}/video_in_node_util.cc)
target_link_libraries(qo_video_in_node_util PUBLIC qosdkmm qotesthost Threads::Threads)

qo_add_gtest(node_video_in_api_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_api_test.cc
  LIBS qo_video_in_node_util
  LABELS node)

if(TARGET qotestrtsp)
  qo_add_gtest(node_video_in_rtsp_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_rtsp_test.cc
    LIBS qo_video_in_node_util qotestrtsp
    LABELS node)
endif()

qo_add_gtest(node_video_in_file_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_file_test.cc
  LIBS qo_video_in_node_util qotestmedia
  LABELS node)

if(TARGET qotestrtsp)
  qo_add_gtest(node_video_in_fault_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_fault_test.cc
    LIBS qo_video_in_node_util qotestrtsp
    LABELS node)
endif()
