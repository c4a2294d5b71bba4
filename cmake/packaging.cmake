# Installation beyond the targets themselves (the module, the header and
# qbsmtp-host install where they are built): a pkg-config file, a CMake
# package for find_package(qbsmtp), the systemd unit, and CPack's .deb.
include(CMakePackageConfigHelpers)

set(QBSMTP_MODULE_FILE ${CMAKE_INSTALL_LIBDIR}/qbsmtp/QBSMTP.so)

# pkg-config: relative to the .pc file's own place, so the tree can be
# installed under any prefix (cmake --install --prefix, DESTDIR, the .deb).
file(RELATIVE_PATH pc_to_prefix
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
if(CMAKE_DL_LIBS)
  set(pc_dl_libs "-l${CMAKE_DL_LIBS}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/qbsmtp.pc.in ${PROJECT_BINARY_DIR}/qbsmtp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qbsmtp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

set(cmake_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qbsmtp)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qbsmtpConfig.cmake.in
  ${PROJECT_BINARY_DIR}/qbsmtpConfig.cmake
  INSTALL_DESTINATION ${cmake_package_dir}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR QBSMTP_MODULE_FILE)
# 0.x: a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qbsmtpConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qbsmtpConfig.cmake
  ${PROJECT_BINARY_DIR}/qbsmtpConfigVersion.cmake DESTINATION ${cmake_package_dir})

# The unit names the installed program; the path is fixed at install time
# so that it matches the prefix actually installed to.
if(QBSMTP_BUILD_TOOLS)
  set(unit_source ${PROJECT_SOURCE_DIR}/packaging/qbsmtp.service)
  set(unit_staged ${PROJECT_BINARY_DIR}/packaging/qbsmtp.service)
  install(CODE "
    file(READ \"${unit_source}\" unit)
    string(REPLACE \"/usr/bin/qbsmtp-host\"
      \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/qbsmtp-host\" unit \"\${unit}\")
    file(WRITE \"${unit_staged}\" \"\${unit}\")")
  install(FILES ${unit_staged} DESTINATION lib/systemd/system)
endif()

# cpack -G DEB
set(CPACK_PACKAGE_NAME qbsmtp)
set(CPACK_PACKAGE_VENDOR "QBSMTP")
set(CPACK_PACKAGE_CONTACT "QBSMTP maintainers <qbsmtp@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Internet mail gateway module of a fax server, with its host")
set(CPACK_PACKAGE_DESCRIPTION
  "QBSMTP.so runs an SMTP server that spools accepted mail, takes spooled messages apart into a record and files, and sends a record with its files to an SMTP relay. qbsmtp-host loads it and drives it from the command line or as a systemd service.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)  # the build keeps its debug information; the package needs none
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "media-types")
include(CPack)
