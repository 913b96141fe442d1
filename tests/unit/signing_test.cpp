// Signing with a linked certificate, against the mock module: the mechanism,
// the bytes the token is asked to sign, and the context-specific login.
#include "Certificate.h"
#include "ClsCert.h"
#include "MockFixture.h"
#include "MockTokenObjects.h"

#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

using namespace p11client;
using namespace p11test;

namespace {

// The DER DigestInfo of a digest, made by OpenSSL: the oracle for ours.
std::vector<uint8_t> digestInfo(int hashNid, const std::vector<uint8_t>& digest)
{
    X509_SIG* sig = X509_SIG_new();
    X509_ALGOR* alg = nullptr;
    ASN1_OCTET_STRING* octets = nullptr;
    X509_SIG_getm(sig, &alg, &octets);
    X509_ALGOR_set0(alg, OBJ_nid2obj(hashNid), V_ASN1_NULL, nullptr);
    ASN1_OCTET_STRING_set(octets, digest.data(), static_cast<int>(digest.size()));
    std::vector<uint8_t> der(static_cast<std::size_t>(i2d_X509_SIG(sig, nullptr)));
    unsigned char* p = der.data();
    i2d_X509_SIG(sig, &p);
    X509_SIG_free(sig);
    return der;
}

std::vector<uint8_t> bytesOf(const DataBuffer& db) { return {db.getData(), db.getData() + db.getSize()}; }

class SigningTest : public MockModuleTest {
protected:
    void SetUp() override
    {
        MockModuleTest::SetUp();
        ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    }

    // A certificate and its key on the token, the certificate linked.
    void linkedPair(const TestKey& key, MockKeyOptions options = MockKeyOptions())
    {
        CertSpec spec;
        spec.key = key;
        spec.subject = {{"CN", "signer"}};
        addMockCert(kSlot, makeCertDer(spec), {0x01});
        keyHandle = addMockPrivateKey(kSlot, key, options.withId({0x01}));
        ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), cert));
    }

    DataBuffer digestOf(std::size_t size)
    {
        DataBuffer d;
        for (std::size_t i = 0; i < size; ++i)
            d.appendByte(static_cast<uint8_t>(0xA0 + i));
        return d;
    }

    ClsCert cert;
    CK_OBJECT_HANDLE keyHandle = 0;
};

} // namespace

TEST_F(SigningTest, RsaPkcs1SendsTheDigestInfoOfEachHash)
{
    linkedPair(makeRsaKey(2048));
    const struct {
        const char* name;
        int nid;
        std::size_t size;
    } hashes[] = {{"sha1", NID_sha1, 20}, {"SHA-256", NID_sha256, 32}, {"sha384", NID_sha384, 48}, {"Sha512", NID_sha512, 64}};
    for (const auto& h : hashes) {
        const DataBuffer digest = digestOf(h.size);
        DataBuffer signature;
        ASSERT_TRUE(p11->SignHash(cert, XString(h.name), digest, signature)) << h.name;
        EXPECT_EQ(signature.getSize(), 256u);
        const auto record = mock::lastSignature();
        ASSERT_TRUE(record.has_value());
        EXPECT_EQ(record->mechanism, CKM_RSA_PKCS);
        EXPECT_EQ(record->key, keyHandle);
        EXPECT_EQ(record->input, digestInfo(h.nid, bytesOf(digest))) << h.name;
    }
    EXPECT_EQ(mock::callCount("C_Sign"), 4) << "a buffer of the expected size needs no length query";
}

TEST_F(SigningTest, RsaPssSendsTheDigestWithMatchingParameters)
{
    linkedPair(makeRsaKey(2048));
    p11->put_UsePss(true);
    DataBuffer signature;
    ASSERT_TRUE(p11->SignHash(cert, XString("sha384"), digestOf(48), signature));
    const auto record = mock::lastSignature();
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->mechanism, CKM_RSA_PKCS_PSS);
    ASSERT_TRUE(record->pss.has_value());
    EXPECT_EQ(record->pss->hashAlg, CKM_SHA384);
    EXPECT_EQ(record->pss->mgf, CKG_MGF1_SHA384);
    EXPECT_EQ(record->pss->sLen, 48u);
    EXPECT_EQ(record->input, bytesOf(digestOf(48)));
}

