# qotesthost: the framework host with libqosdkmm loaded by dlopen (see
# host/test_host.h). Only the framework core is linked.
add_library(qotesthost STATIC ${CMAKE_CURRENT_LIST_DIR}/host/test_host.cc)
target_include_directories(qotesthost PUBLIC ${CMAKE_CURRENT_LIST_DIR}/host)
target_link_libraries(qotesthost PUBLIC qocore Threads::Threads)
target_compile_definitions(qotesthost PRIVATE QO_SDKMM_PATH="$<TARGET_FILE:qosdkmm>")
# The library is loaded, not linked: build it whenever the host is built.
add_dependencies(qotesthost qosdkmm)
