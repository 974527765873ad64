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

# velt_unit_test(NAME SOURCES FILE... LIBS TARGET...): one test program; each of its cases runs in a process of its own.
function(velt_unit_test name)
  if(NOT VELT_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} velt_testmain GTest::gtest)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120 LABELS unit)
endfunction()

# velt_test(NAME FILE...): a unit test of velt/; it sees the hidden symbols too.
function(velt_test name)
  velt_unit_test(${name} SOURCES ${ARGN} LIBS velt_archive velt_testing)
endfunction()

# platform_test(NAME FILE...): a unit test of platform/; it sees the hidden symbols too.
function(platform_test name)
  velt_unit_test(${name} SOURCES ${ARGN} LIBS veltplatform_archive)
endfunction()
