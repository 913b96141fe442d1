#include "Hardening.h"

#include "SoftHsmToken.h"
#include "TestCertFactory.h"

#include <dlfcn.h>

#include <sstream>

namespace p11test {

using namespace p11client;

static HardeningToken g_token;
static bool g_canary = false;
static std::string g_user = SoftHsmToken::kUserPin, g_so = SoftHsmToken::kSoPin; // the PINs a token is made with
static CK_UTF8CHAR_PTR utf8(std::string& s) { return reinterpret_cast<CK_UTF8CHAR_PTR>(s.data()); }

// The objects, put by the user with the default PIN; the canary token then takes its own PINs.
static void fill() {
    static const auto keys = std::vector{makeRsaKey(2048), makeEcKey("P-256")};
    DirectSession d(SoftHsmToken::kUserPin);
    for (std::uint8_t i = 0; i < (g_canary ? 1 : 2); ++i) {
        CertSpec spec;
        spec.key = keys[i], spec.subject = {{"C", "FR"}, {"CN", i == 0 ? "hardening rsa" : "hardening ec"}};
        importCertificate(*d.session, makeCertDer(spec), {"hardening", {std::uint8_t(i + 1)}});
        importPrivateKey(*d.session, keys[i].get(), {"hardening", {std::uint8_t(i + 1)}, {}, g_canary});
    }
    if (!g_canary)
        return (void)createObject(*d.session, {{CKA_CLASS, ulongValue(CKO_DATA)}, {CKA_TOKEN, boolValue(true)},
                                                {CKA_LABEL, textValue("data")}, {CKA_VALUE, Bytes(300, 0x5A)}});
    const CK_SESSION_HANDLE s = d.session->handle();
    checkCk("C_SetPIN", d.f()->C_SetPIN(s, utf8(g_user), g_user.size(), utf8(g_token.userPin), g_token.userPin.size()));
    checkCk("C_Logout", d.f()->C_Logout(s));
    checkCk("C_Login", d.f()->C_Login(s, CKU_SO, utf8(g_so), g_so.size()));
    checkCk("C_SetPIN", d.f()->C_SetPIN(s, utf8(g_so), g_so.size(), utf8(g_token.soPin), g_token.soPin.size()));
}

Lines lines(const std::string& joined) {
    Lines out;
    std::stringstream in(joined);
    for (std::string line; std::getline(in, line, '|');) out.push_back(line);
    return out;
}

XString text(const std::string& s) { XString x; return x.setFromUtf8(std::string_view(s)), x; }

DirectSession::DirectSession(const char* pin) {
    module.initialize();
    session = std::make_unique<TokenSession>(f(), static_cast<CK_SLOT_ID>(g_token.slot), pin);
}

const HardeningToken& HardeningToken::get(bool canary) {
    static const bool made = [canary] {
        static const SoftHsmToken store; // removed with the process
        g_canary = canary;
        g_token.userPin = canary ? kCanaryUser : g_user;
        g_token.soPin = canary ? kCanarySo : g_so;
        CryptokiModule m(shim::modulePath());
        m.initialize();
        g_token.slot = static_cast<int>(m.slotOfToken(SoftHsmToken::kLabel));
        for (CK_SLOT_ID id : m.tokenSlots())
            if (id != static_cast<CK_SLOT_ID>(g_token.slot)) g_token.freeSlot = id;
        m.finalize();
        return fill(), shim::reset(), true;
    }();
    return (void)made, g_token;
}

void HardeningToken::repair() {
    try { return (void)DirectSession(g_token.userPin.c_str()); } catch (const std::runtime_error&) {} // the PIN changed, or the token was initialized again
    {
        CryptokiModule m(shim::modulePath());
        m.initialize();
        std::string label = SoftHsmToken::kLabel + std::string(32, ' ');
        checkCk("C_InitToken", m.functions()->C_InitToken(static_cast<CK_SLOT_ID>(g_token.slot), utf8(g_so), g_so.size(), utf8(label)));
        TokenSession s(m.functions(), static_cast<CK_SLOT_ID>(g_token.slot));
        checkCk("C_Login", m.functions()->C_Login(s.handle(), CKU_SO, utf8(g_so), g_so.size()));
        checkCk("C_InitPIN", m.functions()->C_InitPIN(s.handle(), utf8(g_user), g_user.size()));
    }
    fill();
}

std::unique_ptr<ClsPkcs11> objectOn(const std::string& path) {
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(path.c_str()));
    return p11;
}

void finalizeLeftovers() {
    shim::reset();
    for (int i = 0; i < static_cast<int>(shim::Image::count); ++i)
        if (shim::initialized(static_cast<shim::Image>(i)))
            CryptokiModule(shim::modulePath(static_cast<shim::Image>(i))).functions()->C_Finalize(nullptr);
    shim::reset();
}

void* imageOf(const std::string& path) {
    void* image = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (image != nullptr) dlclose(image); // the handle stays valid while the library holds the image
    return image;
}

