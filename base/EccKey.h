#pragma once

#include "DataBuffer.h"

#include <openssl/types.h>

#include <string>

namespace p11client {

class LogBase;

// The public part of an EC key on a named curve.
class EccKey {
public:
    // Reads the curve and the public point of an OpenSSL EC key. Keys with
    // explicit curve parameters (no named curve) are refused.
    bool loadFromPkey(const EVP_PKEY* pkey, LogBase& log);

    // Replaces out with the public point in its uncompressed form 04||X||Y,
    // the form in which points are compared (see EcPointCanon). Leaves out
    // untouched and returns false when the key holds no point.
    bool exportEccPoint(DataBuffer& out, LogBase& log) const;

    // OpenSSL's name of the curve ("prime256v1", "secp384r1", "secp521r1").
    const std::string& curveName() const { return m_curveName; }
    // The curve's OID in dotted form ("1.2.840.10045.3.1.7").
    const std::string& curveOid() const { return m_curveOid; }
    int curveNid() const { return m_curveNid; }
    // Size of the curve's field: 256, 384, 521 ...
    int fieldSizeBits() const { return m_fieldBits; }
    int fieldSizeBytes() const { return (m_fieldBits + 7) / 8; }

private:
    std::string m_curveName;
    std::string m_curveOid;
    int m_curveNid = 0;
    int m_fieldBits = 0;
    DataBuffer m_point;
};

} // namespace p11client
