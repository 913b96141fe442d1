// PIN hygiene: a canary PIN taken through every path never shows in a log
// or a JSON report (as text, hex or base64), and no block of the C++ heap
// freed meanwhile holds it; a PIN the token refused is not offered again
// (a context-specific one: tests/library/signing_test.cpp); a PIN locked or
// on its last try is said before the token is asked.
//
// This program replaces the global operator new and delete: while armed,
// every block the C++ heap gets back is searched for the canaries before it
// is freed. The library keeps PINs in buffers that wipe themselves; a copy
// made anywhere else (a std::string, a log line, a temporary) is found here.
// SoftHSM2 shares the heap, and wipes its own copies. Blocks released with
// free() by C code (OpenSSL) are not seen.
#include "Hardening.h"
#include "PinLeakForms.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

using T = p11test::HardeningToken;
const char* const kCanaries[] = {T::kCanaryUser, T::kCanarySo, T::kCanaryNew};
std::atomic<bool> g_armed{false};
std::atomic<int> g_blocksWithPin{0};

void inspect(void* p) noexcept {
    for (const char* pin : kCanaries)
        if (p != nullptr && g_armed.load(std::memory_order_relaxed) && memmem(p, malloc_usable_size(p), pin, std::strlen(pin)) != nullptr)
            g_blocksWithPin.fetch_add(1, std::memory_order_relaxed);
}

void* allocate(std::size_t n) { if (void* p = std::malloc(n != 0 ? n : 1)) return p; throw std::bad_alloc(); }

// Searches what is freed while it runs.
template <class F> void armed(F f) { g_armed = true, f(), g_armed = false; }

} // namespace

