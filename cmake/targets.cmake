# One library per floor: a library may link only what stands below it, so that a wrong include does not link.
function(kv_add_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
endfunction()

# What script/test builds of a preset when it does not build all: programs, benchmarks, tests by kind.
foreach(kind IN ITEMS programs benches unit_tests threaded_tests)
  add_custom_target(${kind})
endforeach()

# A GoogleTest program from every *_test.cpp of the calling folder. THREADED ones also run under ThreadSanitizer.
function(kv_add_folder_test name)
  cmake_parse_arguments(ARG "THREADED" "" "LIBS;EXTRA;EXCEPT" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*_test.cpp)
  if(ARG_EXCEPT)
    list(REMOVE_ITEM sources ${ARG_EXCEPT})
  endif()
  add_executable(${name} ${sources} ${ARG_EXTRA})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} kv_test_support GTest::gmock GTest::gtest GTest::gtest_main)
  set(label unit)
  add_dependencies(unit_tests ${name})
  if(ARG_THREADED)
    set(label unit-threaded)
    add_dependencies(threaded_tests ${name})
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120 LABELS ${label})
endfunction()
