# orvel_add_test(NAME SOURCES file... LIBS lib... [LABELS label...])
# Builds one GoogleTest executable and registers each of its tests with CTest.
include_guard(GLOBAL)

if(ORVEL_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

function(orvel_add_test name)
  if(NOT ORVEL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES LABELS "${T_LABELS}" TIMEOUT 300)
endfunction()
