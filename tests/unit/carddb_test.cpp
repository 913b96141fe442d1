// The embedded card database: loading it, rewriting ATR variants, looking up
// cards and resolving driver library paths.
#include "AtrRewriteRules.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "ExtPtrArray.h"
#include "LogBase.h"
#include "StringBuffer.h"
#include "XString.h"
#include "ZelvanDeflate.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <zlib.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

using namespace p11client;

namespace {

using Kind = LogEntry::Kind;

std::vector<std::string> texts(const _qxLogger& log, Kind kind)
{
    std::vector<std::string> out;
    for (const LogEntry& e : log.entries())
        if (e.kind == kind)
            out.push_back(kind == Kind::ContextEnter ? e.tag : e.text);
    return out;
}

std::vector<std::string> errors(const _qxLogger& log) { return texts(log, Kind::Error); }

std::vector<std::string> loggedPaths(const _qxLogger& log)
{
    std::vector<std::string> out;
    for (const LogEntry& e : log.entries())
        if (e.kind == Kind::Data && e.tag == "path")
            out.push_back(e.text);
    return out;
}

std::vector<std::string> toVector(const ExtPtrArraySb& paths)
{
    std::vector<std::string> out;
    for (int i = 0; i < paths.getSize(); ++i)
        out.emplace_back(paths.stringAt(i));
    return out;
}

std::unique_ptr<ClsJsonObject> jsonFromText(const std::string& text)
{
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    LogNull log;
    EXPECT_TRUE(json->loadJsonText(text.data(), text.size(), log)) << text;
    return json;
}

nlohmann::ordered_json emitted(ClsJsonObject& json)
{
    StringBuffer text;
    json.emitSb(text);
    return nlohmann::ordered_json::parse(text.view());
}

std::string rawDeflate(const std::string& text, int windowBits = -15)
{
    z_stream zs{};
    EXPECT_EQ(deflateInit2(&zs, Z_BEST_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
    std::string out(deflateBound(&zs, static_cast<uLong>(text.size())), '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    zs.avail_in = static_cast<uInt>(text.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(deflate(&zs, Z_FINISH), Z_STREAM_END);
    out.resize(zs.total_out);
    deflateEnd(&zs);
    return out;
}

DataBuffer bufferOf(const std::string& s) { return DataBuffer(s.data(), s.size()); }

std::string textOf(const DataBuffer& db) { return std::string(db.getData(), db.getData() + db.getSize()); }

// Text that compresses well but is not trivially repetitive.
std::string sampleText(std::size_t size)
{
    std::string s;
    for (std::size_t i = 0; s.size() < size; ++i)
        s += "card " + std::to_string(i * 7919 % 1000) + ";";
    s.resize(size);
    return s;
}

} // namespace

// ---------------------------------------------------------------------------
// Inflating raw DEFLATE streams.

TEST(InflateDb, InflatesRawAndZlibWrappedStreams)
{
    const std::string text = sampleText(40000);
    _qxIoParams io(nullptr);
    _qxLogger log;
    DataBuffer out;
    ASSERT_TRUE(ZelvanDeflate::inflateDb(false, bufferOf(rawDeflate(text)), out, false, io, 60000, log));
    EXPECT_EQ(textOf(out), text);
    ASSERT_TRUE(ZelvanDeflate::inflateDb(true, bufferOf(rawDeflate(text, 15)), out, false, io, 60000, log));
    EXPECT_EQ(textOf(out), text);
    EXPECT_TRUE(log.entries().empty());
}

TEST(InflateDb, AppendsOrReplacesAsAsked)
{
    const DataBuffer compressed = bufferOf(rawDeflate("tail"));
    _qxIoParams io(nullptr);
    LogNull log;
    DataBuffer out = bufferOf("head-");
    ASSERT_TRUE(ZelvanDeflate::inflateDb(false, compressed, out, true, io, 100, log));
    EXPECT_EQ(textOf(out), "head-tail");
    ASSERT_TRUE(ZelvanDeflate::inflateDb(false, compressed, out, false, io, 100, log));
    EXPECT_EQ(textOf(out), "tail");
}

TEST(InflateDb, RefusesOutputBeyondTheLimit)
{
    const std::string text = sampleText(50000);
    const DataBuffer compressed = bufferOf(rawDeflate(text));
    _qxIoParams io(nullptr);
    DataBuffer out = bufferOf("kept");
    _qxLogger log;
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, compressed, out, true, io, 49999, log));
    EXPECT_EQ(errors(log), std::vector<std::string>{"Inflated data exceeds the size limit."});
    EXPECT_EQ(textOf(out), "kept"); // nothing of the failed call stays
    EXPECT_TRUE(ZelvanDeflate::inflateDb(false, compressed, out, false, io, 50000, log));
    EXPECT_EQ(out.getSize(), 50000u);
}

TEST(InflateDb, RejectsDamagedStreams)
{
    const std::string compressed = rawDeflate(sampleText(20000));
    _qxIoParams io(nullptr);
    DataBuffer out;

    _qxLogger truncated;
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, bufferOf(compressed.substr(0, compressed.size() / 2)), out,
                                          false, io, 60000, truncated));
    EXPECT_EQ(errors(truncated), std::vector<std::string>{"Compressed data is truncated."});
    EXPECT_EQ(out.getSize(), 0u);

    _qxLogger empty;
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, DataBuffer(), out, false, io, 60000, empty));
    EXPECT_EQ(errors(empty), std::vector<std::string>{"Compressed data is truncated."});

    // A zlib header read as raw DEFLATE is an invalid block type.
    _qxLogger wrapped;
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, bufferOf(rawDeflate("x", 15)), out, false, io, 60000, wrapped));
    EXPECT_EQ(errors(wrapped), std::vector<std::string>{"Compressed data is not valid."});
}

