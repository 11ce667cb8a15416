# libFuzzer targets of the reliability harness, included by the top-level
# CMakeLists.txt when FLOWTABLES_FUZZ is on. Needs clang:
#   cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DFLOWTABLES_FUZZ=ON \
#         -DFLOWTABLES_WERROR=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The library is instrumented for coverage and ASan; each target links
# libFuzzer's main. `stress corpus <dir>` writes the seed corpora.
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "FLOWTABLES_FUZZ needs clang: configure with -DCMAKE_CXX_COMPILER=clang++")
endif()
target_compile_options(flowtables PRIVATE -fsanitize=fuzzer-no-link,address)
target_link_options(flowtables PRIVATE -fsanitize=address)

set(FUZZ_DIR ${PROJECT_SOURCE_DIR}/tests/stress/fuzz)
set(FUZZ_CORPUS ${PROJECT_BINARY_DIR}/fuzz-corpus)
set(FUZZ_STREP_TYPES
    IpFlowKey Ip6FlowKey HoIpFlowKey HoIp6FlowKey HosStateCounterKey
    HoIpFlowConfig HoIp6FlowConfig HoIpFlowStatus HoIp6FlowStatus
    HoIpFlowCounter HoIp6FlowCounter HosStateCounterEntry)

function(flowtables_fuzz_target name)
  add_executable(${name} ${ARGN})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address)
  target_link_libraries(${name} PRIVATE flowtables GTest::gtest)
  # A short run over the seed corpus; long runs are in README "Reliability".
  add_test(NAME fuzz.${name}
           COMMAND ${name} -runs=20000 -max_len=4096 ${FUZZ_CORPUS}/${name})
  set_tests_properties(fuzz.${name} PROPERTIES FIXTURES_REQUIRED fuzz_corpus TIMEOUT 120)
endfunction()

foreach(type IN LISTS FUZZ_STREP_TYPES)
  flowtables_fuzz_target(fuzz_strep_${type} ${FUZZ_DIR}/strep_fuzz.cpp)
  target_compile_definitions(fuzz_strep_${type} PRIVATE FUZZ_TYPE=FlowTracking::${type})
endforeach()
flowtables_fuzz_target(fuzz_reader_attach ${FUZZ_DIR}/reader_fuzz.cpp
                       ${PROJECT_SOURCE_DIR}/tests/stress/Stress.cpp)

add_test(NAME fuzz.corpus COMMAND stress corpus --dir ${FUZZ_CORPUS})
set_tests_properties(fuzz.corpus PROPERTIES FIXTURES_SETUP fuzz_corpus)
