#pragma once

// Key and certificate objects put on a token with C_CreateObject.

#include "BenchCryptoki.h"

#include <openssl/types.h>

#include <string>

namespace p11bench {

// What is stored beside the key material; an empty field is left out.
struct ObjectNames {
    std::string label;
    Bytes id;
    Bytes subject;
};

// A private, sensitive, non-extractable signing key with the components of
// an RSA or EC key.
void createPrivateKey(const Session& session, EVP_PKEY* key, const ObjectNames& names);

struct CertParts {
    Bytes der;
    Bytes subject;
    Bytes issuer;
    Bytes serial;
};

// A public X.509 certificate object.
void createCertificate(const Session& session, const CertParts& cert, const ObjectNames& names);

} // namespace p11bench
