# Live-stream layer: one binary per area. Streams the layer keeps allocated
# on purpose (failed starts) live only in the composition binary, so they
# cannot hold the main loop that the life-cycle binary watches.
add_library(qo_video_in_test_util STATIC ${CMAKE_CURRENT_LIST_DIR}/video_in_test_util.cc)
target_link_libraries(qo_video_in_test_util PUBLIC qosdkmm Threads::Threads)
foreach(area lifecycle compose file rtsp)
  if(area STREQUAL "rtsp" AND NOT TARGET qotestrtsp)
    continue()
  endif()
  qo_add_gtest(hal_video_in_${area}_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/video_in_${area}_test.cc
    LIBS qo_video_in_test_util qotestmedia $<$<STREQUAL:${area},rtsp>:qotestrtsp> PkgConfig::GST
    LABELS hal)
endforeach()
