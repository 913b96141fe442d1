// The certificate cache and FindCert on real SoftHSM2 tokens.
#include "CertTokenTest.h"
#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "LogAssertions.h"
#include "XString.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <set>

using namespace p11client;
using namespace p11test;

namespace {

std::string toLower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string sha1Hex(const Bytes& der)
{
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    EVP_Digest(der.data(), der.size(), digest.data(), &size, EVP_sha1(), nullptr);
    digest.resize(size);
    return lowerHex(digest);
}

struct PartCase {
    std::string part;
    std::string value;
    std::string expectedLabel;
};

} // namespace

TEST_F(CertTokenTest, FindAllCertsCachesEachCertificateOfTheTokenOnce)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token));
    EXPECT_EQ(p11->get_NumCerts(), 0);
    ASSERT_TRUE(p11->FindAllCerts()) << logText();
    ASSERT_EQ(p11->get_NumCerts(), static_cast<int>(token.certs.size()));

    std::set<std::string> seen;
    std::set<unsigned long> handles;
    for (int i = 0; i < p11->get_NumCerts(); ++i) {
        ClsCert cert;
        ASSERT_TRUE(p11->GetCert(i, cert)) << logText();
        const TokenCert* expected = token.byDer(derOf(cert));
        ASSERT_NE(expected, nullptr) << "certificate " << i << " is none of the token's";
        SCOPED_TRACE(expected->label);
        seen.insert(expected->label);
        XString keyType;
        cert.get_KeyType(keyType);
        EXPECT_STREQ(keyType.getUtf8(), expected->ec ? "ECDSA" : "RSA");
        EXPECT_EQ(cert.get_KeySize(), expected->bits);
        EXPECT_FALSE(cert.HasPrivateKey()) << "nothing is linked before a pairing is asked for";
        DataBuffer id;
        cert.getCertificate()->getCkaId(id);
        EXPECT_EQ(Bytes(id.getData(), id.getData() + id.getSize()), expected->certId);
        handles.insert(cert.getCertificate()->getPkcs11ObjectHandle());
    }
    EXPECT_EQ(seen.size(), token.certs.size());
    EXPECT_EQ(handles.size(), token.certs.size());
    EXPECT_EQ(handles.count(0), 0U);

    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), static_cast<int>(token.certs.size())) << "a refill replaces the cache";
}

TEST_F(CertTokenTest, ACertificateObjectThatIsNotDerIsSkipped)
{
    const TestToken& token = tokens->ecToken();
    ASSERT_EQ(token.numBrokenCerts, 1);
    ASSERT_TRUE(openSession(token));
    ASSERT_TRUE(p11->FindAllCerts()) << logText();
    EXPECT_TRUE(hasInfo(*p11, "Skipping a certificate object whose value is not an X.509 certificate."));
    ASSERT_EQ(p11->get_NumCerts(), 1);
    ClsCert cert;
    ASSERT_TRUE(p11->GetCert(0, cert));
    EXPECT_EQ(derOf(cert), token.certs.front().der);
}

TEST_F(CertTokenTest, CertificatesArePublicButKeysShowOnlyAfterTheLogin)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token, false));
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), static_cast<int>(token.certs.size()));
    ClsCert cert;
    EXPECT_FALSE(p11->FindCert(XString("privateKey"), XString(""), cert)) << "the keys are private objects";
    EXPECT_TRUE(hasError(*p11, "Not found."));

    ASSERT_TRUE(p11->Login(ClsPkcs11::kUserTypeUser, XString(SoftHsmToken::kUserPin)));
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), cert)) << "the login must renew the caches\n"
                                                                          << logText();
    const TokenCert* expected = token.byDer(derOf(cert));
    ASSERT_NE(expected, nullptr);
    EXPECT_TRUE(expected->keyOnToken()) << expected->label;
    EXPECT_TRUE(cert.HasPrivateKey());
    EXPECT_TRUE(provesPairing(token, *cert.getCertificate(), *expected));
}

