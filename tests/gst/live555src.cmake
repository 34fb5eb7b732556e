# The element's key-frame gate on byte arrays.
qo_add_gtest(live555keygate_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555keygate_test.cc
  LIBS qolive555src PkgConfig::GST
  LABELS gst)

# live555src element tests: real pipelines against qo-rtsp-server.
if(TARGET qotestrtsp)
  qo_add_gtest(live555src_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/live555src_test.cc
    LIBS qolive555src qotestrtsp qotestcommon PkgConfig::GST
    LABELS gst)
  # The registration cases load the plugin module of this build.
  if(TARGET gstlive555src)
    add_dependencies(live555src_test gstlive555src)
  endif()
endif()
