// init-token, init-pin and set-pin on the free slot of a store of its own,
// and the rule that no PIN ever reaches the output, whatever its source.
#include "CliTokenStore.h"
#include "PinLeakForms.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <string>

namespace p11test {

namespace {

// PINs nothing else in the output could contain by chance.
constexpr const char* kSoPin = "So-Pin#4417";
constexpr const char* kFirstPin = "Us3r-Pin!9";
constexpr const char* kSecondPin = "Zw8-Sec0nd";
constexpr const char* kNewSoPin = "So-N3w#2208";
constexpr const char* kWrongPin = "Wr0ng-Qx71";
constexpr const char* kTokenUri = "pkcs11:token=cli%20admin";

class CliAdmin : public ::testing::Test {
protected:
    // Runs p11client with --verbose and checks that no PIN of this test shows.
    ProcessResult run(std::vector<std::string> args, std::map<std::string, std::string> env = {})
    {
        args.insert(args.begin(), "--verbose");
        ProcessResult r = runCli(m_store, std::move(args), std::move(env));
        for (const char* pin : {kSoPin, kFirstPin, kSecondPin, kNewSoPin, kWrongPin})
            for (const std::string& form : p11test::leakedForms(pin))
                EXPECT_EQ(r.all().find(form), std::string::npos) << "PIN " << pin << " in the output as " << form;
        return r;
    }

    unsigned long freeSlot()
    {
        const ProcessResult r = runCli(m_store, {"--json", "discover"});
        const nlohmann::json report = nlohmann::json::parse(r.out);
        for (const nlohmann::json& slot : report.at("slots"))
            if (!slot.at("token").at("flags").at("tokenInitialized").get<bool>())
                return slot.at("id").get<unsigned long>();
        ADD_FAILURE() << "no free slot in\n" << r.out << r.err;
        return 0;
    }

    std::string pinFile(const char* pin)
    {
        const std::string path = m_store.directory() + "/pin-file";
        std::ofstream(path) << pin << "\n";
        return path;
    }

    SoftHsmToken m_store;
};

} // namespace

TEST_F(CliAdmin, InitTokenInitPinSetPinOnTheFreeSlot)
{
    const std::string slot = std::to_string(freeSlot());
    ProcessResult r = run({"--slot", slot, "init-token", "--label", "cli admin"}, {{"P11CLIENT_SO_PIN", kSoPin}});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("initialized"), std::string::npos);

    r = run({"--uri", kTokenUri, "init-pin", "--so-pin-file", pinFile(kSoPin), "--new-pin", kFirstPin});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("user PIN set"), std::string::npos);

    r = run({"--uri", kTokenUri, "--pin", kFirstPin, "set-pin"}, {{"P11CLIENT_NEW_PIN", kSecondPin}});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    r = run({"--uri", kTokenUri, "keys"}, {{"P11CLIENT_PIN", kSecondPin}});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("Login:"), std::string::npos) << "--verbose shows the library's log";
    r = run({"--uri", kTokenUri, "keys", "--pin", kFirstPin});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("CKR_PIN_INCORRECT"), std::string::npos) << r.err;

    r = run({"--uri", kTokenUri, "set-pin", "--so", "--new-pin-file", pinFile(kNewSoPin)},
            {{"P11CLIENT_SO_PIN", kSoPin}});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    r = run({"--uri", kTokenUri, "init-pin", "--so-pin", kSoPin, "--new-pin", kFirstPin});
    EXPECT_EQ(r.exitCode, 1) << "the old security officer PIN no longer works";
    r = run({"--uri", kTokenUri, "init-pin", "--so-pin", kNewSoPin, "--new-pin", kFirstPin});
    EXPECT_EQ(r.exitCode, 0) << r.err;
}

TEST_F(CliAdmin, AWrongPinFailsWithAMessageThatNamesItButNotThePin)
{
    ProcessResult r = run({"--pin", kWrongPin, "keys"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("error: C_Login returned CKR_PIN_INCORRECT"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("p11client: login as the user failed: the PIN is incorrect"), std::string::npos) << r.err;
    r = run({"sign", "-o", m_store.directory() + "/never.sig"}, {{"P11CLIENT_PIN", kWrongPin}});
    EXPECT_EQ(r.exitCode, 1);
    r = run({"--pin", kWrongPin, "--json", "certs"});
    EXPECT_EQ(r.exitCode, 1);
}

TEST_F(CliAdmin, InitTokenWantsTheSlotNamedAndTheSoPin)
{
    ProcessResult r = run({"init-token", "--label", "x"}, {{"P11CLIENT_SO_PIN", kSoPin}});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.err.find("name the slot"), std::string::npos) << r.err;
    r = run({"--slot", std::to_string(freeSlot()), "init-token", "--label", "x"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.err.find("security officer PIN is needed"), std::string::npos) << r.err;
    r = run({"--slot", std::to_string(freeSlot()), "init-token", "--label", std::string(33, 'L')},
            {{"P11CLIENT_SO_PIN", kSoPin}});
    EXPECT_EQ(r.exitCode, 2);
}

} // namespace p11test
