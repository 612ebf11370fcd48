# Unit tests and end-to-end tests of zarnu-cloud; included from server/ZarnuCloud.

add_executable(zarnu-cloud-tests
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/CloudPathTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/FingerprintTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/WildcardTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/MetadataStoreTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/ListerTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/CommandLineTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/PartStoreTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/AccessTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/FaultInjectionEnv.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/FaultInjectionTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/cloud/unit/PartCollectorTest.cpp
)
target_link_libraries(zarnu-cloud-tests PRIVATE zarnu_cloud_core GTest::gtest GTest::gtest_main)
add_test(NAME cloud_unit COMMAND zarnu-cloud-tests)

add_test(NAME cloud_e2e COMMAND /usr/bin/python3 -m pytest -q ${CMAKE_SOURCE_DIR}/tests/cloud)
set_tests_properties(cloud_e2e PROPERTIES
  ENVIRONMENT "ZARNU_BIN_DIR=${CMAKE_BINARY_DIR}/bin"
  TIMEOUT 600)
