// Linking a certificate to the session: pairing it with its private key on
// the token, and remembering the link until the object or its cache ends.
#include "ClsPkcs11.h"

#include "Certificate.h"
#include "CertificateHolder.h"
#include "Pkcs11_PrivateKey.h"

#include <algorithm>
#include <memory>
#include <span>
#include <vector>

namespace p11client {

namespace {

constexpr const char* kFoundEcKey = "Found matching PKCS11 ECDSA private key.";

// The line of a fallback's choice, and whether anything proves the key.
void logFallback(LogBase& log, const char* choice, bool proven)
{
    log.LogInfo(choice);
    if (!proven)
        log.LogInfo("The private key was chosen without proof that it belongs to the certificate.");
}

int signatureBytes(int certKeyType, int bits)
{
    const int bytes = (bits + 7) / 8;
    return certKeyType == Certificate::kKeyTypeEcdsa ? 2 * bytes : bytes;
}

Pkcs11_PrivateKey* keyAt(const ExtPtrArray& keys, int i) { return static_cast<Pkcs11_PrivateKey*>(keys.elementAt(i)); }

// Whether two big-endian numbers (or EC points, which begin with 04) are
// equal, whatever leading zero bytes either carries.
bool sameMagnitude(const DataBuffer& a, const DataBuffer& b)
{
    std::span<const std::uint8_t> x = a.bytes();
    std::span<const std::uint8_t> y = b.bytes();
    while (!x.empty() && x.front() == 0)
        x = x.subspan(1);
    while (!y.empty() && y.front() == 0)
        y = y.subspan(1);
    return std::ranges::equal(x, y);
}

} // namespace

bool ClsPkcs11::linkCertToPkcs11Session(Certificate* cert, bool minimalFirstPass, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "linkCertToPkcs11Session");
    if (cert == nullptr)
        return false;
    readKeysForPairing(minimalFirstPass);
    int certKeyType = 0;
    int expectedSignatureSize = 0;
    bool keyVerified = true;
    const unsigned long handle =
        findPrivKeyHandle(*cert, minimalFirstPass, certKeyType, expectedSignatureSize, keyVerified, log);
    log.LogDataBool("hasPrivateKey", handle != 0);
    log.LogDataLong("expectedSignatureSize", expectedSignatureSize);
    if (handle == 0) {
        log.LogError("No matching private key found on the HSM.");
        return false;
    }
    cert->linkToPkcs11Session(this, certKeyType, expectedSignatureSize, handle, log, keyVerified);
    rememberLink(*cert);
    return true;
}

// An application that links the certificates it listed, one by one, pairs
// certificates of both key types when the cache holds both: the first link
// then reads both key caches in one search. A failure leaves the caches to be
// filled one type at a time, as without it.
void ClsPkcs11::readKeysForPairing(bool minimalFirstPass)
{
    LogNull quiet;
    if (!minimalFirstPass && !m_certHandleIsKeyHandle && !m_rsaKeysCached && !m_ecKeysCached && certCacheHoldsBothKeyTypes())
        fillBothKeyCaches(quiet);
}

bool ClsPkcs11::certCacheHoldsBothKeyTypes()
{
    LogNull quiet;
    bool rsa = false, ec = false;
    for (int i = 0; i < m_certs.getSize() && !(rsa && ec); ++i) {
        const auto* holder = static_cast<const CertificateHolder*>(m_certs.elementAt(i));
        const Certificate* certificate = holder != nullptr ? holder->getCertPtr(quiet) : nullptr;
        int bits = 0;
        const int type = certificate != nullptr ? certificate->getCertKeyType(bits, quiet) : 0;
        rsa = rsa || type == Certificate::kKeyTypeRsa;
        ec = ec || type == Certificate::kKeyTypeEcdsa;
    }
    return rsa && ec;
}

// A linked certificate points at this object; the ones held outside the
// cache are remembered so that none outlives the object still pointing here.
void ClsPkcs11::rememberLink(Certificate& cert)
{
    std::erase_if(m_linkedCerts, [](const std::weak_ptr<Certificate>& w) { return w.expired(); });
    std::weak_ptr<Certificate> weak = cert.weak_from_this();
    if (!weak.expired())
        m_linkedCerts.push_back(std::move(weak));
}

void ClsPkcs11::unlinkRememberedCerts()
{
    for (const std::weak_ptr<Certificate>& weak : m_linkedCerts) {
        const std::shared_ptr<Certificate> cert = weak.lock();
        const Pkcs11Link link = cert ? cert->getPkcs11Link() : Pkcs11Link{};
        if (link.module == this) // not a link another module made since
            cert->unlinkFromPkcs11Session(link);
    }
    m_linkedCerts.clear();
}

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
    DataBuffer unsignedForm;
    if (!cert.getRsaModulus(unsignedForm, log) || unsignedForm.isEmpty())
        return 0;
    DataBuffer signedForm; // as a token that keeps the INTEGER's sign byte has it
    if ((unsignedForm.getData()[0] & 0x80) != 0)
        signedForm.appendByte(0);
    signedForm.append(unsignedForm);
    if (m_rsaKeys.getSize() < 1)
        return 0;
    return scanRsaKeys(&Pkcs11_PrivateKey::m_modulus, unsignedForm, &signedForm, requireSign,
                       {"Found matching PKCS11 RSA private key by modulus.",
                        "Found matching PKCS11 RSA private key by modulus, but it does not have the CKA_SIGN "
                        "attribute."},
                       log);
}

