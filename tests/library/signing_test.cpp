// Signing through the library: every signature verifies with the
// certificate's public key in OpenSSL.
#include "Certificate.h"
#include "ClsCert.h"
#include "DataBuffer.h"
#include "TestTokens.h"

using namespace p11test;

using SigningTest = TokenTest;

TEST_F(SigningTest, EverySignatureOfALinkedCertificateVerifiesWithItsPublicKey)
{
    const std::pair<const char*, const char*> hashes[] = {{"sha1", "sha1"}, {"SHA-256", "sha256"}, {"sha384", "sha384"}, {"Sha512", "sha512"}};
    ASSERT_TRUE(openSession(tokens.main.slot) && p11->FindAllCerts());
    DataBuffer signature;
    int signatures = 0;
    for (const auto& certificate : cachedCerts()) {
        const TokenCert& c = *tokens.main.byDer(derOf(*certificate));
        ClsCert cert;
        if (!c.keyOnToken() || !p11->linkCertToPkcs11Session(certificate.get(), false, p11->m_log) || !cert.injectCert(certificate, p11->m_log))
            continue;
        for (const auto& [name, openSslName] : hashes)
            for (bool pss : {false, true}) { // an EC key signs the same either way
                const Bytes digest = digestOf(openSslName, c.label);
                p11->put_UsePss(pss);
                ASSERT_TRUE(p11->SignHash(cert, XString(name), bufferOf(digest), signature)) << logText();
                EXPECT_TRUE(static_cast<int>(signature.getSize()) == c.signatureSize()
                            && verifiesDigest(c.der, openSslName, digest, verifiable(signature, c.ec()), pss)) << c.label << name << pss;
                ++signatures;
            }
        ASSERT_TRUE(p11->SignData(cert, XString("sha256"), bufferOf(textValue(c.label)), signature) && hasInfo(*p11, "Success."));
        EXPECT_TRUE(verifiesDigest(c.der, "sha256", digestOf("sha256", c.label), verifiable(signature, c.ec()), true))
            << c.label << ": the data is hashed first";
        ++signatures;
    }
    EXPECT_EQ(signatures, 7 * 9) << "RSA 2048 and 3072 and P-256, P-384, P-521 were all signed with";
    EXPECT_EQ(shim::callCount("C_Sign"), signatures) << "a buffer of the expected size needs no length query";
    EXPECT_FALSE(ClsPkcs11::EcdsaSignatureToDer(DataBuffer("abc", 3), signature)) << "an odd length is no r||s";
}

