// The embedded card database: inflating and loading it, rewriting ATR
// variants, looking up cards and resolving driver library paths.
#include "UnitHelpers.h"

#include "AtrRewriteRules.h"
#include "ClsPkcs11.h"
#include "ExtPtrArray.h"
#include "ZelvanDeflate.h"

#include <nlohmann/json.hpp>
#include <zlib.h>

#include <fstream>

using namespace unit;

namespace {

// text compressed by zlib: wrapped, or the raw DEFLATE stream inside the wrapping.
DataBuffer deflated(const std::string& text, bool wrapped = false)
{
    uLongf size = compressBound(text.size());
    std::vector<Bytef> out(size);
    EXPECT_EQ(compress2(out.data(), &size, reinterpret_cast<const Bytef*>(text.data()), text.size(), 9), Z_OK);
    return wrapped ? DataBuffer(out.data(), size) : DataBuffer(out.data() + 2, size - 6);
}

// The embedded card database, loaded into an object that held something else: the load logs nothing.
std::unique_ptr<ClsJsonObject> cardDb()
{
    std::unique_ptr<ClsJsonObject> db = jsonOf(R"({"stale": true})");
    _qxLogger log;
    EXPECT_TRUE(ClsPkcs11::GetCardDataJson(*db, log) && log.entries().empty()) << log.renderText();
    return db;
}

// "ok" or "failed", the paths and the errors, as "ok|/a.so;/b.so;|error".
std::string outcome(bool ok, const ExtPtrArraySb& paths, const _qxLogger& log)
{
    std::string out = ok ? "ok|" : "failed|";
    for (int i = 0; i < paths.getSize(); ++i)
        out += paths.stringAt(i) + std::string(";");
    for (const std::string& error : errorsOf(log))
        out += "|" + error;
    return out;
}

// A lookup into outputs an earlier success filled, as "name|ro|outcome"; the
// second form, which loads the database itself, without a db.
std::string lookup(ClsJsonObject* db, const char* atr, _qxLogger* logTo = nullptr)
{
    _qxLogger own;
    _qxLogger& log = logTo != nullptr ? *logTo : own;
    StringBuffer name("previous");
    bool readOnly = true;
    ExtPtrArraySb paths;
    paths.appendString("/previous.so");
    const bool ok = db ? ClsPkcs11::CardDataLookupAtr(*db, atr, name, readOnly, paths, log)
                       : ClsPkcs11::CardDataLookupAtr2(atr, name, readOnly, paths, log);
    return name.toStdString() + (readOnly ? "|ro|" : "||") + outcome(ok, paths, log);
}

// The ATR the first rule that applies gives, or "none" (the ATR left as it is).
std::string rewritten(const char* atr)
{
    StringBuffer sb(atr);
    return rewriteKnownAtrVariant(sb) ? sb.toStdString() : sb.equals(atr) ? "none" : "changed, yet no rule applied";
}

} // namespace

TEST(InflateDb, InflatesRawOrWrappedStreamsAppendingOrReplacingWithinTheLimit)
{
    std::string text; // 50000 bytes: several chunks of output
    for (int i = 10000; i < 20000; ++i)
        text += std::to_string(i);
    _qxIoParams io(nullptr);
    _qxLogger log;
    DataBuffer out("head-", 5);
    ASSERT_TRUE(ZelvanDeflate::inflateDb(true, deflated(text, true), out, true, io, 50000, log));
    EXPECT_EQ(textOf(out), "head-" + text);
    ASSERT_TRUE(ZelvanDeflate::inflateDb(false, deflated("tail"), out, false, io, 4, log));
    EXPECT_EQ(textOf(out), "tail");
    EXPECT_TRUE(log.entries().empty());
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, deflated(text), out, true, io, 49999, log));
    EXPECT_EQ(textOf(out), "tail"); // nothing of the failed call stays
    const DataBuffer whole = deflated(text), truncated(whole.getData(), whole.getSize() / 2);
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, truncated, out, true, io, 60000, log));
    EXPECT_EQ(textOf(out), "tail");
    // A zlib header read as raw DEFLATE.
    EXPECT_FALSE(ZelvanDeflate::inflateDb(false, deflated("x", true), out, false, io, 60000, log));
    EXPECT_EQ(out.getSize(), 0u);
    EXPECT_EQ(errorsOf(log), (Strings{"Inflated data exceeds the size limit.", "Compressed data is truncated.",
                                      "Compressed data is not valid."}));
}

