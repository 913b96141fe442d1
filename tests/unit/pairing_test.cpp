// The certificate cache, pairing certificates with private keys, and
// selection, against the mock module.
#include "Certificate.h"
#include "ClsCert.h"
#include "MockFixture.h"
#include "MockTokenObjects.h"
#include "SystemCertsHolder.h"

#include <unistd.h>

#include <filesystem>

using namespace p11client;
using namespace p11test;

namespace {

class PairingTest : public MockModuleTest {
protected:
    void SetUp() override
    {
        MockModuleTest::SetUp();
        ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    }

    static CertSpec specFor(const TestKey& key, const char* cn, std::vector<std::uint8_t> serial = {0x0A, 0x1B})
    {
        CertSpec spec;
        spec.key = key;
        spec.subject = {{"C", "FR"}, {"O", "Example Corp"}, {"CN", cn}};
        spec.serial = std::move(serial);
        return spec;
    }

    static CertSpec issuedBy(CertSpec spec, const TestKey& caKey, const char* issuerCn)
    {
        spec.issuerKey = caKey;
        spec.issuer = {{"C", "ES"}, {"CN", issuerCn}};
        return spec;
    }

    bool findCert(const char* part, const char* value, ClsCert& cert)
    {
        return p11->FindCert(XString(part), XString(value), cert);
    }

    static std::string subjectCn(ClsCert& cert)
    {
        XString cn;
        cert.get_SubjectCN(cn);
        return cn.getUtf8();
    }
};

} // namespace

TEST_F(PairingTest, CacheHoldsTheTokensCertificatesInOrderAndSkipsBrokenOnes)
{
    const TestKey key = makeEcKey("P-256");
    addMockCert(kSlot, makeCertDer(specFor(key, "first")), {0x01});
    mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_CERTIFICATE), mock::ulongAttr(CKA_CERTIFICATE_TYPE, CKC_X_509),
                            mock::bytesAttr(CKA_VALUE, {0x30, 0x03, 0x02, 0x01, 0x01})});
    addMockCert(kSlot, makeCertDer(specFor(key, "second")));

    EXPECT_EQ(p11->get_NumCerts(), 0);
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_TRUE(hasInfo(*p11, "Skipping a certificate object whose value is not an X.509 certificate."));
    ASSERT_EQ(p11->get_NumCerts(), 2);
    ASSERT_TRUE(p11->FindAllCerts());
    EXPECT_EQ(p11->get_NumCerts(), 2) << "a refill replaces the cache";

    ClsCert cert;
    ASSERT_TRUE(p11->GetCert(1, cert));
    EXPECT_EQ(subjectCn(cert), "second");
    EXPECT_EQ(cert.getSystemCertsPtr(), p11->getSystemCertsPtr()) << "the module's store itself, not a copy";
    for (int bad : {-1, 2}) {
        ClsCert untouched;
        EXPECT_FALSE(p11->GetCert(bad, untouched));
        EXPECT_EQ(errors(*p11), (std::vector<std::string>{"Error loading certificate object from DER.", "Failed."}));
    }
}

TEST_F(PairingTest, KeyMatchingByIdPassesOverAKeyThatMayNotSign)
{
    const TestKey key = makeRsaKey(2048);
    addMockCert(kSlot, makeCertDer(specFor(key, "rsa")), {0x42});
    addMockPrivateKey(kSlot, key, MockKeyOptions().withId({0x42}).withSign(false));
    const CK_OBJECT_HANDLE good = addMockPrivateKey(kSlot, key, MockKeyOptions().withId({0x42}));

    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    EXPECT_TRUE(hasInfo(*p11, "Found matching PKCS11 RSA private key by ID, but it does not have the CKA_SIGN attribute."));
    EXPECT_TRUE(hasInfo(*p11, "Found matching PKCS11 RSA private key by ID."));
    EXPECT_EQ(dataValues(*p11, "expectedSignatureSize").front(), "256");
    EXPECT_TRUE(cert.HasPrivateKey());
    EXPECT_EQ(cert.getCertificate()->getLinkedKeyHandle(), good);
}

