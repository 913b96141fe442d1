#include "CliTokenStore.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

namespace p11test {

namespace {

CliTokenStore* g_store = nullptr;

class StoreEnvironment : public ::testing::Environment {
public:
    void TearDown() override { CliTokenStore::release(); }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new StoreEnvironment);

} // namespace

void mustRun(const std::string& command)
{
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
        throw std::runtime_error("command failed: " + command);
}

ProcessResult runCli(const SoftHsmToken& store, std::vector<std::string> args, std::map<std::string, std::string> env,
                     const std::string& input)
{
    const std::string module = SoftHsmToken::modulePath();
    if (module.empty())
        throw std::runtime_error("SoftHSM2 is not installed");
    args.insert(args.begin(), {P11CLIENT_CLI_PATH, "--module", module});
    env["SOFTHSM2_CONF"] = store.directory() + "/softhsm2.conf";
    return runProcess(args, env, input);
}

CliTokenStore& CliTokenStore::get()
{
    if (g_store == nullptr)
        g_store = new CliTokenStore();
    return *g_store;
}

void CliTokenStore::release()
{
    delete g_store;
    g_store = nullptr;
}

CliTokenStore::CliTokenStore()
{
    const std::string p256 = "ec -pkeyopt ec_paramgen_curve:P-256";
    addCertificate("rsa", "01", "rsa:2048", "CLI RSA Signer", Key::OnToken);
    addCertificate("ec", "02", p256, "CLI EC Signer", Key::OnToken);
    addCertificate("orphan", "03", "rsa:2048", "CLI Orphan", Key::Absent);
    addCertificate("always", "04", p256, "CLI Always Auth", Key::AlwaysAuthenticate);
}

// A self-signed certificate made by openssl and written to the token with
// pkcs11-tool, as an administrator would.
void CliTokenStore::addCertificate(const std::string& label, const std::string& id, const std::string& keySpec,
                                   const std::string& cn, Key key)
{
    const std::string base = file(label);
    mustRun("openssl req -x509 -newkey " + keySpec + " -nodes -days 30 -subj '/O=Example Corp/CN=" + cn + "' -keyout "
            + base + ".key.pem -out " + base + ".pem");
    mustRun("openssl x509 -in " + base + ".pem -outform DER -out " + base + ".der");
    mustRun("openssl x509 -in " + base + ".pem -pubkey -noout -out " + base + ".pub.pem");
    const std::string tool = "SOFTHSM2_CONF=" + file("softhsm2.conf") + " pkcs11-tool --module "
        + SoftHsmToken::modulePath() + " --token-label " + SoftHsmToken::kLabel + " --login --pin "
        + SoftHsmToken::kUserPin + " --id " + id + " --label " + label;
    if (key != Key::Absent) {
        mustRun("openssl pkcs8 -topk8 -nocrypt -in " + base + ".key.pem -outform DER -out " + base + ".key.der");
        mustRun(tool + " --write-object " + base + ".key.der --type privkey"
                + (key == Key::AlwaysAuthenticate ? " --always-auth" : ""));
    }
    mustRun(tool + " --write-object " + base + ".der --type cert");
}

ProcessResult CliTokenStore::cli(std::vector<std::string> args, std::map<std::string, std::string> env,
                                 const std::string& input) const
{
    env.try_emplace("P11CLIENT_PIN", SoftHsmToken::kUserPin);
    return runCli(m_token, std::move(args), std::move(env), input);
}

ProcessResult CliTokenStore::cliNoPin(std::vector<std::string> args) const
{
    return runCli(m_token, std::move(args));
}

} // namespace p11test
