// Pairing a certificate with its private key on the token.
#include "ClsPkcs11.h"

#include "Certificate.h"
#include "Pkcs11_PrivateKey.h"
#include "RsaKey.h"
#include "ZelvanMp.h"
#include "_qxPublicKey.h"

namespace p11client {

namespace {

constexpr const char* kFoundEcKey = "Found matching PKCS11 ECDSA private key.";

int signatureBytes(int certKeyType, int bits)
{
    const int bytes = (bits + 7) / 8;
    return certKeyType == Certificate::kKeyTypeEcdsa ? 2 * bytes : bytes;
}

Pkcs11_PrivateKey* keyAt(const ExtPtrArray& keys, int i) { return static_cast<Pkcs11_PrivateKey*>(keys.elementAt(i)); }

} // namespace

// One pass over the RSA cache: the first record whose field equals one of the
// wanted values and which may sign (when asked) wins.
unsigned long ClsPkcs11::scanRsaKeys(DataBuffer Pkcs11_PrivateKey::*field, const DataBuffer& wanted,
                                     const DataBuffer* alsoWanted, bool requireSign, const ScanTexts& texts,
                                     LogBase& log)
{
    const int n = m_rsaKeys.getSize();
    for (int i = 0; i < n; ++i) {
        const Pkcs11_PrivateKey* key = keyAt(m_rsaKeys, i);
        if (key == nullptr || (key->*field).isEmpty())
            continue;
        const bool match = (key->*field).equals(wanted) || (alsoWanted != nullptr && (key->*field).equals(*alsoWanted));
        if (!match)
            continue;
        if (requireSign && key->m_signState == Pkcs11_PrivateKey::kMayNotSign) {
            log.LogInfo(texts.rejected);
            continue;
        }
        log.LogInfo(texts.found);
        return key->m_handle;
    }
    return 0;
}

unsigned long ClsPkcs11::findRsaKeyById(Certificate& cert, bool requireSign, LogBase& log)
{
    CritSecExitor lock(this);
    DataBuffer id;
    cert.getCkaId(id);
    if (id.isEmpty() || m_rsaKeys.getSize() < 1)
        return 0;
    return scanRsaKeys(&Pkcs11_PrivateKey::m_id, id, nullptr, requireSign,
                       {"Found matching PKCS11 RSA private key by ID.",
                        "Found matching PKCS11 RSA private key by ID, but it does not have the CKA_SIGN attribute."},
                       log);
}

unsigned long ClsPkcs11::findRsaKeyBySubjectDER(Certificate& cert, bool requireSign, LogBase& log)
{
    CritSecExitor lock(this);
    DataBuffer der;
    if (!cert.getPartDer(Certificate::kPartSubject, der, log)) {
        log.LogError("Unable to get cert SubjectDN DER.");
        return 0;
    }
    if (m_rsaKeys.getSize() < 1)
        return 0;
    return scanRsaKeys(&Pkcs11_PrivateKey::m_subjectDer, der, nullptr, requireSign,
                       {"Found matching PKCS11 RSA private key by Subject DER.",
                        "Found matching PKCS11 RSA private key by Subject DER, but it does not have the CKA_SIGN "
                        "attribute."},
                       log);
}

// The token may store the modulus with or without the leading zero byte of
// its signed form; both forms are compared.
unsigned long ClsPkcs11::findRsaKeyByModulus(Certificate& cert, bool requireSign, LogBase& log)
{
    CritSecExitor lock(this);
    _qxPublicKey publicKey;
    if (!cert.getCertPublicKey(publicKey, log) || publicKey.getRsaKey() == nullptr)
        return 0;
    DataBuffer unsignedForm;
    DataBuffer signedForm;
    ZelvanMp::unsigned_mpint_to_db(publicKey.getRsaKey()->modulus(), unsignedForm);
    ZelvanMp::mpint_to_db(publicKey.getRsaKey()->modulus(), signedForm);
    if (m_rsaKeys.getSize() < 1)
        return 0;
    return scanRsaKeys(&Pkcs11_PrivateKey::m_modulus, unsignedForm, &signedForm, requireSign,
                       {"Found matching PKCS11 RSA private key by modulus.",
                        "Found matching PKCS11 RSA private key by modulus, but it does not have the CKA_SIGN "
                        "attribute."},
                       log);
}

unsigned long ClsPkcs11::findPrivKeyHandle(Certificate& cert, bool minimalFirstPass, int& certKeyType,
                                           int& expectedSignatureSize, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "findPrivKeyHandle");
    int bits = 0;
    if (m_certHandleIsKeyHandle) {
        log.LogInfo("Using certificate's PKCS11 handle as the private key handle...");
        certKeyType = cert.getCertKeyType(bits, log);
        log.LogDataLong("certKeyType", certKeyType);
        expectedSignatureSize = signatureBytes(certKeyType, bits);
        log.LogDataLong("expectedSignatureSize", expectedSignatureSize);
        return cert.getPkcs11ObjectHandle();
    }
    log.LogDataBool("userLoggedIn", m_userLoggedIn);
    expectedSignatureSize = 0;
    certKeyType = cert.getCertKeyType(bits, log);
    if (certKeyType == Certificate::kKeyTypeEcdsa) {
        expectedSignatureSize = signatureBytes(certKeyType, bits);
        return findEcKeyHandle(cert, minimalFirstPass, log);
    }
    if (certKeyType != Certificate::kKeyTypeRsa) {
        log.LogError("Only EC and RSA keys are supported on PKCS11.");
        log.LogDataLong("certKeyType", certKeyType);
        return 0;
    }
    log.LogInfo("Looking for a matching RSA private key...");
    expectedSignatureSize = signatureBytes(certKeyType, bits);
    return findRsaKeyHandle(cert, minimalFirstPass, log);
}

