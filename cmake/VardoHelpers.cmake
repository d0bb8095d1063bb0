# vardo_add_test(NAME SOURCES src... [LIBS lib...] [LABELS label...])
# One GoogleTest executable; its cases are registered with CTest one by one.
function(vardo_add_test name)
  if(NOT VARDO_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  # The test program's own main (tests/support/TestMain.cpp) starts the SDK log.
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE vardo_test_main ${ARG_LIBS} GTest::gtest GTest::gmock)
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    PROPERTIES LABELS "${ARG_LABELS}"
    DISCOVERY_TIMEOUT 60)
endfunction()

# vardo_add_benchmark(NAME SOURCES src... [LIBS lib...])
function(vardo_add_benchmark name)
  if(NOT VARDO_BUILD_BENCHMARKS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} benchmark::benchmark benchmark::benchmark_main)
endfunction()
