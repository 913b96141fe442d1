# Test keys and certificates made with OpenSSL, and SoftHSM2 tokens filled
# through Cryptoki: one library for the tests and the benchmark tools.
include_guard(GLOBAL)

add_library(p11test_tokens STATIC)
target_sources(p11test_tokens PRIVATE ${CMAKE_CURRENT_LIST_DIR}/SoftHsmObjects.cpp ${CMAKE_CURRENT_LIST_DIR}/SoftHsmToken.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TestCertFactory.cpp ${CMAKE_CURRENT_LIST_DIR}/TokenSignature.cpp)
p11client_strict(p11test_tokens)
target_include_directories(p11test_tokens PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_include_directories(p11test_tokens SYSTEM PUBLIC ${P11KIT_INCLUDE_DIRS})
target_link_libraries(p11test_tokens PUBLIC OpenSSL::Crypto ${CMAKE_DL_LIBS})
