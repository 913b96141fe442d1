#pragma once

// Key pairs for the benchmark tokens, made once and kept as PKCS#8 DER files
// (rsa-0000.der, ec-0000.der, ...) in a cache directory, so that tokens of
// any size are rebuilt from the same keys without generating them again.

#include "TestCertFactory.h"

#include <string>
#include <vector>

namespace p11bench {

using p11test::TestKey;

enum class KeyKind { Rsa2048, EcP256 };

// The first count keys of the kind, generating (on every core) those the
// cache directory lacks.
std::vector<TestKey> loadOrMakeKeys(const std::string& cacheDir, KeyKind kind, std::size_t count);

} // namespace p11bench
