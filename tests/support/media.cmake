# qotestmedia: test streams encoded at test time (see media/test_media.h).
add_library(qotestmedia STATIC ${CMAKE_CURRENT_LIST_DIR}/media/test_media.cc)
target_include_directories(qotestmedia PUBLIC ${CMAKE_CURRENT_LIST_DIR}/media)
target_link_libraries(qotestmedia PUBLIC PkgConfig::GST qo_sanitize)
target_compile_definitions(qotestmedia PRIVATE
  QO_TEST_MEDIA_DIR="${PROJECT_BINARY_DIR}/test-media")