// A key that insists on its PIN at every signature.
TEST_F(SigningTest, AKeyThatInsistsOnTheContextLoginGetsIt)
{
    const TokenCert& ec = tokens.main["ec256-id"];
    ASSERT_TRUE(onScratch([&](const TokenSession& s) {
        importCertificate(s, ec.der, {"eid", {0x0E}});
        importPrivateKey(s, ec.key.get(), {"eid", {0x0E}, {}, true});
    }));
    ClsCert eid;
    ASSERT_TRUE(findCert("privateKey", "", eid)) << logText();
    const DataBuffer digest = bufferOf(digestOf("sha256", "eID"));
    DataBuffer signature;
    shim::clearCalls();
    EXPECT_FALSE(p11->SignHash(eid, XString("sha256"), digest, signature));
    EXPECT_TRUE(hasError(*p11, "The key needs the PIN at each signature: set SigContextPin or call Login with user type 2.")
                && shim::callCount("C_SignInit") == 0);
    ASSERT_TRUE(p11->Login(2, XString("0000")));
    EXPECT_FALSE(p11->SignHash(eid, XString("sha256"), digest, signature));
    EXPECT_TRUE(hasError(*p11, "C_Login returned CKR_PIN_INCORRECT") && hasError(*p11, "The context-specific login failed.")
                && hasInfo(*p11, "The context-specific PIN was refused; it is forgotten and not tried again."));
    XString kept;
    p11->get_SigContextPin(kept);
    EXPECT_TRUE(kept.isEmpty() && !p11->SignHash(eid, XString("sha256"), digest, signature));
    EXPECT_TRUE(hasError(*p11, "The key needs the PIN at each signature: set SigContextPin or call Login with user type 2.")
                && shim::callCount("C_Login") == 1) << "the refused PIN was offered again";

    p11->put_SigContextPin(XString(SoftHsmToken::kUserPin));
    shim::clearCalls();
    ASSERT_TRUE(p11->SignHash(eid, XString("sha256"), digest, signature)) << "no operation was left active";
    EXPECT_TRUE(verifiesDigest(ec.der, "sha256", bytesOf(digest), verifiable(signature, true)));
    Lines order = recorded([](const shim::Call& c) { return c.function + (c.function == "C_Login" ? std::to_string(c.userType) : ""); });
    std::erase_if(order, [](const std::string& f) { return !f.starts_with("C_Sign") && !f.starts_with("C_Login"); });
    EXPECT_TRUE(order == (Lines{"C_SignInit", "C_Login2", "C_Sign"}) && eid.HasPrivateKey()) << "a context login empties no cache";

    // The PIN is the scratch token's: a session on another token forgets it,
    // and so does another module (which Discover loads).
    for (const auto& [otherModule, line] : {std::pair{false, "The context-specific PIN belongs to the token of another slot: it is forgotten."},
                                            {true, "The context-specific PIN is forgotten with the library it was given for."}}) {
        p11->put_SigContextPin(XString(SoftHsmToken::kUserPin));
        if (otherModule)
            p11->put_SharedLibPath(XString(shim::modulePath(shim::Image::workerThread).c_str()));
        EXPECT_TRUE(otherModule ? p11->Discover(false, json) : p11->OpenSession(tokens.main.slotNumber(), false));
        p11->get_SigContextPin(kept);
        EXPECT_TRUE(kept.isEmpty() && hasInfo(*p11, line)) << line;
    }
}

// A key taken for want of another (the token keeps no modulus, nor EC point,
// on its keys) signs only when the certificate verifies what it signed: the
// wrong key's signature is withheld and its link dropped, the right key's is
// returned and the key counts as proven from then on.
TEST_F(SigningTest, AKeyTakenForWantOfAnotherSignsOnlyWhenTheCertificateVerifiesTheSignature)
{
    const TokenCert &rsa = tokens.main["rsa2048-id"], &ec = tokens.main["ec384-id"];
    const struct { const TokenCert &cert, &key; bool pss; } cases[] = {
        {rsa, tokens.main["rsa2048-subject"], false}, {rsa, rsa, true}, {ec, tokens.ec.certs[0], false}, {ec, ec, false}};
    const Bytes digest = digestOf("sha384", "fallback");
    for (const auto& c : cases) {
        const bool right = &c.cert == &c.key;
        ASSERT_TRUE(onScratch([&](const TokenSession& s) {
            importCertificate(s, c.cert.der, {"cert"});
            importPrivateKey(s, c.key.key.get(), {"key"});
        }));
        if (!c.cert.ec())
            shim::overrideAttribute(handles(tokens.scratch, CKO_PRIVATE_KEY).at(0), CKA_MODULUS, std::nullopt);
        ClsCert cert;
        ASSERT_TRUE(findCert("privateKey", "", cert) && hasInfo(*p11, kUnproven)) << logText();
        EXPECT_FALSE(cert.getCertificate()->isLinkedKeyVerified());
        DataBuffer signature("stale", 5);
        p11->put_UsePss(c.pss);
        EXPECT_EQ(p11->SignHash(cert, XString("sha384"), bufferOf(digest), signature), right) << c.cert.label << " " << c.key.label;
        EXPECT_EQ(hasError(*p11, kNotItsKey), !right);
        EXPECT_TRUE(right ? verifiesDigest(c.cert.der, "sha384", digest, verifiable(signature, c.cert.ec()), c.pss)
                                && cert.getCertificate()->isLinkedKeyVerified()
                          : signature.isEmpty() && !cert.HasPrivateKey()) << c.cert.label << " " << c.key.label;
    }
}
