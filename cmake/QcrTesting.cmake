# qcr_add_test(NAME SOURCES ... LIBS ...): one GoogleTest binary registered with
# CTest test by test. Does nothing when tests are off.
if(QCR_BUILD_TESTS)
  enable_testing()
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

function(qcr_add_test name)
  if(NOT QCR_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  # Tests that run the built programs find them through these variables.
  target_compile_definitions(${name} PRIVATE
    QCR_BIN_DIR="${CMAKE_BINARY_DIR}/bin"
    QCR_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 30
                       PROPERTIES TIMEOUT 300)
endfunction()