TEST(CardData, LoadYieldsTheCardJsonFileAsItStandsReplacingWhatTheObjectHeld)
{
    std::ifstream in(P11CLIENT_CARD_JSON_PATH);
    ASSERT_TRUE(in) << P11CLIENT_CARD_JSON_PATH;
    StringBuffer text;
    cardDb()->emitSb(text);
    EXPECT_EQ(nlohmann::ordered_json::parse(text.view()), nlohmann::ordered_json::parse(in)); // member order too
}

// Each rule maps a real-world variant of its family to its target, which no
// rule changes and which leads to a card of the database (whose driver may
// serve no Linux library). The first rule that applies wins; rules compare
// with case.
TEST(CardLookup, EachRuleMapsItsFamilyToACardOfTheDatabase)
{
    const char* const variants[] = {"3BFF1800FF8131FE55006B02090300011101434E5311318099",
        "3B9F958131FE9F006646530541091971DF000046000017", "3B7F96000080318065B0850300EF120FFE829000",
        "3B7F96000080318065B0850300EF120268829000", "3BDD96FF8131FE4580595F5374645F496E697481059B",
        "3B9F9681B1FE451F070064051EB20031B0739621DB0590005C", "3BBB1800C01031FE4580670412B003030000810138",
        "3B9F958131FE9F006646530510063171DF000000000024", "3B9F958131FE9F006646530534002571DF000000000005",
        "3B9F958131FE9F006646530534002571DF00003900001F", "3B9F958131FE9F006646530534002571DF000006000020",
        "3B9F958131FE9F006646530551003371DF000000000061", "3B6D00005744364101869380A1B2C3D4E5F6"};
    const auto rules = atrRewriteRules();
    ASSERT_EQ(std::size(variants), rules.size());
    const auto db = cardDb();
    for (std::size_t i = 0; i < rules.size(); ++i) {
        const std::string target(rules[i].target), again = rewritten(target.c_str());
        EXPECT_EQ(rewritten(variants[i]), target);
        EXPECT_TRUE(again == "none" || again == target) << again;
        const std::string found = lookup(db.get(), variants[i]);
        EXPECT_TRUE(found.find("|ok|") != std::string::npos || found.ends_with("|Failed to find driver paths."))
            << found;
    }
    const std::pair<const char*, const char*> cases[] = {
        {"3BFF1800FF8131FE55006B0209030301010144534410318090", "none"}, // rule 1's prefix without its marker
        // Rule 2's prefix without "71DF0000460000", but with rule 8's "051".
        {"3B9F958131FE9F006646530510001171DF000000000002", "3B9F958131FE9F006646530534002571DF0000000000xx"},
        // Rule 3's ending, but not at the end: rule 4.
        {"3B7F96000080318065B085FFE8290000", "3B7F96000080318065B0855956FB120268829000"},
        // Passes both rule 2 and rule 8.
        {"3B9F958131FE9F006646530510001871DF000046000015", "3B9F958131FE9F006646530540081871DF000046000015"},
        {"3b6d00005744364101869380", "none"}};
    for (const auto& [atr, expected] : cases)
        EXPECT_EQ(rewritten(atr), expected) << atr;
}

