// Strings, byte buffers, UTF-8 repair, the JSON object and the log of base/.
#include "UnitHelpers.h"

#include "ClsBase.h"
#include "Utf8.h"
#include "XString.h"

#include <climits>
#include <stdexcept>

using namespace unit;

TEST(StringBuffer, TrimStripAndCaseChanges)
{
    using SB = StringBuffer;
    const struct { const char* in; void (SB::*op)(); const char* out; } cases[] = {
        {" \t\r\n 3B 7F \n", &SB::trim2, "3B 7F"}, {"  \n", &SB::trim2, ""}, {"3B \r", &SB::trim2, "3B"},
        {"/usr\\lib/x.so", &SB::stripDirectory, "x.so"}, {"x.so", &SB::stripDirectory, "x.so"},
        {"azAZ09`{@[", &SB::toUpperCase, "AZAZ09`{@["}, {"azAZ09`{@[", &SB::toLowerCase, "azaz09`{@["}};
    for (const auto& c : cases) {
        StringBuffer sb(c.in);
        (sb.*c.op)();
        EXPECT_EQ(sb.toStdString(), c.out) << c.in;
    }
    StringBuffer sb("3B7F96000080318065b085");
    EXPECT_TRUE(sb.beginsWith("3B7F") && sb.endsWith("b085") && sb.containsSubstring("8065b"));
    EXPECT_FALSE(sb.beginsWith("3b7f") || sb.endsWith("B085") || sb.containsSubstring("8065B"));
    EXPECT_TRUE(sb.equalsIgnoreCase("3b7f96000080318065B085") && !sb.equalsIgnoreCase("3b7f96000080318065B08"));
    // Appending from its own storage.
    StringBuffer s("abc");
    s.append(s);
    s.append(s.view().substr(1, 2));
    s.prepend("x");
    EXPECT_EQ(s.toStdString(), "xabcabcbc");
    s.shorten(4);
    EXPECT_EQ(s.toStdString(), "xabc");
}

TEST(DataBuffer, DecodesAndEncodesHexAndBase64)
{
    DataBuffer db;
    ASSERT_TRUE(db.appendEncodedById("09afAF", DataBuffer::kHex));
    ASSERT_TRUE(db.appendEncodedById("aGVsbG8g\nd29y\r\nbGQ=", DataBuffer::kBase64)); // lines are one stream
    EXPECT_EQ(textOf(db), "\x09\xAF\xAFhello world");
    StringBuffer text;
    db.appendHex(text, false);
    ASSERT_TRUE(db.encodeDb(DataBuffer::kHex, text) && db.encodeDb(DataBuffer::kBase64, text));
    EXPECT_FALSE(db.encodeDb(99, text));
    EXPECT_EQ(text.toStdString(), "09afaf68656c6c6f20776f726c6409AFAF68656C6C6F20776F726C64Ca+vaGVsbG8gd29ybGQ=");
    db.append(db);
    EXPECT_EQ(textOf(db), "\x09\xAF\xAFhello world\x09\xAF\xAFhello world");
    // A refused text appends nothing.
    for (const auto& [refused, id] : {std::pair{"a*b=", DataBuffer::kBase64}, {"abc", DataBuffer::kHex},
                                      {"0g", DataBuffer::kHex}, {"g0", DataBuffer::kHex}, {"00", 99}})
        EXPECT_FALSE(db.appendEncodedById(refused, id)) << refused;
    EXPECT_EQ(db.getSize(), 28u);
}

TEST(Utf8, InvalidSequencesBecomeReplacementCharacters)
{
    // Each bound of the lead byte and of the second byte, just inside and just outside.
    const std::string valid = "a\x7F\xC2\xA9\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F"
                              "\xBF\xBF",
                      r = "\xEF\xBF\xBD", r3 = r + r + r, r6 = r3 + r3;
    EXPECT_EQ(toValidUtf8(valid), valid);
    EXPECT_EQ(toValidUtf8("\xC1\xBF\xE0\x9F\xBF\xED\xA0\x80\xF0\x8F\xBF\xBF\xF4\x90\x80\x80\xF5\x80" // 18 bytes
                          "\xE2\x28\xA1\xF0\x90\x28\xBC\xE2\x82"), // a bad second, third byte; the text ends
              r6 + r6 + r6 + r + "(" + r3 + "(" + r3);
}

