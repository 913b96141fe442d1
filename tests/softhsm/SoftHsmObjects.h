#pragma once

// Direct Cryptoki access for the tests: the SoftHSM2 module opened beside the
// library under test, to put keys and certificates on a token and to sign
// with a key handle the library reports.

#include <p11-kit/pkcs11.h>

#include <openssl/types.h>

#include <cstdint>
#include <string>
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
    ~CryptokiModule();
    CryptokiModule(const CryptokiModule&) = delete;
    CryptokiModule& operator=(const CryptokiModule&) = delete;

    CK_FUNCTION_LIST* functions() const { return m_functions; }
    // The slot whose token has this label; throws when there is none.
    CK_SLOT_ID slotOfToken(const std::string& label) const;

private:
    void* m_handle = nullptr;
    CK_FUNCTION_LIST* m_functions = nullptr;
};

// A session on a slot of an initialized module, closed on destruction.
// With a PIN the normal user logs in (an existing login is accepted).
class TokenSession {
public:
    TokenSession(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, const char* userPin = nullptr);
    ~TokenSession();
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    CK_SESSION_HANDLE handle() const { return m_session; }
    CK_FUNCTION_LIST* functions() const { return m_functions; }

private:
    CK_FUNCTION_LIST* m_functions;
    CK_SESSION_HANDLE m_session = 0;
};

// How a private key object is stored: its label, and CKA_ID and CKA_SUBJECT
// when not empty.
struct KeyObjectSpec {
    std::string label;
    Bytes id;
    Bytes subject;
    bool alwaysAuthenticate = false; // CKA_ALWAYS_AUTHENTICATE: a login at each signature
};

// A private token object (sensitive, not extractable, may sign) with the key
// components of an RSA or EC key made by OpenSSL. RSA keys may also decrypt.
CK_OBJECT_HANDLE importPrivateKey(const TokenSession& session, EVP_PKEY* key, const KeyObjectSpec& spec);

// The parts of a certificate object; the X.509 ones are read from the DER.
struct CertObjectSpec {
    std::string label;
    Bytes id; // no CKA_ID when empty
};

// A public X.509 certificate object holding the DER.
CK_OBJECT_HANDLE importCertificate(const TokenSession& session, const Bytes& der, const CertObjectSpec& spec);

// The DER of the subject name of a DER certificate.
Bytes subjectDerOf(const Bytes& certDer);

// A certificate object whose value is not a certificate; subject and issuer
// are those given (DER names), as a broken token might hold them.
CK_OBJECT_HANDLE importCertificateValue(const TokenSession& session, const Bytes& value, const Bytes& nameDer,
                                        const CertObjectSpec& spec);

} // namespace p11test
