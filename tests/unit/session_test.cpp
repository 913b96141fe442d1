// Discovery, sessions, login and administration against the mock module.
#include "ClsJsonObject.h"
#include "MockFixture.h"

using namespace p11client;
using namespace p11test;

namespace {

using SessionTest = MockModuleTest;

std::vector<CK_SLOT_ID> slotsOfCalls(const std::string& function)
{
    std::vector<CK_SLOT_ID> out;
    for (const mock::Call& c : mock::calls())
        if (c.function == function)
            out.push_back(c.slot);
    return out;
}

std::string text(ClsJsonObject& json, const char* path)
{
    StringBuffer sb;
    LogNull log;
    return json.sbOfPathUtf8(path, sb, log) ? sb.toStdString() : "<none>";
}

} // namespace

TEST_F(SessionTest, DiscoverReportsLibrarySlotsAndTokensAsTrimmedValues)
{
    mock::TokenSpec token;
    token.label = "caf\xE9 token";
    token.minPinLen = 6;
    token.maxSessionCount = CK_UNAVAILABLE_INFORMATION;
    token.flags |= CKF_USER_PIN_COUNT_LOW;
    mock::insertToken(kSlot, token);
    mock::addSlot(7, mock::SlotSpec{.description = "Empty reader", .token = std::nullopt});

    ClsJsonObject json;
    ASSERT_TRUE(p11->Discover(false, json));
    EXPECT_EQ(text(json, "library.cryptokiVersion"), "2.40");
    EXPECT_EQ(text(json, "library.manufacturer"), "Mock Module Project");
    EXPECT_EQ(text(json, "library.libraryVersion"), "1.0");
    ASSERT_EQ(json.SizeOfArray(XString("slots")), 2);
    EXPECT_EQ(json.intOf("slots[0].id"), 1);
    EXPECT_EQ(text(json, "slots[0].description"), "Mock Slot");
    EXPECT_EQ(text(json, "slots[0].token.label"), "caf\xEF\xBF\xBD token");
    EXPECT_EQ(text(json, "slots[0].token.serialNumber"), "0000000000000001");
    EXPECT_EQ(json.intOf("slots[0].token.minPinLen"), 6);
    EXPECT_EQ(json.jsonTypeOf("slots[0].token.maxSessionCount"), ClsJsonObject::kTypeMissing);
    LogNull log;
    EXPECT_TRUE(json.boolOf("slots[0].token.flags.userPinCountLow", log));
    EXPECT_FALSE(json.boolOf("slots[0].token.flags.userPinLocked", log));
    EXPECT_TRUE(json.boolOf("slots[0].flags.removableDevice", log));
    EXPECT_EQ(json.intOf("slots[1].id"), 7);
    EXPECT_FALSE(json.boolOf("slots[1].tokenPresent", log));
    EXPECT_EQ(json.jsonTypeOf("slots[1].token"), ClsJsonObject::kTypeMissing);
    EXPECT_TRUE(p11->get_VerboseLogging()) << "discovery leaves the log's switch on";

    ASSERT_TRUE(p11->Discover(true, json));
    EXPECT_EQ(json.SizeOfArray(XString("slots")), 1);
}

TEST_F(SessionTest, DiscoverKeepsReportingWhenOneSlotCannotBeRead)
{
    mock::addSlot(2, mock::SlotSpec{});
    mock::failCall("C_GetSlotInfo", CKR_DEVICE_ERROR);
    ClsJsonObject json;
    ASSERT_TRUE(p11->Discover(false, json));
    EXPECT_EQ(text(json, "slots[0].error"), "CKR_DEVICE_ERROR");
    EXPECT_EQ(text(json, "slots[1].token.label"), "Mock Token");
}

TEST_F(SessionTest, DiscoverSeesASlotThatAppearsBetweenCountAndFill)
{
    mock::afterCall("C_GetSlotList", [] { mock::addSlot(9, mock::SlotSpec{}); });
    ClsJsonObject json;
    ASSERT_TRUE(p11->Discover(false, json));
    EXPECT_EQ(json.SizeOfArray(XString("slots")), 2);
    EXPECT_EQ(json.intOf("slots[1].id"), 9);
}

TEST_F(SessionTest, DiscoverKeepsTheLibraryInfoWhenTheSlotListFails)
{
    mock::failCall("C_GetSlotList", CKR_FUNCTION_FAILED);
    ClsJsonObject json;
    EXPECT_FALSE(p11->Discover(false, json));
    EXPECT_EQ(text(json, "library.manufacturer"), "Mock Module Project");
}

