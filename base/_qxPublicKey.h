#pragma once

#include <openssl/types.h>

#include <cstdint>
#include <memory>
#include <span>

namespace p11client {

class DataBuffer;
class EccKey;
class LogBase;
class RsaKey;

// A public key, as read from a certificate's SubjectPublicKeyInfo. It is
// an RSA key, an EC key, or (for other algorithms) neither; then both
// getRsaKey() and getEccKey() are null and only the OpenSSL key is there.
class _qxPublicKey {
public:
    _qxPublicKey();
    ~_qxPublicKey();
    _qxPublicKey(const _qxPublicKey&) = delete;
    _qxPublicKey& operator=(const _qxPublicKey&) = delete;

    // Replaces the content with this key; on failure the object is empty.
    bool loadFromPkey(const EVP_PKEY* pkey, LogBase& log);
    bool loadFromSpkiDer(std::span<const std::uint8_t> der, LogBase& log);
    void clear();
    bool isEmpty() const { return !m_pkey; }

    RsaKey* getRsaKey() { return m_rsa.get(); }
    const RsaKey* getRsaKey() const { return m_rsa.get(); }
    EccKey* getEccKey() { return m_ecc.get(); }
    const EccKey* getEccKey() const { return m_ecc.get(); }

    // Key size in bits (RSA modulus, EC curve order); 0 when empty.
    int keyBits() const;
    // Replaces out with the DER SubjectPublicKeyInfo.
    bool getSpkiDer(DataBuffer& out) const;
    // The OpenSSL key (for signature checks), or null when empty.
    const EVP_PKEY* evpPkey() const { return m_pkey.get(); }

private:
    struct PkeyFree {
        void operator()(EVP_PKEY* pkey) const;
    };
    std::unique_ptr<EVP_PKEY, PkeyFree> m_pkey;
    std::unique_ptr<RsaKey> m_rsa;
    std::unique_ptr<EccKey> m_ecc;
};

} // namespace p11client
