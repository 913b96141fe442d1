#pragma once

// Direct Cryptoki access beside the library under test, for the tests and
// the benchmark tools: a module, a session, and objects put on a token with
// C_CreateObject.

#include <p11-kit/pkcs11.h>

#include <openssl/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace p11test {

using Bytes = std::vector<std::uint8_t>;

// Throws std::runtime_error naming the function when rv is not CKR_OK.
void checkCk(const char* function, CK_RV rv);

// The module file, opened with dlopen for the life of the object. Opening the
// same file as the library under test shares its loaded image, so the
// function list is the one the library initializes.
class CryptokiModule {
public:
    explicit CryptokiModule(const std::string& path);
    ~CryptokiModule(); // finalizes the module if this object initialized it and did not finalize it
    CryptokiModule(const CryptokiModule&) = delete;
    CryptokiModule& operator=(const CryptokiModule&) = delete;

    CK_FUNCTION_LIST* functions() const { return m_functions; }
    // C_Initialize (with the operating system's locks) and C_Finalize.
    void initialize();
    void finalize()
    {
        if (std::exchange(m_initialized, false))
            m_functions->C_Finalize(nullptr);
    }
    // The slots that hold a token.
    std::vector<CK_SLOT_ID> tokenSlots() const;
    // The slot whose token has this label; throws when there is none.
    CK_SLOT_ID slotOfToken(const std::string& label) const;
    // The first slot that holds a token.
    CK_SLOT_ID firstTokenSlot() const { return tokenSlots().at(0); }

private:
    void* m_handle = nullptr;
    CK_FUNCTION_LIST* m_functions = nullptr;
    bool m_initialized = false;
};

// A session on a slot of an initialized module, closed on destruction.
// With a PIN the normal user logs in (an existing login is accepted).
class TokenSession {
public:
    enum class Access { ReadOnly, ReadWrite };

    TokenSession(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, const char* userPin = nullptr, Access access = Access::ReadWrite);
    ~TokenSession() { m_functions->C_CloseSession(m_session); }
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    CK_SESSION_HANDLE handle() const { return m_session; }
    CK_FUNCTION_LIST* functions() const { return m_functions; }

private:
    CK_FUNCTION_LIST* m_functions;
    CK_SESSION_HANDLE m_session = 0;
};

// Attribute values by type; an empty value is left out of the template.
using Attributes = std::vector<std::pair<CK_ATTRIBUTE_TYPE, Bytes>>;
inline Bytes ulongValue(CK_ULONG value) { const auto* p = reinterpret_cast<const std::uint8_t*>(&value); return Bytes(p, p + sizeof value); }
inline Bytes boolValue(bool value) { return Bytes{static_cast<std::uint8_t>(value ? CK_TRUE : CK_FALSE)}; }
inline Bytes textValue(const std::string& text) { return Bytes(text.begin(), text.end()); }
CK_OBJECT_HANDLE createObject(const TokenSession& session, const Attributes& attributes);
// The objects matching the template, in the order the token gives them.
std::vector<CK_OBJECT_HANDLE> findObjects(const TokenSession& session, const Attributes& match);

// How a private key object is stored: its label, and CKA_ID and CKA_SUBJECT
// when not empty.
struct KeyObjectSpec {
    std::string label;
    Bytes id{}, subject{};
    bool alwaysAuthenticate = false; // CKA_ALWAYS_AUTHENTICATE: a login at each signature
    bool sign = true;                // CKA_SIGN
};

// A private token object (sensitive, not extractable) with the key
// components of an RSA or EC key made by OpenSSL. RSA keys may also decrypt.
CK_OBJECT_HANDLE importPrivateKey(const TokenSession& session, EVP_PKEY* key, const KeyObjectSpec& spec);

// An EC key's public point as CKA_EC_POINT holds it: in a DER OCTET STRING,
// or raw as some tokens keep it.
Bytes ecPointValue(EVP_PKEY* key, bool derWrapped = true);
// A public token object with the public components of an RSA or EC key, its
// label and CKA_ID.
CK_OBJECT_HANDLE importPublicKey(const TokenSession& session, EVP_PKEY* key, const KeyObjectSpec& spec);

// The parts of a certificate object; the X.509 ones are read from the DER.
struct CertObjectSpec {
    std::string label;
    Bytes id{}; // no CKA_ID when empty
};

// A public X.509 certificate object holding the DER, with its subject,
// issuer and serial number.
CK_OBJECT_HANDLE importCertificate(const TokenSession& session, const Bytes& der, const CertObjectSpec& spec);

} // namespace p11test