TEST_F(SessionTest, AnySlotSkipsASlotThatRefusesASession)
{
    mock::reset();
    mock::addSlot(10, mock::SlotSpec{.openSessionResult = CKR_SESSION_COUNT});
    mock::addSlot(11, mock::SlotSpec{});
    mock::addSlot(12, mock::SlotSpec{});
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    EXPECT_EQ(slotsOfCalls("C_OpenSession"), (std::vector<CK_SLOT_ID>{10, 11}));
    EXPECT_TRUE(hasError(*p11, "C_OpenSession returned CKR_SESSION_COUNT"));
    EXPECT_TRUE(p11->hasOpenSession());
}

TEST_F(SessionTest, DesiredSlotMustHoldAToken)
{
    mock::addSlot(0, mock::SlotSpec{.token = std::nullopt});
    ASSERT_TRUE(p11->Initialize());
    EXPECT_FALSE(p11->OpenSession(0, false));
    EXPECT_EQ(dataValues(*p11, "desiredSlotId"), std::vector<std::string>{"0"});
    EXPECT_EQ(errors(*p11), (std::vector<std::string>{"Did not find desired slot ID.", "Failed."}));
    EXPECT_TRUE(p11->OpenSession(static_cast<int>(kSlot), false));
}

TEST_F(SessionTest, SessionCallsNeedTheLibraryAndASession)
{
    EXPECT_FALSE(p11->OpenSession(-1, false));
    EXPECT_TRUE(hasError(*p11, "PKCS11 functions not available"));
    EXPECT_TRUE(hasError(*p11, "Failed to get slot IDs"));
    ASSERT_TRUE(p11->Initialize());
    EXPECT_FALSE(login(1, kUserPin));
    EXPECT_EQ(errors(*p11), std::vector<std::string>{"No PKCS11 session is open."});
    EXPECT_FALSE(p11->Logout());
    EXPECT_FALSE(p11->CloseSession());
    EXPECT_TRUE(hasError(*p11, "No PKCS11 session is open."));
}

TEST_F(SessionTest, OpeningASecondSessionClosesTheFirst)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    ASSERT_TRUE(login(1, kUserPin));
    ASSERT_TRUE(p11->OpenSession(-1, false));
    EXPECT_EQ(mock::openSessionCount(), 1u);
    EXPECT_EQ(mock::callCount("C_CloseSession"), 1);
    EXPECT_FALSE(p11->alreadyLoggedIn(1, p11->m_log)) << "closing the token's only session logged it out";
}

TEST_F(SessionTest, LoginFlagsFollowTheToken)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    LogNull log;
    ASSERT_TRUE(login(1, kUserPin));
    EXPECT_TRUE(p11->alreadyLoggedIn(1, log));
    EXPECT_TRUE(p11->alreadyLoggedIn(-1, log));
    EXPECT_FALSE(p11->alreadyLoggedIn(0, log));
    EXPECT_FALSE(p11->alreadyLoggedIn(2, log));
}

TEST_F(SessionTest, ASecondObjectOnTheSameTokenStartsLoggedIn)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    ASSERT_TRUE(login(1, kUserPin));
    auto second = makeObject(mock::modulePath());
    ASSERT_TRUE(second->Initialize());
    ASSERT_TRUE(second->OpenSession(-1, false));
    LogNull log;
    EXPECT_TRUE(second->alreadyLoggedIn(1, log));
    EXPECT_TRUE(second->Login(1, XString(kUserPin))) << "CKR_USER_ALREADY_LOGGED_IN is not a failure";
    EXPECT_TRUE(hasInfo(*second, "Already logged in."));
}

TEST_F(SessionTest, EmptyPinIsRefusedUnlessTheTokenHasAPinPad)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    EXPECT_FALSE(login(1, ""));
    EXPECT_TRUE(hasError(*p11, "The PIN is empty."));
    EXPECT_EQ(mock::callCount("C_Login"), 0);

    mock::TokenSpec pinPad;
    pinPad.flags |= CKF_PROTECTED_AUTHENTICATION_PATH;
    mock::insertToken(kSlot, pinPad);
    ASSERT_TRUE(p11->OpenSession(-1, true));
    EXPECT_TRUE(login(1, ""));
}

