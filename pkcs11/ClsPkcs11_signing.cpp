// Signing on the token with the private key of a linked certificate: the
// mechanism, the context-specific login a key may demand, and C_Sign.
#include "ClsPkcs11.h"

#include "AttributeReader.h"
#include "Certificate.h"
#include "ClsCert.h"
#include "DataBuffer.h"
#include "HashAlgorithm.h"
#include "PinArg.h"
#include "SignatureProof.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/evp.h>

#include <memory>

namespace p11client {

namespace {

// The largest signature of any key a token holds (RSA 16384) fits easily.
constexpr CK_ULONG kMaxSignatureLength = 4096;

// One C_Sign of the data on the session.
struct SignCall {
    const ModuleCalls& module;
    CK_SESSION_HANDLE hSession;
    const DataBuffer& data;

    CK_RV into(DataBuffer& out, CK_ULONG& len) const
    {
        auto* in = const_cast<CK_BYTE_PTR>(data.getData());
        return module.C_Sign(hSession, in, data.getSize(), out.getData(), &len);
    }

    // The length alone, for a token that found the first buffer too small.
    CK_RV length(CK_ULONG& len) const
    {
        auto* in = const_cast<CK_BYTE_PTR>(data.getData());
        len = 0;
        return module.C_Sign(hSession, in, data.getSize(), nullptr, &len);
    }
};

// A signature of a known key has exactly one size (the modulus for RSA,
// twice the field for ECDSA): anything else from a CKR_OK is the token's
// fault, and so is a length beyond the buffer it was given.
bool signatureLengthPlausible(CK_ULONG len, std::size_t bufferSize, std::size_t expectedSize, LogBase& log)
{
    if (len > bufferSize) {
        log.LogError("C_Sign reported a signature longer than the buffer it was given.");
        log.LogDataLong("signatureLength", static_cast<long>(len));
        return false;
    }
    if (expectedSize != 0 && len != expectedSize) {
        log.LogError("C_Sign returned a signature of the wrong size for the key.");
        log.LogDataLong("signatureLength", static_cast<long>(len));
        log.LogDataLong("expectedLength", static_cast<long>(expectedSize));
        return false;
    }
    if (len == 0) {
        log.LogError("C_Sign returned an empty signature.");
        return false;
    }
    return true;
}

std::optional<HashAlgorithm> hashNamed(const XString& name, LogBase& log)
{
    std::optional<HashAlgorithm> alg = HashAlgorithm::byName(name.getUtf8Sb().view());
    if (!alg) {
        log.LogError("Unsupported hash algorithm: use sha1, sha256, sha384 or sha512.");
        log.LogDataX("hashAlg", name);
    }
    return alg;
}

bool hashData(const HashAlgorithm& alg, const DataBuffer& data, DataBuffer& digest)
{
    unsigned int size = 0;
    digest.resize(EVP_MAX_MD_SIZE);
    const EVP_MD* md = alg.digest();
    if (md == nullptr || EVP_Digest(data.getData(), data.getSize(), digest.getData(), &size, md, nullptr) != 1)
        return false;
    digest.shorten(size);
    return true;
}

// A signature made with a key that a fallback took for want of another is
// returned only when the certificate's public key verifies it, which proves
// the key for the signatures to come. Otherwise the key is not the
// certificate's: no signature, and the link is dropped.
bool provenBySignature(Certificate& cert, const Pkcs11Link& link, const HashAlgorithm& alg, bool pss,
                       const DataBuffer& digest, DataBuffer& signature, LogBase& log)
{
    if (certificateVerifiesSignature(cert, alg, pss, digest, signature)) {
        cert.markLinkedKeyVerified(link);
        return true;
    }
    signature.clear();
    log.LogError("The signature made with the token's key does not verify with the certificate's public key: the key "
                 "does not belong to this certificate.");
    cert.unlinkFromPkcs11Session(link);
    return false;
}

} // namespace

bool ClsPkcs11::get_UsePss()
{
    CritSecExitor lock(this);
    return m_usePss;
}

void ClsPkcs11::put_UsePss(bool usePss)
{
    CritSecExitor lock(this);
    m_usePss = usePss;
}

bool ClsPkcs11::SignHash(ClsCert& cert, const XString& hashAlg, const DataBuffer& digest, DataBuffer& signature)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "SignHash");
    const bool ok = runGuarded(m_log, [&] {
        const std::optional<HashAlgorithm> alg = hashNamed(hashAlg, m_log);
        const std::shared_ptr<Certificate> certificate = cert.getCertificate();
        return alg && signDigest(certificate.get(), *alg, digest, signature, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::SignData(ClsCert& cert, const XString& hashAlg, const DataBuffer& data, DataBuffer& signature)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "SignData");
    const bool ok = runGuarded(m_log, [&] {
        const std::optional<HashAlgorithm> alg = hashNamed(hashAlg, m_log);
        if (!alg)
            return false;
        DataBuffer digest;
        if (!hashData(*alg, data, digest)) {
            m_log.LogError("Failed to hash the data.");
            return false;
        }
        const std::shared_ptr<Certificate> certificate = cert.getCertificate();
        return signDigest(certificate.get(), *alg, digest, signature, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

// The mechanism and the bytes to sign for a digest: a DigestInfo for
// PKCS#1 v1.5 (the token pads it), the bare digest for PSS and ECDSA.
bool ClsPkcs11::signDigest(Certificate* cert, const HashAlgorithm& alg, const DataBuffer& digest,
                           DataBuffer& signature, LogBase& log)
{
    LogContextExitor ctx(log, "signDigest");
    // The link is read once: a relink on another thread cannot mix two.
    const Pkcs11Link link = cert != nullptr ? cert->getPkcs11Link() : Pkcs11Link{};
    if (link.module != this || link.keyHandle == 0) {
        log.LogError("The certificate is not linked to this PKCS11 session with a private key.");
        return false;
    }
    if (digest.getSize() != alg.digestSize) {
        log.LogError("The digest length does not match the hash algorithm.");
        log.LogDataLong("digestLength", static_cast<long>(digest.getSize()));
        return false;
    }
    const int keyType = link.keyType;
    const bool pss = keyType == Certificate::kKeyTypeRsa && (m_usePss || cardRequiresPss(log));
    CK_RSA_PKCS_PSS_PARAMS pssParams{alg.pssHash, alg.mgf, alg.digestSize};
    CK_MECHANISM mechanism{CKM_ECDSA, nullptr, 0};
    DataBuffer input;
    if (keyType == Certificate::kKeyTypeRsa && !pss) {
        mechanism.mechanism = CKM_RSA_PKCS;
        input.append(alg.digestInfoPrefix.data(), alg.digestInfoPrefix.size());
    } else if (pss) {
        mechanism = CK_MECHANISM{CKM_RSA_PKCS_PSS, &pssParams, sizeof pssParams};
    } else if (keyType != Certificate::kKeyTypeEcdsa) {
        log.LogError("Only EC and RSA keys are supported on PKCS11.");
        return false;
    }
    input.append(digest);
    if (!signOnToken(mechanism, link.keyHandle, input, static_cast<std::size_t>(link.expectedSignatureSize), signature,
                     log))
        return false;
    return link.keyVerified || provenBySignature(*cert, link, alg, pss, digest, signature, log);
}

// C_SignInit, the context-specific login a key may demand right after it,
// and C_Sign.
bool ClsPkcs11::signOnToken(CK_MECHANISM& mechanism, unsigned long hKey, const DataBuffer& input,
                            std::size_t expectedSize, DataBuffer& signature, LogBase& log)
{
    const bool contextLogin = keyNeedsContextLogin(hKey, log);
    if (contextLogin && !pinIsWhole(m_sigContextPin, log))
        return false;
    if (contextLogin && m_sigContextPin.isEmpty()) {
        log.LogError("The key needs the PIN at each signature: set SigContextPin or call Login with user type 2.");
        return false;
    }
    const auto module = callsWith<&CK_FUNCTION_LIST::C_SignInit>(true, log);
    if (!module || module->C_SignInit(m_hSession, &mechanism, hKey) != CKR_OK)
        return false;
    if (contextLogin && !loginAs(kUserTypeContextSpecific, m_sigContextPin.getUtf8(), log)) {
        log.LogError("The context-specific login failed.");
        DataBuffer discarded;
        signInput(input, expectedSize, discarded, log); // ends the operation the token holds
        return false;
    }
    return signInput(input, expectedSize, signature, log);
}

// The signature goes into a buffer of the expected size first; only when the
// token says it is too small is the length asked for. Only the last call's
// value is reported: a first buffer too small is no failure.
bool ClsPkcs11::signInput(const DataBuffer& data, std::size_t expectedSize, DataBuffer& signature, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_Sign>(true, log, ModuleCalls::Report::None);
    if (!module)
        return false;
    const SignCall call{*module, m_hSession, data};
    CK_ULONG len = expectedSize != 0 ? expectedSize : kMaxSignatureLength;
    signature.resize(len);
    CK_RV rv = call.into(signature, len);
    if (rv == CKR_BUFFER_TOO_SMALL) {
        rv = call.length(len);
        if (rv == CKR_OK && (len == 0 || len > kMaxSignatureLength)) {
            log.LogError("C_Sign reported an impossible signature length.");
            log.LogDataLong("signatureLength", static_cast<long>(len));
            signature.clear();
            return false;
        }
        if (rv == CKR_OK) {
            signature.resize(len);
            rv = call.into(signature, len);
        }
    }
    if (!reportCall("C_Sign", rv, log) || !signatureLengthPlausible(len, signature.getSize(), expectedSize, log)) {
        signature.clear();
        return false;
    }
    signature.shorten(len);
    return true;
}

// Whether the key wants a context-specific login at each use; read once per
// key handle and remembered with the key caches.
bool ClsPkcs11::keyNeedsContextLogin(unsigned long hKey, LogBase& log)
{
    const auto known = m_alwaysAuthenticate.find(hKey);
    if (known != m_alwaysAuthenticate.end())
        return known->second;
    constexpr CK_ATTRIBUTE_TYPE types[] = {CKA_ALWAYS_AUTHENTICATE};
    AttributeReader reader(types);
    bool needs = false;
    CK_FUNCTION_LIST* f = m_dlHandle.functions();
    if (f != nullptr && f->C_GetAttributeValue != nullptr && m_hSession != 0
        && reader.read(f, m_hSession, hKey, log))
        needs = reader.find(CKA_ALWAYS_AUTHENTICATE)->asBool().value_or(false);
    m_alwaysAuthenticate[hKey] = needs;
    return needs;
}

bool ClsPkcs11::cardRequiresPss(LogBase&) { return false; }

bool ClsPkcs11::EcdsaSignatureToDer(const DataBuffer& rawRs, DataBuffer& der)
{
    const std::size_t half = rawRs.getSize() / 2;
    if (half == 0 || rawRs.getSize() % 2 != 0)
        return false;
    std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> sig(ECDSA_SIG_new(), ECDSA_SIG_free);
    BIGNUM* r = BN_bin2bn(rawRs.getData(), static_cast<int>(half), nullptr);
    BIGNUM* s = BN_bin2bn(rawRs.getData() + half, static_cast<int>(half), nullptr);
    if (!sig || r == nullptr || s == nullptr || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return false;
    }
    const int size = i2d_ECDSA_SIG(sig.get(), nullptr);
    if (size <= 0)
        return false;
    der.resize(static_cast<std::size_t>(size));
    unsigned char* out = der.getData();
    return i2d_ECDSA_SIG(sig.get(), &out) == size;
}

} // namespace p11client
