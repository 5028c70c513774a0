# The line parser and the command queue against the real tool and kernel.
add_executable(ebtables_verdict ${CMAKE_CURRENT_LIST_DIR}/ebtables_verdict.cpp)
target_link_libraries(ebtables_verdict PRIVATE moatkeeper_ebtables)
add_executable(queue_driver ${CMAKE_CURRENT_LIST_DIR}/queue_driver.cpp)
target_link_libraries(queue_driver PRIVATE moatkeeper_platform_linux)
add_test(NAME system.ebtables_agreement
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/ebtables_agreement_test.py
    $<TARGET_FILE:ebtables_verdict> 300)
add_test(NAME system.queue
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/queue_test.py $<TARGET_FILE:queue_driver>)
set_tests_properties(system.ebtables_agreement system.queue PROPERTIES
  LABELS system SKIP_RETURN_CODE 77 TIMEOUT 240)
