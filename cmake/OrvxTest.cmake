# Test programs: they share one precompiled header, are compiled in few translation units, and register
# their tests with ctest. Labels select tests in ctest and targets in the build.

# orvx_label(TARGET LABEL...): the target is built with orvx_tests_LABEL.
function(orvx_label target)
  foreach(label IN LISTS ARGN)
    if(NOT TARGET orvx_tests_${label})
      add_custom_target(orvx_tests_${label})
    endif()
    add_dependencies(orvx_tests_${label} ${target})
  endforeach()
endfunction()

# orvx_compile_together(TARGET): compiles the target's sources of this folder six at a time. The property
# UNITY_BUILD would do the same with absolute paths, for which ccache finds nothing in another clone.
function(orvx_compile_together target)
  get_target_property(sources ${target} SOURCES)
  list(FILTER sources INCLUDE REGEX "^[^/]+[.]cpp$")
  list(LENGTH sources count)
  if(count LESS 2)
    return()
  endif()
  set(number 0)
  while(sources)
    list(SUBLIST sources 0 6 batch)
    list(REMOVE_ITEM sources ${batch})
    set_source_files_properties(${batch} PROPERTIES HEADER_FILE_ONLY ON)
    list(TRANSFORM batch REPLACE "(.+)" "#include \"\\1\"\n" OUTPUT_VARIABLE includes)
    list(JOIN includes "" content)
    set(file ${CMAKE_CURRENT_BINARY_DIR}/${target}_${number}.cpp)
    file(CONFIGURE OUTPUT ${file} CONTENT "${content}" @ONLY)
    target_sources(${target} PRIVATE ${file})
    math(EXPR number "${number} + 1")
  endwhile()
  target_include_directories(${target} BEFORE PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()

# orvx_paths(TARGET [NAME PATH]...): the target's sources include Paths.h, which declares each path as
# orvx::paths::NAME. Only one generated source has the paths themselves. They differ in each clone, so
# ccache finds all other sources.
function(orvx_paths target)
  set(declarations "#pragma once\n\nnamespace orvx::paths {\n")
  set(definitions "#include \"Paths.h\"\n\nnamespace orvx::paths {\n")
  while(ARGN)
    list(POP_FRONT ARGN name path)
    string(APPEND declarations "extern const char* const ${name};\n")
    string(APPEND definitions "const char* const ${name} = \"${path}\";\n")
  endwhile()
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/${target}_paths)
  file(CONFIGURE OUTPUT ${folder}/Paths.h CONTENT "${declarations}}\n" @ONLY)
  file(GENERATE OUTPUT ${folder}/Paths.cpp CONTENT "${definitions}}\n")
  target_sources(${target} PRIVATE ${folder}/Paths.cpp)
  target_include_directories(${target} PRIVATE ${folder})
endfunction()

# orvx_gtest(TARGET [ALONE] [PREFIX PREFIX] [TIMEOUT SECONDS] [LABELS LABEL...] [OPTION_OF_gtest_discover_tests])
# ALONE: each source is compiled separately, as a user would compile it.
# The tests are listed when ctest starts, not by each build. A test has one label for ctest, which joins
# all labels with spaces, because gtest_discover_tests() takes no list.
function(orvx_gtest target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "ALONE" "PREFIX;TIMEOUT" "LABELS")
  orvx_label(${target} ${arg_LABELS})
  list(JOIN arg_LABELS " " labels)
  set_property(GLOBAL APPEND PROPERTY ORVX_TEST_PROGRAMS "$<TARGET_FILE:${target}> ${labels}")
  if(NOT arg_ALONE)
    target_precompile_headers(${target} REUSE_FROM orvx_test_headers)
    orvx_compile_together(${target})
  endif()
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  gtest_discover_tests(${target} TEST_PREFIX "${arg_PREFIX}" DISCOVERY_MODE PRE_TEST
    ${arg_UNPARSED_ARGUMENTS} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${labels}")
endfunction()

# orvx_command_test(NAME TARGET [LABELS LABEL...] [ARGUMENTS ARGUMENT...])
# A test that runs a program. It also has the label "command".
function(orvx_command_test name target)
  cmake_parse_arguments(PARSE_ARGV 2 arg "" "" "LABELS;ARGUMENTS")
  orvx_label(${target} ${arg_LABELS})
  list(JOIN arg_LABELS " " labels)
  add_test(NAME ${name} COMMAND ${target} ${arg_ARGUMENTS})
  set_tests_properties(${name} PROPERTIES LABELS "command ${labels}" TIMEOUT 300)
endfunction()

# Lists the test programs, each with its labels, for scripts that run a program as a whole.
function(orvx_list_test_programs)
  get_property(programs GLOBAL PROPERTY ORVX_TEST_PROGRAMS)
  list(JOIN programs "\n" lines)
  file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/tests/programs CONTENT "${lines}\n")
endfunction()
