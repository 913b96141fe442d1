#pragma once

// The test run's SoftHSM2 token store, made once per process and kept
// initialized by the test itself (the library only ever initializes the
// shim's images). SoftHSM2 gives a token's objects new handles once its last
// session closes: handles are looked up while the library's session is open.
//
//  main token ("p11client-test"), certificates issued by a test CA, subjects
//  C=FR, O=Org <label>, CN=Holder <label>, serial 5A00<index in the list>
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
//  scratch token: emptied and filled by the tests that need objects of their own
//  admin token: initialized again and given new PINs by the administration test
//
// SoftHSM2 keeps no CKA_EC_POINT on an EC private key, so an EC certificate
// without a CKA_ID match can only get the first EC key of its token: that
// case lives on a token of its own. Keys and certificates share their label.

#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "LogAssertions.h"
#include "ShimControl.h"
#include "SoftHsmObjects.h"
#include "SoftHsmToken.h"
#include "StringBuffer.h"
#include "TestCertFactory.h"
#include "TokenSignature.h"
#include "XString.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <type_traits>

namespace p11test {

using namespace p11client;

// The lines with which the library says how it paired a certificate.
inline constexpr const char *kRsaById = "Found matching PKCS11 RSA private key by ID.", *kEcById = "Found matching PKCS11 ECDSA private key.",
                            *kBySubject = "Found matching PKCS11 RSA private key by Subject DER.",
                            *kByModulus = "Found matching PKCS11 RSA private key by modulus.", *kFirstEcKey = "Using first PKCS11 ECDSA private key",
                            *kOnlyKey = "Using only possible private key", *kNoRsaKey = "No matching RSA private key found.",
                            *kUnproven = "The private key was chosen without proof that it belongs to the certificate.",
                            *kNotItsKey = "The signature made with the token's key does not verify with the certificate's public key: "
                                          "the key does not belong to this certificate.";

struct TokenCert {
    std::string label;
    const char* curve; // null for RSA
    int bits;          // modulus bits, or curve order bits
    Bytes certId, keyId;
    const char* pairedBy; // the line the library pairs it with; null: its key is not on the token
    std::string keyUsage, email; // of the certificate
    std::vector<std::string> policies{};
    Bytes der{};
    TestKey key{}; // the certificate's key pair

    bool ec() const { return curve != nullptr; }
    bool keyOnToken() const { return pairedBy != nullptr; }
    int signatureSize() const { return (bits + 7) / 8 * (ec() ? 2 : 1); }
};

struct TestToken {
    std::string label;
    CK_SLOT_ID slot = 0;
    std::vector<TokenCert> certs{}; // X.509 certificates only

    int slotNumber() const { return static_cast<int>(static_cast<std::uint32_t>(slot)); }
    const TokenCert* byDer(const Bytes& der) const
    {
        const auto it = std::ranges::find(certs, der, &TokenCert::der);
        return it == certs.end() ? nullptr : &*it;
    }
    const TokenCert& operator[](const std::string& name) const { return *std::ranges::find(certs, name, &TokenCert::label); }
};

struct TestTokens {
    TestTokens(); // throws when the store cannot be made
    // Made at the first test, kept for the process.
    static TestTokens& get() { static TestTokens tokens; return tokens; }
    // A session of the test's own on a slot, the user logged in.
    TokenSession session(CK_SLOT_ID slot) { return TokenSession(module.functions(), slot, SoftHsmToken::kUserPin); }