TEST_F(SigningTest, EcdsaGivesRAndSAndTheirDerForm)
{
    linkedPair(makeEcKey("P-521"));
    DataBuffer raw;
    ASSERT_TRUE(p11->SignHash(cert, XString("sha512"), digestOf(64), raw));
    EXPECT_EQ(mock::lastSignature()->mechanism, CKM_ECDSA);
    EXPECT_EQ(mock::lastSignature()->input, bytesOf(digestOf(64)));
    ASSERT_EQ(raw.getSize(), 132u);

    DataBuffer der;
    ASSERT_TRUE(ClsPkcs11::EcdsaSignatureToDer(raw, der));
    const unsigned char* p = der.getData();
    ECDSA_SIG* sig = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(der.getSize()));
    ASSERT_NE(sig, nullptr);
    std::vector<uint8_t> r(66);
    std::vector<uint8_t> s(66);
    BN_bn2binpad(ECDSA_SIG_get0_r(sig), r.data(), 66);
    BN_bn2binpad(ECDSA_SIG_get0_s(sig), s.data(), 66);
    ECDSA_SIG_free(sig);
    EXPECT_EQ(r, std::vector<uint8_t>(raw.getData(), raw.getData() + 66));
    EXPECT_EQ(s, std::vector<uint8_t>(raw.getData() + 66, raw.getData() + 132));
    EXPECT_FALSE(ClsPkcs11::EcdsaSignatureToDer(DataBuffer("abc", 3), der)) << "an odd length is no r||s";
}

TEST_F(SigningTest, SignDataHashesWithOpenSslFirst)
{
    linkedPair(makeRsaKey(2048));
    const std::string text = "the document";
    std::vector<uint8_t> expected(32);
    unsigned int len = 0;
    EVP_Digest(text.data(), text.size(), expected.data(), &len, EVP_sha256(), nullptr);
    DataBuffer signature;
    ASSERT_TRUE(p11->SignData(cert, XString("sha256"), DataBuffer(text.data(), text.size()), signature));
    EXPECT_EQ(mock::lastSignature()->input, digestInfo(NID_sha256, expected));
}

TEST_F(SigningTest, AKeyThatInsistsOnTheContextLoginGetsIt)
{
    CertSpec spec;
    spec.key = makeEcKey("P-256");
    spec.subject = {{"CN", "eID"}};
    addMockCert(kSlot, makeCertDer(spec), {0x02});
    mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY), mock::ulongAttr(CKA_KEY_TYPE, CKK_EC),
                            mock::bytesAttr(CKA_ID, {0x02}), mock::boolAttr(CKA_SIGN, true),
                            mock::boolAttr(CKA_ALWAYS_AUTHENTICATE, true)});
    ClsCert eid;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), eid));

    DataBuffer signature;
    mock::clearCalls();
    EXPECT_FALSE(p11->SignHash(eid, XString("sha256"), digestOf(32), signature));
    EXPECT_TRUE(hasError(*p11, "The key needs the PIN at each signature: set SigContextPin or call Login with user type 2."));
    EXPECT_EQ(mock::callCount("C_SignInit"), 0);

    ASSERT_TRUE(p11->Login(2, XString("0000")));
    EXPECT_FALSE(p11->SignHash(eid, XString("sha256"), digestOf(32), signature));
    EXPECT_TRUE(hasError(*p11, "C_Login returned CKR_PIN_INCORRECT"));
    EXPECT_TRUE(hasError(*p11, "The context-specific login failed."));

    ASSERT_TRUE(p11->Login(2, XString(kUserPin)));
    mock::clearCalls();
    ASSERT_TRUE(p11->SignHash(eid, XString("sha256"), digestOf(32), signature)) << "no operation was left active";
    EXPECT_TRUE(mock::lastSignature()->contextLoggedIn);
    std::vector<std::string> order;
    for (const mock::Call& c : mock::calls())
        if (c.function.starts_with("C_Sign") || c.function == "C_Login")
            order.push_back(c.function + (c.function == "C_Login" ? ":" + std::to_string(c.userType) : ""));
    EXPECT_EQ(order, (std::vector<std::string>{"C_SignInit", "C_Login:2", "C_Sign"}));
    EXPECT_TRUE(eid.HasPrivateKey()) << "a context login empties no cache";
}

TEST_F(SigningTest, BadRequestsAreRefusedBeforeTheToken)
{
    linkedPair(makeRsaKey(2048));
    DataBuffer signature;
    EXPECT_FALSE(p11->SignHash(cert, XString("md5"), digestOf(16), signature));
    EXPECT_TRUE(hasError(*p11, "Unsupported hash algorithm: use sha1, sha256, sha384 or sha512."));
    EXPECT_FALSE(p11->SignHash(cert, XString("sha256"), digestOf(20), signature));
    EXPECT_TRUE(hasError(*p11, "The digest length does not match the hash algorithm."));
    ClsCert unlinked;
    EXPECT_FALSE(p11->SignHash(unlinked, XString("sha256"), digestOf(32), signature));
    EXPECT_TRUE(hasError(*p11, "The certificate is not linked to this PKCS11 session with a private key."));
    EXPECT_EQ(mock::callCount("C_SignInit"), 0);
}
