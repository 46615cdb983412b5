ztcore_add_benchmark(bench_data SOURCES bench_data.cpp)
