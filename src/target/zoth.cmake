# The installation database client (loaded library orvel_zoth from tools/zoth) and the
# locating and validating of the installed application.
target_sources(orvel_target PRIVATE
  InstalledApp.cpp KVRService.cpp KVRServiceLoader.cpp LocateInstalledApplication.cpp
  ZOTHService.cpp)
target_link_libraries(orvel_target PRIVATE ${CMAKE_DL_LIBS})

if(ORVEL_BUILD_TESTS)
  # Against the real library and databases made by zothctl.
  orvel_add_test(zoth_client_tests
    SOURCES KVRServiceLoaderTest.cpp ZOTHServiceTest.cpp LocateInstalledApplicationTest.cpp
    LIBS orvel_target orvel_test_support SQLite::SQLite3)
  target_compile_definitions(zoth_client_tests PRIVATE
    ZOTH_LIBRARY_PATH="$<TARGET_FILE:orvel_zoth>" ZOTHCTL_PATH="$<TARGET_FILE:zothctl>")
  add_dependencies(zoth_client_tests orvel_zoth zothctl)
endif()
