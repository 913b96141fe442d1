#pragma once

// p11client run as a user runs it: a process, its output and its exit status,
// against SoftHSM2 token stores the test binary makes.

#include "PinLeakForms.h"
#include "SoftHsmObjects.h"
#include "SoftHsmToken.h"
#include "TestCertFactory.h"

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace p11test {

using Env = std::map<std::string, std::string>;
// Where the user PIN is wanted absent (an empty value is not exported).
inline const Env kNoPin {{"P11CLIENT_PIN", ""}};

struct Outcome {
    int exitCode = -1; // 128 + the signal when one ended it
    std::string out, err;
};

inline bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// A shell command of the test's own setup, which must succeed.
inline void mustRun(const std::string& command)
{
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
        throw std::runtime_error("command failed: " + command);
}

// For the shell: no argument of these tests holds a quote.
inline std::string quoted(const std::string& text) { return "'" + text + "'"; }

// p11client with the arguments `args` (as the shell reads them), stdin read
// from `input`, its output through files in `dir`; the environment is this
// process's minus every P11CLIENT_* variable, plus the non-empty entries of `env`.
inline Outcome runTool(const std::string& dir, const std::string& args, const Env& env = {}, const std::string& input = {})
{
    std::string command;
    for (char** e = environ; *e != nullptr; ++e)
        if (std::string(*e).starts_with("P11CLIENT_"))
            command += "unset " + std::string(*e).substr(0, std::string(*e).find('=')) + "; ";
    for (const auto& [name, value] : env)
        command += value.empty() ? "" : name + "=" + quoted(value) + " ";
    const std::string io = dir + "/io.";
    writeFile(io + "in", input);
    const int status = std::system((command + quoted(P11CLIENT_CLI_PATH) + " " + args + " <" + io + "in >" + io + "out 2>" + io + "err").c_str());
    const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {exitCode, readFile(io + "out"), readFile(io + "err")};
}

// p11client with --module SoftHSM2 on the token store in `dir`.
inline Outcome runCli(const std::string& dir, const std::vector<std::string>& args, Env env = {}, const std::string& input = {})
{
    std::string line = "--module " + quoted(SoftHsmToken::modulePath());
    for (const std::string& arg : args)
        line += " " + quoted(arg);
    env.emplace("SOFTHSM2_CONF", dir + "/softhsm2.conf");
    return runTool(dir, line, env, input);
}

// The slot ID (as discover shows it) of the store's slot whose token is not initialized.
inline std::string freeSlot(const std::string& dir)
{
    const nlohmann::json report = nlohmann::json::parse(runCli(dir, {"--json", "discover"}).out);
    for (const nlohmann::json& slot : report.at("slots"))
        if (!slot.at("token").at("flags").at("tokenInitialized").get<bool>())
            return std::to_string(slot.at("id").get<unsigned long>());
    throw std::runtime_error("no free slot");
}

// A run of p11client and what it must show: its exit status and each of
// `says` in stderr (in stdout for status 0); nothing in stdout on failure.
struct Case {
    std::vector<std::string> args; // "@NAME": the store's file NAME; "FREE": its free slot
    int exitCode;
    std::vector<std::string> says;
    Env env = {}; // over the caller's
};

// Runs the case on the store in `dir` with --verbose: no PIN of `pins` may
// show in any form it could leak in, the library's log included.
inline void check(const std::string& dir, const Case& c, const Env& env, std::initializer_list<const char*> pins)
{
    SCOPED_TRACE(::testing::PrintToString(c.args));
    std::vector<std::string> args {"--verbose"};
    for (const std::string& arg : c.args)
        args.push_back(arg == "FREE" ? freeSlot(dir) : arg.starts_with("@") ? dir + "/" + arg.substr(1) : arg);
    Env merged = c.env;
    merged.insert(env.begin(), env.end());
    const Outcome r = runCli(dir, args, merged);
    const std::string& text = c.exitCode == 0 ? r.out : r.err;
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    for (const std::string& part : c.says)
        EXPECT_TRUE(contains(text, part)) << "missing: " << part << "\nin:\n" << text;
    EXPECT_TRUE(c.exitCode == 0 || r.out.empty()) << r.out;
    for (const char* pin : pins)
        for (const std::string& form : leakedForms(pin))
            EXPECT_FALSE(contains(r.out + r.err, form)) << "PIN " << pin << " in the output as " << form;
}

// The directory of the token store most tests share, made once per test
// binary: the token kLabel (user PIN kUserPin) holds
//   rsa     RSA 2048 certificate and key, CKA_ID 01, CN "CLI RSA Signer"
//   ec      EC P-256 certificate and key, CKA_ID 02, CN "CLI EC Signer"
//   orphan  RSA 2048 certificate, CKA_ID 03, whose key is NOT on the token
//   always  EC P-256 certificate and key, CKA_ID 04, CN "CLI Always Auth":
//           the key has CKA_ALWAYS_AUTHENTICATE (a login at each signature)
// (certificate serials AB01 to AB04), and LABEL.der, LABEL.pem (the
// certificate) and data.txt lie in it. A free slot is left too.
inline const std::string& storeDir()
{
    static const SoftHsmToken token;
    [[maybe_unused]] static const bool filled = [] {
        CryptokiModule module(SoftHsmToken::modulePath());
        module.initialize();
        const TokenSession session(module.functions(), module.slotOfToken(SoftHsmToken::kLabel),
                                   SoftHsmToken::kUserPin);
        const auto add = [&session](const std::string& label, std::uint8_t id, const TestKey& key,
                                    const std::string& cn, bool keyOnToken, bool alwaysAuthenticate) {
            const Bytes der
                = makeCertDer({.key = key, .subject = {{"O", "Example Corp"}, {"CN", cn}}, .serial = {0xAB, id}});
            if (keyOnToken)
                importPrivateKey(session, key.get(), {label, {id}, {}, alwaysAuthenticate});
            importCertificate(session, der, {label, {id}});
            const std::string base = token.directory() + "/" + label;
            writeFile(base + ".der", std::string(der.begin(), der.end()));
            mustRun("openssl x509 -inform DER -in " + base + ".der -out " + base + ".pem");
        };
        add("rsa", 1, makeRsaKey(2048), "CLI RSA Signer", true, false);
        add("ec", 2, makeEcKey("P-256"), "CLI EC Signer", true, false);
        add("orphan", 3, makeRsaKey(2048), "CLI Orphan", false, false);
        add("always", 4, makeEcKey("P-256"), "CLI Always Auth", true, true);
        writeFile(token.directory() + "/data.txt", "The data signed\n");
        return true;
    }();
    return token.directory();
}

inline std::string storeFile(const std::string& name) { return storeDir() + "/" + name; }

// p11client on the shared store, logged in through P11CLIENT_PIN unless env says otherwise.
inline Outcome cli(const std::vector<std::string>& args, Env env = {}, const std::string& input = {})
{
    env.try_emplace("P11CLIENT_PIN", SoftHsmToken::kUserPin);
    return runCli(storeDir(), args, env, input);
}

} // namespace p11test
