# kestrix_add_test_dir(NAME <exe> LABEL <label> LIBS <libs...>)
# Builds every *.cpp of the calling directory into one GoogleTest executable and registers each
# test case with CTest under the given label (unit, world, store, win, qt, pty, gui, e2e).
include(GoogleTest)

if(CMAKE_CROSSCOMPILING)
  # GoogleTest built from Debian's sources (package googletest) with the cross compiler: the
  # installed libraries are for the build machine.
  set(KESTRIX_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources for cross builds")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(${KESTRIX_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
  foreach(lib gtest gtest_main gmock)
    if(NOT TARGET GTest::${lib})
      add_library(GTest::${lib} ALIAS ${lib})
    endif()
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()

if(WIN32 AND CMAKE_CROSSCOMPILING)
  # The tests run under Wine, in a prefix of this build's own (created on first use), through
  # build/<preset>/wine-run, which is also there for running the programs by hand.
  find_program(KESTRIX_WINE NAMES wine64 wine PATHS /usr/lib/wine REQUIRED)
  find_program(KESTRIX_WINESERVER NAMES wineserver64 wineserver PATHS /usr/lib/wine REQUIRED)
  set(KESTRIX_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.in ${CMAKE_BINARY_DIR}/wine-run
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                  WORLD_READ WORLD_EXECUTE
                 @ONLY)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)
endif()

function(kestrix_add_test_dir)
  # QT_APP Gui or Widgets: the tests need a Qt application object of that kind.
  cmake_parse_arguments(T "" "NAME;LABEL;TIMEOUT;QT_APP" "LIBS;ENV" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(NOT sources)
    return()
  endif()
  set(main_lib GTest::gtest_main)
  if(T_QT_APP)
    list(APPEND sources ${PROJECT_SOURCE_DIR}/tests/qt_main.cpp)
    set(main_lib "")
  endif()
  add_executable(${T_NAME} ${sources})
  if(T_QT_APP STREQUAL "Widgets")
    target_compile_definitions(${T_NAME} PRIVATE KESTRIX_TEST_WIDGETS)
  endif()
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock ${main_lib}
                        kestrix_warnings kestrix_test_support)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  if(CMAKE_CROSSCOMPILING_EMULATOR)
    # Each start of a program under Wine costs a second or more, so a program runs all its
    # cases in one go (one CTest test per program). One case alone:
    #   build/windows/wine-run build/windows/tests/world/test_world.exe --gtest_filter=Suite.Case
    add_test(NAME ${T_NAME} COMMAND ${T_NAME} --gtest_brief=1)
    set_tests_properties(${T_NAME} PROPERTIES LABELS ${T_LABEL} TIMEOUT 600 ENVIRONMENT "${T_ENV}")
  else()
    gtest_discover_tests(${T_NAME}
      DISCOVERY_MODE PRE_TEST
      PROPERTIES LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT} ENVIRONMENT "${T_ENV}")
  endif()
endfunction()