TEST_F(PairingTest, ModulusMatchesWithAndWithoutTheLeadingZeroByte)
{
    const TestKey a = makeRsaKey(2048);
    const TestKey b = makeRsaKey(2048);
    addMockCert(kSlot, makeCertDer(specFor(a, "a")));
    addMockCert(kSlot, makeCertDer(specFor(b, "b")));
    const CK_OBJECT_HANDLE keyA = addMockPrivateKey(kSlot, a, MockKeyOptions().withLeadingZero(true));
    const CK_OBJECT_HANDLE keyB = addMockPrivateKey(kSlot, b, MockKeyOptions());

    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    EXPECT_EQ(cert.getCertificate()->getLinkedKeyHandle(), keyA);
    EXPECT_TRUE(hasInfo(*p11, "Found matching PKCS11 RSA private key by modulus."));
    EXPECT_EQ(contextOf(*p11, "Found matching PKCS11 RSA private key by modulus."), "retry_subjectDer_modulus")
        << "the first pass was minimal, the retry read the modulus";

    ASSERT_TRUE(p11->FindAllCerts());
    ClsCert second;
    ASSERT_TRUE(p11->GetCert(1, second));
    ASSERT_TRUE(p11->linkCertToPkcs11Session(second.getCertificate().get(), false, p11->m_log));
    EXPECT_EQ(second.getCertificate()->getLinkedKeyHandle(), keyB);
}

TEST_F(PairingTest, SubjectDerPairsAKeyWithoutIdOrModulusMatch)
{
    const TestKey key = makeRsaKey(2048);
    const TestKey other = makeRsaKey(2048);
    const auto der = makeCertDer(specFor(key, "by subject"));
    addMockCert(kSlot, der);
    addMockCert(kSlot, makeCertDer(specFor(other, "unrelated")));
    const CK_OBJECT_HANDLE h = addMockPrivateKey(kSlot, other, MockKeyOptions().withSubject(subjectDerOf(der)));
    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    EXPECT_EQ(cert.getCertificate()->getLinkedKeyHandle(), h);
    EXPECT_TRUE(hasInfo(*p11, "Found matching PKCS11 RSA private key by Subject DER."));
}

TEST_F(PairingTest, EcPointsMatchWhetherStoredRawOrDerWrapped)
{
    for (auto form : {MockKeyOptions::Point::Raw, MockKeyOptions::Point::DerWrapped}) {
        mock::reset();
        mock::addSlot(kSlot, mock::SlotSpec{});
        p11 = makeObject(mock::modulePath());
        ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
        const TestKey decoy = makeEcKey("P-384");
        const TestKey key = makeEcKey("P-384");
        addMockCert(kSlot, makeCertDer(specFor(key, "ec")));
        addMockPrivateKey(kSlot, decoy, MockKeyOptions().withPoint(form));
        const CK_OBJECT_HANDLE h = addMockPrivateKey(kSlot, key, MockKeyOptions().withPoint(form));
        ASSERT_TRUE(p11->FindAllCerts());
        ClsCert cert;
        ASSERT_TRUE(p11->GetCert(0, cert));
        ASSERT_TRUE(p11->linkCertToPkcs11Session(cert.getCertificate().get(), false, p11->m_log));
        EXPECT_EQ(cert.getCertificate()->getLinkedKeyHandle(), h);
        EXPECT_EQ(cert.getCertificate()->getExpectedSignatureSize(), 96);
        EXPECT_TRUE(hasError(*p11, "Certificate key type is ECDSA."));
    }
}

TEST_F(PairingTest, LoneKeyOfALoneCertificateIsTakenWithoutComparison)
{
    const TestKey certKey = makeRsaKey(2048);
    addMockCert(kSlot, makeCertDer(specFor(certKey, "lone")));
    const CK_OBJECT_HANDLE h = addMockPrivateKey(kSlot, makeRsaKey(2048), MockKeyOptions().withSign(false));
    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    EXPECT_TRUE(hasInfo(*p11, "Using only possible private key"));
    EXPECT_EQ(cert.getCertificate()->getLinkedKeyHandle(), h);
}

