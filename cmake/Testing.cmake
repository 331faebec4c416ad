include(CTest)
include(GoogleTest)

# harborkeeper_unit_test(NAME name SOURCES a_test.cpp ...)
# One executable per area; every TEST becomes its own ctest entry.
function(harborkeeper_unit_test)
  if(NOT HARBORKEEPER_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE harborkeeper_core GTest::gmock GTest::gtest_main ${ARG_LIBRARIES})
  gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit TIMEOUT 120)
endfunction()
