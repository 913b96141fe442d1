// Signing through the library on SoftHSM2: every signature of a linked
// certificate verifies with the certificate's public key in OpenSSL.
#include "CertTokenTest.h"

#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "XString.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

using namespace p11client;
using namespace p11test;

namespace {

struct Hash {
    const char* name;
    const EVP_MD* (*md)();
};

const Hash kHashes[] = {{"sha1", EVP_sha1}, {"sha256", EVP_sha256}, {"sha384", EVP_sha384}, {"sha512", EVP_sha512}};

DataBuffer digestOf(const Hash& hash, const std::string& message)
{
    DataBuffer digest;
    digest.resize(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    EVP_Digest(message.data(), message.size(), digest.getData(), &size, hash.md(), nullptr);
    digest.shorten(size);
    return digest;
}

// OpenSSL's verdict on a signature over a digest, with the padding asked for.
bool verifies(const Bytes& certDer, const Hash& hash, const DataBuffer& digest, const DataBuffer& signature,
              bool pss)
{
    const unsigned char* p = certDer.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(d2i_X509(nullptr, &p, static_cast<long>(certDer.size())),
                                                     X509_free);
    EVP_PKEY* key = x509 ? X509_get0_pubkey(x509.get()) : nullptr;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr),
                                                                    EVP_PKEY_CTX_free);
    if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_signature_md(ctx.get(), hash.md()) != 1)
        return false;
    if (EVP_PKEY_is_a(key, "RSA")) {
        const int padding = pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING;
        if (EVP_PKEY_CTX_set_rsa_padding(ctx.get(), padding) != 1)
            return false;
        if (pss && (EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), RSA_PSS_SALTLEN_DIGEST) != 1
                    || EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), hash.md()) != 1))
            return false;
    }
    return EVP_PKEY_verify(ctx.get(), signature.getData(), signature.getSize(), digest.getData(),
                           digest.getSize()) == 1;
}

class SoftHsmSigningTest : public CertTokenTest {
protected:
    // Signs the message's digest through the library and checks the result.
    void expectVerifiedSignature(ClsCert& cert, const TokenCert& expected, const Hash& hash, bool pss)
    {
        const std::string message = "signed on the token: " + expected.label;
        const DataBuffer digest = digestOf(hash, message);
        p11->put_UsePss(pss);
        DataBuffer signature;
        ASSERT_TRUE(p11->SignHash(cert, XString(hash.name), digest, signature)) << logText();
        DataBuffer checked;
        if (expected.ec) {
            EXPECT_EQ(static_cast<int>(signature.getSize()), cert.getCertificate()->getExpectedSignatureSize());
            ASSERT_TRUE(ClsPkcs11::EcdsaSignatureToDer(signature, checked));
        } else {
            checked.append(signature);
        }
        EXPECT_TRUE(verifies(expected.der, hash, digest, checked, pss))
            << expected.label << " " << hash.name << (pss ? " PSS" : "");
        ++verified;
    }

    int verified = 0;
};

} // namespace

TEST_F(SoftHsmSigningTest, EverySignatureOfALinkedCertificateVerifiesWithItsPublicKey)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token));
    ASSERT_TRUE(p11->FindAllCerts());
    int expectedChecks = 0;
    for (const std::shared_ptr<Certificate>& certificate : cachedCerts()) {
        DataBuffer der;
        certificate->getDer(der);
        const TokenCert* expected = token.byDer(Bytes(der.getData(), der.getData() + der.getSize()));
        if (expected == nullptr || !expected->keyOnToken())
            continue;
        ASSERT_TRUE(p11->linkCertToPkcs11Session(certificate.get(), false, p11->m_log)) << expected->label;
        ClsCert cert;
        ASSERT_TRUE(cert.injectCert(certificate, p11->m_log));
        for (const Hash& hash : kHashes) {
            expectVerifiedSignature(cert, *expected, hash, false);
            if (!expected->ec)
                expectVerifiedSignature(cert, *expected, hash, true);
        }
        expectedChecks += expected->ec ? 4 : 8;
    }
    EXPECT_GE(expectedChecks, 4 * 8 + 3 * 4) << "RSA 2048 and 3072 and P-256, P-384, P-521 were all signed with";
    EXPECT_EQ(verified, expectedChecks);
}

// A key that insists on its PIN at every signature, on a token of its own.
TEST_F(SoftHsmSigningTest, ContextSpecificLoginIsMadeForAKeyThatInsists)
{
    ASSERT_TRUE(p11->Initialize());
    const CK_SLOT_ID freeSlot = [&] {
        ClsJsonObject json;
        EXPECT_TRUE(p11->Discover(true, json));
        LogNull log;
        for (int i = 0; i < json.SizeOfArray(XString("slots")); ++i) {
            json.put_I(i);
            if (!json.boolOf("slots[i].token.flags.tokenInitialized", log))
                return static_cast<CK_SLOT_ID>(json.intOf("slots[i].id"));
        }
        return CK_SLOT_ID{0};
    }();
    const int slot = static_cast<int>(static_cast<std::uint32_t>(freeSlot));
    ASSERT_TRUE(p11->InitToken(slot, XString(SoftHsmToken::kSoPin), XString("eid")));
    ASSERT_TRUE(p11->OpenSession(slot, true));
    ASSERT_TRUE(p11->Login(0, XString(SoftHsmToken::kSoPin)));
    ASSERT_TRUE(p11->InitPin(XString(SoftHsmToken::kUserPin)));
    ASSERT_TRUE(p11->Logout());
    ASSERT_TRUE(p11->Login(1, XString(SoftHsmToken::kUserPin)));

    CertSpec spec;
    spec.key = makeEcKey("P-256");
    spec.subject = {{"CN", "eID signer"}};
    const Bytes der = makeCertDer(spec);
    {
        TokenSession session(tokens->module().functions(), freeSlot, SoftHsmToken::kUserPin);
        importPrivateKey(session, spec.key.get(), KeyObjectSpec{"eid key", {0x0E}, {}, true});
        importCertificate(session, der, CertObjectSpec{"eid cert", {0x0E}});
    }
    ClsCert cert;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), cert)) << logText();
    {
        // The token itself refuses a signature without the context login.
        TokenSession session(tokens->module().functions(), freeSlot);
        const TokenSignature bare = signOnToken(session, cert.getCertificate()->getLinkedKeyHandle(), true, "eID");
        EXPECT_EQ(bare.rv, CKR_USER_NOT_LOGGED_IN);
    }
    const DataBuffer digest = digestOf(kHashes[1], "eID");
    DataBuffer signature;
    EXPECT_FALSE(p11->SignHash(cert, XString("sha256"), digest, signature));
    EXPECT_NE(logText().find("The key needs the PIN at each signature"), std::string::npos);

    p11->put_SigContextPin(XString(SoftHsmToken::kUserPin));
    ASSERT_TRUE(p11->SignHash(cert, XString("sha256"), digest, signature)) << logText();
    DataBuffer checked;
    ASSERT_TRUE(ClsPkcs11::EcdsaSignatureToDer(signature, checked));
    EXPECT_TRUE(verifies(der, kHashes[1], digest, checked, false));
}
