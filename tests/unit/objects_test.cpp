// Object searches and attribute reads against the mock module.
#include "ClsJsonObject.h"
#include "MockFixture.h"

#include <algorithm>
#include <map>

using namespace p11client;
using namespace p11test;

namespace {

// DER of the namedCurve OID of P-256.
const std::vector<uint8_t> kP256Params{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};

std::vector<uint8_t> modulusOfBits(int bits)
{
    std::vector<uint8_t> m(static_cast<std::size_t>(bits / 8), 0x5A);
    m[0] = 0xC1;
    return m;
}

class ObjectsTest : public MockModuleTest {
protected:
    void SetUp() override
    {
        MockModuleTest::SetUp();
        rsaKey = mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY),
                                         mock::ulongAttr(CKA_KEY_TYPE, CKK_RSA),
                                         mock::stringAttr(CKA_LABEL, "signing key"),
                                         mock::bytesAttr(CKA_ID, {0x01, 0xAB}),
                                         mock::bytesAttr(CKA_MODULUS, modulusOfBits(2048)),
                                         mock::boolAttr(CKA_SIGN, true), mock::boolAttr(CKA_DECRYPT, false),
                                         mock::boolAttr(CKA_SENSITIVE, true), mock::boolAttr(CKA_PRIVATE, true)});
        ecKey = mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY),
                                        mock::ulongAttr(CKA_KEY_TYPE, CKK_EC),
                                        mock::stringAttr(CKA_LABEL, "ec key"),
                                        mock::bytesAttr(CKA_EC_PARAMS, kP256Params),
                                        mock::boolAttr(CKA_SIGN, true), mock::boolAttr(CKA_PRIVATE, true)});
        ASSERT_TRUE(p11->QuickSession(1, XString(kUserPin)));
    }

    static std::string text(ClsJsonObject& json, const std::string& path)
    {
        StringBuffer sb;
        LogNull log;
        return json.sbOfPathUtf8(path.c_str(), sb, log) ? sb.toStdString() : "<none>";
    }

    CK_OBJECT_HANDLE rsaKey = 0;
    CK_OBJECT_HANDLE ecKey = 0;
};

} // namespace

TEST_F(ObjectsTest, FindAllKeysDescribesEachPrivateKey)
{
    ClsJsonObject json;
    ASSERT_TRUE(p11->FindAllKeys(XString(""), json));
    ASSERT_EQ(json.SizeOfArray(XString("keys")), 2);
    EXPECT_EQ(static_cast<CK_OBJECT_HANDLE>(json.intOf("keys[0].handle")), rsaKey);
    EXPECT_EQ(text(json, "keys[0].label"), "signing key");
    EXPECT_EQ(text(json, "keys[0].id"), "01ab");
    EXPECT_EQ(text(json, "keys[0].keyType"), "rsa");
    EXPECT_EQ(json.intOf("keys[0].bits"), 2048);
    EXPECT_EQ(text(json, "keys[0].usage.sign"), "true");
    EXPECT_EQ(text(json, "keys[0].usage.decrypt"), "false");
    EXPECT_EQ(text(json, "keys[0].usage.unwrap"), "<none>") << "an attribute the key lacks is left out";
    EXPECT_EQ(text(json, "keys[1].keyType"), "ec");
    EXPECT_EQ(text(json, "keys[1].curve"), "prime256v1");
    EXPECT_EQ(json.intOf("keys[1].bits"), 256);
}

