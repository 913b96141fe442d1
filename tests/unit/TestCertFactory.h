#pragma once

// Certificates made on the fly with OpenSSL for the tests: no binary fixtures.

#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace p11test {

struct PkeyFree {
    void operator()(EVP_PKEY* p) const;
};
using TestKey = std::shared_ptr<EVP_PKEY>;

// "RSA" with bits, or "EC" with a curve name ("P-256", "P-384", "P-521").
TestKey makeRsaKey(unsigned bits);
TestKey makeEcKey(const char* curve);

struct NameAttr {
    std::string field; // OpenSSL name or dotted OID ("CN", "emailAddress", "2.5.4.5")
    std::string value;
    bool joinPrevious = false; // part of the previous RDN (multi-valued)
};

struct CertSpec {
    TestKey key;                      // the certificate's public key
    std::vector<NameAttr> subject;    // in encoded order: least specific first
    std::vector<std::uint8_t> serial{0x0A, 0x1B};
    std::string keyUsage;             // e.g. "critical,digitalSignature,nonRepudiation"
    std::vector<std::string> policies; // policy OIDs
    std::string cpsUri;               // a CPS qualifier on the first policy
    long validDays = 365;
    // Issuer: self-signed when null.
    TestKey issuerKey;
    std::vector<NameAttr> issuer;
};

// The DER of a certificate made as the CertSpec describes; fails the running test on error.
std::vector<std::uint8_t> makeCertDer(const CertSpec& spec);

} // namespace p11test
