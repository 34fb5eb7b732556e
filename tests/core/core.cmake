# Tests of the framework core (libqocore) and the framework-surface headers.
foreach(_qo_core_test logging packed_func prop ndarray task_queue)
  qo_add_gtest(qo_core_${_qo_core_test}_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/${_qo_core_test}_test.cc
    LIBS qocore qotestcommon Threads::Threads
    LABELS core)
endforeach()

# A node module loaded with dlopen by the registry test.
add_library(qo_core_test_module MODULE ${CMAKE_CURRENT_LIST_DIR}/test_module.cc)
target_link_libraries(qo_core_test_module PRIVATE qocore)
qo_add_gtest(qo_core_registry_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/registry_test.cc
  LIBS qocore qotestcommon ${CMAKE_DL_LIBS}
  LABELS core)
target_compile_definitions(qo_core_registry_test PRIVATE
  QO_CORE_TEST_MODULE="$<TARGET_FILE:qo_core_test_module>")
add_dependencies(qo_core_registry_test qo_core_test_module)
