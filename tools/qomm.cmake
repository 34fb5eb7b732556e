# qomm: the command-line host. It loads libqosdkmm at run time, so it only
# links the framework core.
add_executable(qomm ${CMAKE_CURRENT_LIST_DIR}/qomm/main.cc)
target_link_libraries(qomm PRIVATE qocore ${CMAKE_DL_LIBS})
target_compile_definitions(qomm PRIVATE
  QO_SDKMM_SONAME="$<TARGET_SONAME_FILE_NAME:qosdkmm>"
  QO_INSTALL_LIBDIR="${CMAKE_INSTALL_LIBDIR}")
set_target_properties(qomm PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tools
  INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
# The library is loaded, not linked: build it whenever the host is built.
add_dependencies(qomm qosdkmm)
install(TARGETS qomm RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