namespace {

std::string textAt(ClsJsonObject& json, const char* path)
{
    StringBuffer sb;
    LogNull log;
    return json.sbOfPathUtf8(path, sb, log) ? sb.toStdString() : "<none>";
}

const char* kDrivers = R"({"drivers":[{"id":"AA","file":{"linux":["/a.so","/b.so"]}},
    {"id":"bb","name":"first"}, {"id":"BB","name":"second"}, {"id":7,"name":"number"}]})";

// depth levels of nesting, after a string holding an escaped quote and a
// bracket, and after many arrays that close again.
std::string nested(std::size_t depth)
{
    std::string s = R"({"s":"\"[","w":[)";
    for (int i = 0; i < 200; ++i)
        s += "[],";
    return s + R"(1],"d":)" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
}

} // namespace

TEST(Json, PathsAddressMembersAndArrayElementsAndFindRecords)
{
    auto json = jsonOf(kDrivers);
    json->put_I(1);
    const std::pair<const char*, const char*> cases[] = {
        {"drivers[0].file.linux[i]", "/b.so"}, {"drivers[1].name", "first"}, {"drivers[3].id", "7"},
        {"drivers[4].id", "<none>"}, {"drivers.id", "<none>"}, {"drivers[0]..id", "<none>"}, {"drivers[x]", "<none>"},
        {"drivers[0", "<none>"}, {"drivers[0].", "<none>"}, {"drivers[1x]", "<none>"}, {"drivers[1].name.x", "<none>"}};
    for (const auto& [path, expected] : cases)
        EXPECT_EQ(textAt(*json, path), expected) << path;
    json->put_I(-1);
    EXPECT_EQ(textAt(*json, "drivers[0].file.linux[i]"), "<none>");
    // Records: the first match, with or without case; by a nested member.
    const auto find = [&json](const char* array, const char* member, const char* value, bool exact, const char* out) {
        std::unique_ptr<ClsJsonObject> r(json->FindRecord(XString(array), XString(member), XString(value), exact));
        return r ? textAt(*r, out) : "<none>";
    };
    EXPECT_EQ(find("drivers", "id", "BB", true, "name") + find("drivers", "id", "BB", false, "name") +
                  find("drivers", "file.linux[0]", "/A.SO", false, "id") + find("nothing", "id", "AA", false, "id"),
              "secondfirstAA<none>");
    // A sub-object or array, never a scalar.
    for (const auto& [path, found] : {std::pair{"drivers", true}, {"drivers[1]", true}, {"drivers[1].name", false}, {"none", false}})
        EXPECT_EQ(std::unique_ptr<ClsJsonObject>(json->ObjectOf(XString(path))) != nullptr, found) << path;
}

TEST(Json, TypesSizesNamesAndClampedIntegers)
{
    auto json = jsonOf(R"({"s":"x","n":1,"o":{"k":1,"l":2},"a":[1,2],"b":true,"z":null,"big":2.2e42,"small":-2.2e42,
        "huge":18446744073709551615,"edge":9.223372036854775808e18,"frac":-7.9,"neg":-12})");
    const std::pair<const char*, int> types[] = {
        {"s", ClsJsonObject::kTypeString}, {"n", ClsJsonObject::kTypeNumber}, {"o", ClsJsonObject::kTypeObject},
        {"a", ClsJsonObject::kTypeArray},  {"b", ClsJsonObject::kTypeBool},   {"z", ClsJsonObject::kTypeNull},
        {"missing", ClsJsonObject::kTypeMissing}};
    for (const auto& [path, type] : types)
        EXPECT_EQ(json->jsonTypeOf(path), type) << path;
    LogNull log;
    EXPECT_EQ(std::tuple(json->sizeOfArray("a", log), json->SizeOfArray(XString("o")), json->sizeOfObject("o"),
                         json->sizeOfObject("a")), std::tuple(2, -1, 2, -1));
    StringBuffer name;
    EXPECT_TRUE(json->nameAt("o", 0, name) && json->nameAt("o", 1, name) && !json->nameAt("o", 2, name) &&
                !json->nameAt("o", -1, name));
    EXPECT_EQ(name.toStdString(), "kl");
    EXPECT_TRUE(json->boolOf("b", log) && !json->boolOf("s", log));
    // Numbers no long long can hold clamp: they are never converted out of range.
    const std::pair<const char*, long long> numbers[] = {{"big", LLONG_MAX}, {"small", LLONG_MIN}, {"huge", LLONG_MAX},
                                                         {"edge", LLONG_MAX}, {"frac", -7}, {"neg", -12}, {"s", 0}};
    for (const auto& [path, value] : numbers)
        EXPECT_EQ(json->intOf(path), value) << path;
}

