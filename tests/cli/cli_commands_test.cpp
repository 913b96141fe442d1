// Each subcommand once, end to end, on the shared token: what the user sees
// and the round trips that matter.
#include "CliHarness.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <tuple>

using nlohmann::json;

namespace p11test {

namespace {

json jsonOf(const Outcome& r)
{
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return json::parse(r.out);
}

std::size_t occurrences(const std::string& text, const std::string& part)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

std::vector<std::string> with(std::vector<std::string> args, const std::vector<std::string>& more)
{
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

std::string certUri(const std::string& label) { return "pkcs11:object=" + label + ";type=cert"; }

} // namespace

TEST(Cli, DiscoverShowsTheModuleTheTokenAndTheFreeSlot)
{
    const Outcome table = cli({"discover"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(contains(table.out, "Module   " + SoftHsmToken::modulePath() + "\nLibrary  SoftHSM")) << table.out;
    EXPECT_TRUE(contains(table.out, SoftHsmToken::kLabel));
    EXPECT_EQ(occurrences(table.out, "ready"), 1u);
    EXPECT_EQ(occurrences(table.out, "not initialized"), 1u);
    const json report = jsonOf(cli({"--json", "discover"}));
    EXPECT_EQ(report.at("library").at("manufacturer"), "SoftHSM");
    ASSERT_EQ(report.at("slots").size(), 2u);
    for (const json& slot : report.at("slots")) {
        EXPECT_TRUE(contains(table.out, std::to_string(slot.at("id").get<unsigned long>())));
        EXPECT_EQ(slot.at("token").at("label") == SoftHsmToken::kLabel,
                  slot.at("token").at("flags").at("tokenInitialized").get<bool>());
    }
}

TEST(Cli, CertsListsEachCertificateWithThePairingResult)
{
    for (const bool loggedIn : {true, false}) {
        const json report = jsonOf(cli({"--json", "certs"}, loggedIn ? Env {} : kNoPin));
        EXPECT_EQ(report.at("loggedIn"), loggedIn);
        EXPECT_EQ(report.at("count"), 4);
        std::set<json> certs; // without a login no key is claimed
        std::set<std::string> keyHandles;
        for (const json& c : report.at("certificates")) {
            certs.insert(json {c.at("id"), c.at("keyType"), c.at("keyBits"), c.at("hasPrivateKey"),
                               c.contains("keyHandle"), c.at("subject")});
            keyHandles.insert(c.value("keyHandle", json()).dump());
        }
        const std::set<json> want {{"01", "RSA", 2048, loggedIn, loggedIn, "CN=CLI RSA Signer, O=Example Corp"},
                                   {"02", "ECDSA", 256, loggedIn, loggedIn, "CN=CLI EC Signer, O=Example Corp"},
                                   {"03", "RSA", 2048, false, false, "CN=CLI Orphan, O=Example Corp"},
                                   {"04", "ECDSA", 256, loggedIn, loggedIn, "CN=CLI Always Auth, O=Example Corp"}};
        EXPECT_EQ(certs, want);
        EXPECT_EQ(keyHandles.size(), loggedIn ? 4u : 1u) << "a key of its own for each";
    }
    const Outcome table = cli({"certs"});
    EXPECT_EQ(occurrences(table.out, "found on the token (handle"), 3u) << table.out;
    EXPECT_EQ(occurrences(table.out, "not found on the token"), 1u);
    EXPECT_TRUE(contains(table.out, "CN=CLI Orphan, O=Example Corp"));
    EXPECT_EQ(occurrences(cli({"certs"}, kNoPin).out, "not logged in: the token may hide it"), 4u);
}

// On a token that keeps no public material of its keys, an EC certificate
// whose key is absent gets the first EC key for want of another: certs marks
// it, and sign withholds the signature the certificate does not verify.
TEST(Cli, AKeyTakenForWantOfAnotherIsMarkedAndItsSignatureWithheld)
{
    const SoftHsmToken store;
    {
        CryptokiModule module(SoftHsmToken::modulePath());
        module.initialize();
        const TokenSession session(module.functions(), module.slotOfToken(SoftHsmToken::kLabel), SoftHsmToken::kUserPin);
        importCertificate(session, makeCertDer({.key = makeEcKey("P-256"), .subject = {{"CN", "CLI Guess"}}}), {"guess"});
        importPrivateKey(session, makeEcKey("P-256").get(), {"other"});
    }
    const Env pin {{"P11CLIENT_PIN", SoftHsmToken::kUserPin}};
    const Outcome table = runCli(store.directory(), {"certs"}, pin);
    EXPECT_TRUE(contains(table.out, ") (key not verified)\n")) << table.out;
    EXPECT_EQ(jsonOf(runCli(store.directory(), {"--json", "certs"}, pin)).at("certificates")[0].at("keyVerified"), false);
    const Outcome s = runCli(store.directory(), {"sign", "-o", store.directory() + "/guess.sig"}, pin, "data");
    EXPECT_EQ(s.exitCode, 1);
    EXPECT_TRUE(contains(s.err, "error: The signature made with the token's key does not verify with the certificate's "
                                "public key: the key does not belong to this certificate.\n")) << s.err;
}

TEST(Cli, KeysListsAndFiltersThePrivateKeys)
{
    writeFile(storeFile("user-pin"), std::string(SoftHsmToken::kUserPin) + "\n");
    const json all = jsonOf(cli({"--json", "--uri", "pkcs11:model=SoftHSM%20v2;token=p11client-test", "keys",
                                 "--pin-file", storeFile("user-pin")}, kNoPin));
    std::set<json> keys;
    for (const json& key : all.at("keys"))
        keys.insert(json {key.at("label"), key.value("curve", ""), key.at("alwaysAuthenticate")});
    EXPECT_EQ(keys, (std::set<json> {{"rsa", "", false}, {"ec", "prime256v1", false}, {"always", "prime256v1", true}}));
    const Outcome rsa = cli({"keys", "--type", "RSA"});
    EXPECT_TRUE(contains(rsa.out, "2048")) << rsa.out;
    EXPECT_FALSE(contains(rsa.out, "prime256v1"));
    const Outcome anonymous = cli({"keys"}, kNoPin);
    EXPECT_EQ(anonymous.exitCode, 0);
    EXPECT_EQ(anonymous.out + anonymous.err,
              "No private key found.\nNot logged in: the token may hide its private keys.\n");
}

TEST(Cli, ObjectsSearchesByTemplateTextFileOrUri)
{
    const std::string ecKeys = R"({"class":"privateKey","keyType":"ec","label":"ec"})";
    const json fromText = jsonOf(cli({"--json", "objects", ecKeys}));
    ASSERT_EQ(fromText.at("count"), 1);
    EXPECT_EQ(fromText.at("objects")[0].at("attributes").at("CKA_LABEL"), "ec");
    writeFile(storeFile("template.json"), ecKeys);
    EXPECT_EQ(jsonOf(cli({"--json", "objects", "--template-file", storeFile("template.json")})), fromText);
    const json byUri = jsonOf(cli({"--json", "--uri", certUri("orphan"), "objects"}));
    ASSERT_EQ(byUri.at("count"), 1);
    EXPECT_EQ(byUri.at("objects")[0].at("attributes").at("CKA_ID"), "03");
    const Outcome table = cli({"objects", R"({"class":"certificate"})"});
    EXPECT_EQ(occurrences(table.out, "certificate "), 4u) << table.out;
    EXPECT_TRUE(contains(table.out, "4 object(s)"));
}

TEST(Cli, FindCertFindsACertificateHoweverItIsNamedAndExportsIt)
{
    // The same certificate and key, whose object handles each process numbers anew.
    const auto found = [](const std::vector<std::string>& query) {
        json cert = jsonOf(cli(with({"--json"}, query)));
        return cert.erase("handle") + cert.erase("keyHandle") == 2 ? cert : json();
    };
    const json ec = found({"find-cert", "CN", "CLI EC Signer"});
    EXPECT_TRUE(ec.at("hasPrivateKey").get<bool>());
    EXPECT_EQ(ec.at("serial"), "AB02");
    for (const std::vector<std::string>& query : std::vector<std::vector<std::string>> {
             {"find-cert", "serial", "ab02"}, // in either case
             {"find-cert", "thumbprint", ec.at("sha1Thumbprint")},
             {"find-cert", "subjectDN_withTags", ec.at("subject")},
             {"--uri", "pkcs11:token=p11client-test;object=ec;type=cert", "find-cert"},
             {"--uri", "pkcs11:id=%02;type=private", "find-cert"}})
        EXPECT_EQ(found(query), ec) << query.back();
    EXPECT_NE(found({"find-cert", "privateKey"}).at("id"), "03");

    EXPECT_EQ(cli({"find-cert", "CN", "CLI Orphan", "--pem"}, kNoPin).out, readFile(storeFile("orphan.pem")));
    const Outcome der = cli({"find-cert", "CN", "CLI Orphan", "--der", storeFile("exported.der")}, kNoPin);
    EXPECT_EQ(readFile(storeFile("exported.der")), readFile(storeFile("orphan.der")));
    EXPECT_TRUE(contains(der.out, "not found")) << der.out;
}

// sign, then openssl and verify accept the signature over the data, and
// verify rejects it over other data.
TEST(Cli, SignMakesSignaturesThatVerifyOnlyOverTheSignedData)
{
    const std::string data = storeFile("data.txt"), digest = storeFile("data.sha512"), tampered = storeFile("tampered");
    mustRun("openssl dgst -sha512 -binary -out " + digest + " " + data);
    // The certificate's label, the hash, and the options sign and verify both take.
    using Scheme = std::tuple<std::string, std::string, std::vector<std::string>>;
    for (const auto& [label, hash, options] : {Scheme {"rsa", "sha256", {}}, // PKCS#1 v1.5 by default
                                               Scheme {"rsa", "sha384", {"--hash", "sha384", "--pss"}},
                                               Scheme {"rsa", "sha512", {"--hash", "sha512", "--digest"}},
                                               Scheme {"ec", "sha384", {"--hash", "sha384"}},
                                               Scheme {"always", "sha1", {"--hash", "sha1"}}}) {
        SCOPED_TRACE(label + " " + hash);
        const auto has = [&options](const char* option) { return std::ranges::count(options, option) > 0; };
        const std::string input = has("--digest") ? digest : data, sig = storeFile(label + hash + ".sig");
        const Outcome s = cli(with({"sign", input, "-o", sig, "--cert-uri", certUri(label)}, options));
        ASSERT_EQ(s.exitCode, 0) << s.err;
        EXPECT_TRUE(contains(s.out, "signature written to " + sig)) << s.out;
        const std::string openssl = "openssl pkeyutl -verify -certin -inkey " + storeFile(label + ".pem")
            + " -rawin -digest " + hash + " -in " + data + " -sigfile " + sig
            + (has("--pss") ? " -pkeyopt rsa_padding_mode:pss -pkeyopt rsa_pss_saltlen:digest" : "");
        EXPECT_EQ(std::system((openssl + " >/dev/null 2>&1").c_str()), 0) << openssl;

        const std::vector<std::string> verify = with({"verify", "-s", sig}, options);
        const Outcome good = cli(with(verify, {input, "--cert-uri", certUri(label)}), kNoPin);
        EXPECT_TRUE(good.exitCode == 0 && contains(good.out, "Signature OK (")) << good.out << good.err;
        std::string bytes = readFile(input);
        bytes[0] = static_cast<char>(bytes[0] ^ 1);
        writeFile(tampered, bytes);
        const Outcome bad = cli(with(verify, {tampered, "--cert", storeFile(label + ".pem")}));
        EXPECT_EQ(bad.exitCode, 1);
        EXPECT_TRUE(contains(bad.err, "p11client: the signature does NOT verify with the key of CN=")) << bad.err;
        if (!has("--pss"))
            continue;
        const Outcome v15 = cli({"verify", "-s", sig, "--hash", hash, data, "--cert-uri", certUri(label)});
        EXPECT_EQ(v15.exitCode, 1) << "PKCS#1 v1.5 does not accept a PSS signature";
    }
}

TEST(Cli, SignReadsStdinWritesStdoutOrJsonAndDefaultsToACertificateWithItsKey)
{
    const std::string text = "Piped through the tool\n", sig = storeFile("piped.sig");
    const Outcome raw
        = cli({"sign", "--cert-part", "CN", "--cert-value", "CLI EC Signer", "--format", "raw"}, {}, text);
    ASSERT_EQ(raw.exitCode, 0) << raw.err;
    EXPECT_EQ(raw.out.size(), 64u);
    EXPECT_EQ(raw.err, "");
    writeFile(sig, raw.out);
    const Outcome v = cli({"verify", "-s", sig, "--cert", storeFile("ec.pem")}, kNoPin, text);
    EXPECT_TRUE(contains(v.out, "Signature OK (ECDSA (r||s), sha256)")) << v.out << v.err;

    const json signedJson = jsonOf(cli({"--json", "sign"}, {}, text));
    const std::string hex = signedJson.at("signature");
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    EXPECT_EQ(bytes.size(), signedJson.at("signatureSize").get<std::size_t>());
    EXPECT_EQ(signedJson.at("scheme"), signedJson.at("keyType") == "RSA" ? "RSA PKCS#1 v1.5" : "ECDSA");
    writeFile(sig, bytes);
    EXPECT_EQ(cli({"verify", "-s", sig}, {}, text).exitCode, 0) << "the same certificate by default";
}

TEST(Cli, AtrNamesTheCardAndItsDriversAndWhichExistHere)
{
    const json card = jsonOf(cli({"--json", "atr", "3b 89 80 01 4a 43 4f 50 32 34 32 52 32 4a"}));
    EXPECT_EQ(card.at("name"), "NXP JCOP J3D");
    EXPECT_FALSE(card.at("readOnly").get<bool>());
    ASSERT_FALSE(card.at("driverPaths").empty());
    for (const json& driver : card.at("driverPaths"))
        EXPECT_EQ(driver.at("exists"), std::filesystem::is_regular_file(driver.at("path").get<std::string>()));
    const Outcome table = cli({"atr", "3B8980014A434F5032343252324A"});
    EXPECT_TRUE(contains(table.out, "NXP JCOP J3D")) << table.out;
    EXPECT_TRUE(contains(table.out, "opensc-pkcs11.so"));
}

} // namespace p11test