TEST_F(PairingTest, NoKeyMeansNotFound)
{
    addMockCert(kSlot, makeCertDer(specFor(makeRsaKey(2048), "keyless")));
    ClsCert cert;
    EXPECT_FALSE(findCert("privateKey", "", cert));
    EXPECT_TRUE(hasInfo(*p11, "No matching RSA private key found."));
    EXPECT_EQ(errors(*p11), (std::vector<std::string>{"Not found.", "Failed."}));
    EXPECT_FALSE(cert.HasPrivateKey());
}

TEST_F(PairingTest, CertificatesFromTheDeferredIssuerGiveWayToTheNextEligibleOne)
{
    const TestKey ca = makeEcKey("P-256");
    const TestKey k1 = makeEcKey("P-256");
    const TestKey k2 = makeEcKey("P-256");
    const TestKey k3 = makeEcKey("P-256");
    addMockCert(kSlot, makeCertDer(issuedBy(specFor(k1, "one"), ca, "EC de Autenticacio del Ciutada")), {1});
    addMockCert(kSlot, makeCertDer(issuedBy(specFor(k2, "two"), ca, "EC de Autenticacio del Ciutada")), {2});
    addMockCert(kSlot, makeCertDer(issuedBy(specFor(k3, "three"), ca, "Other CA")), {3});
    for (std::uint8_t id : {std::uint8_t{1}, std::uint8_t{2}, std::uint8_t{3}})
        addMockPrivateKey(kSlot, id == 1 ? k1 : id == 2 ? k2 : k3, MockKeyOptions().withId({id}));

    ClsCert cert;
    ASSERT_TRUE(findCert(" PRIVATEKEY ", "ignored", cert));
    EXPECT_EQ(subjectCn(cert), "two");
    EXPECT_EQ(dataValues(*p11, "chosenCertDN").size(), 1u);
    EXPECT_EQ(dataValues(*p11, "candidateCert").size(), 1u);
}

TEST_F(PairingTest, ALoneDeferredCertificateIsChosenAfterTheLoop)
{
    const TestKey key = makeEcKey("P-256");
    addMockCert(kSlot, makeCertDer(issuedBy(specFor(key, "only"), makeEcKey("P-256"), "EC de Autenticacio")), {7});
    addMockPrivateKey(kSlot, key, MockKeyOptions().withId({7}));
    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    EXPECT_TRUE(hasInfo(*p11, "The candidate certificate was chosen."));
    EXPECT_TRUE(dataValues(*p11, "chosenCertDN").empty());
}

TEST_F(PairingTest, SelectionByPart)
{
    CertSpec first = specFor(makeEcKey("P-256"), "Alice", {0x0A, 0x1B});
    first.subject.push_back({"emailAddress", "alice@example.com"});
    first.keyUsage = "critical,keyEncipherment";
    CertSpec second = specFor(makeEcKey("P-256"), "Bob", {0x0C, 0x2D});
    second.subject[1].value = "Other Org";
    second.keyUsage = "critical,digitalSignature";
    second.policies = {"1.2.3.4"};
    addMockCert(kSlot, makeCertDer(first));
    addMockCert(kSlot, makeCertDer(second));

    const struct {
        const char* part;
        const char* value;
        const char* cn; // nullptr: no match
    } cases[] = {
        {"", "anything", "Alice"},
        {"serial", "0c2d", "Bob"},
        {"serialnumber", "0C2D", "Bob"},
        {"serial", " 0C2D", nullptr},
        {"issuercn", "0C2D:Bob", "Bob"},
        {"issuercn", "0c2d:Bob", nullptr},
        {"keyusage", "DigitalSignature", "Bob"},
        {"x509keyusage", "DigitalSignature", nullptr},
        {"policyoid", " 1.2.3.4 ", "Bob"},
        {" Organization ", "Other Org", "Bob"},
        {"EMAIL", "alice@example.com", "Alice"},
        {"cn", "Bob", "Bob"},
        {"subjectdn_withtags", "CN=Bob, O=Other Org, C=FR", "Bob"},
        {"subjectdn", "Bob, Other Org, FR", "Bob"},
    };
    for (const auto& c : cases) {
        ClsCert cert;
        const bool found = findCert(c.part, c.value, cert);
        EXPECT_EQ(found, c.cn != nullptr) << c.part << " = '" << c.value << "'";
        if (found && c.cn != nullptr) {
            EXPECT_EQ(subjectCn(cert), c.cn) << c.part;
        }
    }
    ClsCert cert;
    ASSERT_TRUE(findCert("serial", "0A1B", cert));
    XString thumbprint;
    cert.get_Sha1Thumbprint(thumbprint);
    StringBuffer lower(thumbprint.getUtf8Sb().view());
    lower.toLowerCase();
    ClsCert byThumbprint;
    ASSERT_TRUE(findCert("thumbprint", lower.getString(), byThumbprint));
    EXPECT_EQ(subjectCn(byThumbprint), "Alice");
    EXPECT_FALSE(cert.HasPrivateKey()) << "part rules make no link";
}

