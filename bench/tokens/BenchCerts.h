#pragma once

// Certificates for the benchmark tokens, issued by a throwaway P-256 CA with
// the extensions an end-entity signing certificate usually carries.

#include "BenchCryptoki.h"
#include "KeyMaterial.h"

#include <string>

namespace p11bench {

struct IssuedCert {
    Bytes der;
    Bytes subjectDer;
    Bytes issuerDer;
    Bytes serialDer; // DER INTEGER, as CKA_SERIAL_NUMBER holds it
    Bytes keyId;     // SHA-1 of the public key, the CKA_ID that tools give a pair
};

class BenchCa {
public:
    BenchCa();
    // A certificate for the key with the common name; serial must be unique.
    IssuedCert issue(EVP_PKEY* key, const std::string& commonName, long serial) const;

private:
    Pkey m_key;
};

} // namespace p11bench
