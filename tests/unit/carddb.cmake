# Unit tests of the card database (carddb/) and the inflater it uses.
include(GoogleTest)

add_executable(carddb_test ${CMAKE_CURRENT_LIST_DIR}/carddb_test.cpp)
p11client_strict(carddb_test)
target_link_libraries(carddb_test PRIVATE p11client_static GTest::gtest_main ZLIB::ZLIB)
# The round-trip test compares the embedded copy with the file it came from.
target_compile_definitions(carddb_test PRIVATE
  P11CLIENT_CARD_JSON_PATH="${P11CLIENT_CARD_JSON}")
gtest_discover_tests(carddb_test)
