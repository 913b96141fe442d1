// PIN hygiene: a canary PIN through every path never shows in a log or a
// JSON report, as text, hex or base64; a PIN the token refused is never
// offered again by the library; a PIN locked or on its last try is said
// before the token is asked.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "HardeningFixture.h"
#include "PinPaths.h"

using namespace p11client;
using namespace p11test;

namespace {

class PinHygiene : public ::testing::Test {
protected:
    void SetUp() override
    {
        mock::reset();
        putCanaryToken();
        p11.reset(ClsPkcs11::createNewCls());
        p11->put_SharedLibPath(XString(mock::modulePath().c_str()));
        p11->put_VerboseLogging(true);
    }

    static void expectNoCanaryIn(const std::string& text, const std::string& where)
    {
        for (const char* pin : {PinCanaries::kUser, PinCanaries::kSo, PinCanaries::kNew})
            for (const std::string& form : leakedForms(pin))
                EXPECT_EQ(text.find(form), std::string::npos) << where << " holds " << form;
    }

    void expectNoCanaryInTheLog(const std::string& where)
    {
        XString text;
        p11->get_LogText(text);
        expectNoCanaryIn(text.getUtf8(), where);
        for (const LogEntry& e : p11->get_LogEntries())
            expectNoCanaryIn(e.tag + "=" + e.text, where);
    }

    // Discover, FindAllKeys and FindObject as JSON text.
    std::string reports()
    {
        std::string all;
        ClsJsonObject json;
        XString text;
        if (p11->Discover(false, json) && json.Emit(text))
            all += text.getUtf8();
        ClsJsonObject keys;
        if (p11->FindAllKeys(XString(""), keys) && keys.Emit(text))
            all += text.getUtf8();
        ClsJsonObject objects;
        objects.updateString("class", "privateKey");
        if (p11->FindObject(objects) && objects.Emit(text))
            all += text.getUtf8();
        return all;
    }

    std::unique_ptr<ClsPkcs11> p11;
};

int loginsOfType(CK_USER_TYPE type)
{
    int n = 0;
    for (const mock::Call& c : mock::calls())
        n += c.function == "C_Login" && c.userType == type ? 1 : 0;
    return n;
}

} // namespace

TEST_F(PinHygiene, NoPathShowsThePinInTheLogOrTheReportsInAnyForm)
{
    for (const PinPath& path : pinPaths()) {
        EXPECT_TRUE(path.run(*p11)) << path.name << " did not run through";
        expectNoCanaryInTheLog(path.name);
        if (path.name == "QuickSession" || path.name == "SigContextPin")
            expectNoCanaryIn(reports(), path.name + " then the JSON reports");
    }
    EXPECT_EQ(mock::tokenLabel(HardeningToken::kSlot), "canary") << "the paths ran to InitToken";
}

TEST_F(PinHygiene, APinTheTokenRefusedIsNotOfferedAgainAtTheNextSignature)
{
    ASSERT_TRUE(p11->QuickSession(1, XString(PinCanaries::kUser)));
    ASSERT_TRUE(p11->Login(2, XString(PinCanaries::kNew))); // kept for signing; not the user PIN
    ClsCert cert;
    ASSERT_TRUE(p11->FindCert(XString("privateKey"), XString(""), cert));
    DataBuffer digest, signature;
    digest.resize(32);
    EXPECT_FALSE(p11->SignHash(cert, XString("sha256"), digest, signature));
    EXPECT_TRUE(hasInfo(*p11, "The context-specific PIN was refused; it is forgotten and not tried again."));
    XString kept;
    p11->get_SigContextPin(kept);
    EXPECT_TRUE(kept.isEmpty());

    EXPECT_FALSE(p11->SignHash(cert, XString("sha256"), digest, signature));
    EXPECT_TRUE(hasError(*p11, "The key needs the PIN at each signature: set SigContextPin or call Login with user type 2."));
    EXPECT_EQ(loginsOfType(CKU_CONTEXT_SPECIFIC), 1) << "the refused PIN was offered again";
}

TEST_F(PinHygiene, EveryPublicLoginTriesAPinOnceOnly)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    EXPECT_FALSE(p11->Login(1, XString(PinCanaries::kNew)));
    EXPECT_EQ(loginsOfType(CKU_USER), 1);
    EXPECT_FALSE(p11->QuickSession(1, XString(PinCanaries::kNew)));
    EXPECT_EQ(loginsOfType(CKU_USER), 2);
    EXPECT_FALSE(p11->Login(0, XString(PinCanaries::kNew)));
    EXPECT_EQ(loginsOfType(CKU_SO), 1);
}

namespace {

struct PinState {
    const char* name;
    CK_FLAGS flag;
    int userType;
    const char* warning;
};

class PinStateWarning : public PinHygiene, public ::testing::WithParamInterface<PinState> {};

// The index in the log of the first entry with this text, or -1.
int indexOf(ClsPkcs11& p11, const std::string& text)
{
    const auto entries = p11.get_LogEntries();
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (entries[i].text == text)
            return static_cast<int>(i);
    return -1;
}

} // namespace

TEST_P(PinStateWarning, IsLoggedBeforeTheTokenIsAsked)
{
    const PinState& s = GetParam();
    mock::TokenSpec token;
    token.userPin = PinCanaries::kUser;
    token.soPin = PinCanaries::kSo;
    token.flags |= s.flag;
    mock::insertToken(HardeningToken::kSlot, token);
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    const bool locked = (s.flag & (CKF_USER_PIN_LOCKED | CKF_SO_PIN_LOCKED)) != 0;
    EXPECT_EQ(p11->Login(s.userType, XString(s.userType == 0 ? PinCanaries::kSo : PinCanaries::kUser)), !locked);
    const int warning = indexOf(*p11, s.warning);
    ASSERT_GE(warning, 0) << "no warning";
    if (locked) {
        EXPECT_LT(warning, indexOf(*p11, "C_Login returned CKR_PIN_LOCKED"));
    }
    EXPECT_EQ(loginsOfType(static_cast<CK_USER_TYPE>(s.userType)), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Flags, PinStateWarning,
    ::testing::Values(
        PinState{"UserLocked", CKF_USER_PIN_LOCKED, 1, "Warning: the token reports the user PIN as locked."},
        PinState{"UserFinalTry", CKF_USER_PIN_FINAL_TRY, 1,
                 "Warning: the token reports one try left for the user PIN; a wrong PIN locks it."},
        PinState{"SoLocked", CKF_SO_PIN_LOCKED, 0, "Warning: the token reports the security officer PIN as locked."},
        PinState{"SoFinalTry", CKF_SO_PIN_FINAL_TRY, 0,
                 "Warning: the token reports one try left for the security officer PIN; a wrong PIN locks it."}),
    [](const ::testing::TestParamInfo<PinState>& param) { return std::string(param.param.name); });

TEST_F(PinHygiene, AnUnremarkableTokenGetsNoWarning)
{
    ASSERT_TRUE(p11->QuickSession(1, XString(PinCanaries::kUser)));
    for (const std::string& line : infos(*p11))
        EXPECT_EQ(line.rfind("Warning:", 0), std::string::npos) << line;
}