// ---------------------------------------------------------------------------
// Loading the embedded document.

TEST(CardDataLoad, YieldsTheCardJsonFileAsItStands)
{
    std::ifstream in(P11CLIENT_CARD_JSON_PATH);
    ASSERT_TRUE(in) << P11CLIENT_CARD_JSON_PATH;
    const auto expected = nlohmann::ordered_json::parse(in);

    std::unique_ptr<ClsJsonObject> db(ClsJsonObject::createNewCls());
    _qxLogger log;
    ASSERT_TRUE(ClsPkcs11::GetCardDataJson(*db, log));
    EXPECT_EQ(emitted(*db), expected); // member order included
    EXPECT_TRUE(log.entries().empty()) << log.renderText();
}

TEST(CardDataLoad, ReplacesWhatTheObjectHeldAndRepeatsIdentically)
{
    std::unique_ptr<ClsJsonObject> db = jsonFromText(R"({"stale": true})");
    LogNull log;
    ASSERT_TRUE(ClsPkcs11::GetCardDataJson(*db, log));
    const auto first = emitted(*db);
    EXPECT_FALSE(first.contains("stale"));
    ASSERT_TRUE(ClsPkcs11::GetCardDataJson(*db, log));
    EXPECT_EQ(emitted(*db), first);
}

TEST(CardDataLoad, EveryCardNamesAnExistingDriver)
{
    std::unique_ptr<ClsJsonObject> db(ClsJsonObject::createNewCls());
    LogNull log;
    ASSERT_TRUE(ClsPkcs11::GetCardDataJson(*db, log));
    const auto doc = emitted(*db);
    for (const auto& card : doc["cards"]) {
        const XString id(card["driver"].get<std::string>().c_str());
        std::unique_ptr<ClsJsonObject> driver(db->FindRecord(XString("drivers"), XString("id"), id, false));
        EXPECT_NE(driver, nullptr) << card.dump();
    }
}

// ---------------------------------------------------------------------------
// ATR rewrite rules, on upper-case ATRs.

