# qotestrtsp: runs qo-rtsp-server as a child process (see rtsp/test_rtsp_server.h).
if(TARGET qo-rtsp-server)
  add_library(qotestrtsp STATIC ${CMAKE_CURRENT_LIST_DIR}/rtsp/test_rtsp_server.cc)
  target_include_directories(qotestrtsp PUBLIC ${CMAKE_CURRENT_LIST_DIR}/rtsp)
  target_link_libraries(qotestrtsp PRIVATE PkgConfig::GST)
  target_compile_definitions(qotestrtsp PRIVATE
    QO_RTSP_SERVER_PROGRAM="$<TARGET_FILE:qo-rtsp-server>")
  # Tests that use the helper need the program built.
  add_dependencies(qotestrtsp qo-rtsp-server)
endif()
