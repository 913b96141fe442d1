#pragma once

#include "MpInt.h"

#include <openssl/types.h>

namespace p11client {

class LogBase;

// The public part of an RSA key.
class RsaKey {
public:
    // Reads modulus and public exponent from an OpenSSL RSA (or RSA-PSS) key.
    bool loadFromPkey(const EVP_PKEY* pkey, LogBase& log);

    const mp_int& modulus() const { return m_modulus; }
    const mp_int& exponent() const { return m_exponent; }
    // The key size: the bit length of the modulus.
    int bitLength() const { return m_modulus.bitLength(); }

private:
    mp_int m_modulus;
    mp_int m_exponent;
};

} // namespace p11client
