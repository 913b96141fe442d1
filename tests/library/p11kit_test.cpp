// The call sequences of an application that reuses one module, on SoftHSM2
// and on p11-kit's proxy and client modules (the client over a p11-kit
// server this test starts, as a token on another machine is reached). Both
// p11-kit modules hand out a new, uninitialized function list at every
// C_GetFunctionList.
#include "ChildProcess.h"
#include "TestTokens.h"

#include <filesystem>

using namespace p11test;

namespace {

struct Sequence {
    const char* name;
    bool (*run)(ClsPkcs11& first, ClsPkcs11& second);
};
[[maybe_unused]] void PrintTo(const Sequence& sequence, std::ostream* out) { *out << sequence.name; }

const XString kNoPin("");
ClsJsonObject& scratchJson() { static ClsJsonObject json; return json; }

const Sequence kSequences[] = {
    {"DiscoverTwice", [](ClsPkcs11& a, ClsPkcs11&) { return a.Discover(true, scratchJson()) && a.Discover(true, scratchJson()); }},
    {"QuickSessionThenDiscover", [](ClsPkcs11& a, ClsPkcs11&) { return a.QuickSession(1, kNoPin) && a.Discover(true, scratchJson()) && a.CloseSession(); }},
    {"InitializeThenDiscover", [](ClsPkcs11& a, ClsPkcs11&) { return a.Initialize() && a.Discover(true, scratchJson()); }},
    {"TwoObjects", [](ClsPkcs11& a, ClsPkcs11& b) {
         return a.QuickSession(1, kNoPin) && b.Discover(true, scratchJson()) && b.QuickSession(1, kNoPin) && a.CloseSession()
             && b.CloseSession();
     }},
};

const char* const kModules[] = {"softhsm2", "p11-kit-client", "p11-kit-proxy"};

std::string pathOf(const std::string& module)
{
    if (module == "p11-kit-client") { // reaches SoftHSM2 through `p11-kit server` on a socket of its own
        static const std::string socket = TestTokens::get().store.directory() + "/p11-kit.socket";
        static const ChildProcess server("p11-kit server --foreground --name " + socket + " --provider " + SoftHsmToken::modulePath()
                                         + " pkcs11: >/dev/null");
        for (int i = 0; i < 500 && server.running() && !std::filesystem::exists(socket); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        setenv("P11_KIT_SERVER_ADDRESS", ("unix:path=" + socket).c_str(), 1);
        return P11KIT_MODULE_DIR "/p11-kit-client.so";
    }
    return module == "p11-kit-proxy" ? P11KIT_PROXY_MODULE : shim::modulePath();
}

} // namespace

class ModuleReuseTest : public TokenTest, public ::testing::WithParamInterface<std::tuple<const char*, Sequence>> {};

TEST_P(ModuleReuseTest, EverySequenceWorksAndLeavesNothingOpen)
{
    const auto& [module, sequence] = GetParam();
    p11 = newObject(pathOf(module));
    const auto second = newObject(pathOf(module));
    EXPECT_TRUE(sequence.run(*p11, *second)) << logText() << "\n--- second object:\n" << [&] { XString t; second->get_LogText(t); return t.getUtf8(); }();
    EXPECT_FALSE(p11->hasOpenSession() || second->hasOpenSession());
}

INSTANTIATE_TEST_SUITE_P(Modules, ModuleReuseTest, ::testing::Combine(::testing::ValuesIn(kModules), ::testing::ValuesIn(kSequences)),
                         [](const auto& row) {
                             std::string name = std::string(std::get<0>(row.param)) + "_" + std::get<1>(row.param).name;
                             std::erase(name, '-');
                             return name;
                         });

// What an application does with a token, through each module: the
// certificates, each paired with its key, and signatures that verify.
class ModuleTokenTest : public TokenTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(ModuleTokenTest, CertificatesPairWithTheirKeysAndTheirSignaturesVerify)
{
    p11 = newObject(pathOf(GetParam()));
    ASSERT_TRUE(p11->Discover(true, json)) << logText();
    int slot = 0; // the module's own number for the main token's slot
    for (int i = 0; i < json.SizeOfArray(XString("slots")); ++i)
        if (text("slots[" + std::to_string(i) + "].token.label") == tokens.main.label)
            slot = static_cast<int>(std::stoul(text("slots[" + std::to_string(i) + "].id")));
    ASSERT_TRUE(p11->OpenSession(slot, false) && p11->Login(ClsPkcs11::kUserTypeUser, XString(SoftHsmToken::kUserPin)) && p11->FindAllCerts())
        << logText();
    int signedFor = 0;
    for (const auto& certificate : cachedCerts()) {
        const TokenCert& c = *tokens.main.byDer(derOf(*certificate));
        ClsCert cert;
        DataBuffer signature;
        if (!c.keyOnToken())
            continue;
        // The handles are the server's: the signature is the proof of the pairing.
        ASSERT_TRUE(p11->linkCertToPkcs11Session(certificate.get(), false, p11->m_log) && cert.injectCert(certificate, p11->m_log) && p11->SignData(cert, XString("sha256"), bufferOf(textValue(c.label)), signature))
            << c.label << "\n" << logText();
        EXPECT_TRUE(verifiesDigest(c.der, "sha256", digestOf("sha256", c.label), verifiable(signature, c.ec()))) << c.label;
        ++signedFor;
    }
    EXPECT_EQ(signedFor, 7) << "every certificate of the main token whose key is there";
}

INSTANTIATE_TEST_SUITE_P(Modules, ModuleTokenTest, ::testing::ValuesIn(kModules), [](const auto& row) {
    std::string name = row.param;
    std::erase(name, '-');
    return name;
});
