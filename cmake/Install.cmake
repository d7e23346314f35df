# Installs the libraries, the public headers, a CMake package configuration
# (find_package(WzScanDB) -> WzScanDB::WzScanDB) and a pkg-config file.
#
# Only the headers a user of the library includes are installed, all under
# include/wzscandb/: the database class, its exported functions and record
# types, and what those headers include of the runtime, the table engine and
# the Lustre interface, plus the log writer (to route the library's log) and
# the error and field-type codes the interface returns. The engine's and the
# library's internals (TableImpl.h, LMDB, key codecs, error sites, test
# helpers) stay private, and so does the LMDB dependency.
include(CMakePackageConfigHelpers)

install(TARGETS WzRuntime LustreAPI WzTable WzScanDB
  EXPORT WzScanDBTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

set(WZ_PUBLIC_HEADERS
  WzScanDB/WzScanDB.h
  WzScanDB/WzScanDBExport.h
  WzScanDB/WzScanDBExports.h
  WzScanDB/WzScanDBPerformanceCounter.h
  WzScanDB/records/BackupTimeRecord.h
  WzScanDB/records/WzScanDBKeyGUID.h
  WzScanDB/records/WzScanDBLustreRecord.h
  WzScanDB/records/WzScanDBRecord.h
  WzScanDB/records/WzScanDBRecordBase.h
  platform/lustre/CLustreFID.h
  platform/lustre/GetFIDFromPath.h
  platform/lustre/LustreAPIExport.h
  platform/runtime/CKoError.h
  platform/runtime/CTimeCounter.h
  platform/runtime/FXCodeLocation.h
  platform/runtime/FXCriticalSection.h
  platform/runtime/FXErrorUtil.h
  platform/runtime/FXMutex.h
  platform/runtime/LogWriter.h
  platform/runtime/SPEnabled.h
  platform/runtime/WzRuntimeExport.h
  platform/runtime/WzThread.h
  platform/table/TCtreeTable.h
  platform/table/TFieldType.h
  platform/table/TKeyType.h
  platform/table/TableStatus.h
  platform/table/WzTableExport.h)
set(WZ_HEADER_DEST ${CMAKE_INSTALL_INCLUDEDIR}/${WZ_INCLUDE_SUBDIR})
foreach(header ${WZ_PUBLIC_HEADERS})
  string(REGEX REPLACE "^platform/" "" installed ${header})
  get_filename_component(folder ${installed} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${WZ_HEADER_DEST}/${folder})
endforeach()

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

# The list the install test checks the installed headers against.
string(REGEX REPLACE "platform/" "" WZ_INSTALLED_HEADERS "${WZ_PUBLIC_HEADERS}")
file(WRITE ${PROJECT_BINARY_DIR}/public-headers.txt "${WZ_INSTALLED_HEADERS}")
