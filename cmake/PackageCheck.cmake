# Read by cpack before it makes each package. Without dpkg-shlibdeps CPack
# would make a .deb that declares no dependencies at all: refuse instead.
if(CPACK_GENERATOR STREQUAL "DEB")
  find_program(FERROLT_SHLIBDEPS dpkg-shlibdeps)
  find_program(FERROLT_FILE file)
  if(NOT FERROLT_SHLIBDEPS OR NOT FERROLT_FILE)
    message(FATAL_ERROR "The .deb needs dpkg-shlibdeps and file to declare its dependencies: "
                        "apt-get install dpkg-dev file (or bash scripts/install-deps.sh --tests)")
  endif()
endif()