void* operator new(std::size_t n) { return allocate(n); }
void* operator new[](std::size_t n) { return allocate(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return std::malloc(n != 0 ? n : 1); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return std::malloc(n != 0 ? n : 1); }
void operator delete(void* p) noexcept { inspect(p), std::free(p); }
void operator delete[](void* p) noexcept { inspect(p), std::free(p); }
void operator delete(void* p, std::size_t) noexcept { inspect(p), std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { inspect(p), std::free(p); }

using namespace p11client;
using namespace p11test;

class PinTest : public HardeningTest {
protected:
    void SetUp() override {
        HardeningToken::get(true); // before anything asks for the usual token
        HardeningTest::SetUp();
        p11->put_VerboseLogging(true);
    }

    // The log, and then what Discover, FindAllKeys and FindObject report.
    void expectNoCanaryInTheLogOrReports(const std::string& where) {
        XString text;
        p11->get_LogText(text);
        std::string all = text.getUtf8();
        for (const LogEntry& e : p11->get_LogEntries()) all += "\n" + e.tag + "=" + e.text;
        ClsJsonObject discovered, keys, objects;
        objects.updateString("class", "privateKey");
        p11->Discover(false, discovered), p11->FindAllKeys(XString(""), keys), p11->FindObject(objects);
        for (ClsJsonObject* json : {&discovered, &keys, &objects}) all += json->Emit(text) ? text.getUtf8() : "";
        for (const char* pin : kCanaries)
            for (const std::string& form : leakedForms(pin))
                EXPECT_EQ(all.find(form), std::string::npos) << where << " shows " << form;
    }

    static int loginsOf(CK_USER_TYPE type) {
        return static_cast<int>(std::ranges::count_if(shim::calls(), [&](const shim::Call& c) { return c.function == "C_Login" && c.userType == type; }));
    }
};

TEST_F(PinTest, EveryPublicLoginTriesAPinOnceOnlyAndAnUnremarkableTokenGetsNoWarning) {
    ASSERT_TRUE(p11->Initialize() && p11->OpenSession(-1, true));
    EXPECT_FALSE(p11->Login(1, XString(T::kCanaryNew)));
    EXPECT_EQ(loginsOf(CKU_USER), 1);
    EXPECT_FALSE(p11->QuickSession(1, XString(T::kCanaryNew)));
    EXPECT_EQ(loginsOf(CKU_USER), 2);
    EXPECT_FALSE(p11->Login(0, XString(T::kCanaryNew)));
    EXPECT_EQ(loginsOf(CKU_SO), 1);
    for (const std::string& line : infos(*p11)) EXPECT_NE(line.rfind("Warning:", 0), 0u) << line;
}

// The token says the PIN is locked (and then refuses it) or on its last try.
TEST_F(PinTest, APinLockedOrOnItsLastTryIsSaidBeforeTheTokenIsAsked) {
    for (const auto& [flag, userType, warning] :
         {std::tuple{CKF_USER_PIN_LOCKED, 1, "Warning: the token reports the user PIN as locked."},
          {CKF_USER_PIN_FINAL_TRY, 1, "Warning: the token reports one try left for the user PIN; a wrong PIN locks it."},
          {CKF_SO_PIN_LOCKED, 0, "Warning: the token reports the security officer PIN as locked."},
          {CKF_SO_PIN_FINAL_TRY, 0, "Warning: the token reports one try left for the security officer PIN; a wrong PIN locks it."}}) {
        SCOPED_TRACE(warning);
        TearDown(), SetUp();
        const bool locked = (flag & (CKF_USER_PIN_LOCKED | CKF_SO_PIN_LOCKED)) != 0;
        shim::rewriteTokenFlags(flag);
        if (locked) shim::failCall("C_Login", CKR_PIN_LOCKED);
        ASSERT_TRUE(p11->Initialize() && p11->OpenSession(-1, true));
        EXPECT_EQ(p11->Login(userType, XString(userType == 0 ? T::kCanarySo : T::kCanaryUser)), !locked);
        const auto log = p11->get_LogEntries();
        const auto at = [&](const std::string& line) { return std::find_if(log.begin(), log.end(), [&](const LogEntry& e) { return e.text == line; }) - log.begin(); };
        EXPECT_LT(at(warning), locked ? at("C_Login returned CKR_PIN_LOCKED") : static_cast<long>(log.size()));
        EXPECT_EQ(loginsOf(static_cast<CK_USER_TYPE>(userType)), 1);
    }
}

// QuickSession, Login as user and officer, a refused Login, SetPin (old and
// new), InitPin, Login type 2 and SigContextPin with the signatures they
// authorize, and InitToken's SO PIN, in an order that works on one token.
// Last: its final path initializes the token again.
TEST_F(PinTest, NoPathLeavesThePinInTheLogTheReportsOrFreedMemory) {
    const XString user(T::kCanaryUser), so(T::kCanarySo), fresh(T::kCanaryNew);
    const std::pair<const char*, std::function<bool(ClsPkcs11&)>> paths[] = {
        {"QuickSession", [&](ClsPkcs11& p) { return p.QuickSession(1, user); }},
        {"LoginUser", [&](ClsPkcs11& p) { return p.Login(1, user); }},
        {"LoginRefused", [&](ClsPkcs11& p) { return p.Logout() && !p.Login(1, so); }},
        {"LoginContextSpecific", [&](ClsPkcs11& p) { return p.Login(1, user) && p.Login(2, user); }},
        {"SignWithContextLogin", [](ClsPkcs11& p) { return signOnce(p); }},
        {"SigContextPin", [&](ClsPkcs11& p) { return p.put_SigContextPin(user), signOnce(p); }},
        {"SetPinOldAndNew", [&](ClsPkcs11& p) { return p.SetPin(user, fresh); }},
        {"SetPinBack", [&](ClsPkcs11& p) { return p.SetPin(fresh, user); }},
        {"LoginSecurityOfficer", [&](ClsPkcs11& p) { return p.Logout() && p.Login(0, so); }},
        {"InitPin", [&](ClsPkcs11& p) { return p.InitPin(fresh); }},
        {"InitTokenSoPin", [&](ClsPkcs11& p) { return p.CloseSession() && p.InitToken(token().slot, so, XString("canary")); }},
    };
    for (const auto& [name, path] : paths) {
        armed([&, &name = name, &path = path] { EXPECT_TRUE(path(*p11)) << name << " did not run through"; });
        EXPECT_EQ(g_blocksWithPin.load(), 0) << "a block freed during " << name << " held a PIN";
        expectNoCanaryInTheLogOrReports(name);
    }
    armed([&] { p11.reset(); });
    EXPECT_EQ(g_blocksWithPin.load(), 0) << "a block freed with the object held a PIN";
    CK_TOKEN_INFO info{};
    DirectSession().f()->C_GetTokenInfo(static_cast<CK_SLOT_ID>(token().slot), &info);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(info.label), 6), "canary") << "the paths ran to InitToken";
    armed([] { delete new std::string(std::string(T::kCanaryUser) + " in a heap block of its own"); });
    EXPECT_GT(g_blocksWithPin.load(), 0) << "the search does not find a PIN left in a block freed unwiped";
}

