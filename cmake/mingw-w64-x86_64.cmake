# Cross-building for 64-bit Windows with Debian's mingw-w64 (POSIX threads).
#
# The third-party libraries come from a prefix that scripts/build-win64-deps
# fills: pass it as -DFRFCAM_WIN64_PREFIX=... or in the environment variable of
# the same name. Test programs run under Wine through tests/windows/wine-run.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(FRFCAM_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${FRFCAM_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${FRFCAM_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${FRFCAM_MINGW_TRIPLE}-windres)
set(CMAKE_AR ${FRFCAM_MINGW_TRIPLE}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${FRFCAM_MINGW_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "")

if(NOT FRFCAM_WIN64_PREFIX AND DEFINED ENV{FRFCAM_WIN64_PREFIX})
  set(FRFCAM_WIN64_PREFIX $ENV{FRFCAM_WIN64_PREFIX})
endif()
# try_compile projects read this file again and need the prefix too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES FRFCAM_WIN64_PREFIX)

set(CMAKE_FIND_ROOT_PATH /usr/${FRFCAM_MINGW_TRIPLE})
if(FRFCAM_WIN64_PREFIX)
  list(PREPEND CMAKE_FIND_ROOT_PATH ${FRFCAM_WIN64_PREFIX})
  list(APPEND CMAKE_PREFIX_PATH ${FRFCAM_WIN64_PREFIX})
  # pkg-config looks only at the target's libraries.
  set(ENV{PKG_CONFIG_LIBDIR} ${FRFCAM_WIN64_PREFIX}/lib/pkgconfig)
  set(ENV{PKG_CONFIG_PATH} "")
endif()
# Eigen is header-only, and protoc runs here: both are the build machine's
# Debian packages (protoc of the same version as the protobuf sources).
set(Eigen3_DIR /usr/share/eigen3/cmake CACHE PATH "")
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "")

# Programs (protoc) are the build machine's; libraries and headers the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

get_filename_component(FRFCAM_TOOLCHAIN_DIR ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${FRFCAM_TOOLCHAIN_DIR}/tests/windows/wine-run)
