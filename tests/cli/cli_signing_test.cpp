// sign and verify: signatures made on the token, checked by p11client and by
// the openssl command line.
#include "CliTokenStore.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string certUri(const std::string& label)
{
    return "pkcs11:object=" + label + ";type=cert";
}

// openssl dgst -verify, as the user would check a signature.
bool opensslVerifies(const std::string& label, const std::string& hash, bool pss, const std::string& data,
                     const std::string& signature)
{
    std::string command = "openssl dgst -" + hash + " -verify " + store().file(label + ".pub.pem");
    if (pss)
        command += " -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest";
    command += " -signature " + signature + " " + data + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
}

struct SignCase {
    const char* label; // "rsa" or "ec"
    const char* hash;
    bool pss;
    const char* format; // ECDSA: "der" or "raw"
};

std::string caseName(const SignCase& c)
{
    return std::string(c.label) + "_" + c.hash + (c.pss ? "_pss" : "") + "_" + c.format;
}

std::vector<std::string> schemeArgs(const SignCase& c)
{
    std::vector<std::string> args {"--hash", c.hash};
    if (c.pss)
        args.push_back("--pss");
    if (std::string(c.label) == "ec")
        args.insert(args.end(), {"--format", c.format});
    return args;
}

std::vector<std::string> withArgs(std::vector<std::string> args, const std::vector<std::string>& more)
{
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

class CliSignRoundTrip : public ::testing::TestWithParam<SignCase> { };

} // namespace

