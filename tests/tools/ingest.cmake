# qomm ingest with --metrics, checked by promtool (skipped without it). Not
# in sanitizer builds: it runs qomm's own RTSP server, whose GLib locking the
# ThreadSanitizer shim cannot follow, and it is about the exposition, which
# the instrumented layer and node tests do not change.
if(TARGET qomm AND NOT QO_SANITIZE)
  add_test(NAME qomm_ingest_metrics_test
           COMMAND ${CMAKE_CURRENT_LIST_DIR}/ingest/ingest_metrics_test.sh $<TARGET_FILE:qomm>
                   ${PROJECT_SOURCE_DIR}/data/sample.h264)
  set_tests_properties(qomm_ingest_metrics_test PROPERTIES
    LABELS tools TIMEOUT 120 SKIP_RETURN_CODE 77)
endif()
