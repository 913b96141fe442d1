// Discovery, sessions, login and token administration.
#include "TestTokens.h"

using namespace p11test;

using SessionTest = TokenTest;

static const XString kUserPin(SoftHsmToken::kUserPin), kSoPin(SoftHsmToken::kSoPin);

static std::string versionOf(const CK_VERSION& v) { return std::to_string(v.major) + "." + std::to_string(v.minor); }

static std::string at(const std::vector<CK_SLOT_ID>& slots, CK_SLOT_ID slot)
{
    return "slots[" + std::to_string(std::ranges::find(slots, slot) - slots.begin()) + "].";
}

// Discovery reports trimmed values; any slot skips a slot that refuses a
// session; a given slot must hold a token.
TEST_F(SessionTest, DiscoverReportsLibrarySlotsAndTokensAndOpenSessionFindsASlotWithAToken)
{
    const std::vector<CK_SLOT_ID> slots = tokens.module.tokenSlots();
    std::vector<CK_SLOT_ID> present = slots;
    std::erase(present, tokens.admin);
    CK_INFO info{};
    tokens.module.functions()->C_GetInfo(&info);
    shim::rewriteSlotFlags(CKF_REMOVABLE_DEVICE);
    shim::rewriteTokenFlags(CKF_USER_PIN_COUNT_LOW | CKF_CLOCK_ON_TOKEN);
    shim::removeToken(tokens.admin);
    EXPECT_FALSE(p11->OpenSession(-1, false));
    EXPECT_EQ(errors(*p11), (Lines{"PKCS11 functions not available", "Failed to get slot IDs", "Failed."}));
    ASSERT_TRUE(p11->Discover(false, json));
    EXPECT_EQ(texts("library.", {"cryptokiVersion", "manufacturer", "libraryVersion"}),
              (Lines{versionOf(info.cryptokiVersion), "SoftHSM", versionOf(info.libraryVersion)}));
    ASSERT_EQ(json.SizeOfArray(XString("slots")), static_cast<int>(slots.size()));
    EXPECT_EQ(texts(at(slots, tokens.main.slot), {"id", "token.label", "token.minPinLen", "token.totalPublicMemory", "token.flags.userPinCountLow",
                                                  "token.flags.loginRequired", "token.flags.userPinLocked", "flags.removableDevice"}),
              (Lines{std::to_string(tokens.main.slot), SoftHsmToken::kLabel, "4", "<none>", "true", "true", "false", "true"}));
    EXPECT_EQ(json.jsonTypeOf((at(slots, tokens.main.slot) + "token.maxSessionCount").c_str()), ClsJsonObject::kTypeNumber);
    EXPECT_EQ(json.jsonTypeOf((at(slots, tokens.main.slot) + "token.utcTime").c_str()), ClsJsonObject::kTypeString) << "a token with a clock tells its time";
    EXPECT_EQ(texts(at(slots, tokens.admin), {"tokenPresent", "token"}), (Lines{"false", "<none>"}));
    EXPECT_TRUE(p11->get_VerboseLogging()) << "discovery leaves the log's switch on";
    shim::clearCalls();
    ASSERT_TRUE(p11->Discover(true, json));
    EXPECT_EQ(json.SizeOfArray(XString("slots")), static_cast<int>(present.size()));

    shim::failCall("C_OpenSession", CKR_SESSION_COUNT); // the first slot tried refuses
    ASSERT_TRUE(p11->OpenSession(-1, true));
    EXPECT_EQ(recorded(&shim::Call::slot, "C_OpenSession"), (std::vector<CK_SLOT_ID>{present[0], present[1]}));
    EXPECT_TRUE(hasError(*p11, "C_OpenSession returned CKR_SESSION_COUNT") && p11->hasOpenSession());
    ASSERT_TRUE(p11->Login(ClsPkcs11::kUserTypeUser, kUserPin));
    EXPECT_EQ(shim::callCount("C_GetSlotList") * 100 + shim::callCount("C_GetTokenInfo"), 200 + static_cast<int>(present.size()))
        << "the slot list and token flags Discover read serve the session and the login that follow";
    EXPECT_FALSE(p11->OpenSession(static_cast<int>(tokens.admin), false));
    EXPECT_EQ(errors(*p11), (Lines{"Did not find desired slot ID.", "Failed."}));
    EXPECT_TRUE(p11->OpenSession(static_cast<int>(present[1]), false));
    shim::failCall("C_GetSlotList", CKR_FUNCTION_FAILED);
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_EQ(text("library.manufacturer"), "SoftHSM");
}

