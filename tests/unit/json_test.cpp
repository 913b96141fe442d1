#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "StringBuffer.h"
#include "XString.h"

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>

using namespace p11client;

namespace {

std::unique_ptr<ClsJsonObject> load(const std::string& text)
{
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    LogNull log;
    EXPECT_TRUE(json->loadJsonText(text.data(), text.size(), log)) << text;
    return json;
}

std::string textAt(ClsJsonObject& json, const char* path)
{
    StringBuffer sb;
    LogNull log;
    return json.sbOfPathUtf8(path, sb, log) ? sb.toStdString() : "<none>";
}

const char* kDrivers = R"({"drivers":[
    {"id":"AA","file":{"linux":["/a.so","/b.so"]}},
    {"id":"bb","name":"first"},
    {"id":"BB","name":"second"},
    {"id":7,"name":"number"}]})";

} // namespace

TEST(JsonPaths, IndexVariableAndNumbersAddressArrayElements)
{
    auto json = load(kDrivers);
    json->put_I(1);
    EXPECT_EQ(textAt(*json, "drivers[0].file.linux[i]"), "/b.so");
    EXPECT_EQ(textAt(*json, "drivers[1].name"), "first");
    EXPECT_EQ(textAt(*json, "drivers[3].id"), "7");
    EXPECT_EQ(textAt(*json, "drivers[9].id"), "<none>");
    EXPECT_EQ(textAt(*json, "drivers.id"), "<none>");
    EXPECT_EQ(textAt(*json, "drivers[0]..id"), "<none>");
    EXPECT_EQ(textAt(*json, "drivers[x]"), "<none>");
}

TEST(JsonPaths, TypeCodesAndArraySizes)
{
    auto json = load(R"({"s":"x","n":1,"o":{},"a":[1,2],"b":true,"z":null})");
    EXPECT_EQ(json->jsonTypeOf("s"), ClsJsonObject::kTypeString);
    EXPECT_EQ(json->jsonTypeOf("n"), ClsJsonObject::kTypeNumber);
    EXPECT_EQ(json->jsonTypeOf("o"), ClsJsonObject::kTypeObject);
    EXPECT_EQ(json->jsonTypeOf("a"), ClsJsonObject::kTypeArray);
    EXPECT_EQ(json->jsonTypeOf("b"), ClsJsonObject::kTypeBool);
    EXPECT_EQ(json->jsonTypeOf("z"), ClsJsonObject::kTypeNull);
    EXPECT_EQ(json->jsonTypeOf("missing"), ClsJsonObject::kTypeMissing);
    LogNull log;
    EXPECT_EQ(json->sizeOfArray("a", log), 2);
    EXPECT_LE(json->sizeOfArray("o", log), 0);
    EXPECT_LE(json->SizeOfArray(XString("missing")), 0);
    EXPECT_TRUE(json->boolOf("b", log));
    EXPECT_FALSE(json->boolOf("s", log));
    EXPECT_FALSE(json->boolOf("missing", log));
}

// A document may hold numbers no long long can: they clamp, never convert
// out of range (undefined behaviour that the sanitizers abort on).
TEST(JsonNumbers, IntegersBeyondLongLongClamp)
{
    auto json = load(R"({"big":2.2e42,"small":-2.2e42,"huge":18446744073709551615,"frac":-7.9,"n":-12})");
    EXPECT_EQ(json->intOf("big"), LLONG_MAX);
    EXPECT_EQ(json->intOf("small"), LLONG_MIN);
    EXPECT_EQ(json->intOf("huge"), LLONG_MAX);
    EXPECT_EQ(json->intOf("frac"), -7);
    EXPECT_EQ(json->intOf("n"), -12);
}

TEST(JsonFindRecord, FirstMatchWinsAndCaseIsOptional)
{
    auto json = load(kDrivers);
    std::unique_ptr<ClsJsonObject> blind(
        json->FindRecord(XString("drivers"), XString("id"), XString("BB"), false));
    ASSERT_NE(blind, nullptr);
    EXPECT_EQ(textAt(*blind, "name"), "first");
    std::unique_ptr<ClsJsonObject> exact(json->FindRecord(XString("drivers"), XString("id"), XString("BB"), true));
    ASSERT_NE(exact, nullptr);
    EXPECT_EQ(textAt(*exact, "name"), "second");
    std::unique_ptr<ClsJsonObject> nested(
        json->FindRecord(XString("drivers"), XString("file.linux[0]"), XString("/A.SO"), false));
    ASSERT_NE(nested, nullptr);
    EXPECT_EQ(textAt(*nested, "id"), "AA");
    EXPECT_EQ(json->FindRecord(XString("drivers"), XString("id"), XString("cc"), false), nullptr);
    EXPECT_EQ(json->FindRecord(XString("nothing"), XString("id"), XString("AA"), false), nullptr);
}

TEST(JsonWrite, CreatesObjectsAndArraysOnTheWayInOrder)
{
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    EXPECT_TRUE(json->updateString("library.manufacturer", "SoftHSM"));
    EXPECT_TRUE(json->updateUInt("slots[0].id", 1805577917UL));
    EXPECT_TRUE(json->updateBool("slots[0].token.flags.rng", true));
    EXPECT_TRUE(json->updateUInt("slots[1].id", 2));
    EXPECT_FALSE(json->updateUInt("slots[5].id", 3)) << "an index may not skip elements";
    EXPECT_FALSE(json->updateString("library.manufacturer.x", "y")) << "a string is not an object";
    json->put_EmitCompact(true);
    XString out;
    json->Emit(out);
    EXPECT_STREQ(out.getUtf8(), R"({"library":{"manufacturer":"SoftHSM"},"slots":[{"id":1805577917,)"
                                R"("token":{"flags":{"rng":true}}},{"id":2}]})");
    EXPECT_EQ(json->intOf("slots[0].id"), 1805577917LL);
    EXPECT_TRUE(json->Delete(XString("slots[0]")));
    EXPECT_EQ(json->intOf("slots[0].id"), 2);
}

TEST(JsonLoad, RejectsMalformedAndTooDeepDocumentsKeepingTheOldContent)
{
    auto json = load(R"({"keep":1})");
    LogNull log;
    EXPECT_FALSE(json->loadJsonText("{\"a\":", 5, log));
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    EXPECT_FALSE(json->loadJsonText(deep.data(), deep.size(), log));
    EXPECT_EQ(json->intOf("keep"), 1);
    DataBuffer db(reinterpret_cast<const uint8_t*>("[1,[2]]"), 7);
    EXPECT_TRUE(json->loadJson(db, log));
    EXPECT_EQ(json->intOf("[1][0]"), 2);
}

TEST(JsonEmit, InvalidUtf8InAValueDoesNotBreakEmitting)
{
    std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
    json->updateString("label", "caf\xE9");
    XString out;
    EXPECT_TRUE(json->Emit(out));
    EXPECT_TRUE(out.containsSubstringUtf8("caf"));
}
