# add_delay_imports(target definition-file...)
#
# Makes an interface library whose functions are bound at their first call: the DLL is not loaded before. What is not
# listed in a definition file comes from the platform's own import library, which must stand behind this one.
find_program(DLLTOOL x86_64-w64-mingw32-dlltool REQUIRED)

function(add_delay_imports target)
  add_library(${target} INTERFACE)
  foreach(definition ${ARGN})
    get_filename_component(name "${definition}" NAME_WE)
    set(archive "${CMAKE_CURRENT_BINARY_DIR}/lib${name}_delayed.a")
    add_custom_command(OUTPUT "${archive}"
      COMMAND "${DLLTOOL}" -m i386:x86-64 -d "${CMAKE_CURRENT_SOURCE_DIR}/${definition}" -y "${archive}"
      DEPENDS "${definition}" COMMENT "Delayed imports of ${name}.dll" VERBATIM)
    list(APPEND archives "${archive}")
  endforeach()
  add_custom_target(${target}Files DEPENDS ${archives})
  add_dependencies(${target} ${target}Files)
  target_link_libraries(${target} INTERFACE ${archives})
endfunction()
