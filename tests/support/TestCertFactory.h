#pragma once

// Keys and certificates made on the fly with OpenSSL for the tests and the
// benchmark tokens: no binary fixtures. Failures throw std::runtime_error
// (a test that lets one escape fails with its text).

#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace p11test {

using TestKey = std::shared_ptr<EVP_PKEY>;

TestKey makeRsaKey(unsigned bits);
// curve: "P-256", "P-384", "P-521" (or any name OpenSSL knows).
TestKey makeEcKey(const char* curve);

struct NameAttr {
    std::string field; // OpenSSL name or dotted OID ("CN", "emailAddress", "2.5.4.5")
    std::string value;
    bool joinPrevious = false; // part of the previous RDN (multi-valued)
};

struct CertSpec {
    TestKey key;                      // the certificate's public key
    std::vector<NameAttr> subject{};  // in encoded order: least specific first
    std::vector<std::uint8_t> serial{0x0A, 0x1B};
    std::string keyUsage{};           // e.g. "critical,digitalSignature,nonRepudiation"
    std::vector<std::string> policies{}; // policy OIDs
    std::string cpsUri{};             // a CPS qualifier on the first policy
    // More extensions by OpenSSL name and value, e.g. {"basicConstraints", "critical,CA:FALSE"}.
    std::vector<std::pair<std::string, std::string>> extensions{};
    long validDays = 365;
    // Issuer: self-signed when null.
    TestKey issuerKey{};
    std::vector<NameAttr> issuer{};
};

// The DER of a certificate made as the CertSpec describes.
std::vector<std::uint8_t> makeCertDer(const CertSpec& spec);

// The DER of the names a token stores beside a certificate.
struct CertNames {
    std::vector<std::uint8_t> subject, issuer, serial; // serial: the INTEGER, as CKA_SERIAL_NUMBER holds it
};
CertNames namesOf(const std::vector<std::uint8_t>& certDer);
std::vector<std::uint8_t> subjectDerOf(const std::vector<std::uint8_t>& certDer);

// A big-integer parameter of a key (OSSL_PKEY_PARAM_RSA_N, ...), big-endian,
// left-padded with zeros to padTo bytes.
std::vector<std::uint8_t> keyNumber(EVP_PKEY* key, const char* param, std::size_t padTo = 0);
// The DER OID of an EC key's named curve, as CKA_EC_PARAMS holds it.
std::vector<std::uint8_t> curveOidDer(EVP_PKEY* key);

} // namespace p11test
