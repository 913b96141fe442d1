// The foundation against a real SoftHSM2 token made for this run.
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "LogAssertions.h"
#include "SoftHsmToken.h"
#include "XString.h"

#include <gtest/gtest.h>

#include <memory>

using namespace p11client;
using namespace p11test;

namespace {

SoftHsmToken* g_token = nullptr;

class SoftHsmEnvironment : public ::testing::Environment {
public:
    void SetUp() override { g_token = new SoftHsmToken(); }
    void TearDown() override
    {
        delete g_token;
        g_token = nullptr;
    }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new SoftHsmEnvironment);

class SoftHsmTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(SoftHsmToken::modulePath().empty()) << "SoftHSM2 is not installed";
        p11.reset(ClsPkcs11::createNewCls());
        p11->put_SharedLibPath(XString(SoftHsmToken::modulePath().c_str()));
    }

    // Slot number of the initialized token.
    int initializedSlot()
    {
        ClsJsonObject json;
        EXPECT_TRUE(p11->Discover(true, json));
        LogNull log;
        for (int i = 0; i < json.SizeOfArray(XString("slots")); ++i) {
            json.put_I(i);
            if (json.boolOf("slots[i].token.flags.tokenInitialized", log))
                return static_cast<int>(json.intOf("slots[i].id"));
        }
        ADD_FAILURE() << "no such slot";
        return -2;
    }

    std::unique_ptr<ClsPkcs11> p11;
};

} // namespace

TEST_F(SoftHsmTest, DiscoverReportsTheLibraryAndTheToken)
{
    ClsJsonObject json;
    ASSERT_TRUE(p11->Discover(true, json));
    StringBuffer sb;
    LogNull log;
    ASSERT_TRUE(json.sbOfPathUtf8("library.manufacturer", sb, log));
    EXPECT_EQ(sb.toStdString(), "SoftHSM");
    sb.clear();
    ASSERT_TRUE(json.sbOfPathUtf8("slots[0].token.label", sb, log));
    EXPECT_EQ(sb.toStdString(), SoftHsmToken::kLabel);
    EXPECT_TRUE(json.boolOf("slots[0].token.flags.userPinInitialized", log));
    EXPECT_TRUE(json.boolOf("slots[0].token.flags.loginRequired", log));
    EXPECT_GT(json.intOf("slots[0].token.maxPinLen"), 0);
}

TEST_F(SoftHsmTest, LoginAsSecurityOfficerAndUserThenLogoutAndClose)
{
    ASSERT_TRUE(p11->Initialize());
    const int slot = initializedSlot();
    ASSERT_TRUE(p11->OpenSession(slot, true));
    LogNull log;
    ASSERT_TRUE(p11->Login(0, XString(SoftHsmToken::kSoPin)));
    EXPECT_TRUE(p11->alreadyLoggedIn(0, log));
    EXPECT_FALSE(p11->Login(1, XString(SoftHsmToken::kUserPin)));
    EXPECT_TRUE(hasError(*p11, "C_Login returned CKR_USER_ANOTHER_ALREADY_LOGGED_IN"));
    ASSERT_TRUE(p11->Logout());
    EXPECT_FALSE(p11->alreadyLoggedIn(0, log));
    ASSERT_TRUE(p11->Login(1, XString(SoftHsmToken::kUserPin)));
    EXPECT_TRUE(p11->alreadyLoggedIn(1, log));
    ASSERT_TRUE(p11->CloseSession());
    EXPECT_FALSE(p11->hasOpenSession());
    EXPECT_FALSE(p11->alreadyLoggedIn(1, log));
}