TEST(Json, WritesCreateTheWayDeletesRemoveAndEmitReplacesBadUtf8)
{
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    EXPECT_TRUE(json->updateString("library.manufacturer", "SoftHSM") &&
                json->updateUInt("slots[0].id", 1805577917UL) && json->updateBool("slots[0].token.flags.rng", true) &&
                json->updateUInt("slots[1].id", 2));
    // An index may not skip elements; a string is not an object, nor an object an array.
    for (const char* path : {"slots[5].id", "library.manufacturer.x", "library[0]"})
        EXPECT_FALSE(json->updateString(path, "y")) << path;
    json->put_EmitCompact(true);
    XString out;
    json->Emit(out);
    EXPECT_STREQ(out.getUtf8(), R"({"library":{"manufacturer":"SoftHSM"},"slots":[{"id":1805577917,)"
                                R"("token":{"flags":{"rng":true}}},{"id":2}]})");
    const std::pair<const char*, bool> deletes[] = {{"slots[0]", true}, {"slots[1]", false}, {"library.x", false},
                                                    {"x.y", false}, {"", false}, {"library.manufacturer", true}};
    for (const auto& [path, ok] : deletes)
        EXPECT_EQ(json->Delete(XString(path)), ok) << path;
    json->updateString("label", "caf\xE9");
    json->Emit(out);
    EXPECT_STREQ(out.getUtf8(), "{\"library\":{},\"slots\":[{\"id\":2}],\"label\":\"caf\xEF\xBF\xBD\"}");
}

TEST(Json, RejectsMalformedAndTooDeepDocumentsKeepingTheOldContent)
{
    auto json = jsonOf(nested(128));
    _qxLogger log;
    EXPECT_FALSE(json->loadJsonText("{\"a\":", 5, log));
    const std::string deep = nested(129);
    EXPECT_FALSE(json->loadJsonText(deep.data(), deep.size(), log));
    EXPECT_EQ(json->intOf("w[200]"), 1);
    EXPECT_EQ(errorsOf(log), (Strings{"Invalid JSON.", "JSON nesting is too deep."}));
    // At most 64 steps in a path: "d" and 63 indexes reach the 64th array, one more does not reach the 65th.
    std::string path = "d";
    for (int i = 0; i < 63; ++i)
        path += "[0]";
    EXPECT_EQ(json->jsonTypeOf(path.c_str()), ClsJsonObject::kTypeArray);
    EXPECT_EQ(json->jsonTypeOf((path + "[0]").c_str()), ClsJsonObject::kTypeMissing);
    EXPECT_TRUE(json->loadJson(DataBuffer("[1,[2]]", 7), log));
    EXPECT_EQ(json->intOf("[1][0]"), 2);
}

// The guard turns an exception into false and an error.
TEST(Log, EachOutermostCallStartsAFreshRecordRenderedAsIndentedText)
{
    ClsBase w;
    const auto work = [&w](bool (*body)()) {
        LogContextExitor ctx(w, "Work");
        w.m_log.LogData("path", "/x.so");
        w.m_log.LogVerbose("detail");
        w.logSuccessFailure(runGuarded(w.m_log, body));
    };
    XString text;
    work([]() -> bool { throw std::bad_alloc(); });
    work([]() -> bool { throw std::runtime_error("x"); });
    w.get_LogText(text);
    EXPECT_STREQ(text.getUtf8(), "Work:\n  path: /x.so\n  Error: Internal error: the operation was abandoned.\n"
                                 "  Error: Failed.\n--Work\n");
    w.put_VerboseLogging(true);
    {
        LogContextExitor outer(w, "Outer"); // a public method calling another keeps one record
        work([]() -> bool { throw std::bad_alloc(); });
        work([] { return true; });
    }
    w.get_LogText(text);
    EXPECT_STREQ(text.getUtf8(), "Outer:\n  Work:\n    path: /x.so\n    detail\n    Error: Out of memory.\n"
                                 "    Error: Failed.\n  --Work\n  Work:\n    path: /x.so\n    detail\n    Success.\n"
                                 "  --Work\n--Outer\n");
}
