# kestrix_add_test_dir(NAME <exe> LABEL <label> LIBS <libs...>)
# Builds every *.cpp of the calling directory into one GoogleTest executable and registers each
# test case with CTest under the given label (unit, world, qt, pty, gui, e2e).
find_package(GTest REQUIRED)
include(GoogleTest)

function(kestrix_add_test_dir)
  cmake_parse_arguments(T "" "NAME;LABEL;TIMEOUT" "LIBS;ENV" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${T_NAME} ${sources})
  # A directory with its own main.cpp (Qt tests need an application object) brings its main.
  set(main_lib GTest::gtest_main)
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/main.cpp)
    set(main_lib "")
  endif()
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock ${main_lib}
                        kestrix_warnings kestrix_test_support)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  gtest_discover_tests(${T_NAME}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${T_ENV}")
endfunction()