bool signOnce(ClsPkcs11& p11, std::size_t* size) {
    ClsCert cert;
    DataBuffer digest, signature;
    digest.resize(32);
    const bool ok = p11.FindCert(XString("privateKey"), XString(""), cert) && p11.SignHash(cert, XString("sha256"), digest, signature);
    if (size != nullptr) *size = signature.getSize();
    return ok;
}

const CallSteps& steps(PublicCall call) {
    static ClsCert linked; // the certificate SignHash signs with, linked by its set-up
    const auto pin = [] { return text(token().userPin); };
    const Step init = [](ClsPkcs11& p, auto&) { return p.Initialize(); };
    const Step session = [](ClsPkcs11& p, auto&) { return p.Initialize() && p.OpenSession(token().slot, true); };
    const Step user = [pin](ClsPkcs11& p, auto&) { return p.QuickSession(1, pin()); };
    static const CallSteps all[] = {
        {"Initialize", {}, init},
        {"Discover", {}, [](ClsPkcs11& p, auto& json) { return p.Discover(false, json); }},
        {"OpenSessionAny", init, [](ClsPkcs11& p, auto&) { return p.OpenSession(-1, true); }},
        {"OpenSessionSlot", init, [](ClsPkcs11& p, auto&) { return p.OpenSession(token().slot, true); }},
        {"QuickSession", {}, user},
        {"Login", session, [pin](ClsPkcs11& p, auto&) { return p.Login(1, pin()); }},
        {"Logout", user, [](ClsPkcs11& p, auto&) { return p.Logout(); }},
        {"CloseSession", user, [](ClsPkcs11& p, auto&) { return p.CloseSession(); }},
        {"SetPin", user, [pin](ClsPkcs11& p, auto&) { return p.SetPin(pin(), XString("4321")); }},
        {"InitPin", [session](ClsPkcs11& p, auto& j) { return session(p, j) && p.Login(0, text(token().soPin)); },
         [](ClsPkcs11& p, auto&) { return p.InitPin(XString("5555")); }},
        {"InitToken", init, [](ClsPkcs11& p, auto&) { return p.InitToken(token().slot, text(token().soPin), XString("relabelled")); }},
        {"FindAllCerts", user, [](ClsPkcs11& p, auto&) { return p.FindAllCerts(); }},
        {"FindAllKeys", user, [](ClsPkcs11& p, auto& json) { return p.FindAllKeys(XString(""), json); }},
        {"FindObject", user, [](ClsPkcs11& p, auto& json) { return json.updateString("class", "certificate") && p.FindObject(json); }},
        {"FindCertPrivateKey", user, [](ClsPkcs11& p, auto&) { ClsCert c; return p.FindCert(XString("privateKey"), XString(""), c); }},
        {"SignHash", [user](ClsPkcs11& p, auto& j) { return user(p, j) && p.FindCert(XString("privateKey"), XString(""), linked); },
         [](ClsPkcs11& p, auto&) { DataBuffer digest, signature; digest.resize(32); return p.SignHash(linked, XString("sha256"), digest, signature); }},
    };
    return all[call];
}

std::string scenarioName(const ::testing::TestParamInfo<Scenario>& info) {
    std::string name = info.param.name;
    for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

void HardeningTest::destroyAndExpectNothingLeft(bool finalized, bool searchLeftOpen) {
    void* image = imageOf(shim::modulePath());
    EXPECT_EQ(shim::activeFindOperations(), searchLeftOpen ? 1u : 0u);
    p11.reset();
    EXPECT_EQ(shim::openSessionCount(), 0u) << "a session outlived its object";
    EXPECT_EQ(ModuleInitRegistry::users(image), 0) << "the library still counts a user";
    EXPECT_TRUE(!finalized || !shim::initialized()) << "the module was not finalized";
}

void HardeningTest::play(const Scenario& s) {
    SCOPED_TRACE(s.name);
    p11 = objectOn();
    ClsJsonObject scratch, json;
    ASSERT_TRUE(!s.setUp || s.setUp(*p11, scratch)) << "the honest set-up failed";
    shim::clearCalls();
    if (s.misbehave) s.misbehave();
    const bool ok = s.call(*p11, json);
    const Expected e = s.atRunTime ? s.atRunTime() : s.expected;
    EXPECT_EQ(ok, e.result);
    EXPECT_EQ(errors(*p11), e.errors);
    for (const std::string& info : e.infos) EXPECT_TRUE(hasInfo(*p11, info)) << "missing information line: " << info;
    EXPECT_TRUE(e.numCerts < 0 || p11->get_NumCerts() == e.numCerts) << p11->get_NumCerts() << " certificates";
    EXPECT_EQ(p11->m_log.depth(), 0);
    XString report;
    EXPECT_TRUE(json.Emit(report)) << "the JSON report cannot be written out";
    if (e.check) e.check(*p11, json);
    destroyAndExpectNothingLeft(e.finalized, e.searchLeftOpen);
    finalizeLeftovers();
    if (s.mayChangeToken) HardeningToken::repair();
}

} // namespace p11test
