// Pairing each certificate of a real SoftHSM2 token with its private key,
// proven by a signature on the token that the certificate verifies.
#include "CertTokenTest.h"
#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "XString.h"

using namespace p11client;
using namespace p11test;

namespace {

// The information line with which the library reports the way it paired.
std::string pairingMessage(const TokenCert& c)
{
    switch (c.pairing) {
    case Pairing::ById:
        return c.ec ? "Found matching PKCS11 ECDSA private key." : "Found matching PKCS11 RSA private key by ID.";
    case Pairing::BySubject: return "Found matching PKCS11 RSA private key by Subject DER.";
    case Pairing::ByModulus: return "Found matching PKCS11 RSA private key by modulus.";
    case Pairing::OnlyEcKey: return "Using first PKCS11 ECDSA private key";
    case Pairing::NoKey: break;
    }
    return {};
}

class PairingTest : public CertTokenTest {
protected:
    // Links every certificate of the token with a fresh module object and
    // proves each pairing; a certificate whose key is not on the token must
    // stay unlinked.
    void linkEveryCertificate(const TestToken& token, bool minimalFirstPass)
    {
        newModuleObject();
        ASSERT_TRUE(openSession(token));
        ASSERT_TRUE(p11->FindAllCerts()) << logText();
        const auto certs = cachedCerts();
        ASSERT_EQ(certs.size(), token.certs.size());
        for (const auto& cert : certs) {
            const TokenCert* expected = token.byDer(derBytes(*cert));
            ASSERT_NE(expected, nullptr);
            SCOPED_TRACE(expected->label);
            _qxLogger log;
            const bool linked = p11->linkCertToPkcs11Session(cert.get(), minimalFirstPass, log);
            if (!expected->keyOnToken()) {
                EXPECT_FALSE(linked) << log.renderText();
                EXPECT_FALSE(cert->isLinkedToPkcs11());
                EXPECT_TRUE(logHas(log, LogEntry::Kind::Error, "No matching private key found on the HSM."));
                continue;
            }
            ASSERT_TRUE(linked) << log.renderText();
            EXPECT_TRUE(logHas(log, LogEntry::Kind::Info, pairingMessage(*expected))) << log.renderText();
            EXPECT_TRUE(provesPairing(token, *cert, *expected));
        }
    }

    static Bytes derBytes(const Certificate& cert)
    {
        DataBuffer der;
        cert.getDer(der);
        return Bytes(der.getData(), der.getData() + der.getSize());
    }
};

} // namespace

TEST_F(PairingTest, EveryCertificateIsPairedWithItsOwnKey)
{
    linkEveryCertificate(tokens->main(), false);
}

TEST_F(PairingTest, AMinimalFirstPassPairsEveryCertificateTheSameWay)
{
    linkEveryCertificate(tokens->main(), true);
}

TEST_F(PairingTest, AnEcCertificateWithoutIdTakesTheOnlyEcKeyOfItsToken)
{
    linkEveryCertificate(tokens->ecToken(), false);
    linkEveryCertificate(tokens->ecToken(), true);
}

TEST_F(PairingTest, ASignatureVerifiesOnlyWithTheCertificateOfItsKey)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token));
    ClsJsonObject json;
    ASSERT_TRUE(json.Load(XString(R"({"class": "privateKey", "id": "01"})")));
    ASSERT_TRUE(p11->FindObject(json));
    ASSERT_EQ(json.IntOf(XString("count")), 1);
    const auto handle = static_cast<unsigned long>(json.IntOf(XString("objects[0].handle")));

    EXPECT_TRUE(keySignsFor(token, handle, token.byLabel("rsa2048-id")));
    EXPECT_FALSE(keySignsFor(token, handle, token.byLabel("rsa2048-subject")));
    EXPECT_FALSE(keySignsFor(token, handle, token.byLabel("ca")));
}

TEST_F(PairingTest, TheCachesOutliveLogoutAndCloseButNotASwitchToAnotherToken)
{
    const TestToken& main = tokens->main();
    const TestToken& ecToken = tokens->ecToken();
    const int numCerts = static_cast<int>(main.certs.size());
    ASSERT_TRUE(openSession(main));
    ClsCert onMain;
    ASSERT_TRUE(p11->FindCert(XString("CN"), XString(main.byLabel("ec256-id").cn.c_str()), onMain));
    _qxLogger log;
    ASSERT_TRUE(p11->linkCertToPkcs11Session(onMain.getCertificate().get(), false, log)) << log.renderText();

    ASSERT_TRUE(p11->Logout());
    EXPECT_EQ(p11->get_NumCerts(), numCerts);
    EXPECT_TRUE(onMain.HasPrivateKey());
    ASSERT_TRUE(p11->CloseSession());
    EXPECT_EQ(p11->get_NumCerts(), numCerts);
    EXPECT_TRUE(onMain.HasPrivateKey());
    ASSERT_TRUE(p11->OpenSession(main.slotNumber(), true));
    EXPECT_EQ(p11->get_NumCerts(), numCerts) << "same token, same cache";

    // The main token's EC key must not serve the other token's certificate.
    ASSERT_TRUE(openSession(ecToken));
    EXPECT_EQ(p11->get_NumCerts(), 0);
    EXPECT_FALSE(onMain.HasPrivateKey()) << "a certificate of the other token stays linked";
    EXPECT_FALSE(onMain.get_IsEmpty()) << "the ClsCert keeps its certificate";
    ClsCert onEcToken;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), onEcToken)) << logText();
    ASSERT_EQ(derOf(onEcToken), ecToken.certs.front().der);
    EXPECT_TRUE(provesPairing(ecToken, *onEcToken.getCertificate(), ecToken.certs.front()));
}
