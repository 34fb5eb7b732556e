# qo-bench: file throughput, RTSP latency, scale, start/stop and churn of the
# ingest layers next to GStreamer and FFmpeg.
set(_qo_bench_dir ${CMAKE_CURRENT_LIST_DIR})
add_executable(qo-bench
  ${_qo_bench_dir}/main.cc
  ${_qo_bench_dir}/bench_util.cc
  ${_qo_bench_dir}/throughput.cc
  ${_qo_bench_dir}/latency.cc
  ${_qo_bench_dir}/scale.cc
  ${_qo_bench_dir}/lifecycle.cc)
# Linked to the library as well: sync mode calls the file node class directly.
target_link_libraries(qo-bench PRIVATE qosdkmm qotesthost PkgConfig::GST Threads::Threads)
set_target_properties(qo-bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
