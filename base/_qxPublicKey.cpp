#include "_qxPublicKey.h"

#include "DataBuffer.h"
#include "EccKey.h"
#include "LogBase.h"
#include "OpenSslPtr.h"
#include "RsaKey.h"

#include <limits>

namespace p11client {

void _qxPublicKey::PkeyFree::operator()(EVP_PKEY* pkey) const { EVP_PKEY_free(pkey); }

_qxPublicKey::_qxPublicKey() = default;
_qxPublicKey::~_qxPublicKey() = default;

void _qxPublicKey::clear()
{
    m_rsa.reset();
    m_ecc.reset();
    m_pkey.reset();
}

bool _qxPublicKey::loadFromPkey(const EVP_PKEY* pkey, LogBase& log)
{
    clear();
    if (pkey == nullptr)
        return false;
    const int type = EVP_PKEY_get_base_id(pkey);
    if (type == EVP_PKEY_RSA || type == EVP_PKEY_RSA_PSS) {
        auto rsa = std::make_unique<RsaKey>();
        if (!rsa->loadFromPkey(pkey, log))
            return false;
        m_rsa = std::move(rsa);
    } else if (type == EVP_PKEY_EC) {
        auto ecc = std::make_unique<EccKey>();
        if (!ecc->loadFromPkey(pkey, log))
            return false;
        m_ecc = std::move(ecc);
    }
    // Sharing the key is safe: nothing here changes it.
    if (EVP_PKEY_up_ref(const_cast<EVP_PKEY*>(pkey)) != 1) {
        clear();
        return false;
    }
    m_pkey.reset(const_cast<EVP_PKEY*>(pkey));
    return true;
}

bool _qxPublicKey::loadFromSpkiDer(std::span<const std::uint8_t> der, LogBase& log)
{
    clear();
    if (der.empty() || der.size() > static_cast<std::size_t>(std::numeric_limits<long>::max()))
        return false;
    const unsigned char* p = der.data();
    EvpPkeyPtr pkey(d2i_PUBKEY(nullptr, &p, static_cast<long>(der.size())));
    if (!pkey || p != der.data() + der.size()) {
        log.LogError("Invalid SubjectPublicKeyInfo.");
        return false;
    }
    return loadFromPkey(pkey.get(), log);
}

int _qxPublicKey::keyBits() const { return m_pkey ? EVP_PKEY_get_bits(m_pkey.get()) : 0; }

bool _qxPublicKey::getSpkiDer(DataBuffer& out) const
{
    if (!m_pkey)
        return false;
    unsigned char* der = nullptr;
    const int len = i2d_PUBKEY(m_pkey.get(), &der);
    if (len <= 0)
        return false;
    OpenSslBytesPtr owned(der);
    out.clear();
    out.append(der, static_cast<std::size_t>(len));
    return true;
}

} // namespace p11client
