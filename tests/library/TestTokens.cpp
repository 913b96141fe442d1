#include "TestTokens.h"

#include <future>

namespace p11test {

TestTokens::TestTokens()
{
    // The CA first, then the main token's certificates, then the EC token's.
    std::vector<TokenCert> all{
        {"ca", nullptr, 2048, {}, {}, nullptr, "critical,keyCertSign,cRLSign", ""},
        {"rsa2048-id", nullptr, 2048, {0x01}, {0x01}, kRsaById, "critical,digitalSignature,nonRepudiation",
         "signer@example.test", {"1.3.6.1.4.1.59999.10.1"}},
        {"rsa3072-id", nullptr, 3072, {0x02}, {0x02}, kRsaById, "digitalSignature,keyEncipherment", "", {"1.3.6.1.4.1.59999.10.2", "2.23.140.1.2.1"}},
        {"ec256-id", "P-256", 256, {0x03}, {0x03}, kEcById, "digitalSignature,keyAgreement", ""},
        {"ec384-id", "P-384", 384, {0xA1, 0xB2}, {0xA1, 0xB2}, kEcById, "digitalSignature", ""},
        {"ec521-id", "P-521", 521, {0x05}, {0x05}, kEcById, "", ""},
        {"rsa2048-subject", nullptr, 2048, {}, {}, kBySubject, "", ""},
        {"rsa3072-modulus", nullptr, 3072, {0x7F}, {}, kByModulus, "", ""},
        {"ec384-noid", "P-384", 384, {}, {}, kFirstEcKey, "digitalSignature", ""}};
    for (const char* label : {"p11client-ec", "p11client-scratch", "p11client-admin"})
        SoftHsmToken::initToken(label);
    std::vector<std::future<TestKey>> keys; // in parallel: RSA 3072 takes a while
    for (const TokenCert& c : all)
        keys.push_back(std::async(std::launch::async, [&c] { return c.ec() ? makeEcKey(c.curve) : makeRsaKey(static_cast<unsigned>(c.bits)); }));
    module.initialize();
    for (TestToken* token : {&main, &ec})
        token->slot = module.slotOfToken(token->label);
    scratch = module.slotOfToken("p11client-scratch");
    admin = module.slotOfToken("p11client-admin");
    const std::vector<NameAttr> caName{{"C", "FR"}, {"O", "p11client Test"}, {"CN", "p11client Test CA"}};
    for (std::size_t i = 0; i < all.size(); ++i) {
        TokenCert& c = all[i];
        c.key = keys[i].get();
        std::vector<NameAttr> subject{{"C", "FR"}, {"O", "Org " + c.label}, {"CN", "Holder " + c.label}};
        if (!c.email.empty())
            subject.push_back({"emailAddress", c.email});
        c.der = makeCertDer({.key = c.key, .subject = i == 0 ? caName : subject, .serial = {0x5A, 0x00, static_cast<std::uint8_t>(i)},
                             .keyUsage = c.keyUsage, .policies = c.policies, .issuerKey = i == 0 ? nullptr : all[0].key, .issuer = caName});
        TestToken& token = i + 1 < all.size() ? main : ec;
        token.certs.push_back(c);
        importCertificate(session(token.slot), c.der, {c.label, c.certId});
        if (c.keyOnToken())
            importPrivateKey(session(token.slot), c.key.get(), {c.label, c.keyId, c.keyOnToken() && std::string_view(c.pairedBy) == kBySubject ? subjectDerOf(c.der) : Bytes{}});
    }
    createObject(session(ec.slot), {{CKA_CLASS, ulongValue(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, ulongValue(CKC_X_509)},
                                    {CKA_TOKEN, boolValue(true)}, {CKA_PRIVATE, boolValue(false)}, {CKA_LABEL, textValue("not-der")},
                                    {CKA_VALUE, textValue("this is not a certificate")}, {CKA_SUBJECT, subjectDerOf(ec.certs[0].der)}});
}

} // namespace p11test
