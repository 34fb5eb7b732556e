# File decoder layer against GStreamer's own parser chain on the same file.
add_executable(bench_file_in ${CMAKE_CURRENT_LIST_DIR}/file_in_bench.cc)
target_link_libraries(bench_file_in PRIVATE qosdkmm qotestmedia PkgConfig::GST
                      benchmark::benchmark Threads::Threads)
