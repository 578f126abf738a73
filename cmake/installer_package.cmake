# The Windows Installer package (res/installer/servercfg.wxs), made with Debian's wixl.
#
# tessel_installer_package(<target> OUTPUT <file.msi> VERSION <major.minor.build>)
#   builds the package of this build's program, console companion (when the build has the
#   target ulmora_cfg), language packs and third-party notices, with the given product version, and signs it with
#   the publisher's key (cmake/code_signing.cmake). The product's own package and the tests'
#   package of another version both come from here.

find_program(TESSEL_WIXL wixl REQUIRED)

function(tessel_installer_package target)
  cmake_parse_arguments(arg "" "OUTPUT;VERSION" "" ${ARGN})
  if(NOT arg_VERSION MATCHES "^([0-9]+)\\.([0-9]+)\\.([0-9]+)$")
    message(FATAL_ERROR "tessel_installer_package: VERSION must be major.minor.build, not '${arg_VERSION}'")
  endif()
  # Windows Installer compares three parts; the first version above this one's three.
  math(EXPR next_build "${CMAKE_MATCH_3} + 1")
  set(upgrade_below ${CMAKE_MATCH_1}.${CMAKE_MATCH_2}.${next_build})

  # wixl finds the files named in the source relative to its working folder only.
  set(bin ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  file(RELATIVE_PATH bin_relative ${CMAKE_BINARY_DIR} ${bin})
  get_target_property(icon servercfg TESSEL_APPLICATION_ICON)
  file(RELATIVE_PATH icon_relative ${CMAKE_BINARY_DIR} ${icon})

  # One component per language pack. A pack's file name carries its version, so a new
  # version is a new component (wixl derives the GUID from the path).
  get_target_property(packs localization_language_packs TESSEL_PACK_FILES)
  set(components "")
  set(references "")
  foreach(pack IN LISTS packs)
    get_filename_component(name ${pack} NAME)
    string(REGEX REPLACE "\\..*$" "" locale ${name})
    string(MAKE_C_IDENTIFIER ${locale} locale)
    string(APPEND components
      "      <Component Id=\"LanguagePack_${locale}\" Guid=\"*\" Win64=\"yes\">\n"
      "        <File Id=\"LanguagePack_${locale}\" Name=\"${name}\" Source=\"$(var.Bin)/languages/${name}\" KeyPath=\"yes\"/>\n"
      "      </Component>\n")
    string(APPEND references "      <ComponentRef Id=\"LanguagePack_${locale}\"/>\n")
  endforeach()
  set(include_folder ${CMAKE_CURRENT_BINARY_DIR}/${target})
  file(CONFIGURE OUTPUT ${include_folder}/language_packs.wxi CONTENT
"<?xml version=\"1.0\" encoding=\"utf-8\"?>
<!-- Made by the build from the language packs it makes. -->
<Include>
  <Fragment>
    <DirectoryRef Id=\"LanguagesFolder\">
${components}    </DirectoryRef>
    <ComponentGroup Id=\"LanguagePacks\">
${references}    </ComponentGroup>
  </Fragment>
</Include>
" @ONLY)

  # The console companion joins the package when the build has its target, wherever that is
  # defined (the expression is read once every folder is configured).
  set(has_console $<TARGET_EXISTS:ulmora_cfg>)

  # wixl ends with success also when it could not write the package: the package gets its
  # name only once it is there.
  get_filename_component(output_folder ${arg_OUTPUT} DIRECTORY)
  set(partial ${arg_OUTPUT}.partial)
  add_custom_command(
    OUTPUT ${arg_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${output_folder}
    COMMAND ${CMAKE_COMMAND} -E rm -f ${partial}
    COMMAND ${TESSEL_WIXL} -a x64 -D Version=${arg_VERSION}.0 -D UpgradeBelow=${upgrade_below}
            -D Bin=${bin_relative} -D Icon=${icon_relative}
            "$<${has_console}:-D;ConsoleCompanion=${bin_relative}/$<TARGET_FILE_NAME:ulmora_cfg>>"
            -I ${include_folder} -o ${partial} ${CMAKE_SOURCE_DIR}/res/installer/servercfg.wxs
    COMMAND ${CMAKE_COMMAND} -E rename ${partial} ${arg_OUTPUT}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    DEPENDS ${CMAKE_SOURCE_DIR}/res/installer/servercfg.wxs ${include_folder}/language_packs.wxi ${packs} ${icon}
            servercfg localization_language_packs "$<${has_console}:ulmora_cfg>"
            third_party_notices ${TESSEL_THIRD_PARTY_NOTICES}
    COMMENT "Building the Windows Installer package ${arg_VERSION}"
    COMMAND_EXPAND_LISTS VERBATIM)
  tessel_sign_file(${arg_OUTPUT})
  add_custom_target(${target} ALL DEPENDS ${arg_OUTPUT})
endfunction()