TEST_F(SessionTest, LoginStateFollowsTheTokenThroughLogoutCloseAndASecondObject)
{
    ASSERT_TRUE(openSession(tokens.main.slot, false));
    LogNull log;
    ASSERT_TRUE(p11->Login(0, kSoPin) && p11->alreadyLoggedIn(0, log) && p11->Logout() && !p11->alreadyLoggedIn(0, log)
                && p11->Login(1, kUserPin)) << logText();
    for (const auto& [type, in] : {std::pair{1, true}, {-1, true}, {0, false}, {2, false}})
        EXPECT_EQ(p11->alreadyLoggedIn(type, log), in) << type;

    ASSERT_TRUE(p11->OpenSession(tokens.main.slotNumber(), false));
    EXPECT_TRUE(shim::openSessionCount() == 1 && shim::callCount("C_CloseSession") == 1);
    EXPECT_FALSE(p11->alreadyLoggedIn(1, log)) << "closing the token's only session logged it out";

    ASSERT_TRUE(p11->Login(1, kUserPin));
    const std::unique_ptr<ClsPkcs11> others[] = {newObject(), newObject()}; // read-only, read-write
    for (bool readWrite : {false, true}) {
        ClsPkcs11& other = *others[readWrite];
        ASSERT_TRUE(other.Initialize() && other.OpenSession(tokens.main.slotNumber(), readWrite));
        // A new session on a token where the user is logged in; CKR_USER_ALREADY_LOGGED_IN is no failure.
        EXPECT_TRUE(other.alreadyLoggedIn(1, log) && other.Login(1, kUserPin) && hasInfo(other, "Already logged in.")) << readWrite;
    }

    shim::failCall("C_CloseSession", CKR_SESSION_HANDLE_INVALID);
    EXPECT_FALSE(p11->CloseSession()) << "the public call reports what the module said";
    EXPECT_FALSE(p11->hasOpenSession() || p11->alreadyLoggedIn(1, log)) << "the session is gone all the same";
}

// A login belongs to the application, not to one session: an object that
// moves to another session or goes away leaves another object's login alone;
// an explicit Logout ends it, and says so.
TEST_F(SessionTest, AnObjectThatLeavesDoesNotLogOutAnotherObjectOnTheToken)
{
    ASSERT_TRUE(openSession(tokens.main.slot));
    const auto other = newObject();
    ClsCert cert;
    ASSERT_TRUE(other->Initialize() && other->OpenSession(tokens.main.slotNumber(), false) && findCert("privateKey", "", cert));
    ASSERT_TRUE(other->FindCert(XString("privateKey"), XString(""), cert)) << "linked to the other object";
    shim::clearCalls();
    ASSERT_TRUE(p11->OpenSession(tokens.main.slotNumber(), true));
    EXPECT_TRUE(hasInfo(*p11, "Not logging out: another object of this application still has a session on the token."));
    p11.reset();
    DataBuffer signature;
    EXPECT_TRUE(other->SignData(cert, XString("sha256"), DataBuffer("data", 4), signature) && shim::callCount("C_Logout") == 0);
    EXPECT_TRUE(other->Logout() && shim::callCount("C_Logout") == 1);
    EXPECT_TRUE(hasInfo(*other, "Logging out ends the login of every session this application has on the token."));
}

