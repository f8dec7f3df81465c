# Cross build for 64-bit Windows with Debian's mingw-w64 (POSIX threads
# variant, for std::thread and std::mutex) and Wine to run what it builds.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake ...
# Libraries that Debian does not ship for mingw-w64 (PCRE, Thrift) come from
# the prefix that scripts/setup-windows.sh builds: $TVU_MINGW_CACHE, by
# default $HOME/.cache/tvu-mingw.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TVU_MINGW_HOST x86_64-w64-mingw32)

set(CMAKE_C_COMPILER ${TVU_MINGW_HOST}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TVU_MINGW_HOST}-g++-posix)
set(CMAKE_RC_COMPILER ${TVU_MINGW_HOST}-windres)

if(NOT TVU_MINGW_CACHE)
  if(DEFINED ENV{TVU_MINGW_CACHE})
    set(TVU_MINGW_CACHE "$ENV{TVU_MINGW_CACHE}")
  else()
    set(TVU_MINGW_CACHE "$ENV{HOME}/.cache/tvu-mingw")
  endif()
endif()
set(TVU_MINGW_PREFIX "${TVU_MINGW_CACHE}/${TVU_MINGW_HOST}")
# Seen by the checks CMake compiles in separate projects too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TVU_MINGW_CACHE)

set(CMAKE_FIND_ROOT_PATH /usr/${TVU_MINGW_HOST} ${TVU_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)  # host tools (thrift, wine)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers from the cross prefix only, never from the host's .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "${TVU_MINGW_PREFIX}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Tests and tools built here run under Wine (64-bit), in a Wine prefix of
# their own beside the libraries, without Wine's debugging chatter and
# without the .NET and HTML engines it would offer to install.
find_program(TVU_WINE NAMES wine64 PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(TVU_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/env WINEPREFIX=${TVU_MINGW_CACHE}/wine WINEDEBUG=-all
      WINEDLLOVERRIDES=mscoree,mshtml= ${TVU_WINE})
endif()
