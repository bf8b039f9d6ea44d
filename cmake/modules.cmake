# orv_module(name SOURCES a.cc b.cc LINK libs...): the static library of one folder. The libraries
# it names are the folders to its left; they and the compiler settings reach whoever links it.
function(orv_module name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  if(ARG_SOURCES)
    add_library(${name} STATIC ${ARG_SOURCES})
    target_link_libraries(${name} PUBLIC orv_compiler ${ARG_LINK})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE orv_compiler ${ARG_LINK})
  endif()
endfunction()

# orv_test(name FOLDER folder | SOURCES a_test.cc ... LINK libs...): one GoogleTest binary, of every
# source of the folder; every TEST in it is a test of its own for ctest.
function(orv_test name)
  cmake_parse_arguments(ARG "" "FOLDER" "SOURCES;LINK" ${ARGN})
  if(ARG_FOLDER)
    # A test that nobody listed would pass unseen.
    file(GLOB ARG_SOURCES CONFIGURE_DEPENDS ${ARG_FOLDER}/*.cc)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINK} orv_test_support GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE
    ORV_SOURCE_DIR="${PROJECT_SOURCE_DIR}"
    ORV_SMTP_SERVER="${PROJECT_SOURCE_DIR}/tests/netproc/smtp_server.py")
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120)
endfunction()

# orv_bench(name SOURCES a_bench.cc LINK libs...): one Google Benchmark program.
function(orv_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LINK} benchmark::benchmark benchmark::benchmark_main)
endfunction()
