# libFuzzer targets of the reliability harness, included by the top-level
# CMakeLists.txt when FLOWTABLES_FUZZ is on. Needs clang; the preset has it:
#   cmake --preset fuzz && cmake --build --preset fuzz && ctest --preset fuzz
# builds the targets (target `fuzz`) and runs each for a few seconds.
# The library is instrumented for coverage and ASan; each target links
# libFuzzer's main. `stress corpus <dir>` writes the seed corpora.
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "FLOWTABLES_FUZZ needs clang: configure with -DCMAKE_CXX_COMPILER=clang++")
endif()
target_compile_options(flowtables PRIVATE -fsanitize=fuzzer-no-link,address)
# clang leaves the ASan runtime out of a shared library: every program that
# links the instrumented library must bring it.
target_link_options(flowtables PUBLIC -fsanitize=address)

set(FUZZ_DIR ${PROJECT_SOURCE_DIR}/tests/stress/fuzz)
set(FUZZ_CORPUS ${PROJECT_BINARY_DIR}/fuzz-corpus)
set(FUZZ_STREP_TYPES
    IpFlowKey Ip6FlowKey HoIpFlowKey HoIp6FlowKey HosStateCounterKey
    HoIpFlowConfig HoIp6FlowConfig HoIpFlowStatus HoIp6FlowStatus
    HoIpFlowCounter HoIp6FlowCounter HosStateCounterEntry)

set(FUZZ_SECONDS 8 CACHE STRING "Seconds each fuzz.* test runs its target")
add_custom_target(fuzz)
add_dependencies(fuzz stress)

# A target and its short run (long runs are in README "Reliability"). With
# SEEDED, its seed corpus is committed beside it (corpus/<name>/) and new
# inputs go to the build's corpus directory, named first, so the source tree
# is never written; without, `stress corpus` writes the seeds (fixture).
function(flowtables_fuzz_target name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "SEEDED" "" "")
  add_executable(${name} ${ARG_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address)
  target_link_libraries(${name} PRIVATE flowtables GTest::gtest)
  add_dependencies(fuzz ${name})
  set(corpora ${FUZZ_CORPUS}/${name})
  if(ARG_SEEDED)
    file(MAKE_DIRECTORY ${FUZZ_CORPUS}/${name})
    list(APPEND corpora ${FUZZ_DIR}/corpus/${name})
  endif()
  add_test(NAME fuzz.${name}
           COMMAND ${name} -max_total_time=${FUZZ_SECONDS} -max_len=4096 ${corpora})
  set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT 120)
  if(NOT ARG_SEEDED)
    set_tests_properties(fuzz.${name} PROPERTIES FIXTURES_REQUIRED fuzz_corpus)
  endif()
endfunction()

foreach(type IN LISTS FUZZ_STREP_TYPES)
  flowtables_fuzz_target(fuzz_strep_${type} ${FUZZ_DIR}/strep_fuzz.cpp)
  target_compile_definitions(fuzz_strep_${type} PRIVATE FUZZ_TYPE=FlowTracking::${type})
endforeach()
flowtables_fuzz_target(fuzz_reader_attach ${FUZZ_DIR}/reader_fuzz.cpp
                       ${PROJECT_SOURCE_DIR}/tests/stress/Stress.cpp)
# The change queue's reader over damaged queue files.
flowtables_fuzz_target(fuzz_queue_reader SEEDED ${FUZZ_DIR}/queue_fuzz.cpp)
# The wake-up socket's messages, reassembled from a real socket.
flowtables_fuzz_target(fuzz_rusk_wire SEEDED ${FUZZ_DIR}/wire_fuzz.cpp)

add_test(NAME fuzz.corpus COMMAND stress corpus --dir ${FUZZ_CORPUS})
set_tests_properties(fuzz.corpus PROPERTIES FIXTURES_SETUP fuzz_corpus)
