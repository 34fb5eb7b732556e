# The installed package works for a host program outside the tree.
if(NOT QO_SANITIZE)
  add_test(NAME qo_install_package
           COMMAND ${CMAKE_CURRENT_LIST_DIR}/install/install_test.sh ${PROJECT_BINARY_DIR})
  set_tests_properties(qo_install_package PROPERTIES LABELS tools TIMEOUT 300)
endif()
