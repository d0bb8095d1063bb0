# The installed developer interface: the CMake package VardoTools (targets
# VardoTools::vardotools, ::vardokms, ::ovrabase), the pkg-config file
# vardotools.pc, and the check that each public header compiles alone.
include(CMakePackageConfigHelpers)

set(VARDO_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VardoTools)
install(EXPORT VardoToolsTargets NAMESPACE VardoTools:: DESTINATION ${VARDO_PACKAGE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VardoToolsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VardoToolsConfig.cmake
  INSTALL_DESTINATION ${VARDO_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VardoToolsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VardoToolsConfig.cmake ${PROJECT_BINARY_DIR}/VardoToolsConfigVersion.cmake
  DESTINATION ${VARDO_PACKAGE_DIR})

# The .pc file finds the prefix from its own place, so the SDK tree can be
# installed under any prefix given at install time.
set(pkgconfigDir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH VARDO_PKGCONFIG_TO_PREFIX /prefix/${pkgconfigDir} /prefix)
string(REGEX REPLACE "/$" "" VARDO_PKGCONFIG_TO_PREFIX "${VARDO_PKGCONFIG_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/vardotools.pc.in ${PROJECT_BINARY_DIR}/vardotools.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vardotools.pc DESTINATION ${pkgconfigDir})

# Each public header alone in a translation unit, on the staged headers only.
if(VARDO_BUILD_TESTS)
  get_property(headers GLOBAL PROPERTY VARDO_PUBLIC_HEADERS)
  get_property(cHeaders GLOBAL PROPERTY VARDO_PUBLIC_C_HEADERS)
  set(sources "")
  foreach(header IN LISTS headers)
    string(MAKE_C_IDENTIFIER "${header}" stem)
    set(languages cpp)
    if(header IN_LIST cHeaders)
      list(APPEND languages c)
    endif()
    foreach(language IN LISTS languages)
      set(source ${PROJECT_BINARY_DIR}/header-check/${stem}.${language})
      file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${header}\"\n")
      list(APPEND sources ${source})
    endforeach()
  endforeach()
  add_library(vardo_header_check OBJECT ${sources})
  target_include_directories(vardo_header_check PRIVATE ${VARDO_STAGED_INCLUDEDIR})
  target_link_libraries(vardo_header_check PRIVATE glog::glog)
endif()
