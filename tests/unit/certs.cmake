# Unit tests of the certificate, public-key and big-integer services (base/).
include(GoogleTest)

add_executable(certs_test ${CMAKE_CURRENT_LIST_DIR}/certs_test.cpp)
p11client_strict(certs_test)
target_link_libraries(certs_test PRIVATE p11client_static p11test_tokens GTest::gtest_main OpenSSL::Crypto)
gtest_discover_tests(certs_test)
