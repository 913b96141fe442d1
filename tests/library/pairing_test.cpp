// The certificate cache, FindCert, and pairing each certificate with its
// private key, proven by a signature on the token that the certificate
// verifies.
#include "Certificate.h"
#include "ClsCert.h"
#include "DataBuffer.h"
#include "SystemCertsHolder.h"
#include "TestTokens.h"

#include <openssl/core_names.h>

#include <set>

using namespace p11test;

using PairingTest = TokenTest;

// Certificates are public; the keys show once the user is logged in. Then
// every certificate is paired with its own key, with or without a minimal
// first pass, each on a fresh object.
TEST_F(PairingTest, FindAllCertsCachesEachCertificateOnceAndEveryOneIsPairedWithItsOwnKeyAfterTheLogin)
{
    for (const TestToken* token : {&tokens.main, &tokens.ec}) {
        const int n = static_cast<int>(token->certs.size());
        p11 = newObject();
        ASSERT_TRUE(openSession(token->slot, false));
        EXPECT_EQ(p11->get_NumCerts(), 0);
        ASSERT_TRUE(p11->FindAllCerts() && p11->FindAllCerts()) << logText();
        EXPECT_EQ(hasInfo(*p11, "Skipping a certificate object whose value is not an X.509 certificate."), token == &tokens.ec);
        ASSERT_EQ(p11->get_NumCerts(), n) << "a refill replaces the cache";
        ClsCert chosen;
        EXPECT_TRUE(!findCert("privateKey", "", chosen) && hasError(*p11, "Not found.")) << "the keys are private objects";
        std::set<Bytes> seen;
        std::set<unsigned long> handles{0};
        for (int i = 0; i < n; ++i) {
            ClsCert cert;
            ASSERT_TRUE(p11->GetCert(i, cert)) << logText();
            const TokenCert* c = token->byDer(derOf(cert));
            ASSERT_TRUE(c != nullptr && seen.insert(c->der).second) << "certificate " << i << " is none of the token's";
            XString keyType;
            DataBuffer id;
            cert.get_KeyType(keyType), cert.getCertificate()->getCkaId(id);
            EXPECT_EQ(keyType.getUtf8() + std::to_string(cert.get_KeySize()) + (cert.HasPrivateKey() ? " linked " : " ") + lowerHex(bytesOf(id)),
                      (c->ec() ? "ECDSA" : "RSA") + std::to_string(c->bits) + " " + lowerHex(c->certId));
            EXPECT_TRUE(handles.insert(cert.getCertificate()->getPkcs11ObjectHandle()).second);
            EXPECT_EQ(cert.getSystemCertsPtr(), p11->getSystemCertsPtr()) << "the module's store itself, not a copy";
        }
        ASSERT_TRUE(p11->Login(1, XString(SoftHsmToken::kUserPin)));
        ASSERT_TRUE(findCert("privateKey", "", chosen)) << "the login must renew the caches\n" << logText();
        ASSERT_NE(token->byDer(derOf(chosen)), nullptr);
        EXPECT_TRUE(chosen.HasPrivateKey() && provesPairing(*chosen.getCertificate(), *token->byDer(derOf(chosen))));
        for (bool minimalFirstPass : {false, true}) {
            p11 = newObject();
            ASSERT_TRUE(openSession(token->slot) && p11->FindAllCerts()) << logText();
            shim::clearCalls();
            for (const auto& cert : cachedCerts()) {
                const TokenCert& c = *token->byDer(derOf(*cert));
                _qxLogger log;
                ASSERT_EQ(p11->linkCertToPkcs11Session(cert.get(), minimalFirstPass, log), c.keyOnToken()) << c.label;
                const auto kind = c.keyOnToken() ? LogEntry::Kind::Info : LogEntry::Kind::Error;
                const char* said = c.keyOnToken() ? c.pairedBy : "No matching private key found on the HSM.";
                EXPECT_EQ(std::ranges::count(linesOfKind(log.entries(), kind), said), 1) << log.renderText();
                EXPECT_TRUE(c.keyOnToken() ? provesPairing(*cert, c) : ::testing::AssertionResult(!cert->isLinkedToPkcs11()))
                    << c.label << (minimalFirstPass ? " minimal" : "");
                EXPECT_EQ(cert->isLinkedKeyVerified(), c.keyOnToken() && std::string_view(c.pairedBy) != kFirstEcKey) << "only the first-key guess is unproven";
            }
            EXPECT_TRUE(token != &tokens.main || minimalFirstPass || shim::callCount("C_FindObjectsInit") == 1)
                << "the keys of both types come from one search";
        }
    }
}

