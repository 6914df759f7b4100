# orvel_add_test(NAME SOURCES file... LIBS lib... [LABELS label...] [TIMEOUT seconds]
#                [COST n])
# Builds one GoogleTest executable and registers each of its tests with CTest. A COST makes
# a parallel ctest start the tests early (for long ones, so that they do not end a run
# alone).
include_guard(GLOBAL)

if(ORVEL_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

function(orvel_add_test name)
  if(NOT ORVEL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "TIMEOUT;COST" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 300)
  endif()
  set(properties TIMEOUT ${T_TIMEOUT})
  if(T_LABELS)
    list(APPEND properties LABELS "${T_LABELS}")
  endif()
  if(T_COST)
    list(APPEND properties COST ${T_COST})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
