# add_lab_shim(name SOURCES file... [ATTACH function] [LIBRARIES library...])
#
# Builds <name>.dll, a stand-in for the platform DLL of that name: what the sources replace with SHIM_EXPORT is theirs,
# all other exports of Wine's DLL are forwarded by generated thunks. `function` is called when the DLL is loaded.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_path(WINE_DLL_FOLDER iphlpapi.dll NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED PATHS
  /usr/lib/x86_64-linux-gnu/wine/x86_64-windows /usr/lib/wine/x86_64-windows /usr/lib64/wine/x86_64-windows)

function(add_lab_shim name)
  cmake_parse_arguments(PARSE_ARGV 1 shim "" "ATTACH" "SOURCES;LIBRARIES")
  set(thunks "${CMAKE_CURRENT_BINARY_DIR}/${name}_thunks.c")
  set(definition "${CMAKE_CURRENT_BINARY_DIR}/${name}.def")
  list(TRANSFORM shim_SOURCES PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/" OUTPUT_VARIABLE paths)
  add_custom_command(OUTPUT "${thunks}" "${definition}"
    COMMAND "${Python3_EXECUTABLE}" "${CMAKE_CURRENT_SOURCE_DIR}/make_thunks.py"
      --builtin "${WINE_DLL_FOLDER}/${name}.dll" --attach "${shim_ATTACH}"
      --source "${thunks}" --definition "${definition}" ${paths}
    DEPENDS make_thunks.py "${WINE_DLL_FOLDER}/${name}.dll" ${paths}
    COMMENT "Thunks of ${name}.dll" VERBATIM)
  add_library(shim_${name} SHARED ${shim_SOURCES} Shim.cpp "${thunks}" "${definition}")
  set_target_properties(shim_${name} PROPERTIES PREFIX "" OUTPUT_NAME "${name}" ARCHIVE_OUTPUT_NAME "shim_${name}")
  target_link_libraries(shim_${name} PRIVATE LabState halcyd_options ${shim_LIBRARIES})
  add_dependencies(LabShims shim_${name})
endfunction()