// The length pass asks again for what the first read missed, except for an
// RSA component of an EC key or an EC attribute of an RSA key.
TEST_F(ObjectsTest, LengthPassSkipsAttributesTheKeyTypeCannotHave)
{
    ClsJsonObject json;
    mock::clearCalls();
    ASSERT_TRUE(p11->FindAllKeys(XString(""), json));
    std::map<CK_OBJECT_HANDLE, std::vector<std::vector<CK_ATTRIBUTE_TYPE>>> reads;
    for (const mock::Call& c : mock::calls())
        if (c.function == "C_GetAttributeValue")
            reads[c.object].push_back(c.attributeTypes);
    const auto askedAgain = [&](CK_OBJECT_HANDLE key, CK_ATTRIBUTE_TYPE type) {
        const auto& r = reads[key];
        return std::any_of(r.begin() + 1, r.end(),
                           [&](const auto& t) { return std::find(t.begin(), t.end(), type) != t.end(); });
    };
    ASSERT_GE(reads[rsaKey].size(), 2u);
    ASSERT_GE(reads[ecKey].size(), 2u);
    EXPECT_TRUE(askedAgain(rsaKey, CKA_UNWRAP)) << "an attribute an RSA key may have is asked again";
    EXPECT_FALSE(askedAgain(rsaKey, CKA_EC_PARAMS));
    EXPECT_TRUE(askedAgain(ecKey, CKA_UNWRAP));
    EXPECT_FALSE(askedAgain(ecKey, CKA_MODULUS));
    EXPECT_EQ(json.intOf("keys[1].bits"), 256);
}

TEST_F(ObjectsTest, KeyFilterSelectsATypeAndRejectsNonsense)
{
    ClsJsonObject json;
    ASSERT_TRUE(p11->FindAllKeys(XString(" EC "), json));
    ASSERT_EQ(json.SizeOfArray(XString("keys")), 1);
    EXPECT_EQ(static_cast<CK_OBJECT_HANDLE>(json.intOf("keys[0].handle")), ecKey);

    EXPECT_FALSE(p11->FindAllKeys(XString("dsa-ish"), json));
    EXPECT_TRUE(hasError(*p11, "Unknown key filter: use a key type such as \"rsa\" or \"ec\", or an empty filter for all keys."));
    EXPECT_EQ(json.jsonTypeOf("keys"), ClsJsonObject::kTypeMissing) << "the caller's object is emptied";
}

TEST_F(ObjectsTest, AttributesComeInOnePresizedReadWhenTheTokenHasThemAll)
{
    std::vector<mock::Attribute> complete{
        mock::ulongAttr(CKA_CLASS, CKO_DATA),       mock::boolAttr(CKA_TOKEN, true),
        mock::boolAttr(CKA_PRIVATE, false),         mock::boolAttr(CKA_MODIFIABLE, true),
        mock::stringAttr(CKA_LABEL, "complete"),    mock::stringAttr(CKA_APPLICATION, "app"),
        mock::bytesAttr(CKA_OBJECT_ID, {0x06, 0x01, 0x2A}), mock::bytesAttr(CKA_VALUE, {9})};
    mock::addObject(kSlot, complete);
    complete.pop_back();
    complete[4] = mock::stringAttr(CKA_LABEL, "incomplete");
    mock::addObject(kSlot, complete);

    ClsJsonObject json;
    json.updateString("class", "data");
    json.updateString("label", "complete");
    mock::clearCalls();
    ASSERT_TRUE(p11->FindObject(json));
    EXPECT_EQ(json.intOf("count"), 1);
    EXPECT_EQ(mock::callCount("C_GetAttributeValue"), 1);

    json.updateString("label", "incomplete");
    mock::clearCalls();
    ASSERT_TRUE(p11->FindObject(json));
    EXPECT_EQ(mock::callCount("C_GetAttributeValue"), 2) << "then the length of the missing one alone";
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_VALUE"), "<none>");
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_OBJECT_ID"), "06012a");

    const std::string longLabel(300, 'L');
    complete[4] = mock::stringAttr(CKA_LABEL, longLabel);
    mock::addObject(kSlot, complete);
    json.updateString("label", longLabel.c_str());
    mock::clearCalls();
    ASSERT_TRUE(p11->FindObject(json));
    EXPECT_EQ(mock::callCount("C_GetAttributeValue"), 3) << "a value larger than its first buffer is read again";
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_LABEL"), longLabel);
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_OBJECT_ID"), "06012a");

    std::vector<std::string> order;
    for (const mock::Call& c : mock::calls())
        order.push_back(c.function);
    const auto final = std::find(order.begin(), order.end(), "C_FindObjectsFinal");
    const auto firstRead = std::find(order.begin(), order.end(), "C_GetAttributeValue");
    EXPECT_LT(final - order.begin(), firstRead - order.begin()) << "the search ends before attributes are read";
    EXPECT_EQ(mock::activeFindOperations(), 0u);
}

