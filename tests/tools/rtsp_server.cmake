# qo-rtsp-server and its test helper.
if(TARGET qotestrtsp)
  qo_add_gtest(rtsp_server_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/rtsp_server_test.cc
    LIBS qortspserver qotestrtsp
    LABELS tools)
endif()