// The outputs are reset first. Small hand-made documents hold the records our
// data does not.
TEST(CardLookup, LookupsGiveNameFlagAndPathsOrResetTheOutputs)
{
    const auto db = cardDb();
    const std::pair<const char*, const char*> cards[] = {
        // Trimmed and upper-cased; listed in lower case.
        {"  3b7f96000080318065b084565110120ffe829000\t ", "ID PRIME MD830B||ok|/usr/lib/libIDPrimePKCS11.so;"},
        {"3b6d00005744364101869380a1b2", // upper-cased before the rules
         "Watchdata PROXKey||ok|/usr/lib/WatchData/ProxKey/lib/libwdpkcs_SignatureP11.so;"},
        {"3BFC1300008131FE15597562696B65794E454F7233E1",
         "Yubico Yubikey NEO OTP+U2F+CCID|ro|ok|/usr/local/lib/libykcs11.so;"},
        {"3B00", "||failed|"}, {nullptr, "||failed|"}};
    for (const auto& [atr, expected] : cards)
        EXPECT_EQ(lookup(db.get(), atr), expected);
    const std::string drivers = R"(], "drivers": [{"id": "AB01", "file": {"linux": "/usr/lib/libx.so"}},
        {"id": "AB02", "file": {"windows": "x.dll"}}]})";
    const std::pair<const char*, const char*> cases[] = {
        {R"({"atr": "3B01", "name": "A"})", "||failed||Did not find driver member."},
        {R"({"atr": "3B01", "name": "A", "driver": "ab03"})", "||failed||Did not find driver record."},
        {R"({"atr": "3B01", "name": "A", "driver": "AB02"})", "||failed||Failed to find driver paths."},
        {R"({"atr": "3b01", "name": "A", "driver": "ab01"})", "A||ok|/usr/lib/libx.so;"}, // ids compare without case
        // Everything but the name is found: the paths and readOnly stay filled.
        {R"({"atr": "3B01", "readOnly": true, "driver": "AB01"})", "|ro|failed|/usr/lib/libx.so;"}};
    for (const auto& [card, expected] : cases)
        EXPECT_EQ(lookup(jsonOf(std::string(R"({"cards": [)") + card + drivers).get(), "3B01"), expected);
    // The second form; a success logs the contexts and the paths only.
    _qxLogger log;
    EXPECT_EQ(lookup(nullptr, "3B8980014A434F5032343252324A", &log),
              "NXP JCOP J3D||ok|/usr/lib/opensc-pkcs11.so;/usr/local/lib/opensc-pkcs11.so;"
              "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so;");
    EXPECT_EQ(log.renderText(), "atrToPkcs11Info:\n  cardDataLookupAtr:\n    getPkcs11DriverPaths:\n"
                                "      path: /usr/lib/opensc-pkcs11.so\n      path: /usr/local/lib/opensc-pkcs11.so\n"
                                "      path: /usr/lib/x86_64-linux-gnu/opensc-pkcs11.so\n"
                                "    --getPkcs11DriverPaths\n  --cardDataLookupAtr\n--atrToPkcs11Info\n");
}

// Paths are appended to what the caller's array holds, as stored; only "x86"
// of the form keyed by word size is read. The log holds the context, a line
// per path added and the error: nothing else.
TEST(DriverPaths, EveryFormOfTheFileMember)
{
    // Some rows start from a path an earlier call left.
    const struct { const char* file; const char* expected; bool earlier = false; const char* os = "linux"; } cases[] = {
        {R"({"windows": "x.dll", "linux": "/x.so"})", "ok|/x.so;"}, {R"({"linux": ""})", "failed|"},
        {R"({"linux": ["", ""]})", "failed|"}, {R"({"linux": ["", ""]})", "ok|/earlier.so;", true}, // counts earlier
        {R"({"linux": "/new.so"})", "ok|/earlier.so;/new.so;", true},
        {R"({"linux": ["", 5, "/a.so", {"p": "/b.so"}, null, "/c.so"]})", "ok|/a.so;/c.so;"},
        {R"({"linux": {"x86": "/x86.so", "x64": "/x64.so"}})", "ok|/x86.so;"},
        {R"({"linux": {"x64": "/x64.so", "x86": ["", "/x86a.so", "/x86b.so"]}})", "ok|/x86a.so;/x86b.so;"},
        {R"({"linux": {"x32": "/x32.so", "x64": "/x64.so"}})", "failed|"},
        {R"({"linux": {"x86": "", "x64": "/x64.so"}})", "failed||Failed to get Windows driver path."},
        {R"({"windows": "x.dll", "osx": "/x.dylib"})", "failed|/earlier.so;", true},
        {R"({"linux": "/x.so"})", "failed|", false, nullptr}};
    for (const auto& c : cases) {
        ExtPtrArraySb paths;
        if (c.earlier)
            paths.appendString("/earlier.so");
        _qxLogger log;
        const bool ok = ClsPkcs11::getPkcs11DriverPaths(*jsonOf(std::string(R"({"file": )") + c.file + "}"), c.os,
                                                        paths, log);
        EXPECT_EQ(outcome(ok, paths, log), c.expected) << c.file;
        std::string text = "getPkcs11DriverPaths:\n";
        for (int i = c.earlier ? 1 : 0; i < paths.getSize(); ++i)
            text += "  path: " + std::string(paths.stringAt(i)) + "\n";
        for (const std::string& error : errorsOf(log))
            text += "  Error: " + error + "\n";
        EXPECT_EQ(log.renderText(), text + "--getPkcs11DriverPaths\n") << c.file;
    }
}
