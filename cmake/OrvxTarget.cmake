# What every target of this project has in common, and the options of the whole build.

option(ORVX_WERROR "Treat warnings as errors" OFF)
set(ORVX_SANITIZE "" CACHE STRING "Sanitizers for everything, e.g. address,undefined or thread")
option(ORVX_COVERAGE "Instrument src for line coverage" OFF)
set(ORVX_EXPORTS "${CMAKE_CURRENT_LIST_DIR}/Exports.map")

function(orvx_target name)
  target_compile_features(${name} PUBLIC cxx_std_17)
  set_target_properties(${name} PROPERTIES
    CXX_EXTENSIONS OFF
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${name} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${ORVX_WERROR}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Wthread-safety-beta>)
  # In what ships, an object that is initialised before main() could be used before that: by a user's
  # static object that makes a client.
  file(RELATIVE_PATH folder "${PROJECT_SOURCE_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}")
  if(NOT folder MATCHES "^(tests|examples|benchmarks)")
    target_compile_options(${name} PRIVATE
      $<$<CXX_COMPILER_ID:Clang>:-Wglobal-constructors -Wreserved-identifier>)
  endif()
  get_target_property(type ${name} TYPE)
  if(NOT type STREQUAL "EXECUTABLE")
    # A symbol that is unique in the process keeps the object that defines it loaded for ever, and
    # with it a plug-in that this library is linked into. Only GCC makes them.
    target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
  endif()
  if(type STREQUAL "SHARED_LIBRARY")
    target_link_options(${name} PRIVATE "LINKER:--version-script=${ORVX_EXPORTS}")
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS "${ORVX_EXPORTS}")
  endif()
  if(ORVX_SANITIZE)
    target_compile_definitions(${name} PRIVATE ORVX_SANITIZED)
    target_compile_options(${name} PRIVATE -fsanitize=${ORVX_SANITIZE} -fno-omit-frame-pointer
      -fno-sanitize-recover=all
      # Takes a free file descriptor itself, and reports a wrong pointer when tests leave none.
      -fno-sanitize=vptr)
    target_link_options(${name} PUBLIC -fsanitize=${ORVX_SANITIZE})
  endif()
  if(ORVX_COVERAGE)
    if(folder MATCHES "^src")
      target_compile_options(${name} PRIVATE --coverage -fprofile-update=atomic)
    endif()
    target_link_options(${name} PUBLIC --coverage)
  endif()
endfunction()
