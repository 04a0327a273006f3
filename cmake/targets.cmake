# kestrune_room(NAME SOURCES ... USES ...): one room of the plugin as the static library ks_NAME, on the rooms
# below it. Headers are included from src/ ("storage/fhf_table.h").
function(kestrune_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;USES" ${ARGN})
  add_library(ks_${name} STATIC ${ROOM_SOURCES})
  target_compile_options(ks_${name} PRIVATE ${KESTRUNE_PLUGIN_OPTIONS})
  target_include_directories(ks_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  foreach(room IN LISTS ROOM_USES)
    target_link_libraries(ks_${name} PUBLIC ks_${room})
  endforeach()
endfunction()

# kestrune_test(NAME LABEL SOURCES ... LIBS ... [TIMEOUT s]): a GoogleTest program, registered with ctest under
# NAME. Exit status 77 or gtest's own skip is a visible skip. The test's own code is not optimised and its
# headers are compiled once for all, since its build is what takes time; what it tests keeps the preset's flags.
function(kestrune_test name label)
  cmake_parse_arguments(TEST "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT TEST_TIMEOUT)
    set(TEST_TIMEOUT 120)
  endif()
  add_executable(${name} ${TEST_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/src
                                             ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${TEST_LIBS} ks_test_support GTest::gtest GTest::gtest_main
                                        Threads::Threads)
  target_compile_options(${name} PRIVATE ${KESTRUNE_COLD_OPTIONS})
  target_compile_definitions(${name} PRIVATE ${KESTRUNE_TEST_DEFINITIONS})
  target_precompile_headers(${name} REUSE_FROM ks_test_headers)
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS ${label} TIMEOUT ${TEST_TIMEOUT} SKIP_RETURN_CODE 77)
endfunction()

set(KESTRUNE_TEST_DEFINITIONS KESTRUNE_BUILD_DIR="${CMAKE_BINARY_DIR}" KESTRUNE_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
