# The exported symbols of one shared library against their record in abi/.
#
#   cmake -DNM=<nm> -DLIBRARY=<lib.so> -DLIST=<abi/lib.symbols> [-DUPDATE=ON] -P ExportedSymbols.cmake
#
# The record holds the demangled names that `nm -D --defined-only` lists,
# sorted, one a line, under a comment header. Without UPDATE the run fails,
# naming every added and removed symbol, when the library and the record
# differ; with UPDATE it rewrites the record. Symbols that a sanitizer build
# adds on its own (__asan*, __ubsan*, __odr_asan*) are not interface.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} -D --defined-only -C ${LIBRARY}
                OUTPUT_VARIABLE listing RESULT_VARIABLE status ERROR_VARIABLE problem)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}: ${problem}")
endif()
string(REPLACE "\n" ";" lines "${listing}")
set(actual "")
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-f]* *[A-Za-z] (.+)$")
    set(name "${CMAKE_MATCH_1}")
    if(NOT name MATCHES "^_*(asan|ubsan|odr_asan)")
      list(APPEND actual "${name}")
    endif()
  endif()
endforeach()
list(SORT actual)
list(REMOVE_DUPLICATES actual)

get_filename_component(libraryName ${LIST} NAME_WE)
if(UPDATE)
  string(JOIN "\n" body ${actual})
  file(WRITE ${LIST} "# Exported symbols of ${libraryName}.so (nm -D --defined-only -C), sorted.\n"
                     "# A change is deliberate: rewrite with `cmake --build BUILD --target abi-symbols`.\n"
                     "${body}\n")
  return()
endif()

file(STRINGS ${LIST} recorded REGEX "^[^#]")
list(SORT recorded)
set(added ${actual})
set(removed ${recorded})
if(recorded)
  list(REMOVE_ITEM added ${recorded})
endif()
if(actual)
  list(REMOVE_ITEM removed ${actual})
endif()
if(added OR removed)
  string(JOIN "\n  + " addedText "" ${added})
  string(JOIN "\n  - " removedText "" ${removed})
  message(FATAL_ERROR "The exported symbols of ${LIBRARY} differ from ${LIST}:${addedText}${removedText}\n"
                      "If the change is deliberate, record it: cmake --build BUILD --target abi-symbols")
endif()
list(LENGTH actual count)
message(STATUS "${LIBRARY}: its ${count} exported symbols match ${LIST}")
