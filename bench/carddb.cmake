# Benchmark of the ATR lookup (time and heap allocations per call).
find_package(benchmark REQUIRED)

add_executable(carddb_bench ${CMAKE_CURRENT_LIST_DIR}/carddb_bench.cpp)
p11client_strict(carddb_bench)
target_link_libraries(carddb_bench PRIVATE p11client_static benchmark::benchmark)
