# Cross-build for 64-bit Windows with mingw-w64 (Debian packages
# g++-mingw-w64-x86-64 and binutils-mingw-w64-x86-64), run under Wine.
#
# The posix thread model gives the standard library its std::mutex and
# std::thread. Every program links the C++ runtime and winpthread
# statically, so Wine needs no mingw DLL beside it; the tests and the host
# run through scripts/wine-run, the cross-compiling emulator.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(mingw_prefix x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${mingw_prefix}-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw_prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${mingw_prefix}-windres)
set(QBSMTP_WINDMC ${mingw_prefix}-windmc CACHE FILEPATH "windmc of the cross toolchain")
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)

set(CMAKE_FIND_ROOT_PATH /usr/${mingw_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