TEST_F(ObjectsTest, FindObjectMatchesTheTemplateAndReportsReadableAttributes)
{
    mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_DATA), mock::stringAttr(CKA_LABEL, "note"),
                            mock::stringAttr(CKA_APPLICATION, "app"), mock::bytesAttr(CKA_VALUE, {1, 2, 3})});
    ClsJsonObject json;
    json.updateString("label", "note");
    ASSERT_TRUE(p11->FindObject(json));
    ASSERT_EQ(json.intOf("count"), 1);
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_CLASS"), "data");
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_APPLICATION"), "app");
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_VALUE"), "010203");
    EXPECT_EQ(text(json, "label"), "note") << "the search stays in the object";

    ClsJsonObject byAttr;
    byAttr.updateBool("attributes.CKA_SIGN", true);
    byAttr.updateString("id", "01AB");
    ASSERT_TRUE(p11->FindObject(byAttr));
    ASSERT_EQ(byAttr.intOf("count"), 1);
    EXPECT_EQ(static_cast<CK_OBJECT_HANDLE>(byAttr.intOf("objects[0].handle")), rsaKey);
    EXPECT_EQ(text(byAttr, "objects[0].attributes.CKA_KEY_TYPE"), "rsa");
}

TEST_F(ObjectsTest, SensitiveAndOversizedAttributesAreAbsent)
{
    mock::addObject(kSlot,
                    {mock::ulongAttr(CKA_CLASS, CKO_DATA), mock::stringAttr(CKA_LABEL, "big"),
                     mock::bytesAttr(CKA_VALUE, std::vector<uint8_t>(200 * 1024, 7)),
                     mock::stringAttr(CKA_APPLICATION, "secret")},
                    {CKA_APPLICATION});
    ClsJsonObject json;
    json.updateString("label", "big");
    ASSERT_TRUE(p11->FindObject(json));
    ASSERT_EQ(json.intOf("count"), 1);
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_VALUE"), "<none>");
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_APPLICATION"), "<none>");
    EXPECT_EQ(text(json, "objects[0].attributes.CKA_LABEL"), "big");
    EXPECT_TRUE(hasInfo(*p11, "Ignoring CKA_VALUE: the module reports an impossible length."));
}

TEST_F(ObjectsTest, LargeSearchesAreReadInBatchesToTheEnd)
{
    for (int i = 0; i < 1100; ++i)
        mock::addObject(kSlot, {mock::ulongAttr(CKA_CLASS, CKO_DATA), mock::stringAttr(CKA_LABEL, "many")});
    mock::clearCalls();
    ClsJsonObject json;
    json.updateString("label", "many");
    json.updateString("class", "data");
    ASSERT_TRUE(p11->FindObject(json));
    EXPECT_EQ(json.intOf("count"), 1100);
    EXPECT_EQ(mock::callCount("C_FindObjects"), 4) << "512 + 512 + 76, then the empty batch";
}

TEST_F(ObjectsTest, QueriesNeedASession)
{
    ASSERT_TRUE(p11->CloseSession());
    ClsJsonObject json;
    EXPECT_FALSE(p11->FindAllKeys(XString(""), json));
    EXPECT_TRUE(hasError(*p11, "No PKCS11 session is open."));
    EXPECT_FALSE(p11->FindObject(json));
    EXPECT_TRUE(hasError(*p11, "No PKCS11 session is open."));
}
