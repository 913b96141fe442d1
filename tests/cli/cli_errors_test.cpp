// What the user sees when a command cannot run: exit status 2 for a usage
// error, 1 for a failure, and the lines that say why.
#include "CliHarness.h"

#include <filesystem>

namespace p11test {

TEST(Cli, UsageErrorsAndFailuresExitWithTheirStatusAndSayWhy)
{
    const char* wrongPin = "Wr0ng-Qx71";
    const std::string sig = "@never.sig", ec = "pkcs11:object=ec;type=cert", pinIncorrect = "the PIN is incorrect\n";
    const Env wrongUserPin {{"P11CLIENT_PIN", wrongPin}};
    const std::vector<Case> cases = {
        {{}, 2, {"A subcommand is required\nRun with --help for more information.\n"}},
        {{"no-such-command"}, 2, {"A subcommand is required"}},
        {{"discover", "--no-such-option"}, 2, {"The following argument was not expected: --no-such-option"}},
        {{"--slot", "-3", "discover"}, 2, {"--slot: Value -3 not in range 0 to 4294967295"}},
        {{"sign", "--hash", "md5"}, 2, {"--hash: md5 not in {sha1,sha256,sha384,sha512}"}},
        {{"sign", "--format", "base64"}, 2, {"--format: base64 not in {der,raw}"}},
        {{"verify", "@data.txt"}, 2, {"--signature is required"}},
        {{"atr"}, 2, {"atr is required"}},
        {{"--pin", "1", "--pin-file", "/dev/null", "keys"}, 2, {"--pin excludes --pin-file"}},
        {{"keys", "--pin-file", "@no-such-file"}, 2, {"p11client: cannot read the user PIN file "}, kNoPin},
        {{"--uri", "http://example.com/", "certs"}, 2, {"p11client: not a PKCS#11 URI: http://example.com/"}},
        {{"--uri", "pkcs11:token=a;bogus=1", "certs"}, 2, {"pkcs11:token=a;bogus=1 has attributes this tool does not"}},
        {{"sign", "@data.txt", "-o", sig}, 2, {"p11client: this command needs the user PIN: give --pin-file"}, kNoPin},
        {{"sign", "@data.txt", "-o", sig, "--pss", "--cert-uri", ec}, 2, {"p11client: --pss is for RSA keys;"}},
        {{"sign", "--digest", "@data.txt", "-o", sig}, 2, {"the input has 16 bytes; a sha256 digest has 32"}},
        {{"objects", "{\"class\":"}, 2, {"p11client: the search template is not valid JSON\n"}},
        {{"init-token", "--label", "x"}, 2, {"p11client: name the slot with --slot ID or the token with --uri "}},
        {{"--slot", "FREE", "init-token", "--label", "x"}, 2, {"p11client: the security officer PIN is needed: "}},
        {{"--slot", "FREE", "init-token", "--label", std::string(33, 'L')}, 2, {"a token label has at most 32 bytes"}},
        {{"--help"}, 0, {"--pin PIN works too but is the least safe", "P11CLIENT_PIN", "--pin-file"}},
        {{"--module", "@no-such-module.so", "discover"}, 1,
         {"error: Failed to load the PKCS11 shared library.\n", "p11client: could not load or query the module "}},
        {{"--uri", "pkcs11:token=absent", "keys"}, 1, {"p11client: no initialized token matching pkcs11:token=absent"}},
        {{"--slot", "4000000000", "keys"}, 1, {"p11client: no initialized token in slot 4000000000\n"}},
        {{"find-cert", "CN", "Nobody"}, 1, {"error: Not found.\n", "no certificate whose CN is Nobody"}},
        {{"sign", "@data.txt", "-o", sig, "--cert-uri", "pkcs11:object=orphan"}, 1,
         {"error: No matching private key found on the HSM.\n"}},
        {{"sign", "@data.txt", "-o", sig, "--cert-uri", "pkcs11:object=always"}, 1,
         {"error: The context-specific login failed.\n", pinIncorrect}, {{"P11CLIENT_CONTEXT_PIN", wrongPin}}},
        {{"keys", "--pin", wrongPin}, 1,
         {"error: C_Login returned CKR_PIN_INCORRECT", "p11client: login as the user failed: " + pinIncorrect}},
        {{"sign", "@data.txt", "-o", sig}, 1, {"p11client: login as the user failed: " + pinIncorrect}, wrongUserPin},
        {{"--json", "certs"}, 1, {"p11client: login as the user failed: " + pinIncorrect}, wrongUserPin},
        {{"atr", "3B00"}, 1, {"p11client: the ATR 3B00 is not in the card database\n"}},
        {{"atr", "3B7F9600008031805843657274756D3031829000"}, 1, {"error: Failed to find driver paths.\n"}},
    };
    for (const Case& c : cases) // the user PIN is given unless the case says otherwise
        check(storeDir(), c, {{"P11CLIENT_PIN", SoftHsmToken::kUserPin}}, {wrongPin});
    EXPECT_FALSE(std::filesystem::exists(storeFile("never.sig"))) << "no signature file when signing fails";
}

} // namespace p11test