TEST_F(PairingTest, FindCertByPartFindsTheCertificateWithThatValue)
{
    const Bytes& der = tokens.main["rsa2048-subject"].der;
    const std::string thumbprint = lowerHex(digestOf("sha1", std::string(der.begin(), der.end())));
    const std::string withTags = "CN=Holder rsa3072-id, O=Org rsa3072-id, C=FR";
    const std::string noTags = "Holder rsa3072-id, Org rsa3072-id, FR";
    const struct { std::string part, value, label; } cases[] = { // no label: nothing matches
        {"subjectDN", noTags, "rsa3072-id"}, {"subjectDN_withTags", withTags, "rsa3072-id"},
        {"subjectdn_withtags", "E=signer@example.test, CN=Holder rsa2048-id, O=Org rsa2048-id, C=FR", "rsa2048-id"},
        {"issuerCN", "5A0004:p11client Test CA", "ec384-id"}, {"serial", "5a0005", "ec521-id"},
        {"serialnumber", "5A0005", "ec521-id"}, {"thumbprint", thumbprint, "rsa2048-subject"},
        {"policyOid", "1.3.6.1.4.1.59999.10.1", "rsa2048-id"}, {"policyoid", " 2.23.140.1.2.1 ", "rsa3072-id"},
        {"keyUsage", "nonRepudiation", "rsa2048-id"}, {"keyusage", "KeyAgreement", "ec256-id"},
        {"keyUsage", "certificateSigning", "ca"}, {"cn", "Holder ec384-id", "ec384-id"},
        {"O", "Org rsa3072-modulus", "rsa3072-modulus"}, {" Organization ", "Org rsa2048-subject", "rsa2048-subject"},
        {"E", "signer@example.test", "rsa2048-id"}, {"EMAIL", "signer@example.test", "rsa2048-id"},
        {"subjectDN", withTags, ""}, {"subjectDN_withTags", noTags, ""}, {"issuerCN", "5A0004:Another CA", ""},
        {"issuercn", "5a0004:p11client Test CA", ""}, {"serial", "5A00FF", ""}, {"serial", " 5A0005", ""},
        {"thumbprint", std::string(40, '0'), ""}, {"policyOid", "1.3.6.1.4.1.59999.10", ""},
        {"keyUsage", "decipherOnly", ""}, {"x509keyusage", "KeyAgreement", ""}, {"CN", "holder ec384-id", ""},
        {"E", "nobody@example.test", ""},
    };
    ASSERT_TRUE(openSession(tokens.main.slot));
    for (const auto& c : cases) {
        ClsCert cert;
        ASSERT_EQ(findCert(c.part, c.value, cert), !c.label.empty()) << c.part << " = " << c.value;
        EXPECT_EQ(c.label.empty() ? "" : tokens.main.byDer(derOf(cert))->label, c.label) << c.part;
        EXPECT_EQ(hasError(*p11, "Not found."), c.label.empty()) << c.part;
        EXPECT_FALSE(cert.HasPrivateKey()) << "part rules make no link";
    }
    ClsCert first;
    ASSERT_TRUE(findCert("", "anything", first) && hasInfo(*p11, "Simply choosing the 1st encountered certificate..."));
    EXPECT_EQ(derOf(first), derOf(*cachedCerts().at(0)));
}