TEST_F(SessionTest, ContextSpecificLoginOnlyKeepsThePin)
{
    EXPECT_TRUE(login(2, "9876"));
    EXPECT_EQ(infos(*p11), (std::vector<std::string>{
                               "This is a context-specific PIN, so we're not actually logging in right now...",
                               "The context-specific PIN is saved for the time when each signing operation occurs.",
                               "At that point, the PIN is used within the context of signing.", "Success."}));
    XString kept;
    p11->get_SigContextPin(kept);
    EXPECT_TRUE(kept.equalsUtf8("9876"));
    EXPECT_EQ(mock::callCount("C_Login"), 0);
    EXPECT_EQ(mock::callCount("C_Initialize"), 0);
}

TEST_F(SessionTest, LogoutAndCloseResetTheirFlagsEvenWhenTheSessionIsGone)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->OpenSession(-1, true));
    ASSERT_TRUE(login(0, kSoPin));
    ASSERT_TRUE(p11->Logout());
    LogNull log;
    EXPECT_FALSE(p11->alreadyLoggedIn(0, log));
    mock::failCall("C_CloseSession", CKR_SESSION_HANDLE_INVALID);
    EXPECT_FALSE(p11->CloseSession()) << "the public call reports what the module said";
    EXPECT_TRUE(hasError(*p11, "C_CloseSession returned CKR_SESSION_HANDLE_INVALID"));
    EXPECT_FALSE(p11->hasOpenSession());
}

TEST_F(SessionTest, QuickSessionPaths)
{
    EXPECT_TRUE(p11->QuickSession(1, XString("")));
    EXPECT_TRUE(hasInfo(*p11, "PIN is empty, not logging in."));
    EXPECT_TRUE(p11->hasOpenSession());

    EXPECT_FALSE(p11->QuickSession(1, XString("0000")));
    EXPECT_EQ(errors(*p11), (std::vector<std::string>{"C_Login returned CKR_PIN_INCORRECT", "Failed to login."}));
    EXPECT_TRUE(p11->hasOpenSession());
    EXPECT_EQ(mock::callCount("C_Initialize"), 1) << "a second quick session does not initialize again";

    EXPECT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    EXPECT_EQ(mock::openSessionCount(), 1u);

    mock::removeToken(kSlot);
    EXPECT_FALSE(p11->QuickSession(1, XString(kUserPin)));
    EXPECT_TRUE(hasError(*p11, "Failed to open session."));
}

TEST_F(SessionTest, DestroyingTheObjectLogsOutClosesAndFinalizes)
{
    ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    mock::clearCalls();
    p11.reset();
    std::vector<std::string> order;
    for (const mock::Call& c : mock::calls())
        order.push_back(c.function);
    EXPECT_EQ(order, (std::vector<std::string>{"C_Logout", "C_CloseSession", "C_Finalize"}));
    EXPECT_FALSE(mock::initialized());
}

TEST_F(SessionTest, PinAdministration)
{
    ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    ASSERT_TRUE(p11->SetPin(XString(kUserPin), XString("4321")));
    EXPECT_EQ(mock::userPin(kSlot), "4321");

    EXPECT_FALSE(p11->InitPin(XString("5555")));
    EXPECT_TRUE(hasError(*p11, "C_InitPIN returned CKR_USER_NOT_LOGGED_IN"));
    ASSERT_TRUE(p11->Logout());
    ASSERT_TRUE(login(0, kSoPin));
    ASSERT_TRUE(p11->InitPin(XString("5555")));
    EXPECT_EQ(mock::userPin(kSlot), "5555");
}

TEST_F(SessionTest, InitTokenPadsTheLabelAndLogsUnderTheCertificateContext)
{
    ASSERT_TRUE(p11->Initialize());
    ASSERT_TRUE(p11->InitToken(static_cast<int>(kSlot), XString(kSoPin), XString("Fresh")));
    EXPECT_EQ(mock::tokenLabel(kSlot), "Fresh");
    EXPECT_EQ(p11->get_LogEntries().front().tag, "FindCert_pkcs11");

    EXPECT_FALSE(p11->InitToken(static_cast<int>(kSlot), XString(kSoPin), XString(std::string(33, 'x').c_str())));
    EXPECT_TRUE(hasError(*p11, "The token label is longer than 32 bytes."));
    EXPECT_FALSE(p11->InitToken(static_cast<int>(kSlot), XString("wrong-pin"), XString("x")));
    EXPECT_TRUE(hasError(*p11, "C_InitToken returned CKR_PIN_INCORRECT"));
    EXPECT_EQ(contextOf(*p11, "C_InitToken returned CKR_PIN_INCORRECT"), "FindCert_pkcs11");
}
