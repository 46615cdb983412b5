# The batched cross-thread channel against the plain entry, wired by the kernel; uses the stream
# module library of startup.cmake.
ztcore_add_benchmark(bench_batched SOURCES bench_batched.cpp LIBS Qt5::Widgets)
target_compile_definitions(bench_batched PRIVATE
                           BENCH_MODULE_FILE="$<TARGET_FILE:bench_stream_module>")
add_dependencies(bench_batched bench_stream_module)
