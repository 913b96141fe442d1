#pragma once

#include "DataBuffer.h"
#include "ZelvanObject.h"

#include <cstdint>

namespace p11client {

// A private-key object of the open session, as the key caches hold it: its
// handle and the attribute bytes that pairing a certificate with it compares.
class Pkcs11_PrivateKey : public NonRefCountedObj {
public:
    // m_signState values; any value but kMayNotSign lets the key be used.
    static constexpr std::int32_t kSignUnknown = 0;
    static constexpr std::int32_t kMaySign = 1;
    static constexpr std::int32_t kMayNotSign = 2;

    Pkcs11_PrivateKey() = default;
    ~Pkcs11_PrivateKey() override = default;

    unsigned long m_handle = 0;
    DataBuffer m_subjectDer; // CKA_SUBJECT
    DataBuffer m_modulus;    // CKA_MODULUS, as the token returns it
    DataBuffer m_extraAttr;  // not read by the pairing; the caches leave it empty
    DataBuffer m_ecPoint;    // CKA_EC_POINT, as the uncompressed point 04||X||Y
    DataBuffer m_id;         // CKA_ID
    std::int32_t m_signState = kSignUnknown; // from CKA_SIGN
    // The public-key object with the key's CKA_ID was looked for (once per
    // cache fill); what it gave is in m_modulus or m_ecPoint.
    bool m_publicKeyRead = false;
};

} // namespace p11client
