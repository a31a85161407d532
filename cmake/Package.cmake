# `cpack` in a build folder: a .deb from a Linux build, a zip from the
# Windows (MinGW) build. Both hold what cmake/Install.cmake installs.
set(CPACK_PACKAGE_NAME ferrolt)
set(CPACK_PACKAGE_VENDOR "The ferrolt developers")
set(CPACK_PACKAGE_CONTACT "The ferrolt developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "administer a USB-attached embedded Linux device")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_RESOURCE_FILE_README ${PROJECT_SOURCE_DIR}/README.md)
set(CPACK_STRIP_FILES TRUE)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION utils)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${FERROLT_DEB_MAINTAINER}")
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Upgrades one USB-attached embedded Linux device, reads its version,\nfetches its logs, runs commands in a CLI session, moves files to and from\nit and runs its reliability test; with ferrolt-devsim, the device emulator.")
  # The library packages come from what the binaries link (dpkg-shlibdeps).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The Python package needs the system's python3; the libraries come on
  # top of it from what the binaries link.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3")
  # libferrolt.so.1: a shlibs file for the packages that link it, and
  # ldconfig run on install and removal, by dpkg's trigger (our postinst and
  # postrm stand where CPack would have put its ldconfig call).
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
  configure_file(${PROJECT_SOURCE_DIR}/packaging/deb/triggers ${PROJECT_BINARY_DIR}/packaging/deb/triggers COPYONLY)
  list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/deb/triggers)
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/PackageCheck.cmake)
  # One script as postinst and postrm: reload the udev rules.
  foreach(script postinst postrm)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/deb/reload-udev ${PROJECT_BINARY_DIR}/packaging/deb/${script} COPYONLY)
    list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/packaging/deb/${script})
  endforeach()
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
endif()

include(CPack)
