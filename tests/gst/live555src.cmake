# live555src element tests: real pipelines against qo-rtsp-server.
if(TARGET qotestrtsp)
  qo_add_gtest(live555src_stream_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555src_stream_test.cc
    LIBS qolive555src qotestrtsp qotestmedia PkgConfig::GST
    LABELS gst rtsp)
  qo_add_gtest(live555src_eos_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555src_eos_test.cc
    LIBS qolive555src qotestrtsp PkgConfig::GST
    LABELS gst rtsp)
endif()

qo_add_gtest(live555src_register_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555src_register_test.cc
  LIBS qolive555src PkgConfig::GST
  LABELS gst)
# The module must be built for the test to find it.
add_dependencies(live555src_register_test gstlive555src)

# Reconnection: a server that restarts, drops, refuses or freezes.
if(TARGET qotestrtsp)
  qo_add_gtest(live555src_reconnect_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555src_reconnect_test.cc
    LIBS qolive555src qotestrtsp PkgConfig::GST
    LABELS gst)
endif()
