# Third-party notices: ThirdPartyNotices.txt beside the program names the outside code in
# every file the product ships. res/notices assembles it from what those files are really
# made of, and its test checks the file against the same evidence:
#
# tessel_shipped_executable(<target>)
#   The executable is shipped: it writes a linker map, from which (with the compiler's
#   dependency files of the objects it names) its libraries and headers are known.
# tessel_shipped_embedded(<shipped file name> <file>...)
#   A shipped file that is not linked here carries these files whole (an installer's stub).
# tessel_shipped_nsis_log(<shipped file name> <makensis -V4 log>)
#   The log from which the test reads the stub and plugins an installer really took.

set(TESSEL_THIRD_PARTY_NOTICES ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/ThirdPartyNotices.txt)
set(TESSEL_LINK_MAP_DIR ${CMAKE_BINARY_DIR}/link-maps)
file(MAKE_DIRECTORY ${TESSEL_LINK_MAP_DIR})

function(tessel_shipped_executable target)
  target_link_options(${target} PRIVATE "LINKER:-Map=${TESSEL_LINK_MAP_DIR}/${target}.map")
  set_property(GLOBAL APPEND PROPERTY TESSEL_SHIPPED_EXECUTABLES ${target})
endfunction()

function(tessel_shipped_embedded name)
  foreach(file IN LISTS ARGN)
    set_property(GLOBAL APPEND PROPERTY TESSEL_SHIPPED_EMBEDDED "${name}|${file}")
  endforeach()
endfunction()

function(tessel_shipped_nsis_log name log)
  set_property(GLOBAL APPEND PROPERTY TESSEL_SHIPPED_NSIS_LOGS "${name}|${log}")
endfunction()