// An empty PIN is only for a token with a PIN pad, a context PIN is only
// kept; a quick session logs in only with a PIN.
TEST_F(SessionTest, PinsWithoutALoginAndQuickSessionPathsToTheEndOfTheObject)
{
    ASSERT_TRUE(openSession(tokens.main.slot, false));
    shim::rewriteTokenFlags(CKF_PROTECTED_AUTHENTICATION_PATH);
    shim::lie("C_Login", shim::Lie::okWithoutDoing); // the PIN is typed on the reader
    EXPECT_TRUE(p11->Login(1, XString("")) && shim::callCount("C_Login") == 1);

    p11 = newObject();
    EXPECT_TRUE(p11->Login(2, XString("9876")));
    EXPECT_EQ(infos(*p11), (Lines{"This is a context-specific PIN, so we're not actually logging in right now...",
                                  "The context-specific PIN is saved for the time when each signing operation occurs.",
                                  "At that point, the PIN is used within the context of signing.", "Success."}));
    XString kept;
    p11->get_SigContextPin(kept);
    EXPECT_TRUE(kept.equalsUtf8("9876") && shim::callCount("C_Login") == 1 && shim::callCount("C_Initialize") == 1);

    p11 = newObject();
    shim::reset();
    EXPECT_TRUE(p11->QuickSession(1, XString("")) && hasInfo(*p11, "PIN is empty, not logging in.") && p11->hasOpenSession());
    EXPECT_FALSE(p11->QuickSession(1, XString("0000")));
    EXPECT_EQ(errors(*p11), (Lines{"C_Login returned CKR_PIN_INCORRECT", "Failed to login."}));
    EXPECT_TRUE(p11->hasOpenSession() && shim::callCount("C_Initialize") == 1) << "a second quick session does not initialize again";
    EXPECT_TRUE(p11->QuickSession(1, kUserPin) && shim::openSessionCount() == 1);

    shim::clearCalls();
    p11.reset();
    EXPECT_EQ(recorded(&shim::Call::function), (Lines{"C_Logout", "C_CloseSession", "C_Finalize"}));
    EXPECT_FALSE(shim::initialized());
}

// The administration token is initialized again: its PINs change for good.
TEST_F(SessionTest, TokenAndPinAdministration)
{
    const int admin = static_cast<int>(tokens.admin);
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->InitToken(admin, kSoPin, XString("Fresh"))) << logText();
    EXPECT_EQ(p11->get_LogEntries().front().tag, "FindCert_pkcs11");
    EXPECT_EQ(tokens.module.slotOfToken("Fresh"), tokens.admin) << "the label is padded";
    EXPECT_TRUE(!p11->InitToken(admin, kSoPin, XString(std::string(33, 'x').c_str())) && hasError(*p11, "The token label is longer than 32 bytes."));
    EXPECT_FALSE(p11->InitToken(admin, XString("wrong-pin"), XString("x")));
    EXPECT_EQ(contextOf(*p11, "C_InitToken returned CKR_PIN_INCORRECT"), "FindCert_pkcs11") << "the context it logs under";

    ASSERT_TRUE(p11->OpenSession(admin, true));
    EXPECT_TRUE(!p11->InitPin(XString("5555")) && hasError(*p11, "C_InitPIN returned CKR_USER_NOT_LOGGED_IN"));
    ASSERT_TRUE(p11->Login(0, kSoPin) && p11->InitPin(XString("5555")) && p11->Logout());
    EXPECT_FALSE(p11->Login(1, kUserPin));
    ASSERT_TRUE(p11->Login(1, XString("5555")) && p11->SetPin(XString("5555"), XString("4321")) && p11->Logout());
    EXPECT_TRUE(p11->Login(1, XString("4321")));
}

// A slot number names the module's one slot with those low 32 bits, whose
// whole ID every call then carries, among more slots than a reader has.
TEST_F(SessionTest, ASlotNumberNamesTheWholeSlotIdAmongManySlots)
{
    const CK_SLOT_ID wide = CK_SLOT_ID{1} << 32 | 0x6A5A7000, last = 0x6A5A6000 + 150;
    for (CK_SLOT_ID alias = 0x6A5A6000; alias <= last; ++alias)
        shim::aliasSlot(alias, tokens.main.slot);
    shim::aliasSlot(wide, tokens.main.slot);
    shim::failCall("C_InitToken", CKR_DEVICE_ERROR); // the token stays as it is
    ASSERT_TRUE(p11->Initialize() && p11->OpenSession(static_cast<int>(last), false)) << logText();
    ASSERT_TRUE(p11->OpenSession(0x6A5A7000, false) && p11->Login(1, kUserPin) && p11->CloseSession()) << logText();
    EXPECT_FALSE(p11->InitToken(0x6A5A7000, kSoPin, XString("x")));
    EXPECT_EQ(recorded(&shim::Call::slot, "C_OpenSession"), (std::vector<CK_SLOT_ID>{last, wide}));
    EXPECT_EQ(recorded(&shim::Call::slot, "C_GetTokenInfo"), std::vector<CK_SLOT_ID>{wide});
    EXPECT_EQ(recorded(&shim::Call::slot, "C_InitToken"), std::vector<CK_SLOT_ID>{wide});
}
