# The token benchmarks: the token builder, the floor program, the library's
# jobs and the signing benchmark (run by bench/run.sh).
add_library(p11bench_cryptoki STATIC ${CMAKE_CURRENT_LIST_DIR}/support/BenchCryptoki.cpp)
p11client_strict(p11bench_cryptoki)
target_include_directories(p11bench_cryptoki PUBLIC ${CMAKE_CURRENT_LIST_DIR}/support)
target_include_directories(p11bench_cryptoki SYSTEM PUBLIC ${P11KIT_INCLUDE_DIRS})
target_link_libraries(p11bench_cryptoki PUBLIC ${CMAKE_DL_LIBS})

add_executable(p11bench_mktoken
  ${CMAKE_CURRENT_LIST_DIR}/tokens/MakeToken.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tokens/KeyMaterial.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tokens/BenchCerts.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tokens/TokenObjects.cpp)
p11client_strict(p11bench_mktoken)
find_package(Threads REQUIRED)
target_link_libraries(p11bench_mktoken PRIVATE p11bench_cryptoki OpenSSL::Crypto Threads::Threads)

add_executable(p11floor ${CMAKE_CURRENT_LIST_DIR}/floor/FloorProgram.cpp)
p11client_strict(p11floor)
target_link_libraries(p11floor PRIVATE p11bench_cryptoki OpenSSL::Crypto)

add_executable(p11bench_lib ${CMAKE_CURRENT_LIST_DIR}/library/LibraryJobs.cpp)
p11client_strict(p11bench_lib)
target_link_libraries(p11bench_lib PRIVATE p11client_static)

add_executable(p11bench_sign ${CMAKE_CURRENT_LIST_DIR}/library/SignBench.cpp)
p11client_strict(p11bench_sign)
target_link_libraries(p11bench_sign PRIVATE p11client_static p11bench_cryptoki)

