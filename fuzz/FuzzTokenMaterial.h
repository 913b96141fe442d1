#pragma once

// Real keys and self-signed certificates, made once with OpenSSL, that the
// fuzz targets put on the mock token or mutate before they do.

#include <cstdint>
#include <string>
#include <vector>

namespace p11fuzz {

using Bytes = std::vector<std::uint8_t>;

struct TokenMaterial {
    bool rsa = true;
    Bytes certDer;
    Bytes subjectDer;
    Bytes modulus;  // RSA
    Bytes exponent; // RSA
    Bytes ecPoint;  // EC: the uncompressed point, as the certificate holds it
    Bytes ecParams; // EC: the curve's OID, DER
};

// RSA 2048, EC P-256, P-384 and P-521, in that order.
const std::vector<TokenMaterial>& tokenMaterial();

// An OCTET STRING around the bytes, the form most tokens give CKA_EC_POINT in.
Bytes derOctetString(const Bytes& content);

} // namespace p11fuzz
