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
