# `cmake --install`: the libraries, their headers under include/qmutils/ and include/qmutils_print/,
# a CMake package (find_package(qmutils), targets qmutils::qmutils and qmutils::qmutils_print),
# pkg-config files, and the programs.

include(CMakePackageConfigHelpers)

install(TARGETS qmutils qmutils_print EXPORT qmutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The halves of the platform floor are internal, except for the basic types.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/qmutils/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qmutils
  FILES_MATCHING PATTERN "*.h" PATTERN "*.inc"
  PATTERN "platform/posix" EXCLUDE PATTERN "platform/win32" EXCLUDE)
if(WIN32)
  install(FILES ${PROJECT_SOURCE_DIR}/qmutils/platform/win32/types_win32.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qmutils/platform/win32)
else()
  install(FILES ${PROJECT_SOURCE_DIR}/qmutils/platform/posix/types_posix.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qmutils/platform/posix)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/qmutils_print/PageSetup.h
  ${PROJECT_SOURCE_DIR}/qmutils_print/CPdfDC.h ${PROJECT_SOURCE_DIR}/qmutils_print/CPrinterDC.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qmutils_print)

set(qmutils_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qmutils)
install(EXPORT qmutilsTargets NAMESPACE qmutils:: DESTINATION ${qmutils_package_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/qmutilsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qmutilsConfig.cmake INSTALL_DESTINATION ${qmutils_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qmutilsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qmutilsConfig.cmake
  ${PROJECT_BINARY_DIR}/qmutilsConfigVersion.cmake
  ${PROJECT_SOURCE_DIR}/cmake/QmutilsVersionInfo.cmake DESTINATION ${qmutils_package_dir})

foreach(name qmutils qmutils_print)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
