# Third-party code comes only from Debian: googletest from its source package folder,
# header-only libraries through folders that expose exactly one library each (never all of
# /usr/include, whose glibc headers would shadow mingw's), and libraries cross-built by
# scripts/setup into TESSEL_DEPS_PREFIX.

# GoogleTest, cross-built with the project.
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(gtest_disable_pthreads ON CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/third_party/googletest EXCLUDE_FROM_ALL SYSTEM)

# Header-only libraries from /usr/include, one link each.
set(_single_include_root ${CMAKE_BINARY_DIR}/third_party/include)
foreach(_lib IN ITEMS boost fmt rapidjson)
  file(MAKE_DIRECTORY ${_single_include_root}/${_lib})
  if(NOT EXISTS ${_single_include_root}/${_lib}/${_lib})
    file(CREATE_LINK /usr/include/${_lib} ${_single_include_root}/${_lib}/${_lib} SYMBOLIC)
  endif()
endforeach()

add_library(third_party_boost INTERFACE)
target_include_directories(third_party_boost SYSTEM INTERFACE ${_single_include_root}/boost)

add_library(third_party_fmt INTERFACE)
target_include_directories(third_party_fmt SYSTEM INTERFACE ${_single_include_root}/fmt)
target_compile_definitions(third_party_fmt INTERFACE FMT_HEADER_ONLY)

# RapidJSON: only the JSON benchmark links it, as the reference it is measured against.
add_library(third_party_rapidjson INTERFACE)
target_include_directories(third_party_rapidjson SYSTEM INTERFACE ${_single_include_root}/rapidjson)

# Libraries cross-built from Debian's source packages by scripts/setup (imported targets'
# include folders count as system folders, so their headers raise no warnings).
add_library(third_party_lz4 STATIC IMPORTED GLOBAL)
set_target_properties(third_party_lz4 PROPERTIES
  IMPORTED_LOCATION ${TESSEL_DEPS_PREFIX}/lib/liblz4.a
  INTERFACE_INCLUDE_DIRECTORIES ${TESSEL_DEPS_PREFIX}/include)

add_library(third_party_freetype STATIC IMPORTED GLOBAL)
set_target_properties(third_party_freetype PROPERTIES
  IMPORTED_LOCATION ${TESSEL_DEPS_PREFIX}/lib/libfreetype.a
  INTERFACE_INCLUDE_DIRECTORIES ${TESSEL_DEPS_PREFIX}/include/freetype2)
