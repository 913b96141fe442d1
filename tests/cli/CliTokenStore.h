#pragma once

#include "CliProcess.h"
#include "SoftHsmToken.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace p11test {

// Runs p11client (the binary built beside these tests) with --module set to
// SoftHSM2 and SOFTHSM2_CONF set to the given token store's configuration.
ProcessResult runCli(const SoftHsmToken& store, std::vector<std::string> args,
                     std::map<std::string, std::string> env = {}, const std::string& input = {});

// The token store most tests share, made once per test binary: the token
// kLabel (user PIN kUserPin) holds
//   rsa     RSA 2048 certificate and key, CKA_ID 01, CN "CLI RSA Signer"
//   ec      EC P-256 certificate and key, CKA_ID 02, CN "CLI EC Signer"
//   orphan  RSA 2048 certificate, CKA_ID 03, whose key is NOT on the token
//   always  EC P-256 certificate and key, CKA_ID 04, CN "CLI Always Auth":
//           the key has CKA_ALWAYS_AUTHENTICATE (a login at each signature)
// and the files LABEL.pem (certificate), LABEL.der and LABEL.pub.pem (public
// key) lie in its directory. A free slot is left too.
class CliTokenStore {
public:
    static CliTokenStore& get();
    static void release();

    std::string file(const std::string& name) const { return m_token.directory() + "/" + name; }
    const SoftHsmToken& store() const { return m_token; }
    // p11client on this store, logged in through P11CLIENT_PIN unless env says otherwise.
    ProcessResult cli(std::vector<std::string> args, std::map<std::string, std::string> env = {},
                      const std::string& input = {}) const;
    // The same without any PIN at hand.
    ProcessResult cliNoPin(std::vector<std::string> args) const;

private:
    CliTokenStore();
    enum class Key { OnToken, AlwaysAuthenticate, Absent };
    void addCertificate(const std::string& label, const std::string& id, const std::string& keySpec,
                        const std::string& cn, Key key);

    SoftHsmToken m_token;
};

// A shell command that must succeed (the test's own setup).
void mustRun(const std::string& command);

} // namespace p11test
