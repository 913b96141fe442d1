#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace p11cli {

// The hash names the sign and verify commands take (--hash): the library's
// (HashAlgorithm).
std::vector<std::string> hashNames();

// The OpenSSL digest of one of those names (null for any other).
const EVP_MD* digestOf(const std::string& hashName);
// Its size in bytes (0 for an unknown name).
std::size_t digestSizeOf(const std::string& hashName);

} // namespace p11cli
