# The GoogleTest programs. Each is one ctest entry a shard, so that ctest -j runs them side by side without
# starting a process for every case.

# Tests are many and each runs briefly, so they are compiled without optimization; what computes (the model, the
# simulator) at -O1. One precompiled header serves each of the two kinds.
set(test_options "")
set(test_definitions "TESSEL_SOURCE_DIR=\"${PROJECT_SOURCE_DIR}\"")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 warns of bounds and overlaps inside std::string's operator+ that are not there.
  list(APPEND test_options -fpch-preprocess -Wno-array-bounds -Wno-restrict -Wno-stringop-overflow
                           -Wno-stringop-overread)
else()
  list(APPEND test_options "SHELL:-Xclang -fno-pch-timestamp")
endif()
if(TESSEL_SANITIZE)
  # The fuzzer steers by what it reaches in the programs, not in the tests.
  list(APPEND test_options -fno-sanitize=fuzzer-no-link)
endif()

file(WRITE ${CMAKE_BINARY_DIR}/test_pch.cpp "// Carries the precompiled header of the test programs.\n")
foreach(level O0 O1)
  add_library(tessel_test_pch_${level} OBJECT ${CMAKE_BINARY_DIR}/test_pch.cpp)
  target_compile_options(tessel_test_pch_${level} PRIVATE ${test_options} -${level})
  target_compile_definitions(tessel_test_pch_${level} PRIVATE ${test_definitions})
  target_link_libraries(tessel_test_pch_${level} PRIVATE GTest::gtest)
  target_precompile_headers(tessel_test_pch_${level} PRIVATE
    <gtest/gtest.h> <algorithm> <array> <chrono> <cstdint> <cstdlib> <cstring> <deque> <filesystem> <fstream>
    <functional> <map> <memory> <optional> <set> <span> <sstream> <string> <string_view> <unordered_map>
    <utility> <vector>)
endforeach()

# Gives a target of test code the common options and the precompiled header of a level, O0 or O1.
function(tessel_test_options name level)
  target_compile_options(${name} PRIVATE ${test_options} -${level})
  target_compile_definitions(${name} PRIVATE ${test_definitions})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE GTest::gtest)
  target_precompile_headers(${name} REUSE_FROM tessel_test_pch_${level})
endfunction()

# tessel_gtest(name label shards GLOBS ... LIBS ...): a test program from the globs.
function(tessel_gtest name label shards)
  cmake_parse_arguments(PARSE_ARGV 3 arg "" "" "GLOBS;LIBS")
  file(GLOB files CONFIGURE_DEPENDS ${arg_GLOBS})
  add_executable(${name} ${files})
  tessel_test_options(${name} O0)
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gtest_main)
  math(EXPR last "${shards} - 1")
  foreach(shard RANGE ${last})
    add_test(NAME ${name}.${shard} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name}.${shard} PROPERTIES
      ENVIRONMENT "GTEST_TOTAL_SHARDS=${shards};GTEST_SHARD_INDEX=${shard};GTEST_OUTPUT=xml:${CMAKE_BINARY_DIR}/junit/${name}.${shard}.xml;TESSEL_BIN=${CMAKE_BINARY_DIR};TESSEL_BUILD=${CMAKE_BINARY_DIR};TESSEL_SOURCE=${PROJECT_SOURCE_DIR}"
      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
      LABELS ${label})
  endforeach()
endfunction()

# Code shared by the whole-run tests and the simulator: simulated clock, byte sinks, receivers.
file(GLOB support_files CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/tests/support/*.cpp ${PROJECT_SOURCE_DIR}/tests/support/*/*.cpp)
add_library(tessel_test_support STATIC ${support_files})
target_include_directories(tessel_test_support PUBLIC ${PROJECT_SOURCE_DIR}/tests)
target_link_libraries(tessel_test_support PUBLIC tessel_app)
tessel_test_options(tessel_test_support O1)

set(unit_globs "")
foreach(floor ${floors})
  separate_arguments(folders UNIX_COMMAND ${floor})
  list(TRANSFORM folders REPLACE "(.+)" "${PROJECT_SOURCE_DIR}/tests/unit/\\1/*.cpp")
  list(APPEND unit_globs ${folders})
endforeach()
tessel_gtest(unit_tests unit 4 GLOBS ${unit_globs} LIBS tessel_test_support tessel_version)
tessel_gtest(integration_tests integration 4
  GLOBS ${PROJECT_SOURCE_DIR}/tests/integration/*_test.cpp
  LIBS tessel_test_support)

# One program for the unit tests of each tool.
foreach(tool ${tools_here})
  tessel_gtest(${tool}_tests unit 1
    GLOBS ${PROJECT_SOURCE_DIR}/tests/unit/${tool}/*_test.cpp
    LIBS tessel_test_support tessel_${tool}_lib)
endforeach()

# Makes the message reference, the test vectors and the dissector's tables from the layout table (scripts/generate);
# the test fails when a file in the tree is stale.
file(GLOB reference_files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/reference/*.cpp)
add_executable(tessel_reference ${reference_files})
tessel_test_options(tessel_reference O1)
target_link_libraries(tessel_reference PRIVATE tessel_test_support)
add_test(NAME build.generated_files COMMAND tessel_reference --check ${PROJECT_SOURCE_DIR})
set_tests_properties(build.generated_files PROPERTIES LABELS build)

# Writes what the market sends, for the comparison between compilers and machines.
add_executable(tessel_digest ${PROJECT_SOURCE_DIR}/tests/build/digest/digest_main.cpp)
target_link_libraries(tessel_digest PRIVATE tessel_engine)

# The simulator takes a seed and a length and reports the first violated invariant.
file(GLOB simulator_files CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/simulator/*.cpp)
add_executable(tessel_simulator ${simulator_files})
tessel_test_options(tessel_simulator O1)
target_link_libraries(tessel_simulator PRIVATE tessel_test_support)
# Sanitized runs take ten times as long.
set(simulator_runs 2000)
if(TESSEL_SANITIZE)
  set(simulator_runs 500)
endif()
add_test(NAME simulator.runs COMMAND tessel_simulator --runs ${simulator_runs})
add_test(NAME simulator.canaries
         COMMAND tessel_simulator --canaries --junit ${CMAKE_BINARY_DIR}/junit/simulator.canaries.xml)
set_tests_properties(simulator.runs simulator.canaries PROPERTIES LABELS simulator)