namespace {

struct RewriteCase {
    const char* atr;
    const char* expected;
};

constexpr const char* kCnsTarget = "3BFF1800FF8131FE55006B02090200011101434E531131808E";
constexpr const char* kEpassV2Target = "3B9F958131FE9F006646530540081871DF000046000015";
constexpr const char* kIdPrimeMdTarget = "3B7F96000080318065B084413DF6120FFE829000";
constexpr const char* kIdPrime940Target = "3B7F96000080318065B0855956FB120268829000";
constexpr const char* kCertumTarget = "3BDD96FF8131FE4580595F5374645F496E6974810000";
constexpr const char* kStarcos32Target = "3B9F9681B1FE451F070064051EB20031B0739621DB00000000";
constexpr const char* kStarcos30Target = "3BBB1800C01031FE4580670412B003030000810000";
constexpr const char* kEpassTarget = "3B9F958131FE9F006646530534002571DF0000000000xx";
constexpr const char* kEpass06Target = "3B9F958131FE9F006646530534002571DF0000060000xx";
constexpr const char* kEpass51Target = "3B9F958131FE9F006646530551003371DF0000000000xx";
constexpr const char* kProxKeyTarget = "3B6D000057443641018693";

// One real-world variant per rule, in rule order.
const RewriteCase kVariants[] = {
    {"3BFF1800FF8131FE55006B02090300011101434E5311318099", kCnsTarget},
    {"3B9F958131FE9F006646530541091971DF000046000017", kEpassV2Target},
    {"3B7F96000080318065B0850300EF120FFE829000", kIdPrimeMdTarget},
    {"3B7F96000080318065B0850300EF120268829000", kIdPrime940Target},
    {"3BDD96FF8131FE4580595F5374645F496E697481059B", kCertumTarget},
    {"3B9F9681B1FE451F070064051EB20031B0739621DB0590005C", kStarcos32Target},
    {"3BBB1800C01031FE4580670412B003030000810138", kStarcos30Target},
    {"3B9F958131FE9F006646530510063171DF000000000024", kEpassTarget},
    {"3B9F958131FE9F006646530534002571DF000000000005", kEpassTarget},
    {"3B9F958131FE9F006646530534002571DF00003900001F", kEpassTarget},
    {"3B9F958131FE9F006646530534002571DF000006000020", kEpass06Target},
    {"3B9F958131FE9F006646530551003371DF000000000061", kEpass51Target},
    {"3B6D00005744364101869380A1B2C3D4E5F6", kProxKeyTarget},
};

std::string rewritten(const char* atr)
{
    StringBuffer sb(atr);
    rewriteKnownAtrVariant(sb);
    return sb.toStdString();
}

} // namespace

TEST(AtrRewrite, EachRuleMapsItsFamilyToTheListedAtr)
{
    ASSERT_EQ(std::size(kVariants), atrRewriteRules().size());
    for (const RewriteCase& c : kVariants)
        EXPECT_EQ(rewritten(c.atr), c.expected) << c.atr;
}

TEST(AtrRewrite, TargetsMapToThemselves)
{
    for (const RewriteCase& c : kVariants)
        EXPECT_EQ(rewritten(c.expected), c.expected);
}

TEST(AtrRewrite, FailingTheSecondTestFallsThrough)
{
    // Rule 1's prefix without its marker: no rule applies.
    const char* cnsOther = "3BFF1800FF8131FE55006B0209030301010144534410318090";
    EXPECT_EQ(rewritten(cnsOther), cnsOther);
    // Rule 2's prefix without "71DF0000460000", but with rule 8's "051".
    EXPECT_EQ(rewritten("3B9F958131FE9F006646530510001171DF000000000002"), kEpassTarget);
    // Rule 3's prefix with another ending goes on to rule 4, also when the
    // ending of rule 3 occurs elsewhere.
    EXPECT_EQ(rewritten("3B7F96000080318065B0855956FB12FFFE829001"), kIdPrime940Target);
    EXPECT_EQ(rewritten("3B7F96000080318065B085FFE8290000"), kIdPrime940Target);
}

TEST(AtrRewrite, FirstApplicableRuleWins)
{
    // Passes both rule 2 and rule 8.
    EXPECT_EQ(rewritten("3B9F958131FE9F006646530510001871DF000046000015"), kEpassV2Target);
    // Passes both rule 3 and rule 4.
    EXPECT_EQ(rewritten("3B7F96000080318065B0855956FB120FFE829000"), kIdPrimeMdTarget);
}

TEST(AtrRewrite, TestsAreCaseSensitiveAndUnrelatedAtrsStay)
{
    EXPECT_EQ(rewritten("3b6d00005744364101869380"), "3b6d00005744364101869380");
    EXPECT_EQ(rewritten("3B8980014A434F5032343252324A"), "3B8980014A434F5032343252324A");
    EXPECT_EQ(rewritten(""), "");
}

// ---------------------------------------------------------------------------
// Looking up cards by ATR in the embedded database.

