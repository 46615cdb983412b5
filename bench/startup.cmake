# Start-up of 150 modules against dlopen of the same files, and the batched channel against a
# plain cross-thread entry; both use one small stream module library.
ztcore_add_module(bench_stream_module NAME BenchStream SOURCES bench_startup_module.cpp
                  KIND bench NO_INSTALL OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/benchmodules)

ztcore_add_benchmark(bench_startup SOURCES bench_startup.cpp LIBS Qt5::Widgets ${CMAKE_DL_LIBS})
target_compile_definitions(bench_startup PRIVATE
                           BENCH_MODULE_FILE="$<TARGET_FILE:bench_stream_module>")
add_dependencies(bench_startup bench_stream_module)
