# Installs the libraries, the public headers, a CMake package configuration
# (find_package(WzScanDB) -> WzScanDB::WzScanDB) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS WzRuntime LustreAPI WzTable WzScanDB
  EXPORT WzScanDBTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(WZ_HEADER_DEST ${CMAKE_INSTALL_INCLUDEDIR}/${WZ_INCLUDE_SUBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/runtime/ DESTINATION ${WZ_HEADER_DEST}/runtime
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/table/ DESTINATION ${WZ_HEADER_DEST}/table
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/lustre/ DESTINATION ${WZ_HEADER_DEST}/lustre
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/WzScanDB/ DESTINATION ${WZ_HEADER_DEST}/WzScanDB
  FILES_MATCHING PATTERN "*.h")

install(EXPORT WzScanDBTargets NAMESPACE WzScanDB::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/WzScanDB)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/WzScanDBConfig.cmake.in
  ${PROJECT_BINARY_DIR}/WzScanDBConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/WzScanDB)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/WzScanDBConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/WzScanDBConfig.cmake
  ${PROJECT_BINARY_DIR}/WzScanDBConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/WzScanDB)

configure_file(${PROJECT_SOURCE_DIR}/cmake/wzscandb.pc.in ${PROJECT_BINARY_DIR}/wzscandb.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/wzscandb.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
