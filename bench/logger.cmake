ztcore_add_benchmark(bench_logger SOURCES bench_logger.cpp LIBS Qt5::Widgets)
