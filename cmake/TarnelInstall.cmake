# Installs the library, its headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS tarnel64 EXPORT tarnel64Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tarnel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tarnel64Targets NAMESPACE tarnel64:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarnel64)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/tarnel64Config.cmake.in
  ${PROJECT_BINARY_DIR}/tarnel64Config.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarnel64)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarnel64ConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarnel64Config.cmake ${PROJECT_BINARY_DIR}/tarnel64ConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarnel64)

# The pkg-config file finds the prefix from its own place, so that an installed
# tree still works after it has been moved (folders given as absolute paths stay).
file(RELATIVE_PATH TARNEL_PC_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TARNEL_PC_PREFIX "${TARNEL_PC_PREFIX}")
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(TARNEL_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(TARNEL_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/tarnel64.pc.in ${PROJECT_BINARY_DIR}/tarnel64.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarnel64.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