namespace {

class CardLookup : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_db.reset(ClsJsonObject::createNewCls());
        LogNull log;
        ASSERT_TRUE(ClsPkcs11::GetCardDataJson(*s_db, log));
    }
    static void TearDownTestSuite() { s_db.reset(); }

    bool lookup(const char* atr)
    {
        return ClsPkcs11::CardDataLookupAtr(*s_db, atr, m_name, m_readOnly, m_paths, m_log);
    }

    static std::unique_ptr<ClsJsonObject> s_db;
    StringBuffer m_name;
    bool m_readOnly = false;
    ExtPtrArraySb m_paths;
    _qxLogger m_log;
};

std::unique_ptr<ClsJsonObject> CardLookup::s_db;

const std::vector<std::string> kOpenScPaths = {"/usr/lib/opensc-pkcs11.so", "/usr/local/lib/opensc-pkcs11.so",
                                               "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"};

} // namespace

TEST_F(CardLookup, NormalizesCaseAndBlanksOfTheAtr)
{
    ASSERT_TRUE(lookup("  3b7f96000080318065b084565110120ffe829000\t "));
    EXPECT_STREQ(m_name.getString(), "ID PRIME MD830B");
    EXPECT_FALSE(m_readOnly);
    EXPECT_EQ(toVector(m_paths), std::vector<std::string>{"/usr/lib/libIDPrimePKCS11.so"});
    // A lower-case variant is upper-cased before the rules are tried.
    ASSERT_TRUE(lookup("3b6d00005744364101869380a1b2"));
    EXPECT_STREQ(m_name.getString(), "Watchdata PROXKey");
}

TEST_F(CardLookup, SuccessLogsOnlyTheContextsAndPaths)
{
    ASSERT_TRUE(lookup("3B8980014A434F5032343252324A"));
    EXPECT_STREQ(m_name.getString(), "NXP JCOP J3D");
    EXPECT_EQ(toVector(m_paths), kOpenScPaths);
    std::vector<std::pair<Kind, std::string>> seen;
    for (const LogEntry& e : m_log.entries())
        seen.emplace_back(e.kind, e.kind == Kind::Data ? e.tag + "=" + e.text : e.tag);
    const std::vector<std::pair<Kind, std::string>> expected = {
        {Kind::ContextEnter, "cardDataLookupAtr"},
        {Kind::ContextEnter, "getPkcs11DriverPaths"},
        {Kind::Data, "path=" + kOpenScPaths[0]},
        {Kind::Data, "path=" + kOpenScPaths[1]},
        {Kind::Data, "path=" + kOpenScPaths[2]},
        {Kind::ContextLeave, ""},
        {Kind::ContextLeave, ""},
    };
    ASSERT_EQ(seen.size(), expected.size()) << m_log.renderText();
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].first, expected[i].first) << i;
        if (expected[i].first != Kind::ContextLeave) {
            EXPECT_EQ(seen[i].second, expected[i].second) << i;
        }
    }
}

TEST_F(CardLookup, EveryRuleTargetIsACardOfTheDatabase)
{
    struct Expected {
        const char* variant;
        const char* name; // null: the card's driver has no Linux library
        const char* firstPath;
    };
    const Expected cases[] = {
        {kVariants[0].atr, nullptr, nullptr}, // Infocamere CNS
        {kVariants[1].atr, "Feitian ePass2003", "/usr/lib/libcastle.so.1.0.0"},
        {kVariants[2].atr, nullptr, nullptr},
        {kVariants[3].atr, nullptr, nullptr},
        {kVariants[4].atr, nullptr, nullptr},
        {kVariants[5].atr, nullptr, nullptr},
        {kVariants[6].atr, "Giesecke & Devrient STARCOS 3.0 DI", "/usr/lib/libaetpkss.so.3"},
        {kVariants[7].atr, "Feitian ePass2003Auto", "/usr/lib/libcastle.so.1.0.0"},
        {kVariants[8].atr, "Feitian ePass2003Auto", "/usr/lib/libcastle.so.1.0.0"},
        {kVariants[9].atr, "Feitian ePass2003Auto", "/usr/lib/libcastle.so.1.0.0"},
        {kVariants[10].atr, "FEITIAN ePASS 2003 Auto", "/usr/lib/libcastle.so.1.0.0"},
        {kVariants[11].atr, "FT ePass2003Auto", "/usr/lib/libcastle_v2.so.1.0.0"},
        {kVariants[12].atr, "Watchdata PROXKey", "/usr/lib/WatchData/ProxKey/lib/libwdpkcs_SignatureP11.so"},
    };
    for (const Expected& c : cases) {
        m_log.clearLog();
        const bool found = lookup(c.variant);
        if (c.name == nullptr) {
            // Card and driver were found; the driver serves no Linux library.
            EXPECT_FALSE(found) << c.variant;
            EXPECT_EQ(errors(m_log), std::vector<std::string>{"Failed to find driver paths."}) << c.variant;
            continue;
        }
        ASSERT_TRUE(found) << c.variant << "\n" << m_log.renderText();
        EXPECT_STREQ(m_name.getString(), c.name);
        if (c.firstPath != nullptr) {
            EXPECT_STREQ(m_paths.stringAt(0), c.firstPath);
        }
    }
}

