#pragma once

#include "Cryptoki.h"

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace p11client {

// A hash algorithm a signature can be made over, with what signing with it
// needs: the digest size, the DER prefix of its PKCS#1 v1.5 DigestInfo, and
// the Cryptoki names of the hash and of its MGF1 for RSA-PSS.
struct HashAlgorithm {
    const char* name;      // "sha256"
    const char* opensslName; // "SHA256"
    std::size_t digestSize;
    std::span<const std::uint8_t> digestInfoPrefix;
    CK_MECHANISM_TYPE pssHash;
    CK_RSA_PKCS_MGF_TYPE mgf;

    // OpenSSL's digest of this algorithm.
    const EVP_MD* digest() const;

    // "sha1", "sha256", "sha384", "sha512", in any case, with or without a dash.
    static std::optional<HashAlgorithm> byName(std::string_view name);
    // Every algorithm, in the order of the names above.
    static std::span<const HashAlgorithm> all();
};

} // namespace p11client
