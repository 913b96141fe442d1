#pragma once

// The SoftHSM2 token of the module targets, made once per process in a fresh
// token store and reached through the shim. An image the library never loads
// keeps SoftHSM2 initialized for the whole run (without a session, so no
// login outlives an input): each input only starts and ends the images the
// library uses.

#include "SoftHsmObjects.h"
#include "TestCertFactory.h"

namespace p11fuzz {

using p11test::Bytes;

struct Pair {
    p11test::TestKey key;
    bool rsa = true;
    Bytes der, subject, modulus, point, curve; // the certificate, and the key's public parts
};

struct FuzzToken {
    CK_SLOT_ID slot = 0;
    std::vector<Pair> pairs; // RSA 2048, EC P-256, P-384, P-521
};

// The first `keys` pairs' private keys and the first `certs` certificates
// (certificate and key i share CKA_ID i+1), and a data object.
const FuzzToken& fuzzToken(std::size_t keys, std::size_t certs);

} // namespace p11fuzz
