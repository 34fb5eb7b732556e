# live555src element tests: real pipelines against qo-rtsp-server.
if(TARGET qotestrtsp)
  qo_add_gtest(live555src_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555src_test.cc
    LIBS qolive555src qotestrtsp PkgConfig::GST
    LABELS gst)
  # The registration case loads the plugin module of this build.
  add_dependencies(live555src_test gstlive555src)
endif()
