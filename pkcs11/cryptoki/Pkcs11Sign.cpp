// The call layer for signing on the token.
#include "ClsPkcs11.h"

#include "AttributeReader.h"
#include "DataBuffer.h"

namespace p11client {

namespace {

// The largest signature of any key a token holds (RSA 16384) fits easily.
constexpr CK_ULONG kMaxSignatureLength = 4096;

// One C_Sign of the data on the session.
struct SignCall {
    CK_FUNCTION_LIST* f;
    CK_SESSION_HANDLE hSession;
    const DataBuffer& data;

    CK_RV into(DataBuffer& out, CK_ULONG& len) const
    {
        auto* in = const_cast<CK_BYTE_PTR>(data.getData());
        return f->C_Sign(hSession, in, data.getSize(), out.getData(), &len);
    }

    // The length alone, for a token that found the first buffer too small.
    CK_RV length(CK_ULONG& len) const
    {
        auto* in = const_cast<CK_BYTE_PTR>(data.getData());
        len = 0;
        return f->C_Sign(hSession, in, data.getSize(), nullptr, &len);
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

} // namespace

bool ClsPkcs11::C_SignInit(CK_MECHANISM& mechanism, unsigned long hKey, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_SignInit, "C_SignInit", true, log);
    if (f == nullptr)
        return false;
    return checkRv("C_SignInit", f->C_SignInit(m_hSession, &mechanism, hKey), log);
}

// The signature goes into a buffer of the expected size first; only when the
// token says it is too small is the length asked for.
bool ClsPkcs11::C_Sign(const DataBuffer& data, std::size_t expectedSize, DataBuffer& signature, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_Sign, "C_Sign", true, log);
    if (f == nullptr)
        return false;
    const SignCall call{f, m_hSession, data};
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
    if (!checkRv("C_Sign", rv, log) || !signatureLengthPlausible(len, signature.getSize(), expectedSize, log)) {
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

} // namespace p11client
