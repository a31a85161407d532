# What `cmake --install` puts in place, and so what the packages hold. On
# Linux: both programs, libferrolt with its header, pkg-config file and Python
# package, the udev rule, the man pages, bash completion, the Wireshark
# dissector, README and licence. On Windows (the zip): ferrolt.exe and
# ferrolt.dll with its import library, header and Python package, beside
# their texts and the dissector.
include(GNUInstallDirs)

# An id of the device as udev and lsusb show it: four lower-case hex digits,
# no 0x. The cache variable may be written in hex (0x...) or decimal.
function(ferrolt_usb_id_text id out)
  math(EXPR number "${id}")
  if(number LESS 0 OR number GREATER 65535)
    message(FATAL_ERROR "USB id ${id} is not a 16-bit number")
  endif()
  math(EXPR hex "${number} + 65536" OUTPUT_FORMAT HEXADECIMAL)
  # 0x1xxxx: the added 65536 keeps the leading zeros.
  string(SUBSTRING "${hex}" 3 4 hex)
  string(TOLOWER "${hex}" hex)
  set(${out} "${hex}" PARENT_SCOPE)
endfunction()
ferrolt_usb_id_text("${FERROLT_VENDOR_ID}" FERROLT_USB_VENDOR)
ferrolt_usb_id_text("${FERROLT_PRODUCT_ID}" FERROLT_USB_PRODUCT)

set(packaging_source ${PROJECT_SOURCE_DIR}/packaging)
set(packaging_binary ${PROJECT_BINARY_DIR}/packaging)

if(WIN32)
  # Notepad shows the text with Windows line ends.
  configure_file(${packaging_source}/windows/WinUSB.txt ${packaging_binary}/WinUSB.txt @ONLY NEWLINE_STYLE WIN32)
  install(TARGETS ferrolt ferrolt_library RUNTIME DESTINATION . ARCHIVE DESTINATION .)
  install(FILES ${PROJECT_SOURCE_DIR}/api/include/ferrolt/ferrolt.h DESTINATION .)
  # The Python package beside ferrolt.dll, which it loads from there: with
  # the unpacked folder on PYTHONPATH, `import ferrolt` works as it stands.
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/api/python/ferrolt DESTINATION .
    FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
  install(FILES ${packaging_binary}/WinUSB.txt ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION .)
  # The Wireshark dissector, and where to put it.
  configure_file(${packaging_source}/windows/Wireshark.txt ${packaging_binary}/Wireshark.txt @ONLY NEWLINE_STYLE WIN32)
  install(FILES ${packaging_source}/wireshark/ferrolt.lua ${packaging_binary}/Wireshark.txt DESTINATION .)
  # ferrolt.exe holds hidapi's Windows backend, taken under its BSD-style
  # licence, whose notice goes with every copy.
  install(FILES ${FERROLT_HIDAPI_SOURCE}/LICENSE-bsd.txt DESTINATION . RENAME hidapi-LICENSE.txt)
  return()
endif()

install(TARGETS ferrolt ferrolt-devsim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The library: its runtime file and SONAME link, the link for linking, the
# header and the pkg-config file; and the Python package on it, where the
# system's python3 looks (Debian: /usr/lib/python3/dist-packages).
install(TARGETS ferrolt_library LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/api/include/ferrolt/ferrolt.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ferrolt)
install(FILES ${PROJECT_BINARY_DIR}/api/ferrolt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(FERROLT_PYTHON_DIR "lib/python3/dist-packages" CACHE STRING "Where the Python package ferrolt is installed")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/api/python/ferrolt DESTINATION ${FERROLT_PYTHON_DIR}
  FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)

# udev reads /usr/lib/udev/rules.d and /etc/udev/rules.d, not /usr/local.
configure_file(${packaging_source}/udev/70-ferrolt.rules.in ${packaging_binary}/70-ferrolt.rules @ONLY)
install(FILES ${packaging_binary}/70-ferrolt.rules DESTINATION lib/udev/rules.d)

# Man pages are installed compressed, as Debian keeps them; -n leaves the
# time out, so a rebuild gives the same bytes.
set(man_pages)
foreach(page ferrolt.1 ferrolt-devsim.1)
  configure_file(${packaging_source}/man/${page}.in ${packaging_binary}/${page} @ONLY)
  add_custom_command(OUTPUT ${packaging_binary}/${page}.gz
    COMMAND gzip -9nkf ${page}
    DEPENDS ${packaging_binary}/${page}
    WORKING_DIRECTORY ${packaging_binary}
    VERBATIM)
  list(APPEND man_pages ${packaging_binary}/${page}.gz)
endforeach()
add_custom_target(ferrolt_man_pages ALL DEPENDS ${man_pages})
install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The Wireshark dissector, where Wireshark loads Lua plugins for every user
# ("Global Lua Plugins" in tshark -G folders: on Debian,
# /usr/lib/<multiarch>/wireshark/plugins, the same for every version).
install(FILES ${packaging_source}/wireshark/ferrolt.lua
  DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)

install(FILES ${packaging_source}/bash-completion/ferrolt
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})

# What Debian wants beside them: the licence as a machine-readable copyright
# file, and a changelog, compressed as man pages are (-n: the same bytes at
# every build). The changelog's entry is signed by the package's maintainer.
set(FERROLT_DEB_MAINTAINER "The ferrolt developers <ferrolt@example.org>"
  CACHE STRING "The .deb's Maintainer: a name and an address in angle brackets")
configure_file(${packaging_source}/deb/changelog.in ${packaging_binary}/changelog @ONLY)
add_custom_command(OUTPUT ${packaging_binary}/changelog.gz
  COMMAND gzip -9nkf changelog
  DEPENDS ${packaging_binary}/changelog
  WORKING_DIRECTORY ${packaging_binary}
  VERBATIM)
add_custom_target(ferrolt_changelog ALL DEPENDS ${packaging_binary}/changelog.gz)
install(FILES ${packaging_binary}/changelog.gz ${packaging_source}/deb/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