TEST_F(PairingTest, LoginEmptiesTheCachesAndAHeldCertificateOutlivesThem)
{
    const TestKey key = makeRsaKey(2048);
    addMockCert(kSlot, makeCertDer(specFor(key, "held")), {9});
    addMockPrivateKey(kSlot, key, MockKeyOptions().withId({9}));
    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    ASSERT_TRUE(cert.HasPrivateKey());
    ASSERT_TRUE(p11->Logout());
    EXPECT_EQ(p11->get_NumCerts(), 1) << "logout keeps the cache";
    ASSERT_TRUE(login(1, kUserPin));
    EXPECT_EQ(p11->get_NumCerts(), 0);
    EXPECT_FALSE(cert.HasPrivateKey()) << "emptying the cache unlinked it";
    EXPECT_EQ(subjectCn(cert), "held") << "and it is still a usable certificate";
}

TEST_F(PairingTest, SpecialDriverUsesTheCertificateHandleAsTheKeyHandle)
{
    // The flag is computed from the loaded path; a link whose path names the
    // driver loads the same mock.
    const std::string dir = ::testing::TempDir() + "libkeyfactorpkcs11-" + std::to_string(::getpid());
    std::filesystem::create_directories(dir);
    std::filesystem::create_symlink(mock::modulePath(), dir + "/mod.so");
    p11 = makeObject(dir + "/mod.so");
    ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    const CK_OBJECT_HANDLE certHandle = addMockCert(kSlot, makeCertDer(specFor(makeRsaKey(2048), "special")));
    ClsCert cert;
    ASSERT_TRUE(findCert("privateKey", "", cert));
    EXPECT_EQ(cert.getCertificate()->getLinkedKeyHandle(), certHandle);
    EXPECT_TRUE(hasInfo(*p11, "Using certificate's PKCS11 handle as the private key handle..."));
    EXPECT_EQ(mock::callCount("C_FindObjectsInit"), 1) << "only the certificate search";
    std::filesystem::remove_all(dir);
}

TEST_F(PairingTest, CertificatesLinkedFromOutsideTheCacheAreUnlinkedWhenTheObjectGoes)
{
    const TestKey key = makeRsaKey(2048);
    const auto der = makeCertDer(specFor(key, "outside"));
    addMockCert(kSlot, der, {5});
    addMockPrivateKey(kSlot, key, MockKeyOptions().withId({5}));
    ClsCert outside;
    ASSERT_TRUE(outside.LoadFromDer(DataBuffer(der.data(), der.size())));
    const std::shared_ptr<Certificate> cert = outside.getCertificate();
    cert->setCkaId(std::vector<std::uint8_t>{5});

    ASSERT_TRUE(p11->linkCertToPkcs11Session(cert.get(), false, p11->m_log));
    EXPECT_EQ(cert->getLinkedPkcs11(), p11.get());
    p11.reset();
    EXPECT_EQ(cert->getLinkedPkcs11(), nullptr) << "no certificate keeps pointing at a destroyed object";
    EXPECT_FALSE(outside.HasPrivateKey());
}
