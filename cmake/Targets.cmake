# The functions by which folders add to the three libraries and to the tests.

# velt_sources(FILE...): adds files of this folder to libvelt.
function(velt_sources)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(velt_objects PRIVATE ${ARGN})
endfunction()

# platform_sources(FILE...): adds files of this folder to libveltplatform.
function(platform_sources)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(veltplatform_objects PRIVATE ${ARGN})
endfunction()

# With VELT_JOIN several sources are compiled as one, which halves the time of a tree that is built for one run. Files whose
# names would meet there stand alone.
option(VELT_JOIN "compile sources joined" OFF)

# velt_joined(TARGET): the sources of this target may be joined.
function(velt_joined target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${VELT_JOIN} UNITY_BUILD_BATCH_SIZE 16)
endfunction()

# velt_alone(TARGET FILE...): but not these, which are named from the folder that adds them.
function(velt_alone target)
  if(NOT TARGET ${target})  # a tree without tests
    return()
  endif()
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  set_source_files_properties(${ARGN} TARGET_DIRECTORY ${target} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

# Each test runs in a network namespace of its own: in the way of an emulator it stands before every test's command.
set(VELT_IN_EMPTY_NET ${PROJECT_SOURCE_DIR}/scripts/in-empty-net)

# Seconds after which a test hangs. What is watched is slow, and slower where the machine has other work.
if(VELT_SANITIZE OR VELT_COVERAGE)
  set(VELT_UNIT_LIMIT 600)
  set(VELT_SCENARIO_LIMIT 900)
else()
  set(VELT_UNIT_LIMIT 120)
  set(VELT_SCENARIO_LIMIT 240)
endif()

# velt_unit_test(NAME SOURCES FILE... LIBS TARGET...): one test program; each of its cases runs in a process of its own.
function(velt_unit_test name)
  if(NOT VELT_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  velt_joined(${name})
  if(VELT_SANITIZE)
    target_compile_options(${name} PRIVATE -O0)  # a third of the time; the code under test keeps its optimisation
  endif()
  target_link_libraries(${name} PRIVATE ${T_LIBS} velt_testmain GTest::gtest)
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR ${VELT_IN_EMPTY_NET})
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${VELT_UNIT_LIMIT} LABELS unit)
endfunction()

# velt_test(NAME FILE...): a unit test of velt/; it sees the hidden symbols too.
function(velt_test name)
  velt_unit_test(${name} SOURCES ${ARGN} LIBS velt_archive velt_testing)
endfunction()

# platform_test(NAME FILE...): a unit test of platform/; it sees the hidden symbols too.
function(platform_test name)
  velt_unit_test(${name} SOURCES ${ARGN} LIBS veltplatform_archive)
endfunction()
