// No PIN ever reaches a log, whatever path it takes.
#include "ClsJsonObject.h"
#include "MockFixture.h"

using namespace p11client;
using namespace p11test;

namespace {

class PinHygieneTest : public MockModuleTest {
protected:
    void expectNoPinIn(const char* pin)
    {
        XString text;
        p11->get_LogText(text);
        EXPECT_FALSE(text.containsSubstringUtf8(pin)) << text.getUtf8();
    }
};

} // namespace

TEST_F(PinHygieneTest, NoPinAppearsInAnyLogText)
{
    mock::TokenSpec token;
    token.userPin = "user-pin-4711";
    token.soPin = "so-pin-0815";
    mock::insertToken(kSlot, token);
    p11->put_VerboseLogging(true);

    const auto check = [&](bool, const std::vector<const char*>& pins) {
        for (const char* pin : pins)
            expectNoPinIn(pin);
    };
    check(p11->QuickSession(1, XString("user-pin-4711")), {"user-pin-4711"});
    check(p11->Login(1, XString("wrong-pin-1357")), {"wrong-pin-1357"});
    check(p11->SetPin(XString("user-pin-4711"), XString("new-pin-2468")), {"user-pin-4711", "new-pin-2468"});
    check(p11->Logout(), {});
    check(p11->Login(0, XString("so-pin-0815")), {"so-pin-0815"});
    check(p11->InitPin(XString("init-pin-9753")), {"init-pin-9753"});
    check(p11->Login(2, XString("context-pin-8642")), {"context-pin-8642"});
    check(p11->CloseSession(), {});
    check(p11->InitToken(static_cast<int>(kSlot), XString("so-pin-0815"), XString("label")), {"so-pin-0815"});
    EXPECT_EQ(mock::userPin(kSlot), "") << "the sequence really ran to InitToken";
}
