# Loopback RTSP server: library for tests and tools, and the qo-rtsp-server
# program.
if(GST_RTSP_SERVER_FOUND)
  pkg_check_modules(QO_GIO REQUIRED IMPORTED_TARGET gio-2.0)
  add_library(qortspserver STATIC
    ${CMAKE_CURRENT_LIST_DIR}/rtsp_server/rtsp_server.cc)
  target_include_directories(qortspserver PUBLIC ${CMAKE_CURRENT_LIST_DIR}/rtsp_server)
  target_link_libraries(qortspserver PUBLIC PkgConfig::GST_RTSP_SERVER PkgConfig::GST_RTSP PkgConfig::GST PkgConfig::QO_GIO
                        Threads::Threads)

  # The test server stays uninstrumented in sanitizer builds: it is a peer of
  # the code under test, and GStreamer's RTSP server takes GLib locks in ways
  # the ThreadSanitizer shim cannot follow (it reports unlocks by the wrong
  # thread and stops the server).
  add_executable(qo-rtsp-server ${CMAKE_CURRENT_LIST_DIR}/rtsp_server/main.cc)
  target_link_libraries(qo-rtsp-server PRIVATE qortspserver)
  set_target_properties(qo-rtsp-server PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools)
  install(TARGETS qo-rtsp-server RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
else()
  message(STATUS "gstreamer-rtsp-server-1.0 not found: qo-rtsp-server is not built")
endif()