TEST_P(CliSignRoundTrip, TheTokensSignatureVerifiesEverywhereAndOnlyOverTheSignedData)
{
    const SignCase& c = GetParam();
    const std::string name = caseName(c);
    const std::string data = store().file("data-" + name + ".txt");
    const std::string other = store().file("other-" + name + ".txt");
    const std::string sig = store().file("sig-" + name + ".bin");
    writeFile(data, "The data signed in case " + name + "\n");
    writeFile(other, "Other data\n");
    const bool ec = std::string(c.label) == "ec";
    const bool raw = std::string(c.format) == "raw";

    const ProcessResult s
        = store().cli(withArgs({"sign", data, "-o", sig, "--cert-uri", certUri(c.label)}, schemeArgs(c)));
    ASSERT_EQ(s.exitCode, 0) << s.err;
    EXPECT_TRUE(contains(s.out, "signature written to " + sig)) << s.out;
    const std::size_t size = readFile(sig).size();
    EXPECT_TRUE(ec ? (raw ? size == 64 : size > 64 && size <= 72) : size == 256) << size;

    const std::vector<std::string> verify = withArgs({"verify", "-s", sig}, schemeArgs(c));
    const ProcessResult byFile
        = store().cliNoPin(withArgs(verify, {data, "--cert", store().file(std::string(c.label) + ".pem")}));
    EXPECT_EQ(byFile.exitCode, 0) << byFile.err;
    EXPECT_TRUE(contains(byFile.out, "Signature OK")) << byFile.out;
    const ProcessResult byToken = store().cliNoPin(withArgs(verify, {data, "--cert-uri", certUri(c.label)}));
    EXPECT_EQ(byToken.exitCode, 0) << byToken.err;
    if (!raw) {
        EXPECT_TRUE(opensslVerifies(c.label, c.hash, c.pss, data, sig));
    }

    const ProcessResult tampered = store().cliNoPin(withArgs(verify, {other, "--cert-uri", certUri(c.label)}));
    EXPECT_EQ(tampered.exitCode, 1);
    EXPECT_TRUE(contains(tampered.err, "does NOT verify")) << tampered.err;
    if (!raw) {
        EXPECT_FALSE(opensslVerifies(c.label, c.hash, c.pss, other, sig));
    }
    if (!ec) {
        // The other RSA padding over the same data must not pass either.
        std::vector<std::string> otherPadding
            = {"verify", "-s", sig, "--hash", c.hash, data, "--cert-uri", "pkcs11:object=rsa"};
        if (!c.pss)
            otherPadding.push_back("--pss");
        EXPECT_EQ(store().cliNoPin(otherPadding).exitCode, 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Schemes, CliSignRoundTrip,
                         ::testing::Values(SignCase {"rsa", "sha1", false, "-"}, SignCase {"rsa", "sha256", false, "-"},
                                           SignCase {"rsa", "sha384", true, "-"}, SignCase {"rsa", "sha512", true, "-"},
                                           SignCase {"ec", "sha256", false, "der"},
                                           SignCase {"ec", "sha384", false, "raw"},
                                           SignCase {"ec", "sha512", false, "der"},
                                           SignCase {"ec", "sha1", false, "raw"}),
                         [](const ::testing::TestParamInfo<SignCase>& param) {
                             std::string n = caseName(param.param);
                             for (char& ch : n)
                                 if (ch == '-')
                                     ch = 'x';
                             return n;
                         });

TEST(CliSign, ADigestGivenAsInputIsSignedAsItIs)
{
    const std::string data = store().file("digest-data.txt");
    const std::string digest = store().file("digest.bin");
    const std::string sig = store().file("digest-sig.bin");
    writeFile(data, "Hashed by the caller\n");
    mustRun("openssl dgst -sha384 -binary -out " + digest + " " + data);
    const ProcessResult r
        = store().cli({"sign", "--digest", "--hash", "sha384", digest, "-o", sig, "--cert-uri", certUri("rsa")});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(opensslVerifies("rsa", "sha384", false, data, sig));
    const ProcessResult v = store().cliNoPin(
        {"verify", "--digest", "--hash", "sha384", digest, "-s", sig, "--cert", store().file("rsa.pem")});
    EXPECT_EQ(v.exitCode, 0) << v.err;

    const ProcessResult wrongSize = store().cli({"sign", "--digest", data, "-o", sig});
    EXPECT_EQ(wrongSize.exitCode, 2);
    EXPECT_TRUE(contains(wrongSize.err, "a sha256 digest has 32")) << wrongSize.err;
}

TEST(CliSign, StdinToStdoutAndAutomaticFormatDetection)
{
    const std::string text = "Piped through the tool\n";
    const ProcessResult r = store().cli({"sign", "--cert-uri", certUri("ec"), "--format", "raw"}, {}, text);
    ASSERT_EQ(r.exitCode, 0) << r.err;
    ASSERT_EQ(r.out.size(), 64u);
    EXPECT_TRUE(r.err.empty()) << r.err;
    const std::string sig = store().file("piped.sig");
    writeFile(sig, r.out);
    const ProcessResult v = runCli(store().store(), {"verify", "-s", sig, "--cert", store().file("ec.pem")}, {}, text);
    EXPECT_EQ(v.exitCode, 0) << v.err;
    EXPECT_TRUE(contains(v.out, "ECDSA (r||s)")) << v.out;
}

TEST(CliSign, JsonCarriesTheSignatureInHex)
{
    const std::string data = store().file("json-data.txt");
    writeFile(data, "Signed for a script\n");
    const ProcessResult r = store().cli({"--json", "sign", data, "--cert-part", "CN", "--cert-value", "CLI EC Signer"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const nlohmann::json j = nlohmann::json::parse(r.out);
    EXPECT_EQ(j.at("scheme"), "ECDSA");
    EXPECT_EQ(j.at("format"), "der");
    const std::string hex = j.at("signature");
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    EXPECT_EQ(bytes.size(), j.at("signatureSize").get<std::size_t>());
    const std::string sig = store().file("json.sig");
    writeFile(sig, bytes);
    EXPECT_TRUE(opensslVerifies("ec", "sha256", false, data, sig));
}

TEST(CliSign, TheDefaultCertificateIsOneWithItsKeyOnTheToken)
{
    const std::string data = store().file("default-data.txt");
    const std::string sig = store().file("default.sig");
    writeFile(data, "Whichever key the token pairs first\n");
    const ProcessResult s = store().cli({"sign", data, "-o", sig});
    ASSERT_EQ(s.exitCode, 0) << s.err;
    const ProcessResult v = store().cli({"verify", data, "-s", sig});
    EXPECT_EQ(v.exitCode, 0) << v.err;
}

TEST(CliSign, ACertificateWithoutItsKeyCannotSign)
{
    const std::string data = store().file("orphan-data.txt");
    writeFile(data, "No key for this one\n");
    const ProcessResult r
        = store().cli({"sign", data, "-o", store().file("orphan.sig"), "--cert-uri", certUri("orphan")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "error: No matching private key found on the HSM.")) << r.err;
    EXPECT_FALSE(std::filesystem::exists(store().file("orphan.sig")));
}

TEST(CliSign, AKeyThatWantsALoginAtEachSignatureGetsTheContextPin)
{
    const std::string data = store().file("always-data.txt");
    const std::string sig = store().file("always.sig");
    writeFile(data, "Signed after a context-specific login\n");
    const std::vector<std::string> sign = {"sign", data, "-o", sig, "--cert-uri", certUri("always")};
    const ProcessResult byUserPin = store().cli(sign);
    ASSERT_EQ(byUserPin.exitCode, 0) << byUserPin.err;
    EXPECT_TRUE(opensslVerifies("always", "sha256", false, data, sig));

    std::filesystem::remove(sig);
    const ProcessResult byContextPin = store().cli(withArgs(sign, {"--context-pin", SoftHsmToken::kUserPin}));
    ASSERT_EQ(byContextPin.exitCode, 0) << byContextPin.err;
    EXPECT_TRUE(opensslVerifies("always", "sha256", false, data, sig));

    const char* wrong = "Ctx-Wr0ng-31";
    const ProcessResult refused = store().cli(withArgs(sign, {"--verbose"}), {{"P11CLIENT_CONTEXT_PIN", wrong}});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(contains(refused.err, "error: The context-specific login failed.")) << refused.err;
    EXPECT_TRUE(contains(refused.err, "the PIN is incorrect")) << refused.err;
    EXPECT_FALSE(contains(refused.all(), wrong));
}

TEST(CliSign, PssWithAnEcKeyIsAUsageError)
{
    const std::string data = store().file("pss-ec.txt");
    writeFile(data, "x");
    const ProcessResult r
        = store().cli({"sign", data, "-o", store().file("pss-ec.sig"), "--pss", "--cert-uri", certUri("ec")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(contains(r.err, "--pss is for RSA keys")) << r.err;
}

} // namespace p11test
