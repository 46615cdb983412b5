# ztcore_add_module(<target> NAME <ModuleName>
#                   SOURCES <files...>
#                   [KIND <text>] [VERSION <x.y.z>] [DESCRIPTION <text>]
#                   [INTERFACE ZtMIStream|ZtMIExtended]
#                   [TRANSLATIONS <name>_<locale>.ts ...]
#                   [OUTPUT_DIRECTORY <dir>] [INSTALL_DESTINATION <dir>] [NO_INSTALL])
#
# Builds a module library: a MODULE library linked to ZtCore::core whose file is
# "<lower-cased NAME>.dll" on every platform (the kernel looks for exactly that name), with
# AUTOMOC on and the library's metadata generated from the arguments. The plug-in root object
# embeds that metadata with
#
#     Q_PLUGIN_METADATA(IID ZtLibLevelInterface_iid FILE "ztmodule.json")
#
# The file name is the same for every module: each target gets a folder of its own on its include
# path, where moc finds it. ZtModuleLibrary (<ztcore/ztmodulelibrary.h>) answers the library's
# questions from it, and ZtModuleMetaData reads it from a built library without running its code.
#
# TRANSLATIONS are compiled with lrelease to "<lower-cased NAME>_<locale>.qm" next to the library,
# the names ZtKernel::loadTranslations looks for; the locale is taken from the end of each .ts
# file name ("gain_de.ts" -> de, "gain_pt_BR.ts" -> pt_BR).
#
# The library (and its .qm files) is installed into INSTALL_DESTINATION, by default
# "<libdir>/ztcore/modules"; NO_INSTALL leaves it out of the install. The output folder is
# OUTPUT_DIRECTORY, else whatever the target's LIBRARY_OUTPUT_DIRECTORY says, also when it is set
# after this call.
function(ztcore_add_module target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "NO_INSTALL"
    "NAME;KIND;VERSION;DESCRIPTION;INTERFACE;OUTPUT_DIRECTORY;INSTALL_DESTINATION"
    "SOURCES;TRANSLATIONS")
  set(where "ztcore_add_module(${target})")
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${where}: unknown arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_NAME)
    message(FATAL_ERROR "${where}: NAME is missing: the module name, as the settings file's "
                        ".name entries spell it (the library file is its lower-cased form)")
  endif()
  if(NOT ARG_NAME MATCHES "^[A-Za-z0-9_]+$")
    message(FATAL_ERROR "${where}: NAME \"${ARG_NAME}\" must be letters, digits and '_' only")
  endif()
  if(NOT ARG_SOURCES)
    message(FATAL_ERROR "${where}: SOURCES is missing: list the module's sources and headers")
  endif()
  if(NOT ARG_INTERFACE)
    set(ARG_INTERFACE ZtMIStream)
  elseif(NOT ARG_INTERFACE MATCHES "^(ZtMIStream|ZtMIExtended)$")
    message(FATAL_ERROR
      "${where}: INTERFACE must be ZtMIStream or ZtMIExtended, not \"${ARG_INTERFACE}\"")
  endif()
  if(NOT ARG_KIND)
    set(ARG_KIND module)
  endif()
  if(NOT ARG_VERSION)
    set(ARG_VERSION 1.0.0)
  endif()
  if(NOT TARGET ZtCore::core)
    message(FATAL_ERROR "${where}: ZtCore::core is not known here; call find_package(ZtCore) "
                        "or add_subdirectory() the ZtCore sources first")
  endif()

  # lrelease is looked up before anything is created, so that a missing tool stops the
  # configure step with nothing half-made.
  if(ARG_TRANSLATIONS AND NOT TARGET Qt5::lrelease)
    find_package(Qt5LinguistTools QUIET)
    if(NOT TARGET Qt5::lrelease)
      message(FATAL_ERROR
        "${where}: TRANSLATIONS need Qt's lrelease, which was not found (Qt5LinguistTools; "
        "on Debian the package qttools5-dev). Install it or drop the TRANSLATIONS.")
    endif()
  endif()

  string(TOLOWER "${ARG_NAME}" file_name)
  set(meta_dir ${CMAKE_CURRENT_BINARY_DIR}/${target}_ztmodule)

  # The metadata, as JSON strings. Written only when it changes, so that an unchanged module is
  # not rebuilt by a new configure run.
  set(json "{\n")
  foreach(field name:NAME kind:KIND version:VERSION description:DESCRIPTION
                interfaceType:INTERFACE)
    string(REPLACE ":" ";" pair ${field})
    list(GET pair 0 key)
    list(GET pair 1 arg)
    set(value "${ARG_${arg}}")
    string(REPLACE "\\" "\\\\" value "${value}")
    string(REPLACE "\"" "\\\"" value "${value}")
    string(REPLACE "\n" "\\n" value "${value}")
    string(REPLACE "\t" "\\t" value "${value}")
    string(APPEND json "    \"${key}\": \"${value}\",\n")
  endforeach()
  # The version of ZtLibLevelInterface ("Zantor.ZtLibLevelInterface/1.2") the module is built for.
  string(APPEND json "    \"interfaceVersion\": \"1.2.0\"\n}\n")
  file(WRITE ${meta_dir}/ztmodule.json.new "${json}")
  configure_file(${meta_dir}/ztmodule.json.new ${meta_dir}/ztmodule.json COPYONLY)

  add_library(${target} MODULE ${ARG_SOURCES})
  target_link_libraries(${target} PRIVATE ZtCore::core)
  target_include_directories(${target} PRIVATE ${meta_dir})
  set_target_properties(${target} PROPERTIES
    PREFIX ""
    SUFFIX ".dll"
    OUTPUT_NAME ${file_name}
    AUTOMOC ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    ZTCORE_MODULE_NAME ${ARG_NAME})
  if(ARG_OUTPUT_DIRECTORY)
    set_target_properties(${target} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIRECTORY})
  endif()

  if(NOT ARG_INSTALL_DESTINATION)
    include(GNUInstallDirs)
    set(ARG_INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/ztcore/modules)
  endif()
  if(NOT ARG_NO_INSTALL)
    install(TARGETS ${target} LIBRARY DESTINATION ${ARG_INSTALL_DESTINATION})
  endif()

  if(NOT ARG_TRANSLATIONS)
    return()
  endif()
  # Each .ts becomes a .qm in the metadata folder; <target>_translations, part of the default
  # build, copies them next to the library, wherever its output folder ends up (naming the
  # library's folder makes it depend on the library).
  set(qm_files)
  foreach(ts IN LISTS ARG_TRANSLATIONS)
    get_filename_component(ts ${ts} ABSOLUTE)
    get_filename_component(ts_name ${ts} NAME_WE)
    if(NOT ts_name MATCHES "_([a-z][a-z][a-z]?(_[A-Z][A-Z])?)$")
      message(FATAL_ERROR "${where}: cannot tell the locale of ${ts}: name translation files "
                          "<anything>_<locale>.ts, e.g. ${file_name}_de.ts")
    endif()
    set(qm ${meta_dir}/${file_name}_${CMAKE_MATCH_1}.qm)
    add_custom_command(OUTPUT ${qm}
      COMMAND Qt5::lrelease -silent ${ts} -qm ${qm}
      DEPENDS ${ts}
      COMMENT "Compiling ${ts_name}.ts for ${ARG_NAME}"
      VERBATIM)
    list(APPEND qm_files ${qm})
  endforeach()
  add_custom_target(${target}_translations ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory $<TARGET_FILE_DIR:${target}>
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${qm_files} $<TARGET_FILE_DIR:${target}>
    DEPENDS ${qm_files}
    VERBATIM)
  if(NOT ARG_NO_INSTALL)
    install(FILES ${qm_files} DESTINATION ${ARG_INSTALL_DESTINATION})
  endif()
endfunction()