TEST_F(PairingTest, TheCachesOutliveLogoutAndCloseButNotALoginASwitchOfTokenOrTheObject)
{
    const int numCerts = static_cast<int>(tokens.main.certs.size());
    ClsCert onMain;
    const auto linkOnMain = [&] {
        return findCert("CN", "Holder ec256-id", onMain) && p11->linkCertToPkcs11Session(onMain.getCertificate().get(), false, p11->m_log);
    };
    ASSERT_TRUE(openSession(tokens.main.slot) && linkOnMain()) << logText();
    EXPECT_TRUE(p11->Logout() && p11->get_NumCerts() == numCerts && onMain.HasPrivateKey());
    ASSERT_TRUE(p11->CloseSession() && p11->OpenSession(tokens.main.slotNumber(), true));
    EXPECT_TRUE(p11->get_NumCerts() == numCerts && onMain.HasPrivateKey()) << "same token, same cache";
    EXPECT_TRUE(p11->Login(1, XString(SoftHsmToken::kUserPin)) && p11->get_NumCerts() == 0 && !onMain.HasPrivateKey())
        << "a login may reveal more: emptying the cache unlinked the certificate";
    XString cn;
    onMain.get_SubjectCN(cn);
    EXPECT_TRUE(cn.equalsUtf8("Holder ec256-id")) << "and it is still a usable certificate";

    // The main token's EC key must not serve the other token's certificate.
    ASSERT_TRUE(linkOnMain() && openSession(tokens.ec.slot));
    EXPECT_TRUE(p11->get_NumCerts() == 0 && !onMain.HasPrivateKey()) << "a certificate of the other token stays linked";
    ClsCert onEcToken;
    ASSERT_TRUE(findCert("privateKey", "", onEcToken)) << logText();
    EXPECT_TRUE(provesPairing(*onEcToken.getCertificate(), tokens.ec.certs.front()));

    // A certificate linked from outside the cache is unlinked when the object goes.
    ClsCert outside;
    ASSERT_TRUE(outside.LoadFromDer(bufferOf(tokens.ec.certs[0].der))
                && p11->linkCertToPkcs11Session(outside.getCertificate().get(), false, p11->m_log) && outside.getCertificate()->getLinkedPkcs11() == p11.get());
    p11.reset();
    EXPECT_TRUE(outside.getCertificate()->getLinkedPkcs11() == nullptr && !outside.HasPrivateKey()) << "none points at a destroyed object";
}

// Keys without CKA_ID or subject: the first pass is minimal, the retry reads
// the moduli; the shim gives one in its signed form, with a leading zero.
TEST_F(PairingTest, ModulusMatchesWithAndWithoutTheLeadingZeroByte)
{
    const std::vector<const TokenCert*> pairs{&tokens.main["rsa2048-id"], &tokens.main["rsa2048-subject"]};
    ASSERT_TRUE(onScratch([&](const TokenSession& s) {
        for (const TokenCert* c : pairs)
            importCertificate(s, c->der, {c->label}), importPrivateKey(s, c->key.get(), {c->label});
    }));
    Bytes signedForm = keyNumber(pairs[0]->key.get(), OSSL_PKEY_PARAM_RSA_N);
    signedForm.insert(signedForm.begin(), 0x00);
    shim::overrideAttribute(handles(tokens.scratch, CKO_PRIVATE_KEY, pairs[0]->label).at(0), CKA_MODULUS, signedForm);
    ClsCert chosen;
    ASSERT_TRUE(findCert("privateKey", "", chosen));
    EXPECT_EQ(contextOf(*p11, "Found matching PKCS11 RSA private key by modulus."), "retry_subjectDer_modulus")
        << "the first pass was minimal, the retry read the modulus";
    for (const auto& cert : cachedCerts()) {
        const std::string& label = (derOf(*cert) == pairs[0]->der ? pairs[0] : pairs[1])->label;
        ASSERT_TRUE(cert->isLinkedToPkcs11() || p11->linkCertToPkcs11Session(cert.get(), false, p11->m_log));
        EXPECT_EQ(cert->getLinkedKeyHandle(), handles(tokens.scratch, CKO_PRIVATE_KEY, label).at(0)) << label;
    }
}

