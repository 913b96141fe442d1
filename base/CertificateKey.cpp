#include "Certificate.h"

#include "LogBase.h"
#include "OpenSslPtr.h"
#include "_qxPublicKey.h"

namespace p11client {

namespace {

int keyTypeCode(const EVP_PKEY* pkey)
{
    switch (EVP_PKEY_get_base_id(pkey)) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA_PSS:
        return Certificate::kKeyTypeRsa;
    case EVP_PKEY_DSA:
        return Certificate::kKeyTypeDsa;
    case EVP_PKEY_EC:
        return Certificate::kKeyTypeEcdsa;
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
        return Certificate::kKeyTypeEdDsa;
    default:
        return Certificate::kKeyTypeOther;
    }
}

// i2d output of any of the parts, into out.
template <class T>
bool derOf(const T* item, int (*i2d)(const T*, unsigned char**), DataBuffer& out)
{
    unsigned char* der = nullptr;
    const int len = item == nullptr ? 0 : i2d(item, &der);
    if (len <= 0)
        return false;
    OpenSslBytesPtr owned(der);
    out.clear();
    out.append(der, static_cast<std::size_t>(len));
    return true;
}

} // namespace

int Certificate::getCertKeyType(int& bits, LogBase& log) const
{
    bits = 0;
    const EVP_PKEY* pkey = X509_get0_pubkey(m_x509.get());
    if (pkey == nullptr) {
        log.LogError("Unable to read the certificate's public key.");
        return kKeyTypeOther;
    }
    bits = EVP_PKEY_get_bits(pkey);
    if (bits < 0)
        bits = 0;
    return keyTypeCode(pkey);
}

bool Certificate::getCertPublicKey(_qxPublicKey& key, LogBase& log) const
{
    const EVP_PKEY* pkey = X509_get0_pubkey(m_x509.get());
    if (pkey == nullptr) {
        key.clear();
        log.LogError("Unable to read the certificate's public key.");
        return false;
    }
    return key.loadFromPkey(pkey, log);
}

bool Certificate::getPartDer(int part, DataBuffer& out, LogBase& log) const
{
    bool ok = false;
    switch (part) {
    case kPartCertificate:
        return getDer(out);
    case kPartSubject:
        ok = derOf(X509_get_subject_name(m_x509.get()), i2d_X509_NAME, out);
        break;
    case kPartIssuer:
        ok = derOf(X509_get_issuer_name(m_x509.get()), i2d_X509_NAME, out);
        break;
    case kPartPublicKey:
        ok = derOf(X509_get_X509_PUBKEY(m_x509.get()), i2d_X509_PUBKEY, out);
        break;
    default:
        log.LogError("Unknown certificate part.");
        log.LogDataLong("part", part);
        return false;
    }
    if (!ok)
        log.LogError("Unable to encode the certificate part.");
    return ok;
}

} // namespace p11client