TEST_F(CertTokenTest, FindCertByEachPartNameFindsItsCertificate)
{
    const TestToken& token = tokens->main();
    const std::vector<PartCase> cases{
        {"subjectDN", token.byLabel("rsa3072-id").subjectNoTags(), "rsa3072-id"},
        {"subjectDN_withTags", token.byLabel("ec256-id").subjectWithTags(), "ec256-id"},
        {"subjectDN_withTags", token.byLabel("rsa2048-id").subjectWithTags(), "rsa2048-id"},
        {"issuerCN", token.byLabel("ec384-id").serialHex + ":" + CertTokens::kCaName, "ec384-id"},
        {"serial", toLower(token.byLabel("ec521-id").serialHex), "ec521-id"},
        {"thumbprint", sha1Hex(token.byLabel("rsa2048-subject").der), "rsa2048-subject"},
        {"policyOid", "1.3.6.1.4.1.59999.10.1", "rsa2048-id"},
        {"policyOid", " 2.23.140.1.2.1 ", "rsa3072-id"},
        {"keyUsage", "nonRepudiation", "rsa2048-id"},
        {"keyUsage", "keyAgreement", "ec256-id"},
        {"keyUsage", "certificateSigning", "ca"},
        {"CN", "Holder ec384-id", "ec384-id"},
        {"O", "Org rsa3072-modulus", "rsa3072-modulus"},
        {"Organization", "Org rsa2048-subject", "rsa2048-subject"},
        {"E", "signer@example.test", "rsa2048-id"},
        {"email", "signer@example.test", "rsa2048-id"},
    };
    ASSERT_TRUE(openSession(token));
    for (const PartCase& c : cases) {
        SCOPED_TRACE(c.part + " = " + c.value);
        ClsCert cert;
        ASSERT_TRUE(p11->FindCert(XString(c.part.c_str()), XString(c.value.c_str()), cert)) << logText();
        const TokenCert* found = token.byDer(derOf(cert));
        ASSERT_NE(found, nullptr);
        EXPECT_EQ(found->label, c.expectedLabel);
    }
}

TEST_F(CertTokenTest, FindCertWithAValueNoCertificateHasFails)
{
    const TestToken& token = tokens->main();
    const std::vector<PartCase> cases{
        {"subjectDN", token.byLabel("rsa3072-id").subjectWithTags(), ""},
        {"subjectDN_withTags", token.byLabel("rsa3072-id").subjectNoTags(), ""},
        {"issuerCN", token.byLabel("ec384-id").serialHex + ":Another CA", ""},
        {"serial", "5A00FF", ""},
        {"thumbprint", std::string(40, '0'), ""},
        {"policyOid", "1.3.6.1.4.1.59999.10", ""},
        {"keyUsage", "decipherOnly", ""},
        {"CN", "holder ec384-id", ""},
        {"E", "nobody@example.test", ""},
    };
    ASSERT_TRUE(openSession(token));
    for (const PartCase& c : cases) {
        SCOPED_TRACE(c.part + " = " + c.value);
        ClsCert cert;
        EXPECT_FALSE(p11->FindCert(XString(c.part.c_str()), XString(c.value.c_str()), cert));
        EXPECT_TRUE(hasError(*p11, "Not found."));
        EXPECT_TRUE(cert.get_IsEmpty());
    }
}

TEST_F(CertTokenTest, FindCertPrivateKeyGivesACertificateThatSignsWithItsKey)
{
    for (const TestToken* token : {&tokens->main(), &tokens->ecToken()}) {
        SCOPED_TRACE(token->label);
        newModuleObject();
        ASSERT_TRUE(openSession(*token));
        ClsCert cert;
        ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), cert)) << logText();
        const TokenCert* expected = token->byDer(derOf(cert));
        ASSERT_NE(expected, nullptr);
        EXPECT_TRUE(expected->keyOnToken()) << expected->label;
        EXPECT_TRUE(cert.HasPrivateKey());
        EXPECT_TRUE(provesPairing(*token, *cert.getCertificate(), *expected));
    }
}
