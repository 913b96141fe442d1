// discover, certs, keys, objects and find-cert, run as a user runs them.
#include "CliTokenStore.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>
#include <iterator>
#include <string>

using nlohmann::json;

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

std::size_t occurrences(const std::string& text, const std::string& part)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++n;
    return n;
}

json jsonOf(const ProcessResult& r)
{
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return json::parse(r.out);
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The certificates of `certs --json`, by common name.
std::map<std::string, json> certsByCn(const json& report)
{
    std::map<std::string, json> byCn;
    for (const json& cert : report.at("certificates")) {
        const std::string subject = cert.at("subject");
        const std::size_t cn = subject.find("CN=");
        byCn[subject.substr(cn + 3, subject.find(',', cn) - cn - 3)] = cert;
    }
    return byCn;
}

} // namespace

TEST(CliDiscover, TableShowsTheModuleTheTokenAndTheFreeSlot)
{
    const ProcessResult r = store().cliNoPin({"discover"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(contains(r.out, SoftHsmToken::modulePath()));
    EXPECT_TRUE(contains(r.out, "SoftHSM"));
    EXPECT_TRUE(contains(r.out, SoftHsmToken::kLabel));
    EXPECT_EQ(occurrences(r.out, "ready"), 1u) << r.out;
    EXPECT_EQ(occurrences(r.out, "not initialized"), 1u) << r.out;
}

TEST(CliDiscover, JsonIsTheLibraryReportAndMatchesTheTable)
{
    const json report = jsonOf(store().cliNoPin({"--json", "discover"}));
    EXPECT_EQ(report.at("library").at("manufacturer"), "SoftHSM");
    const std::string table = store().cliNoPin({"discover"}).out;
    int initialized = 0;
    for (const json& slot : report.at("slots")) {
        EXPECT_TRUE(contains(table, std::to_string(slot.at("id").get<unsigned long>()))) << table;
        if (slot.at("token").at("flags").at("tokenInitialized").get<bool>()) {
            ++initialized;
            EXPECT_EQ(slot.at("token").at("label"), SoftHsmToken::kLabel);
        }
    }
    EXPECT_EQ(initialized, 1);
    EXPECT_EQ(report.at("slots").size(), 2u);
}

TEST(CliCerts, EachCertificateWithThePairingResult)
{
    const json report = jsonOf(store().cli({"--json", "certs"}));
    EXPECT_TRUE(report.at("loggedIn").get<bool>());
    EXPECT_EQ(report.at("count"), 4);
    auto certs = certsByCn(report);
    ASSERT_EQ(certs.size(), 4u) << report.dump();
    EXPECT_EQ(certs["CLI RSA Signer"].at("keyType"), "RSA");
    EXPECT_EQ(certs["CLI RSA Signer"].at("keyBits"), 2048);
    EXPECT_EQ(certs["CLI RSA Signer"].at("id"), "01");
    EXPECT_TRUE(certs["CLI RSA Signer"].at("hasPrivateKey").get<bool>());
    EXPECT_EQ(certs["CLI EC Signer"].at("keyType"), "ECDSA");
    EXPECT_EQ(certs["CLI EC Signer"].at("keyBits"), 256);
    EXPECT_TRUE(certs["CLI EC Signer"].at("hasPrivateKey").get<bool>());
    EXPECT_TRUE(certs["CLI Always Auth"].at("hasPrivateKey").get<bool>());
    EXPECT_NE(certs["CLI RSA Signer"].at("keyHandle"), certs["CLI EC Signer"].at("keyHandle"));
    EXPECT_NE(certs["CLI Always Auth"].at("keyHandle"), certs["CLI EC Signer"].at("keyHandle"));
    EXPECT_FALSE(certs["CLI Orphan"].at("hasPrivateKey").get<bool>());
    EXPECT_FALSE(certs["CLI Orphan"].contains("keyHandle"));

    const ProcessResult table = store().cli({"certs"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_EQ(occurrences(table.out, "found on the token (handle"), 3u) << table.out;
    EXPECT_EQ(occurrences(table.out, "not found on the token"), 1u) << table.out;
    EXPECT_TRUE(contains(table.out, "CN=CLI Orphan, O=Example Corp"));
}

TEST(CliCerts, WithoutAPinNoKeyIsClaimed)
{
    const json report = jsonOf(store().cliNoPin({"--json", "certs"}));
    EXPECT_FALSE(report.at("loggedIn").get<bool>());
    ASSERT_EQ(report.at("count"), 4);
    for (const json& cert : report.at("certificates"))
        EXPECT_FALSE(cert.at("hasPrivateKey").get<bool>()) << cert.dump();
    const ProcessResult table = store().cliNoPin({"certs"});
    EXPECT_EQ(occurrences(table.out, "not logged in: the token may hide it"), 4u) << table.out;
}

TEST(CliKeys, ListsAndFiltersThePrivateKeys)
{
    const json all = jsonOf(store().cli({"--json", "keys"}));
    ASSERT_EQ(all.at("keys").size(), 3u) << all.dump();
    const json ec = jsonOf(store().cli({"--json", "keys", "--type", "EC"}));
    ASSERT_EQ(ec.at("keys").size(), 2u);
    for (const json& key : ec.at("keys")) {
        EXPECT_EQ(key.at("curve"), "prime256v1");
        EXPECT_EQ(key.at("alwaysAuthenticate").get<bool>(), key.at("label") == "always") << key.dump();
    }

    const ProcessResult table = store().cli({"keys", "--type", "rsa"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_TRUE(contains(table.out, "2048"));
    EXPECT_FALSE(contains(table.out, "prime256v1"));
}

TEST(CliKeys, WithoutLoginTheToolSaysWhyNoneShow)
{
    const ProcessResult r = store().cliNoPin({"keys"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "No private key found."));
    EXPECT_TRUE(contains(r.err, "Not logged in"));
}

TEST(CliObjects, TemplateFromTextFileOrUri)
{
    const std::string ecKeys = R"({"class":"privateKey","keyType":"ec","label":"ec"})";
    const json fromText = jsonOf(store().cli({"--json", "objects", ecKeys}));
    ASSERT_EQ(fromText.at("count"), 1);
    EXPECT_EQ(fromText.at("objects")[0].at("attributes").at("CKA_LABEL"), "ec");

    const std::string templateFile = store().file("template.json");
    std::ofstream(templateFile) << ecKeys;
    EXPECT_EQ(jsonOf(store().cli({"--json", "objects", "--template-file", templateFile})), fromText);

    const json byUri = jsonOf(store().cli({"--json", "--uri", "pkcs11:object=orphan;type=cert", "objects"}));
    ASSERT_EQ(byUri.at("count"), 1);
    EXPECT_EQ(byUri.at("objects")[0].at("attributes").at("CKA_ID"), "03");

    const ProcessResult table = store().cli({"objects", R"({"class":"certificate"})"});
    ASSERT_EQ(table.exitCode, 0) << table.err;
    EXPECT_EQ(occurrences(table.out, "certificate "), 4u) << table.out;
    EXPECT_TRUE(contains(table.out, "4 object(s)"));
}

TEST(CliObjects, AnInvalidTemplateIsAUsageError)
{
    const ProcessResult r = store().cli({"objects", "{\"class\":"});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(contains(r.err, "not valid JSON")) << r.err;
}

TEST(CliFindCert, PrivateKeyChoosesACertificateWhoseKeyIsOnTheToken)
{
    const json cert = jsonOf(store().cli({"--json", "find-cert", "privateKey"}));
    EXPECT_TRUE(cert.at("hasPrivateKey").get<bool>());
    EXPECT_FALSE(contains(cert.at("subject"), "Orphan"));
}

TEST(CliFindCert, EveryWayOfNamingACertificateFindsTheSameOne)
{
    const json ec = certsByCn(jsonOf(store().cli({"--json", "certs"})))["CLI EC Signer"];
    std::string serial = ec.at("serial");
    for (char& c : serial)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::vector<std::vector<std::string>> queries = {
        {"find-cert", "CN", "CLI EC Signer"},
        {"find-cert", "serial", serial},
        {"find-cert", "thumbprint", ec.at("sha1Thumbprint")},
        {"find-cert", "subjectDN_withTags", ec.at("subject")},
        {"--uri", "pkcs11:token=p11client-test;object=ec;type=cert", "find-cert"},
        {"--uri", "pkcs11:id=%02;type=private", "find-cert"},
    };
    for (std::vector<std::string> query : queries) {
        query.insert(query.begin(), "--json");
        const json found = jsonOf(store().cli(query));
        EXPECT_EQ(found.at("sha1Thumbprint"), ec.at("sha1Thumbprint")) << query.back();
        EXPECT_TRUE(found.at("hasPrivateKey").get<bool>());
    }
}

TEST(CliFindCert, ExportsTheCertificateAsPemAndDer)
{
    const ProcessResult pem = store().cliNoPin({"find-cert", "CN", "CLI Orphan", "--pem"});
    ASSERT_EQ(pem.exitCode, 0) << pem.err;
    EXPECT_EQ(pem.out, readFile(store().file("orphan.pem")));
    const std::string der = store().file("exported.der");
    const ProcessResult r = store().cliNoPin({"find-cert", "CN", "CLI Orphan", "--der", der});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(readFile(der), readFile(store().file("orphan.der")));
    EXPECT_TRUE(contains(r.out, "not found"));
}

TEST(CliFindCert, NoMatchIsAFailureWithTheLibrarysReason)
{
    const ProcessResult r = store().cliNoPin({"find-cert", "CN", "Nobody"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(contains(r.err, "error: Not found.")) << r.err;
    EXPECT_TRUE(contains(r.err, "no certificate whose CN is Nobody")) << r.err;
    EXPECT_TRUE(r.out.empty());
}

} // namespace p11test
