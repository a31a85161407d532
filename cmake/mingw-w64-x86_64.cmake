# Cross-builds ferrolt.exe for 64-bit Windows with Debian's MinGW-w64 and runs
# what it builds under Wine. The -posix compilers: the win32 thread model has
# no std::thread.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(mingw_prefix x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${mingw_prefix}-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw_prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${mingw_prefix}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${mingw_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The C and C++ runtimes and winpthreads go into every .exe, so none needs a
# DLL beside it; only the system's own DLLs are imported.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

find_program(FERROLT_WINE wine)
if(FERROLT_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${FERROLT_WINE})
endif()
