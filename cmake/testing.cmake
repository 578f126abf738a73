# Every test executable runs under Wine through scripts/wine-run, which bounds its run
# time and turns a crash or hang into a failure with a message. The test command
# (scripts/test) provides the display, the Wine prefix and the persistent wineserver.

set(TESSEL_WINE_RUNNER ${CMAKE_SOURCE_DIR}/scripts/wine-run)
set(TESSEL_TEST_RESULTS ${CMAKE_BINARY_DIR}/test-results)

# tessel_add_test(<name> SOURCES ... [LIBRARIES ...] [TIMEOUT seconds])
function(tessel_add_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} gmock gtest_main)
  # Helpers shared by several test executables (tests/support).
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/support)
  # The runner kills the process a little before ctest would, so that the message
  # says what happened.
  math(EXPR runner_timeout "${arg_TIMEOUT} - 10")
  add_test(NAME ${name}
           COMMAND ${TESSEL_WINE_RUNNER} --timeout ${runner_timeout}
                   $<TARGET_FILE:${name}> --gtest_output=xml:Z:${TESSEL_TEST_RESULTS}/${name}.xml)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT})
endfunction()

# Replaces operator new/delete of the executable that links it, to count allocations
# (tests and benchmarks that prove code allocates nothing).
add_library(allocation_counter OBJECT ${CMAKE_SOURCE_DIR}/tests/support/allocation_counter.cpp)
target_include_directories(allocation_counter PUBLIC ${CMAKE_SOURCE_DIR}/tests/support)
