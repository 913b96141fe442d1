#pragma once

// Two SoftHSM2 tokens, made once per test binary in a fresh token store and
// filled with keys and certificates issued by a test CA:
//
//  main token ("p11client-test")
//   ca                RSA 2048 CA certificate; its key is NOT on the token
//   rsa2048-id        RSA 2048   key and cert share CKA_ID 01
//   rsa3072-id        RSA 3072   key and cert share CKA_ID 02
//   ec256-id          EC P-256   key and cert share CKA_ID 03
//   ec384-id          EC P-384   key and cert share CKA_ID a1b2
//   ec521-id          EC P-521   key and cert share CKA_ID 05
//   rsa2048-subject   RSA 2048   no CKA_ID anywhere; the key holds the subject
//   rsa3072-modulus   RSA 3072   cert CKA_ID 7f (no key has it); key without
//                                CKA_ID or subject: only the modulus pairs it
//  EC token ("p11client-ec")
//   ec384-noid        EC P-384   no CKA_ID anywhere, the token's only EC key
//   not-der           a certificate object whose value is not DER
//
// SoftHSM2 keeps no CKA_EC_POINT on an EC private key, so an EC certificate
// without a CKA_ID match can only get the first EC key of its token: that
// case lives on a token of its own, where the first key is the right one.
// Keys and certificates share their label.

#include "SoftHsmObjects.h"
#include "SoftHsmToken.h"
#include "TestCertFactory.h"

#include <memory>
#include <string>
#include <vector>

namespace p11test {

// How the library is expected to pair a certificate with its key.
enum class Pairing { ById, BySubject, ByModulus, OnlyEcKey, NoKey };

struct TokenCert {
    std::string label;
    Bytes der;
    TestKey key;       // the certificate's key pair
    bool ec = false;
    int bits = 0;      // modulus bits, or curve order bits
    std::string curve; // OpenSSL short name of the curve
    std::string cn;
    std::string org;
    std::string email; // empty when the subject has none
    std::string serialHex;
    std::string keyUsage;
    std::vector<std::string> policies;
    Bytes certId;
    Bytes keyId;
    Pairing pairing = Pairing::ById;

    bool keyOnToken() const { return pairing != Pairing::NoKey; }
    // Text forms of the subject, built from the names above.
    std::string subjectWithTags() const;
    std::string subjectNoTags() const;
};

struct TestToken {
    std::string label;
    CK_SLOT_ID slot = 0;
    std::vector<TokenCert> certs; // X.509 certificates only
    int numBrokenCerts = 0;       // certificate objects that are not DER

    int slotNumber() const { return static_cast<int>(static_cast<std::uint32_t>(slot)); }
    int numKeys() const;
    int numKeys(bool ec) const;
    const TokenCert* byDer(const Bytes& der) const;
    const TokenCert& byLabel(const std::string& certLabel) const;
};

struct CertPlan; // what to issue for one key, in CertTokens.cpp

class CertTokens {
public:
    static constexpr const char* kEcTokenLabel = "p11client-ec";
    static constexpr const char* kCaName = "p11client Test CA";
    static constexpr const char* kCaOrganization = "p11client Test";

    // Makes the token store, both tokens and their objects; the module is
    // finalized again before this returns.
    CertTokens();

    // The instance the test environment made.
    static CertTokens& get();

    CryptokiModule& module() { return *m_module; }
    const TestToken& main() const { return m_main; }
    const TestToken& ecToken() const { return m_ec; }

private:
    void makeCertificates();
    TokenCert issue(const CertPlan& plan, const TestKey& key, const Bytes& serial) const;
    void populate(TestToken& token);

    SoftHsmToken m_store;
    std::unique_ptr<CryptokiModule> m_module;
    TestKey m_caKey;
    std::vector<NameAttr> m_caName;
    TestToken m_main;
    TestToken m_ec;
};

} // namespace p11test