TEST_F(CardLookup, ObjectFormYieldsOnlyTheX86Library)
{
    ASSERT_TRUE(lookup("3BDC18FF8191FE1FC38073C8211366010B0352000538"));
    EXPECT_STREQ(m_name.getString(), "Athena IDProtect Smart Card Logon Card");
    EXPECT_EQ(toVector(m_paths), std::vector<std::string>{"/usr/lib/x86-athena/libASEP11.so"});
}

TEST_F(CardLookup, DriverKeyedByTheCardsOwnAtr)
{
    ASSERT_TRUE(lookup("3BAC00402A001225006480000310009000"));
    EXPECT_STREQ(m_name.getString(), "ASIP SANTE");
    EXPECT_EQ(toVector(m_paths), std::vector<std::string>{"/usr/lib/libcps3_pkcs11_lux.so"});
}

TEST_F(CardLookup, ReadOnlyIsReported)
{
    ASSERT_TRUE(lookup("3BFC1300008131FE15597562696B65794E454F7233E1"));
    EXPECT_STREQ(m_name.getString(), "Yubico Yubikey NEO OTP+U2F+CCID");
    EXPECT_TRUE(m_readOnly);
}

TEST_F(CardLookup, FirstOfTwoRecordsForAnAtrWins)
{
    // Listed first with the AET driver, then with the aetpkss one.
    ASSERT_TRUE(lookup("3bfd1800008031fe45736674652d63643038302d6e66dc"));
    EXPECT_STREQ(m_name.getString(), "Nonus SmartNonus [BR]");
    EXPECT_EQ(toVector(m_paths), std::vector<std::string>{"/usr/lib/libaetpkss.so.3"});
    ASSERT_TRUE(lookup("3BDF960081B1FE451F838073CC91CBF9A0000003080000100079"));
    EXPECT_STREQ(m_name.getString(), "USG:Executive Office of the President");
}

TEST_F(CardLookup, DriverWithoutLinuxLibraryFails)
{
    m_name.setString("previous");
    m_paths.appendString("/previous.so");
    EXPECT_FALSE(lookup("3B7F96000080318065B084413DF6120FFE829000")); // Gemalto IDPrime MD
    EXPECT_EQ(errors(m_log), std::vector<std::string>{"Failed to find driver paths."});
    EXPECT_TRUE(m_name.isEmpty());
    EXPECT_EQ(m_paths.getSize(), 0);
}

TEST_F(CardLookup, UnknownAtrResetsOutputsAndLogsNothing)
{
    ASSERT_TRUE(lookup("3BFC1300008131FE15597562696B65794E454F7233E1"));
    m_log.clearLog();
    for (const char* atr : {"3B00", "", "not an atr at all", static_cast<const char*>(nullptr)}) {
        EXPECT_FALSE(lookup(atr));
        EXPECT_TRUE(m_name.isEmpty());
        EXPECT_FALSE(m_readOnly);
        EXPECT_EQ(m_paths.getSize(), 0);
    }
    EXPECT_TRUE(errors(m_log).empty()) << m_log.renderText();
}

