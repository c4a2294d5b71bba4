# Cross-build for 32-bit Windows with mingw-w64 (Debian packages
# g++-mingw-w64-i686 and binutils-mingw-w64-i686).
#
# The posix thread model gives the standard library its std::mutex and
# std::thread; the module links libstdc++, libgcc and winpthread statically
# (src/CMakeLists.txt), so QBSMTP.dll needs nothing beyond system DLLs.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)

set(mingw_prefix i686-w64-mingw32)
set(CMAKE_C_COMPILER ${mingw_prefix}-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw_prefix}-g++-posix)
set(CMAKE_RC_COMPILER ${mingw_prefix}-windres)
set(QBSMTP_WINDMC ${mingw_prefix}-windmc CACHE FILEPATH "windmc of the cross toolchain")

set(CMAKE_FIND_ROOT_PATH /usr/${mingw_prefix})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
