# Tests of the framework core (libqocore) and the framework-surface headers.
foreach(_qo_core_test logging packed_func ndarray task_queue)
  qo_add_gtest(qo_core_${_qo_core_test}_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/${_qo_core_test}_test.cc
    LIBS qocore qotestcommon Threads::Threads
    LABELS core)
endforeach()
