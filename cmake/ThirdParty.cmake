# Header-only libraries of the distribution, reached through links inside the build tree so that the host's
# other headers stay out of the cross compiler's sight.
set(THIRD_PARTY_INCLUDE "${CMAKE_BINARY_DIR}/third_party/include")
file(MAKE_DIRECTORY "${THIRD_PARTY_INCLUDE}")
foreach(folder fmt CLI nlohmann spdlog)
  if(EXISTS "/usr/include/${folder}" AND NOT EXISTS "${THIRD_PARTY_INCLUDE}/${folder}")
    file(CREATE_LINK "/usr/include/${folder}" "${THIRD_PARTY_INCLUDE}/${folder}" SYMBOLIC)
  endif()
endforeach()

add_library(third_party INTERFACE)
target_include_directories(third_party SYSTEM INTERFACE "${THIRD_PARTY_INCLUDE}")
# Without a separator of its own {fmt} links the standard library's locales, half a megabyte that nothing here uses.
target_compile_definitions(third_party INTERFACE FMT_HEADER_ONLY=1 "FMT_STATIC_THOUSANDS_SEPARATOR=','" SPDLOG_FMT_EXTERNAL=1)

if(HALCYD_TESTS)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest "${CMAKE_BINARY_DIR}/third_party/googletest" EXCLUDE_FROM_ALL SYSTEM)
endif()