TEST_F(CardLookup, LookupThatLoadsTheDatabaseItself)
{
    StringBuffer name;
    bool readOnly = true;
    ExtPtrArraySb paths;
    _qxLogger log;
    ASSERT_TRUE(ClsPkcs11::CardDataLookupAtr2("3B8980014A434F5032343252324A", name, readOnly, paths, log));
    EXPECT_STREQ(name.getString(), "NXP JCOP J3D");
    EXPECT_FALSE(readOnly);
    EXPECT_EQ(toVector(paths), kOpenScPaths);
    const std::vector<std::string> contexts = texts(log, Kind::ContextEnter);
    const std::vector<std::string> expected = {"atrToPkcs11Info", "cardDataLookupAtr", "getPkcs11DriverPaths"};
    EXPECT_EQ(contexts, expected);
    EXPECT_EQ(log.entries().front().depth, 0);
    EXPECT_EQ(log.depth(), 0);
    EXPECT_FALSE(ClsPkcs11::CardDataLookupAtr2("3B00", name, readOnly, paths, log));
    EXPECT_TRUE(name.isEmpty());
}

// ---------------------------------------------------------------------------
// Lookups in small hand-made databases, for records our data does not hold.

namespace {

struct SmallDbLookup {
    bool ok = false;
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb paths;
    _qxLogger log;

    SmallDbLookup(const std::string& dbText, const char* atr)
    {
        std::unique_ptr<ClsJsonObject> db = jsonFromText(dbText);
        ok = ClsPkcs11::CardDataLookupAtr(*db, atr, name, readOnly, paths, log);
    }
};

const std::string kLinuxDriver = R"({"id": "AB01", "file": {"linux": "/usr/lib/libx.so"}})";

} // namespace

TEST(CardLookupFailures, MissingDriverMemberOrRecord)
{
    SmallDbLookup noMember(R"({"cards": [{"atr": "3B01", "name": "A"}], "drivers": [)" + kLinuxDriver + "]}",
                           "3B01");
    EXPECT_FALSE(noMember.ok);
    EXPECT_EQ(errors(noMember.log), std::vector<std::string>{"Did not find driver member."});

    SmallDbLookup noRecord(
        R"({"cards": [{"atr": "3B01", "name": "A", "driver": "ab02"}], "drivers": [)" + kLinuxDriver + "]}", "3B01");
    EXPECT_FALSE(noRecord.ok);
    EXPECT_EQ(errors(noRecord.log), std::vector<std::string>{"Did not find driver record."});
}

TEST(CardLookupFailures, DriverIdsCompareWithoutCaseAndNamelessCardFails)
{
    SmallDbLookup found(
        R"({"cards": [{"atr": "3b01", "name": "A", "driver": "ab01"}], "drivers": [)" + kLinuxDriver + "]}", "3B01");
    EXPECT_TRUE(found.ok);
    EXPECT_STREQ(found.name.getString(), "A");

    // Everything but the name is found: the paths and readOnly stay filled.
    SmallDbLookup nameless(
        R"({"cards": [{"atr": "3B01", "readOnly": true, "driver": "AB01"}], "drivers": [)" + kLinuxDriver + "]}",
        "3B01");
    EXPECT_FALSE(nameless.ok);
    EXPECT_TRUE(nameless.readOnly);
    EXPECT_EQ(toVector(nameless.paths), std::vector<std::string>{"/usr/lib/libx.so"});
}

// ---------------------------------------------------------------------------
// Driver path forms, on hand-made driver records.

namespace {

struct PathsOf {
    bool ok = false;
    ExtPtrArraySb paths;
    _qxLogger log;

    explicit PathsOf(const std::string& fileMember, const char* osKey = "linux",
                     const std::vector<std::string>& earlier = {})
    {
        for (const std::string& p : earlier)
            paths.appendString(p.c_str());
        std::unique_ptr<ClsJsonObject> driver = jsonFromText(R"({"id": "01", "file": )" + fileMember + "}");
        ok = ClsPkcs11::getPkcs11DriverPaths(*driver, osKey, paths, log);
    }
};

} // namespace

TEST(DriverPaths, StringForm)
{
    PathsOf r(R"({"windows": "%WINDIR/System32/x.dll", "linux": "/usr/lib/libeTPkcs11.so"})");
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(toVector(r.paths), std::vector<std::string>{"/usr/lib/libeTPkcs11.so"});
    EXPECT_EQ(loggedPaths(r.log), toVector(r.paths));
    EXPECT_EQ(texts(r.log, Kind::ContextEnter), std::vector<std::string>{"getPkcs11DriverPaths"});

    // Placeholders are kept as stored.
    PathsOf win(R"({"windows": "%WINDIR/System32/x.dll"})", "windows");
    EXPECT_EQ(toVector(win.paths), std::vector<std::string>{"%WINDIR/System32/x.dll"});

    PathsOf empty(R"({"linux": ""})");
    EXPECT_FALSE(empty.ok);
    EXPECT_EQ(empty.log.entries().size(), 2u) << empty.log.renderText(); // the context only
}

