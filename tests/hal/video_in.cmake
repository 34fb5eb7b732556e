# Live-stream layer: life cycle, composition and failure paths, file
# streams, RTSP streams and type detection. Each area is its own binary, so
# that streams the layer keeps allocated on purpose (a close of a stream that
# never started only reports) cannot hold the main loop of another area.
add_library(qo_video_in_test_util STATIC ${CMAKE_CURRENT_LIST_DIR}/video_in_test_util.cc)
target_link_libraries(qo_video_in_test_util PUBLIC qosdkmm Threads::Threads)

qo_add_gtest(hal_video_in_lifecycle_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_lifecycle_test.cc
  LIBS qo_video_in_test_util
  LABELS hal video_in)

qo_add_gtest(hal_video_in_compose_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_compose_test.cc
  LIBS qo_video_in_test_util
  LABELS hal video_in)

qo_add_gtest(hal_video_in_file_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_file_test.cc
  LIBS qo_video_in_test_util qotestmedia PkgConfig::GST
  LABELS hal video_in)

if(TARGET qotestrtsp)
  qo_add_gtest(hal_video_in_rtsp_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_rtsp_test.cc
    LIBS qo_video_in_test_util qotestrtsp PkgConfig::GST
    LABELS hal video_in)
endif()
