#include "CertTokens.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

namespace p11test {

struct CertPlan {
    const char* label;
    const char* curve; // null for RSA
    unsigned bits;
    const char* curveName;
    Bytes certId;
    Bytes keyId;
    Pairing pairing;
    const char* keyUsage;
    std::vector<std::string> policies;
    const char* email;
};

namespace {

const std::vector<CertPlan>& mainPlans()
{
    static const std::vector<CertPlan> plans{
        {"rsa2048-id", nullptr, 2048, "", {0x01}, {0x01}, Pairing::ById, "critical,digitalSignature,nonRepudiation",
         {"1.3.6.1.4.1.59999.10.1"}, "signer@example.test"},
        {"rsa3072-id", nullptr, 3072, "", {0x02}, {0x02}, Pairing::ById, "digitalSignature,keyEncipherment",
         {"1.3.6.1.4.1.59999.10.2", "2.23.140.1.2.1"}, ""},
        {"ec256-id", "P-256", 256, "prime256v1", {0x03}, {0x03}, Pairing::ById, "digitalSignature,keyAgreement", {},
         ""},
        {"ec384-id", "P-384", 384, "secp384r1", {0xA1, 0xB2}, {0xA1, 0xB2}, Pairing::ById, "digitalSignature", {}, ""},
        {"ec521-id", "P-521", 521, "secp521r1", {0x05}, {0x05}, Pairing::ById, "", {}, ""},
        {"rsa2048-subject", nullptr, 2048, "", {}, {}, Pairing::BySubject, "", {}, ""},
        {"rsa3072-modulus", nullptr, 3072, "", {0x7F}, {}, Pairing::ByModulus, "", {}, ""},
    };
    return plans;
}

const std::vector<CertPlan>& ecTokenPlans()
{
    static const std::vector<CertPlan> plans{
        {"ec384-noid", "P-384", 384, "secp384r1", {}, {}, Pairing::OnlyEcKey, "digitalSignature", {}, ""},
    };
    return plans;
}

std::string hexOf(const Bytes& bytes)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (std::uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

std::vector<NameAttr> subjectOf(const TokenCert& c)
{
    std::vector<NameAttr> name{{"C", "FR"}, {"O", c.org}, {"CN", c.cn}};
    if (!c.email.empty())
        name.push_back({"emailAddress", c.email});
    return name;
}

} // namespace

std::string TokenCert::subjectWithTags() const
{
    return (email.empty() ? "" : "E=" + email + ", ") + "CN=" + cn + ", O=" + org + ", C=FR";
}

std::string TokenCert::subjectNoTags() const
{
    return (email.empty() ? "" : email + ", ") + cn + ", " + org + ", FR";
}

int TestToken::numKeys() const
{
    int n = 0;
    for (const TokenCert& c : certs)
        n += c.keyOnToken() ? 1 : 0;
    return n;
}

int TestToken::numKeys(bool ec) const
{
    int n = 0;
    for (const TokenCert& c : certs)
        n += c.keyOnToken() && c.ec == ec ? 1 : 0;
    return n;
}

const TokenCert* TestToken::byDer(const Bytes& der) const
{
    for (const TokenCert& c : certs)
        if (c.der == der)
            return &c;
    return nullptr;
}

const TokenCert& TestToken::byLabel(const std::string& certLabel) const
{
    for (const TokenCert& c : certs)
        if (c.label == certLabel)
            return c;
    throw std::out_of_range("no test certificate " + certLabel);
}

namespace {

CertTokens* g_tokens = nullptr;

// Keys are made in parallel: RSA 3072 takes a while.
std::vector<TestKey> makeKeys(const std::vector<const CertPlan*>& plans)
{
    std::vector<std::future<TestKey>> pending;
    for (const CertPlan* plan : plans)
        pending.push_back(std::async(std::launch::async, [plan] {
            return plan->curve != nullptr ? makeEcKey(plan->curve) : makeRsaKey(plan->bits);
        }));
    std::vector<TestKey> keys;
    for (auto& p : pending)
        keys.push_back(p.get());
    return keys;
}

} // namespace

CertTokens& CertTokens::get()
{
    if (g_tokens == nullptr)
        throw std::logic_error("the test tokens were not made");
    return *g_tokens;
}

CertTokens::CertTokens()
{
    SoftHsmToken::initToken(kEcTokenLabel);
    m_main.label = SoftHsmToken::kLabel;
    m_ec.label = kEcTokenLabel;
    makeCertificates();
    m_module = std::make_unique<CryptokiModule>(SoftHsmToken::modulePath());
    m_module->initialize(); // finalized again by the module object if a step throws
    m_main.slot = m_module->slotOfToken(m_main.label);
    m_ec.slot = m_module->slotOfToken(m_ec.label);
    populate(m_main);
    populate(m_ec);
    m_module->finalize();
}

void CertTokens::makeCertificates()
{
    static const CertPlan caPlan{
        "ca", nullptr, 2048, "", {}, {}, Pairing::NoKey, "critical,keyCertSign,cRLSign", {}, ""};
    std::vector<const CertPlan*> plans{&caPlan};
    for (const auto* list : {&mainPlans(), &ecTokenPlans()})
        for (const CertPlan& p : *list)
            plans.push_back(&p);
    const std::vector<TestKey> keys = makeKeys(plans);

    m_caKey = keys[0];
    m_caName = {{"C", "FR"}, {"O", kCaOrganization}, {"CN", kCaName}};
    m_main.certs.push_back(issue(caPlan, keys[0], {0x01}));
    for (std::size_t i = 1; i < plans.size(); ++i) {
        TestToken& token = i <= mainPlans().size() ? m_main : m_ec;
        token.certs.push_back(issue(*plans[i], keys[i], {0x5A, 0x00, static_cast<std::uint8_t>(i)}));
    }
}

// The certificate of a plan, issued by the CA (self-signed for the CA itself).
TokenCert CertTokens::issue(const CertPlan& plan, const TestKey& key, const Bytes& serial) const
{
    const bool isCa = key == m_caKey;
    TokenCert c;
    c.label = plan.label;
    c.key = key;
    c.ec = plan.curve != nullptr;
    c.bits = static_cast<int>(plan.bits);
    c.curve = plan.curveName;
    c.cn = isCa ? kCaName : "Holder " + c.label;
    c.org = isCa ? kCaOrganization : "Org " + c.label;
    c.email = plan.email;
    c.keyUsage = plan.keyUsage;
    c.policies = plan.policies;
    c.certId = plan.certId;
    c.keyId = plan.keyId;
    c.pairing = plan.pairing;
    c.serialHex = hexOf(serial);

    CertSpec spec;
    spec.key = key;
    spec.subject = subjectOf(c);
    spec.serial = serial;
    spec.keyUsage = c.keyUsage;
    spec.policies = c.policies;
    if (!isCa) {
        spec.issuerKey = m_caKey;
        spec.issuer = m_caName;
    }
    c.der = makeCertDer(spec);
    return c;
}

void CertTokens::populate(TestToken& token)
{
    TokenSession session(m_module->functions(), token.slot, SoftHsmToken::kUserPin);
    for (const TokenCert& c : token.certs) {
        importCertificate(session, c.der, {c.label, c.certId});
        if (!c.keyOnToken())
            continue;
        const Bytes subject = c.pairing == Pairing::BySubject ? subjectDerOf(c.der) : Bytes{};
        importPrivateKey(session, c.key.get(), {c.label, c.keyId, subject});
    }
    if (&token == &m_ec) {
        const std::string junk = "this is not a certificate";
        importCertificateValue(session, Bytes(junk.begin(), junk.end()), subjectDerOf(token.certs.front().der),
                               {"not-der", {}});
        token.numBrokenCerts = 1;
    }
}

namespace {

class CertTokensEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        try {
            g_tokens = new CertTokens();
        } catch (const std::exception& e) {
            FAIL() << "could not make the test tokens: " << e.what();
        }
    }
    void TearDown() override
    {
        delete g_tokens;
        g_tokens = nullptr;
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new CertTokensEnvironment);

} // namespace

} // namespace p11test
