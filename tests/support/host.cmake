# qotesthost: loads libqosdkmm with dlopen and drives nodes by name (see
# host/test_host.h). Only the framework core is linked.
add_library(qotesthost STATIC ${CMAKE_CURRENT_LIST_DIR}/host/test_host.cc)
target_include_directories(qotesthost PUBLIC ${CMAKE_CURRENT_LIST_DIR}/host)
target_link_libraries(qotesthost PUBLIC qocore Threads::Threads PRIVATE ${CMAKE_DL_LIBS})
target_compile_definitions(qotesthost PRIVATE QO_SDKMM_PATH="$<TARGET_FILE:qosdkmm>")
# The library is loaded, not linked: build it whenever the host is built.
add_dependencies(qotesthost qosdkmm)
