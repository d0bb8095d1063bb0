# vardo_add_test(NAME SOURCES src... [LIBS lib...] [LABELS label...] [FIXTURES fixture...])
# One GoogleTest executable; its cases are registered with CTest one by one,
# each requiring the CTest fixtures named.
function(vardo_add_test name)
  if(NOT VARDO_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS;FIXTURES" ${ARGN})
  # The test program's own main (tests/support/TestMain.cpp) starts the SDK log.
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE vardo_test_main ${ARG_LIBS} GTest::gtest GTest::gmock)
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
    PROPERTIES LABELS "${ARG_LABELS}" FIXTURES_REQUIRED "${ARG_FIXTURES}"
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

# vardo_library_interface(TARGET [install options...])
# The binary interface of one SDK shared library: its version and soname
# (lib<name>.so.1), the version script that keeps the compiler's by-products
# local (cmake/LocalRuntime.map), its installation into lib/ as part of the
# CMake package (VardoTools::<name>, headers in include/vardotools), and the
# test that fails when its exports, the declarations its headers mark
# OVRA_EXPORT, differ from their record in abi/lib<name>.symbols.
function(vardo_library_interface target)
  set(map ${PROJECT_SOURCE_DIR}/cmake/LocalRuntime.map)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS ${map})
  target_link_options(${target} PRIVATE "LINKER:--version-script=${map}")
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${VARDO_INSTALL_INCLUDEDIR}>)
  install(TARGETS ${target} EXPORT VardoToolsTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ${ARGN})

  # The target abi-symbols (top level) rewrites the records.
  if(VARDO_BUILD_TESTS)
    vardo_symbols_command(${target} OFF check)
    add_test(NAME ExportedSymbols.lib${target} COMMAND ${check})
    set_tests_properties(ExportedSymbols.lib${target} PROPERTIES LABELS abi)
  endif()
  set_property(GLOBAL APPEND PROPERTY VARDO_ABI_RECORDERS ${target})
endfunction()

# The command that compares (UPDATE OFF) or records (ON) TARGET's exports.
function(vardo_symbols_command target update out)
  set(${out} ${CMAKE_COMMAND} -DUPDATE=${update} -DNM=${CMAKE_NM} -DLIBRARY=$<TARGET_FILE:${target}>
      -DLIST=${PROJECT_SOURCE_DIR}/abi/lib${target}.symbols -P ${PROJECT_SOURCE_DIR}/cmake/ExportedSymbols.cmake
      PARENT_SCOPE)
endfunction()

# vardo_public_headers(BASE DIR HEADERS path... [C_HEADERS path...])
# Headers of the installed developer interface, each named by its path under
# DIR, which is how consumers include it. They are installed to
# include/vardotools/<path> and staged at the same place in the build tree,
# where each one is compiled alone (C_HEADERS also as C): a public header
# needs nothing but the other public headers and the system's.
function(vardo_public_headers)
  cmake_parse_arguments(ARG "" "BASE" "HEADERS;C_HEADERS" ${ARGN})
  foreach(header IN LISTS ARG_HEADERS ARG_C_HEADERS)
    get_filename_component(subdir "${header}" DIRECTORY)
    install(FILES ${ARG_BASE}/${header} DESTINATION ${VARDO_INSTALL_INCLUDEDIR}/${subdir})
    configure_file(${ARG_BASE}/${header} ${VARDO_STAGED_INCLUDEDIR}/${header} COPYONLY)
  endforeach()
  set_property(GLOBAL APPEND PROPERTY VARDO_PUBLIC_HEADERS ${ARG_HEADERS} ${ARG_C_HEADERS})
  set_property(GLOBAL APPEND PROPERTY VARDO_PUBLIC_C_HEADERS ${ARG_C_HEADERS})
endfunction()

# abi-symbols: rewrites abi/*.symbols from the libraries just built.
function(vardo_abi_symbols_target)
  get_property(targets GLOBAL PROPERTY VARDO_ABI_RECORDERS)
  set(commands "")
  foreach(target IN LISTS targets)
    vardo_symbols_command(${target} ON record)
    list(APPEND commands COMMAND ${record})
  endforeach()
  add_custom_target(abi-symbols ${commands} DEPENDS ${targets}
    COMMENT "Recording the exported symbols of the SDK libraries in abi/")
endfunction()
