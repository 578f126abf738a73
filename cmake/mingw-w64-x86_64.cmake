# Cross toolchain: Debian's mingw-w64 (posix threads flavour) targeting Windows x64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(_triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER   ${_triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_triple}-g++-posix)
set(CMAKE_RC_COMPILER  ${_triple}-windres)
set(CMAKE_AR           /usr/bin/${_triple}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB       /usr/bin/${_triple}-gcc-ranlib-posix CACHE FILEPATH "")

# Libraries cross-built from Debian source packages land in this prefix (scripts/setup).
set(TESSEL_DEPS_PREFIX "" CACHE PATH "Prefix of the cross-built third-party libraries")

set(CMAKE_FIND_ROOT_PATH /usr/${_triple} ${TESSEL_DEPS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
