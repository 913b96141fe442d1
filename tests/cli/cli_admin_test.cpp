// init-token, init-pin and set-pin on the free slot of a store of its own,
// each step then a login with the new PIN; no PIN ever reaches the output,
// whatever its source.
#include "CliHarness.h"

namespace p11test {

TEST(Cli, InitTokenInitPinSetPinThenTheNewPinsLogIn)
{
    // PINs nothing else in the output could contain by chance.
    const char *soPin = "So-Pin#4417", *firstPin = "Us3r-Pin!9", *secondPin = "Zw8-Sec0nd", *newSoPin = "So-N3w#2208";
    const std::string token = "pkcs11:token=cli%20admin", soPinFile = "@so-pin", incorrect = "the PIN is incorrect\n";
    const SoftHsmToken store;
    writeFile(store.directory() + "/so-pin", std::string(soPin) + "\n");
    writeFile(store.directory() + "/new-so-pin", std::string(newSoPin) + "\n");
    const std::vector<Case> steps = {
        {{"--slot", "FREE", "init-token", "--label", "cli admin"}, 0,
         {"Token \"cli admin\" in slot ", ": initialized (its user PIN is not set yet: init-pin sets it).\n"},
         {{"P11CLIENT_SO_PIN", soPin}}},
        {{"--uri", token, "init-pin", "--so-pin-file", soPinFile, "--new-pin", firstPin}, 0, {": user PIN set.\n"}},
        {{"--uri", token, "--pin", firstPin, "keys"}, 0, {"No private key found.\n"}},
        {{"--uri", token, "--pin", firstPin, "set-pin"}, 0, {": user PIN changed.\n"},
         {{"P11CLIENT_NEW_PIN", secondPin}}},
        {{"--uri", token, "keys"}, 0, {"No private key found.\n"}, {{"P11CLIENT_PIN", secondPin}}},
        {{"--uri", token, "keys", "--pin", firstPin}, 1,
         {"Login:", "error: C_Login returned CKR_PIN_INCORRECT", "p11client: login as the user failed: " + incorrect}},
        {{"--uri", token, "set-pin", "--so", "--new-pin-file", "@new-so-pin"}, 0, {": security officer PIN changed.\n"},
         {{"P11CLIENT_SO_PIN", soPin}}},
        {{"--uri", token, "init-pin", "--so-pin-file", soPinFile, "--new-pin", firstPin}, 1,
         {"p11client: login as the security officer failed: " + incorrect}},
        {{"--uri", token, "init-pin", "--so-pin", newSoPin, "--new-pin", firstPin}, 0, {": user PIN set.\n"}},
        {{"--uri", token, "--pin", firstPin, "keys"}, 0, {"No private key found.\n"}},
    };
    for (const Case& step : steps)
        check(store.directory(), step, {}, {soPin, firstPin, secondPin, newSoPin});
}

} // namespace p11test