unsigned long ClsPkcs11::findPrivKeyHandle(Certificate& cert, bool minimalFirstPass, int& certKeyType,
                                           int& expectedSignatureSize, bool& keyVerified, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "findPrivKeyHandle");
    int bits = 0;
    keyVerified = true;
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
        return findEcKeyHandle(cert, keyVerified, log);
    }
    if (certKeyType != Certificate::kKeyTypeRsa) {
        log.LogError("Only EC and RSA keys are supported on PKCS11.");
        log.LogDataLong("certKeyType", certKeyType);
        return 0;
    }
    log.LogInfo("Looking for a matching RSA private key...");
    expectedSignatureSize = signatureBytes(certKeyType, bits);
    return findRsaKeyHandle(cert, minimalFirstPass, keyVerified, log);
}

unsigned long ClsPkcs11::findRsaKeyHandle(Certificate& cert, bool minimalFirstPass, bool& keyVerified, LogBase& log)
{
    if (!cacheRsaPrivateKeys(false, !minimalFirstPass, log))
        return 0;
    log.LogDataLong("numRsaKeys", m_rsaKeys.getSize());
    if (unsigned long h = findRsaKeyById(cert, true, log))
        return h;
    if (unsigned long h = m_rsaKeysHaveSubjectDer ? findRsaKeyBySubjectDER(cert, true, log) : 0)
        return h;
    if (unsigned long h = m_rsaKeysHaveModulus ? findRsaKeyByModulus(cert, true, log) : 0)
        return h;
    if (m_rsaKeys.getSize() >= 1 && !(m_rsaKeysHaveSubjectDer && m_rsaKeysHaveModulus)) {
        LogContextExitor retry(log, "retry_subjectDer_modulus");
        if (cacheRsaPrivateKeys(true, true, log)) {
            if (unsigned long h = m_rsaKeysHaveSubjectDer ? findRsaKeyBySubjectDER(cert, true, log) : 0)
                return h;
            if (unsigned long h = m_rsaKeysHaveModulus ? findRsaKeyByModulus(cert, true, log) : 0)
                return h;
        }
    }
    // The lone key of a token with a lone certificate can only be its key,
    // unless its modulus (read by now where the token gives it) says not.
    if (m_rsaKeys.getSize() == 1 && m_certs.getSize() == 1) {
        DataBuffer modulus;
        cert.getRsaModulus(modulus, log);
        if (unsigned long h = fallbackKey(m_rsaKeys, CKK_RSA, modulus, keyVerified)) {
            logFallback(log, "Using only possible private key", keyVerified);
            return h;
        }
    }
    log.LogInfo("No matching RSA private key found.");
    return 0;
}

unsigned long ClsPkcs11::findEcKeyHandle(Certificate& cert, bool& keyVerified, LogBase& log)
{
    // An error line: readers of this log look for the key type among the errors.
    log.LogError("Certificate key type is ECDSA.");
    DataBuffer point;
    cert.getEcPublicPoint(point, log);
    if (!cacheEcdsaPrivateKeys(log))
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
    const unsigned long h = fallbackKey(m_ecKeys, CKK_EC, point, keyVerified);
    if (h != 0)
        logFallback(log, keyVerified ? kFoundEcKey : "Using first PKCS11 ECDSA private key", keyVerified);
    return h;
}

// The key a fallback takes: the first whose public material (its own, or
// that of the public-key object with its CKA_ID) is the certificate's, which
// proves it; else the first whose material the token does not tell, which
// nothing proves. A key whose material is another's is never taken.
unsigned long ClsPkcs11::fallbackKey(ExtPtrArray& keys, unsigned long keyType, const DataBuffer& certMaterial,
                                     bool& proven)
{
    const Pkcs11_PrivateKey* unknown = nullptr;
    for (int i = 0; i < keys.getSize(); ++i) {
        Pkcs11_PrivateKey* key = keyAt(keys, i);
        if (key == nullptr)
            continue;
        const DataBuffer& material = keyType == CKK_EC ? key->m_ecPoint : key->m_modulus;
        if (material.isEmpty() && !certMaterial.isEmpty())
            readPublicKeyMaterial(*key, keyType);
        if (material.isEmpty() || certMaterial.isEmpty()) {
            unknown = unknown != nullptr ? unknown : key;
        } else if (sameMagnitude(material, certMaterial)) {
            proven = true;
            return key->m_handle;
        }
    }
    proven = false;
    return unknown != nullptr ? unknown->m_handle : 0;
}

} // namespace p11client
