# Installs the header, both libraries, and what CMake's find_package and pkg-config look for.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(FILES ${PROJECT_SOURCE_DIR}/include/czelta.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS zelta zelta_static EXPORT zelta_targets
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/zelta)
install(EXPORT zelta_targets FILE zelta-targets.cmake NAMESPACE zelta::
  DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zelta-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/zelta-config.cmake
  ${PROJECT_BINARY_DIR}/zelta-config-version.cmake DESTINATION ${package_folder})

# Its paths begin at its own place, so that an installed tree can be moved.
file(RELATIVE_PATH include_from_pc
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zelta.pc.in ${PROJECT_BINARY_DIR}/zelta.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zelta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
