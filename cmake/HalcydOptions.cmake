# Compiler flags shared by every target of ours. Link halcyd_options PRIVATE.
add_library(halcyd_options INTERFACE)

target_compile_definitions(halcyd_options INTERFACE
  UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOMINMAX _WIN32_WINNT=0x0A00 NTDDI_VERSION=0x0A000000
  __USE_MINGW_ANSI_STDIO=0)
target_include_directories(halcyd_options INTERFACE "${CMAKE_SOURCE_DIR}")
target_compile_options(halcyd_options INTERFACE
  $<$<COMPILE_LANGUAGE:C,CXX>:-Wall;-Wextra;-Werror;-fstack-protector-strong>
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion;-Wsign-conversion;-Wshadow;-Wold-style-cast;-Wno-non-virtual-dtor;-Wno-attributes>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety;-Wno-missing-braces>)
target_compile_definitions(halcyd_options INTERFACE
  $<$<CONFIG:Release>:_FORTIFY_SOURCE=2> _GLIBCXX_ASSERTIONS)
target_link_options(halcyd_options INTERFACE -static -municode -fstack-protector-strong
  # Sections that lie on page boundaries in the file are mapped into a process; others have to be read into memory of its own.
  -Wl,--file-alignment=4096)

if(CMAKE_BUILD_TYPE STREQUAL "Release")
  # -O2 everywhere; assert() stays out of the shipped binary, _GLIBCXX_ASSERTIONS stays in.
  # The second compiler is there for its warnings, its lock analysis and the unit tests: it need not optimise.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    set(optimisation "-O0")
  else()
    set(optimisation "-O2")
  endif()
  set(CMAKE_CXX_FLAGS_RELEASE "${optimisation} -DNDEBUG")
  set(CMAKE_C_FLAGS_RELEASE "${optimisation} -DNDEBUG")
endif()

# Test programs are compiled many times and run once; what they test keeps its own flags.
add_library(halcyd_test_options INTERFACE)
target_link_libraries(halcyd_test_options INTERFACE halcyd_options)
target_compile_options(halcyd_test_options INTERFACE -O0 -U_FORTIFY_SOURCE)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_C_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
    "CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime"
    "CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}" "CCACHE_NOHASHDIR=true"
    "CCACHE_DEPEND=true" # takes the compiler's word for what a file includes: a cold build preprocesses nothing twice
    "${CCACHE_PROGRAM}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_C_COMPILER_LAUNCHER}")
endif()

# halcyd_pch(target header...): precompiled headers where they are switched on.
function(halcyd_pch target)
  if(HALCYD_PCH)
    target_precompile_headers(${target} PRIVATE ${ARGN})
    # What the compiler cache asks for to keep objects that were built with them.
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fpch-preprocess>
      "$<$<COMPILE_LANG_AND_ID:CXX,Clang>:SHELL:-Xclang -fno-pch-timestamp>")
  endif()
endfunction()
