# qotestcommon: captures, waits and small utilities (see common/test_common.h).
add_library(qotestcommon STATIC ${CMAKE_CURRENT_LIST_DIR}/common/test_common.cc)
target_include_directories(qotestcommon PUBLIC ${CMAKE_CURRENT_LIST_DIR}/common)
target_link_libraries(qotestcommon PUBLIC qocore GTest::gtest Threads::Threads)
target_compile_definitions(qotestcommon PRIVATE QO_TEST_SCRATCH_DIR="${PROJECT_BINARY_DIR}/test-scratch")
