# End-to-end tests of the qomm program: each runs the built binary.
if(TARGET qomm)
  qo_add_gtest(qomm_test SOURCES ${CMAKE_CURRENT_LIST_DIR}/qomm_test.cc LIBS qotestrtsp qotestcommon LABELS tools)
  target_compile_definitions(qomm_test PRIVATE QO_QOMM_PATH="$<TARGET_FILE:qomm>")
  add_dependencies(qomm_test qomm)
endif()