    SoftHsmToken store;
    CryptokiModule module{SoftHsmToken::modulePath()};
    TestToken main{SoftHsmToken::kLabel}, ec{"p11client-ec"};
    CK_SLOT_ID scratch = 0, admin = 0;
};

inline Bytes bytesOf(const DataBuffer& data) { return Bytes(data.getData(), data.getData() + data.getSize()); }
inline DataBuffer bufferOf(const Bytes& bytes) { return DataBuffer(bytes.data(), bytes.size()); }
inline Bytes derOf(const Certificate& cert) { DataBuffer der; return cert.getDer(der) ? bytesOf(der) : Bytes{}; }
inline Bytes derOf(ClsCert& cert) { return derOf(*cert.getCertificate()); }
// What OpenSSL verifies of a signature the token made: RSA as it is, ECDSA
// in the DER form the library makes of r||s.
inline Bytes verifiable(const DataBuffer& signature, bool ec)
{
    DataBuffer der;
    return !ec ? bytesOf(signature) : ClsPkcs11::EcdsaSignatureToDer(signature, der) ? bytesOf(der) : Bytes{};
}
inline std::string lowerHex(const Bytes& bytes)
{
    std::string out;
    for (std::uint8_t b : bytes)
        out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return out;
}

// A ClsPkcs11 on the shim's standard image in front of the test tokens. Every
// rule of the shim is lifted before a test; the object is destroyed after
// it, which finalizes the image.
class TokenTest : public ::testing::Test {
protected:
    void SetUp() override { shim::reset(); }
    static std::unique_ptr<ClsPkcs11> newObject(const std::string& path = shim::modulePath())
    {
        std::unique_ptr<ClsPkcs11> object(ClsPkcs11::createNewCls());
        object->put_SharedLibPath(XString(path.c_str()));
        return object;
    }
    std::string logText() { XString text; p11->get_LogText(text); return text.getUtf8(); }
    // Loads the module and opens a read-write session on the slot, with the
    // user logged in when asked.
    ::testing::AssertionResult openSession(CK_SLOT_ID slot, bool login = true)
    {
        if (!p11->Initialize() || !p11->OpenSession(static_cast<int>(static_cast<std::uint32_t>(slot)), true)
            || (login && !p11->Login(ClsPkcs11::kUserTypeUser, XString(SoftHsmToken::kUserPin))))
            return ::testing::AssertionFailure() << "session on slot " << slot << ":\n" << logText();
        return ::testing::AssertionSuccess();
    }
    // Empties the scratch token, lets `fill` put objects on it, then opens a
    // session there (user logged in) with a new object on the module image.
    ::testing::AssertionResult onScratch(const std::function<void(const TokenSession&)>& fill, const std::string& image = shim::modulePath())
    {
        {
            const TokenSession s = tokens.session(tokens.scratch);
            for (CK_OBJECT_HANDLE object : findObjects(s, {}))
                checkCk("C_DestroyObject", s.functions()->C_DestroyObject(s.handle(), object));
            fill(s);
        }
        p11 = newObject(image);
        return openSession(tokens.scratch);
    }
    // The cache's certificates, in cache order (FindAllCerts must have run).
    std::vector<std::shared_ptr<Certificate>> cachedCerts()
    {
        std::vector<std::shared_ptr<Certificate>> out;
        for (ClsCert cert; static_cast<int>(out.size()) < p11->get_NumCerts(); out.push_back(cert.getCertificate()))
            EXPECT_TRUE(p11->GetCert(static_cast<int>(out.size()), cert)) << logText();
        return out;
    }
    // Whether the certificate is linked to this object with the key type and
    // signature size of the expected one, and its key handle signs on the
    // token what the expected certificate verifies. The library's login on
    // the token holds for every session of the process.
    ::testing::AssertionResult provesPairing(const Certificate& cert, const TokenCert& expected)
    {
        const TokenSession s(tokens.module.functions(), tokens.main.byDer(expected.der) != nullptr ? tokens.main.slot : tokens.ec.slot);
        const Bytes raw = cert.isLinkedToPkcs11() ? signOnToken(s, cert.getLinkedKeyHandle(), expected.ec(), "proof") : Bytes{};
        if (cert.getLinkedPkcs11() != p11.get() || cert.getLinkedKeyType() != (expected.ec() ? Certificate::kKeyTypeEcdsa : Certificate::kKeyTypeRsa)
            || cert.getExpectedSignatureSize() != expected.signatureSize() || static_cast<int>(raw.size()) != expected.signatureSize()
            || !verifiesDigest(expected.der, "sha256", digestOf("sha256", "proof"), verifiable(bufferOf(raw), expected.ec())))
            return ::testing::AssertionFailure() << expected.label << ": key type " << cert.getLinkedKeyType() << ", size " << raw.size();
        return ::testing::AssertionSuccess();
    }
    // The handles of the objects of this class (and label) on the slot, in the
    // order the token gives them; private ones need the library's login.
    std::vector<CK_OBJECT_HANDLE> handles(CK_SLOT_ID slot, CK_OBJECT_CLASS objectClass, const std::string& label = "")
    {
        return findObjects(TokenSession(tokens.module.functions(), slot), {{CKA_CLASS, ulongValue(objectClass)}, {CKA_LABEL, textValue(label)}});
    }
    bool findCert(const std::string& part, const std::string& value, ClsCert& cert)
    {
        return p11->FindCert(XString(part.c_str()), XString(value.c_str()), cert);
    }
    // The texts of json at prefix + member ("<none>" when absent).
    Lines texts(const std::string& prefix, const Lines& members)
    {
        Lines out;
        LogNull quiet;
        for (StringBuffer sb; const std::string& m : members)
            out.push_back(json.sbOfPathUtf8((prefix + m).c_str(), sb, quiet) ? sb.toStdString() : "<none>"), sb.clear();
        return out;
    }
    std::string text(const std::string& path) { return texts(path, {""})[0]; }
    // A field of each call the shim recorded (of this function only, when named).
    template <class Field>
    static auto recorded(Field field, const std::string& function = "")
    {
        std::vector<std::decay_t<std::invoke_result_t<Field, const shim::Call&>>> out;
        for (const shim::Call& c : shim::calls())
            if (function.empty() || c.function == function)
                out.push_back(std::invoke(field, c));
        return out;
    }

    TestTokens& tokens = TestTokens::get();
    ClsJsonObject json;
    std::unique_ptr<ClsPkcs11> p11 = newObject();
};

} // namespace p11test