// Two keys of the certificate's key pair: the shim makes the first one the
// library reads unfit (a key that may not sign, or the public point of
// another key, raw or DER-wrapped), so the second one must be linked.
TEST_F(PairingTest, AKeyMadeUnfitIsPassedOverForTheNextOne)
{
    const TokenCert &rsa = tokens.main["rsa2048-id"], &ec = tokens.main["ec384-id"], &other = tokens.ec.certs[0];
    const struct { const TokenCert& cert; Bytes id; CK_ATTRIBUTE_TYPE type; Bytes unfit, fit; Lines said; } cases[] = {
        {rsa, {0x42}, CKA_SIGN, boolValue(false), {},
         {"Found matching PKCS11 RSA private key by ID, but it does not have the CKA_SIGN attribute.", kRsaById}},
        {ec, {}, CKA_EC_POINT, ecPointValue(other.key.get(), false), ecPointValue(ec.key.get(), false), {"Certificate key type is ECDSA.", kEcById}},
        {ec, {}, CKA_EC_POINT, ecPointValue(other.key.get()), ecPointValue(ec.key.get()), {"Certificate key type is ECDSA.", kEcById}},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(onScratch([&](const TokenSession& s) {
            importCertificate(s, c.cert.der, {"cert", c.id});
            importPrivateKey(s, c.cert.key.get(), {"key", c.id});
            importPrivateKey(s, c.cert.key.get(), {"key", c.id});
        }));
        const std::vector<CK_OBJECT_HANDLE> keys = handles(tokens.scratch, CKO_PRIVATE_KEY);
        shim::overrideAttribute(keys.at(0), c.type, c.unfit);
        if (!c.fit.empty())
            shim::overrideAttribute(keys.at(1), c.type, c.fit);
        ASSERT_TRUE(p11->FindAllCerts());
        const auto cert = cachedCerts().at(0);
        _qxLogger log;
        ASSERT_TRUE(p11->linkCertToPkcs11Session(cert.get(), false, log)) << log.renderText();
        for (const std::string& line : c.said)
            EXPECT_TRUE(std::ranges::count(log.entries(), line, &LogEntry::text)) << line;
        EXPECT_TRUE(cert->getLinkedKeyHandle() == keys.at(1) && cert->getExpectedSignatureSize() == c.cert.signatureSize()) << c.cert.label;
    }
}

// A certificate of this issuer is taken only when no other with a key comes
// after it: the first one waits, the next one is chosen.
TEST_F(PairingTest, CertificatesOfTheDeferredIssuerGiveWayToTheNextEligibleOne)
{
    for (const std::vector<const char*>& labels : {std::vector{"ec256-id", "ec384-id"}, std::vector{"ec521-id"}}) {
        ASSERT_TRUE(onScratch([&](const TokenSession& s) {
            for (const char* label : labels) {
                const Bytes id{static_cast<std::uint8_t>(label[2])};
                importCertificate(s, makeCertDer({.key = tokens.main[label].key, .subject = {{"CN", label}}, .issuerKey = tokens.main["ca"].key,
                                                  .issuer = {{"C", "ES"}, {"CN", "EC de Autenticacio del Ciutada"}}}), {label, id});
                importPrivateKey(s, tokens.main[label].key.get(), {label, id});
            }
        }));
        ClsCert cert;
        ASSERT_TRUE(findCert(" PRIVATEKEY ", "ignored", cert)) << logText();
        EXPECT_TRUE(dataValues(*p11, "candidateCert").size() == 1 && dataValues(*p11, "chosenCertDN").size() == labels.size() - 1);
        EXPECT_EQ(hasInfo(*p11, "The candidate certificate was chosen."), labels.size() == 1);
        EXPECT_EQ(derOf(cert), derOf(*cachedCerts().back()));
    }
}

