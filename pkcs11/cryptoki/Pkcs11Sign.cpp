// The call layer for signing on the token.
#include "ClsPkcs11.h"

#include "AttributeReader.h"
#include "DataBuffer.h"

namespace p11client {

namespace {

// The largest signature of any key a token holds (RSA 16384) fits easily.
constexpr CK_ULONG kMaxSignatureLength = 4096;

} // namespace

bool ClsPkcs11::C_SignInit(CK_MECHANISM& mechanism, unsigned long hKey, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_SignInit, "C_SignInit", true, log);
    if (f == nullptr)
        return false;
    return checkRv("C_SignInit", f->C_SignInit(m_hSession, &mechanism, hKey), log);
}

// The signature goes into a buffer of the expected size first; only when the
// token says it is too small is the length asked for (two-call pattern).
bool ClsPkcs11::C_Sign(const DataBuffer& data, std::size_t expectedSize, DataBuffer& signature, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_Sign, "C_Sign", true, log);
    if (f == nullptr)
        return false;
    auto* in = const_cast<CK_BYTE_PTR>(data.getData());
    CK_ULONG len = expectedSize != 0 ? expectedSize : kMaxSignatureLength;
    signature.resize(len);
    CK_RV rv = f->C_Sign(m_hSession, in, data.getSize(), signature.getData(), &len);
    if (rv == CKR_BUFFER_TOO_SMALL) {
        len = 0;
        rv = f->C_Sign(m_hSession, in, data.getSize(), nullptr, &len);
        if (rv == CKR_OK && (len == 0 || len > kMaxSignatureLength)) {
            log.LogError("C_Sign reported an impossible signature length.");
            signature.clear();
            return false;
        }
        signature.resize(len);
        if (rv == CKR_OK)
            rv = f->C_Sign(m_hSession, in, data.getSize(), signature.getData(), &len);
    }
    if (!checkRv("C_Sign", rv, log) || len > signature.getSize()) {
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
