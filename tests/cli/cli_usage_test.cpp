// The command line itself: exit statuses, PIN sources, the module, atr.
#include "CliTokenStore.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <string>

namespace p11test {

namespace {

CliTokenStore& store()
{
    return CliTokenStore::get();
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST(CliUsage, MistakesOnTheCommandLineExitWithStatusTwo)
{
    const std::vector<std::vector<std::string>> mistakes = {
        {},
        {"no-such-command"},
        {"discover", "--no-such-option"},
        {"--slot", "-3", "discover"},
        {"sign", "--hash", "md5"},
        {"sign", "--format", "base64"},
        {"verify", "data.txt"},
        {"--uri", "http://example.com/", "certs"},
        {"--uri", "pkcs11:token=a;bogus-attribute=1", "certs"},
        {"--pin", "1", "--pin-file", "/dev/null", "keys"},
        {"atr"},
    };
    for (const auto& args : mistakes) {
        const ProcessResult r = store().cli(args);
        EXPECT_EQ(r.exitCode, 2) << (args.empty() ? "(no arguments)" : args[0]) << "\n" << r.err;
        EXPECT_FALSE(r.err.empty());
    }
}

TEST(CliUsage, HelpExitsWithStatusZeroAndDocumentsThePinSources)
{
    const ProcessResult r = store().cliNoPin({"--help"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_TRUE(contains(r.out, "--pin-file"));
    EXPECT_TRUE(contains(r.out, "least safe"));
    EXPECT_TRUE(contains(r.out, "P11CLIENT_PIN"));
}

TEST(CliUsage, APinIsNeededWhereTheCommandCannotWorkWithoutOne)
{
    const ProcessResult r = store().cliNoPin({"sign", store().file("rsa.pem"), "-o", store().file("unused.sig")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(contains(r.err, "needs the user PIN")) << r.err;
}

TEST(CliUsage, PinFromAFile)
{
    const std::string pinFile = store().file("user-pin");
    std::ofstream(pinFile) << SoftHsmToken::kUserPin << "\n";
    const ProcessResult r = runCli(store().store(), {"--json", "keys", "--pin-file", pinFile});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(nlohmann::json::parse(r.out).at("keys").size(), 3u);

    const ProcessResult missing = runCli(store().store(), {"keys", "--pin-file", store().file("no-such-file")});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_TRUE(contains(missing.err, "cannot read the user PIN file")) << missing.err;
}

TEST(CliUsage, AModuleThatCannotBeLoadedFailsWithTheLibrarysErrorLines)
{
    const ProcessResult r = store().cli({"--module", store().file("no-such-module.so"), "discover"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "error: Failed to load the PKCS11 shared library.")) << r.err;
    EXPECT_TRUE(contains(r.err, "could not load or query the module")) << r.err;
}

TEST(CliUsage, ATokenNoSlotOrUriMatchesIsAFailure)
{
    EXPECT_EQ(store().cli({"--uri", "pkcs11:token=absent", "keys"}).exitCode, 1);
    EXPECT_EQ(store().cli({"--slot", "4000000000", "keys"}).exitCode, 1);
    const ProcessResult byModelUri = store().cli({"--uri", "pkcs11:model=SoftHSM%20v2;token=p11client-test", "keys"});
    EXPECT_EQ(byModelUri.exitCode, 0) << byModelUri.err;
}

TEST(CliAtr, AKnownCardItsDriversAndWhichExistHere)
{
    const ProcessResult r = store().cliNoPin({"--json", "atr", "3b 89 80 01 4a 43 4f 50 32 34 32 52 32 4a"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const nlohmann::json card = nlohmann::json::parse(r.out);
    EXPECT_EQ(card.at("name"), "NXP JCOP J3D");
    EXPECT_FALSE(card.at("readOnly").get<bool>());
    ASSERT_FALSE(card.at("driverPaths").empty());
    for (const nlohmann::json& driver : card.at("driverPaths"))
        EXPECT_EQ(driver.at("exists").get<bool>(),
                  std::filesystem::is_regular_file(driver.at("path").get<std::string>()))
            << driver.dump();

    const ProcessResult table = store().cliNoPin({"atr", "3B8980014A434F5032343252324A"});
    ASSERT_EQ(table.exitCode, 0);
    EXPECT_TRUE(contains(table.out, "NXP JCOP J3D"));
    EXPECT_TRUE(contains(table.out, "opensc-pkcs11.so"));
}

TEST(CliAtr, AnUnknownAtrOrACardWithoutALinuxDriverFails)
{
    const ProcessResult unknown = store().cliNoPin({"atr", "3B00"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_TRUE(contains(unknown.err, "not in the card database")) << unknown.err;
    const ProcessResult noLinux = store().cliNoPin({"atr", "3B7F9600008031805843657274756D3031829000"});
    EXPECT_EQ(noLinux.exitCode, 1);
    EXPECT_TRUE(contains(noLinux.err, "error: Failed to find driver paths.")) << noLinux.err;
}

} // namespace p11test
