# qomm: the command-line host. It links libqosdkmm, GStreamer (for snapshots
# and type detection) and the loopback RTSP server (serve, demo).
if(GST_RTSP_SERVER_FOUND)  # qortspserver comes from rtsp_server.cmake
  set(_qomm_dir ${CMAKE_CURRENT_LIST_DIR}/qomm)
  add_executable(qomm
    ${_qomm_dir}/main.cc
    ${_qomm_dir}/demo_command.cc
    ${_qomm_dir}/ingest_command.cc
    ${_qomm_dir}/library_output.cc
    ${_qomm_dir}/media_type.cc
    ${_qomm_dir}/play_command.cc
    ${_qomm_dir}/probe_command.cc
    ${_qomm_dir}/serve_command.cc)
  pkg_check_modules(QOMM_GST_APP REQUIRED IMPORTED_TARGET gstreamer-app-1.0 gstreamer-base-1.0)
  # ingest's --metrics HTTP server
  pkg_check_modules(QOMM_SOUP REQUIRED IMPORTED_TARGET libsoup-3.0)
  target_link_libraries(qomm PRIVATE qosdkmm qortspserver PkgConfig::QOMM_GST_APP
                                     PkgConfig::QOMM_SOUP)
  target_compile_definitions(qomm PRIVATE
    QO_SAMPLES_RELATIVE_DIR="${CMAKE_INSTALL_DATADIR}/qosdkmm/samples"
    QO_SAMPLES_INSTALL_DIR="${CMAKE_INSTALL_FULL_DATADIR}/qosdkmm/samples"
    QO_SAMPLES_SOURCE_DIR="${PROJECT_SOURCE_DIR}/data")
  set_target_properties(qomm PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools
    INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS qomm RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(FILES ${PROJECT_SOURCE_DIR}/data/sample.h264 ${PROJECT_SOURCE_DIR}/data/sample.h265
                ${PROJECT_SOURCE_DIR}/data/sample.mjpeg
          DESTINATION ${CMAKE_INSTALL_DATADIR}/qosdkmm/samples COMPONENT runtime)
else()
  message(STATUS "gstreamer-rtsp-server-1.0 not found: qomm is not built")
endif()
