ztcore_add_benchmark(bench_propagator SOURCES bench_propagator.cpp)

# The same program with the channel statistics compiled out, to measure what counting costs
# (bench_propagator --stats-vs-nostats=<path of this one>). The propagator sources are compiled
# into the program itself with ZTCORE_NO_CHANNEL_STATS; the program's definitions take precedence
# over the library's, so every propagator it makes is the uncounted one.
file(GLOB ztcore_bench_propagator_sources CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/src/core/propagator/*.cpp ${PROJECT_SOURCE_DIR}/src/core/propagator/*.h)
ztcore_add_benchmark(bench_propagator_nostats
  SOURCES bench_propagator.cpp ${ztcore_bench_propagator_sources})
target_compile_definitions(bench_propagator_nostats PRIVATE ZTCORE_NO_CHANNEL_STATS)
target_include_directories(bench_propagator_nostats PRIVATE
  ${PROJECT_SOURCE_DIR}/src/core/propagator ${PROJECT_SOURCE_DIR}/src/core/base)
