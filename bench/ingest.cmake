# qo-bench: file throughput, RTSP latency, scale, start/stop and churn of the
# ingest layers next to GStreamer and FFmpeg.
add_executable(qo-bench ${CMAKE_CURRENT_LIST_DIR}/bench.cc)
# Linked to the library: its nodes register at load, and sync mode calls the
# file node class directly.
target_link_libraries(qo-bench PRIVATE qosdkmm PkgConfig::GST Threads::Threads)
set_target_properties(qo-bench PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