// A certificate that no attribute pairs takes, for want of another, the
// token's lone RSA key (even one that may not sign) or its first EC key,
// unverified; never one whose public material (its own, or that of the
// public-key object with its CKA_ID) is another key's, and one whose public
// object proves it is verified. The special driver's certificate handle is
// its key handle; with none of these, nothing is found.
TEST_F(PairingTest, ACertificateNoAttributePairsTakesAKeyNothingShowsToBeAnothersOrWithTheSpecialDriverItsOwnHandle)
{
    const char* byHandle = "Using certificate's PKCS11 handle as the private key handle...";
    const Lines anyPairing{kOnlyKey, kFirstEcKey, kEcById, kNoRsaKey, kUnproven, byHandle};
    using enum shim::Image;
    const struct { const char *cert, *key; bool publicKey, modulusShown; shim::Image image; Lines said; CK_OBJECT_CLASS linked; } cases[] = {
        {"rsa2048-id", "rsa2048-subject", false, false, standard, {kOnlyKey, kUnproven}, CKO_PRIVATE_KEY},
        {"rsa2048-id", "rsa2048-subject", false, true, standard, {kNoRsaKey}, CKO_DATA}, // CKO_DATA: nothing linked
        {"rsa2048-id", "rsa2048-subject", true, false, standard, {kNoRsaKey}, CKO_DATA},
        {"ec384-id", "ec256-id", false, false, standard, {kFirstEcKey, kUnproven}, CKO_PRIVATE_KEY},
        {"ec384-id", "ec256-id", true, false, standard, {}, CKO_DATA},
        {"ec384-id", "ec384-id", true, false, standard, {kEcById}, CKO_PRIVATE_KEY},
        {"rsa2048-id", nullptr, false, false, specialDriver, {byHandle}, CKO_CERTIFICATE},
        {"rsa2048-id", nullptr, false, false, standard, {kNoRsaKey}, CKO_DATA}};
    for (const auto& c : cases) {
        const TokenCert& cert = tokens.main[c.cert];
        const bool found = c.linked != CKO_DATA;
        shim::clearCalls();
        ASSERT_TRUE(onScratch([&](const TokenSession& s) {
            importCertificate(s, cert.der, {"lone"});
            if (c.key)
                importPrivateKey(s, tokens.main[c.key].key.get(), {"other", {0x0B}, {}, false, false});
            if (c.publicKey)
                importPublicKey(s, tokens.main[c.key].key.get(), {"other", {0x0B}});
        }, shim::modulePath(c.image)));
        if (c.key && !cert.ec() && !c.modulusShown)
            shim::overrideAttribute(handles(tokens.scratch, CKO_PRIVATE_KEY).at(0), CKA_MODULUS, std::nullopt);
        ClsCert chosen;
        ASSERT_EQ(findCert("privateKey", "", chosen), found) << c.cert << " " << (c.key ? c.key : "");
        Lines said = infos(*p11);
        std::erase_if(said, [&](const std::string& line) { return std::ranges::count(anyPairing, line) == 0; });
        EXPECT_EQ(said, c.said) << c.cert << " " << (c.key ? c.key : "");
        EXPECT_TRUE(chosen.HasPrivateKey() == found
                    && (!found || chosen.getCertificate()->getLinkedKeyHandle() == handles(tokens.scratch, c.linked).at(0)));
        EXPECT_EQ(found && chosen.getCertificate()->isLinkedKeyVerified(), found && std::ranges::count(c.said, kUnproven) == 0);
        Lines wanted = cert.ec() ? Lines{"Certificate key type is ECDSA."} : Lines{};
        if (!found)
            wanted.insert(wanted.end(), {"Not found.", "Failed."});
        EXPECT_EQ(errors(*p11), wanted);
        EXPECT_EQ(shim::callCount("C_FindObjectsInit") == 1, c.image == specialDriver) << "only the certificate search";
    }
}