TEST(DriverPaths, ArrayFormKeepsOrderAndSkipsEmptyOrNonStringElements)
{
    PathsOf three(R"({"linux": ["/a.so", "/b.so", "/c.so"]})");
    EXPECT_TRUE(three.ok);
    const std::vector<std::string> expected = {"/a.so", "/b.so", "/c.so"};
    EXPECT_EQ(toVector(three.paths), expected);
    EXPECT_EQ(loggedPaths(three.log), expected);

    PathsOf mixed(R"({"linux": ["", 5, "/a.so", {"p": "/b.so"}, null]})");
    EXPECT_TRUE(mixed.ok);
    EXPECT_EQ(toVector(mixed.paths), std::vector<std::string>{"/a.so"});
    EXPECT_TRUE(errors(mixed.log).empty());
}

TEST(DriverPaths, ArrayFormWithNothingUsable)
{
    EXPECT_FALSE(PathsOf(R"({"linux": []})").ok);
    PathsOf blanks(R"({"linux": ["", ""]})");
    EXPECT_FALSE(blanks.ok);
    EXPECT_EQ(blanks.paths.getSize(), 0);
    // The result looks at everything the caller's array holds.
    PathsOf withEarlier(R"({"linux": ["", ""]})", "linux", {"/earlier.so"});
    EXPECT_TRUE(withEarlier.ok);
    EXPECT_EQ(toVector(withEarlier.paths), std::vector<std::string>{"/earlier.so"});
}

TEST(DriverPaths, ObjectFormReadsOnlyX86)
{
    PathsOf athena(R"({"linux": {"x86": "/usr/lib/x86-athena/libASEP11.so", "x64": "/usr/lib/x64-athena/libASEP11.so"}})");
    EXPECT_TRUE(athena.ok);
    EXPECT_EQ(toVector(athena.paths), std::vector<std::string>{"/usr/lib/x86-athena/libASEP11.so"});
    EXPECT_EQ(loggedPaths(athena.log), toVector(athena.paths));

    PathsOf list(R"({"linux": {"x64": "/x64.so", "x86": ["", "/x86a.so", "/x86b.so"]}})");
    EXPECT_TRUE(list.ok);
    const std::vector<std::string> expected = {"/x86a.so", "/x86b.so"};
    EXPECT_EQ(toVector(list.paths), expected);

    PathsOf x32Only(R"({"linux": {"x32": "/x32.so", "x64": "/x64.so"}})");
    EXPECT_FALSE(x32Only.ok);
    EXPECT_EQ(x32Only.paths.getSize(), 0);
    EXPECT_TRUE(errors(x32Only.log).empty());

    EXPECT_FALSE(PathsOf(R"({"linux": {"x86": []}})").ok);
    EXPECT_FALSE(PathsOf(R"({"linux": {"x86": 86}})").ok);
}

TEST(DriverPaths, ObjectFormWithEmptyX86StringIsAnError)
{
    PathsOf r(R"({"linux": {"x86": "", "x64": "/x64.so"}})");
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.paths.getSize(), 0);
    EXPECT_EQ(errors(r.log), std::vector<std::string>{"Failed to get Windows driver path."});
}

TEST(DriverPaths, MissingPlatformIsSilentAndEarlierPathsStay)
{
    PathsOf r(R"({"windows": "x.dll", "osx": "/x.dylib"})", "linux", {"/earlier.so"});
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(toVector(r.paths), std::vector<std::string>{"/earlier.so"});
    EXPECT_TRUE(errors(r.log).empty());
    EXPECT_FALSE(PathsOf(R"({"linux": true})").ok);
    EXPECT_FALSE(PathsOf(R"({"linux": "/x.so"})", nullptr).ok);

    PathsOf appended(R"({"linux": "/new.so"})", "linux", {"/earlier.so"});
    const std::vector<std::string> both = {"/earlier.so", "/new.so"};
    EXPECT_EQ(toVector(appended.paths), both);
}