unsigned long ClsPkcs11::findRsaKeyHandle(Certificate& cert, bool minimalFirstPass, LogBase& log)
{
    if (!cacheRsaPrivateKeys(false, !minimalFirstPass, log))
        return 0;
    const int n = m_rsaKeys.getSize();
    log.LogDataLong("numRsaKeys", n);
    if (unsigned long h = findRsaKeyById(cert, true, log))
        return h;
    if (unsigned long h = m_rsaKeysHaveSubjectDer ? findRsaKeyBySubjectDER(cert, true, log) : 0)
        return h;
    if (unsigned long h = m_rsaKeysHaveModulus ? findRsaKeyByModulus(cert, true, log) : 0)
        return h;
    // The lone key of a token with a lone certificate can only be its key.
    if (n == 1 && m_certs.getSize() == 1 && keyAt(m_rsaKeys, 0) != nullptr) {
        log.LogInfo("Using only possible private key");
        return keyAt(m_rsaKeys, 0)->m_handle;
    }
    if (n >= 1 && !(m_rsaKeysHaveSubjectDer && m_rsaKeysHaveModulus)) {
        LogContextExitor retry(log, "retry_subjectDer_modulus");
        if (cacheRsaPrivateKeys(true, true, log)) {
            if (unsigned long h = m_rsaKeysHaveSubjectDer ? findRsaKeyBySubjectDER(cert, true, log) : 0)
                return h;
            if (unsigned long h = m_rsaKeysHaveModulus ? findRsaKeyByModulus(cert, true, log) : 0)
                return h;
        }
    }
    log.LogInfo("No matching RSA private key found.");
    return 0;
}

unsigned long ClsPkcs11::findEcKeyHandle(Certificate& cert, bool minimalFirstPass, LogBase& log)
{
    // Logged as an error on purpose: readers of this log look for it there.
    log.LogError("Certificate key type is ECDSA.");
    DataBuffer point;
    cert.getEcPublicPoint(point, log);
    if (!cacheEcdsaPrivateKeys(!point.isEmpty() && !minimalFirstPass, log))
        return 0;
    const int n = m_ecKeys.getSize();
    log.LogDataLong("numEcdsaKeys", n);
    DataBuffer id;
    cert.getCkaId(id);
    for (int i = 0; i < n && !id.isEmpty(); ++i) {
        const Pkcs11_PrivateKey* key = keyAt(m_ecKeys, i);
        if (key != nullptr && !key->m_id.isEmpty() && key->m_id.equals(id)) {
            log.LogInfo(kFoundEcKey);
            return key->m_handle;
        }
    }
    for (int i = 0; i < n && !point.isEmpty(); ++i) {
        const Pkcs11_PrivateKey* key = keyAt(m_ecKeys, i);
        if (key != nullptr && !key->m_ecPoint.isEmpty() && key->m_ecPoint.equals(point)) {
            log.LogInfo(kFoundEcKey);
            return key->m_handle;
        }
    }
    if (const Pkcs11_PrivateKey* first = keyAt(m_ecKeys, 0)) {
        log.LogInfo("Using first PKCS11 ECDSA private key");
        return first->m_handle;
    }
    return 0;
}

} // namespace p11client
