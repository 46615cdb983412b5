# Runs one libFuzzer executable for ZTCORE_FUZZ_SECONDS seconds (default 60).
# cmake -DFUZZER=<exe> -DCORPUS=<dir> -DSEEDS=<dir> -DARTIFACTS=<dir/> -P runfuzzer.cmake
set(seconds 60)
if(DEFINED ENV{ZTCORE_FUZZ_SECONDS} AND NOT "$ENV{ZTCORE_FUZZ_SECONDS}" STREQUAL "")
  set(seconds $ENV{ZTCORE_FUZZ_SECONDS})
endif()
file(MAKE_DIRECTORY ${CORPUS} ${ARTIFACTS})
message(STATUS "Fuzzing ${FUZZER} for ${seconds} s")
# Settings files are small; 8 KiB leaves room for every seed and then some. A single input that
# takes more than 10 s counts as a hang.
math(EXPR bound "${seconds} + 300")
execute_process(
  COMMAND ${FUZZER} -max_total_time=${seconds} -max_len=8192 -timeout=10 -rss_limit_mb=2048
          -detect_leaks=1 -print_final_stats=1 -artifact_prefix=${ARTIFACTS} ${CORPUS} ${SEEDS}
  TIMEOUT ${bound}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${result}); the failing input is under ${ARTIFACTS}")
endif()
