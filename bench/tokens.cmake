# The token benchmarks: the token builder, the floor program, the library's
# jobs and the signing benchmark (run by bench/run.sh). Tokens are filled and
# read with the SoftHSM2 tests' own Cryptoki code.
include(${PROJECT_SOURCE_DIR}/tests/support/tokens.cmake)

add_executable(p11bench_mktoken
  ${CMAKE_CURRENT_LIST_DIR}/tokens/MakeToken.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tokens/KeyMaterial.cpp)
add_executable(p11floor ${CMAKE_CURRENT_LIST_DIR}/floor/FloorProgram.cpp)
add_executable(p11bench_lib ${CMAKE_CURRENT_LIST_DIR}/library/LibraryJobs.cpp)
add_executable(p11bench_sign ${CMAKE_CURRENT_LIST_DIR}/library/SignBench.cpp)
foreach(tool p11bench_mktoken p11floor p11bench_lib p11bench_sign)
  p11client_strict(${tool})
  target_include_directories(${tool} PRIVATE ${CMAKE_CURRENT_LIST_DIR}/support)
endforeach()
find_package(Threads REQUIRED)
target_link_libraries(p11bench_mktoken PRIVATE p11test_tokens Threads::Threads)
target_link_libraries(p11floor PRIVATE p11test_tokens)
target_link_libraries(p11bench_lib PRIVATE p11client_static)
target_link_libraries(p11bench_sign PRIVATE p11client_static p11test_tokens)
