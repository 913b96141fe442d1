// FindAllKeys and FindObject on a real SoftHSM2 token.
#include "CertTokenTest.h"
#include "ClsJsonObject.h"
#include "LogAssertions.h"
#include "XString.h"

#include <openssl/core_names.h>

#include <set>

using namespace p11client;
using namespace p11test;

namespace {

std::string at(const char* array, int index, const char* member)
{
    return std::string(array) + "[" + std::to_string(index) + "]." + member;
}

// The DER OIDs of the curves, as CKA_EC_PARAMS holds them.
std::string ecParamsHex(const std::string& curve)
{
    if (curve == "prime256v1")
        return "06082a8648ce3d030107";
    if (curve == "secp384r1")
        return "06052b81040022";
    return "06052b81040023"; // secp521r1
}

class ObjectQueryTest : public CertTokenTest {
protected:
    // FindObject with a template given as JSON text; the result is in json.
    ::testing::AssertionResult findObject(const std::string& templ)
    {
        json.Clear();
        if (!json.Load(XString(templ.c_str())))
            return ::testing::AssertionFailure() << "bad JSON in the test: " << templ;
        if (!p11->FindObject(json))
            return ::testing::AssertionFailure() << "FindObject " << templ << ":\n" << logText();
        return ::testing::AssertionSuccess();
    }
    // The labels of the objects found, and their classes.
    std::multiset<std::string> foundLabels()
    {
        std::multiset<std::string> out;
        for (int i = 0; i < json.SizeOfArray(XString("objects")); ++i)
            out.insert(jsonText(json, at("objects", i, "attributes.CKA_CLASS")) + ":"
                       + jsonText(json, at("objects", i, "attributes.CKA_LABEL")));
        return out;
    }

    ClsJsonObject json;
};

} // namespace

TEST_F(ObjectQueryTest, FindAllKeysListsEveryPrivateKeyWithTypeSizeAndUsage)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token));
    ASSERT_TRUE(p11->FindAllKeys(XString(""), json)) << logText();
    ASSERT_EQ(json.SizeOfArray(XString("keys")), token.numKeys());

    std::set<std::string> labels;
    LogNull quiet;
    for (int i = 0; i < token.numKeys(); ++i) {
        const TokenCert& expected = token.byLabel(jsonText(json, at("keys", i, "label")));
        SCOPED_TRACE(expected.label);
        labels.insert(expected.label);
        EXPECT_EQ(jsonText(json, at("keys", i, "keyType")), expected.ec ? "ec" : "rsa");
        EXPECT_EQ(json.IntOf(XString(at("keys", i, "bits").c_str())), expected.bits);
        EXPECT_EQ(jsonText(json, at("keys", i, "curve")), expected.curve);
        EXPECT_EQ(jsonText(json, at("keys", i, "id")), lowerHex(expected.keyId));
        EXPECT_TRUE(json.boolOf(at("keys", i, "usage.sign").c_str(), quiet));
        EXPECT_EQ(json.boolOf(at("keys", i, "usage.decrypt").c_str(), quiet), !expected.ec);
        EXPECT_EQ(json.JsonTypeOf(XString(at("keys", i, "usage.derive").c_str())), ClsJsonObject::kTypeBool);
        EXPECT_FALSE(json.boolOf(at("keys", i, "usage.derive").c_str(), quiet));
        EXPECT_TRUE(json.boolOf(at("keys", i, "sensitive").c_str(), quiet));
        EXPECT_EQ(json.JsonTypeOf(XString(at("keys", i, "extractable").c_str())), ClsJsonObject::kTypeBool);
        EXPECT_FALSE(json.boolOf(at("keys", i, "extractable").c_str(), quiet));
        EXPECT_TRUE(json.boolOf(at("keys", i, "private").c_str(), quiet));
        const auto handle = static_cast<unsigned long>(json.IntOf(XString(at("keys", i, "handle").c_str())));
        EXPECT_TRUE(keySignsFor(token, handle, expected)) << "the listed handle is the key";
    }
    EXPECT_EQ(static_cast<int>(labels.size()), token.numKeys());
}

TEST_F(ObjectQueryTest, FindAllKeysFiltersByKeyType)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token));
    const struct {
        const char* filter;
        const char* keyType;
        int count;
    } cases[] = {{"rsa", "rsa", token.numKeys(false)}, {"ec", "ec", token.numKeys(true)},
                 {" ECDSA ", "ec", token.numKeys(true)}, {"all", nullptr, token.numKeys()},
                 {"dsa", nullptr, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.filter);
        json.Clear();
        ASSERT_TRUE(p11->FindAllKeys(XString(c.filter), json)) << logText();
        ASSERT_EQ(json.SizeOfArray(XString("keys")), c.count);
        for (int i = 0; c.keyType != nullptr && i < c.count; ++i)
            EXPECT_EQ(jsonText(json, at("keys", i, "keyType")), c.keyType);
    }
    EXPECT_FALSE(p11->FindAllKeys(XString("rsa2048"), json));
    EXPECT_TRUE(hasError(*p11, "Unknown key filter: use a key type such as \"rsa\" or \"ec\", or an empty filter for all keys."));
}

TEST_F(ObjectQueryTest, FindAllKeysSeesNoPrivateKeyBeforeTheLogin)
{
    ASSERT_TRUE(openSession(tokens->main(), false));
    ASSERT_TRUE(p11->FindAllKeys(XString(""), json)) << logText();
    EXPECT_EQ(json.JsonTypeOf(XString("keys")), ClsJsonObject::kTypeArray);
    EXPECT_EQ(json.SizeOfArray(XString("keys")), 0);
}

TEST_F(ObjectQueryTest, FindObjectReportsEveryCertificateWithItsAttributes)
{
    const TestToken& token = tokens->main();
    ASSERT_TRUE(openSession(token));
    ASSERT_TRUE(findObject(R"({"class": "certificate"})"));
    ASSERT_EQ(json.IntOf(XString("count")), static_cast<long long>(token.certs.size()));
    ASSERT_EQ(json.SizeOfArray(XString("objects")), static_cast<int>(token.certs.size()));
    for (int i = 0; i < static_cast<int>(token.certs.size()); ++i) {
        const TokenCert& expected = token.byLabel(jsonText(json, at("objects", i, "attributes.CKA_LABEL")));
        SCOPED_TRACE(expected.label);
        EXPECT_GT(json.IntOf(XString(at("objects", i, "handle").c_str())), 0);
        EXPECT_EQ(jsonText(json, at("objects", i, "attributes.CKA_CLASS")), "certificate");
        EXPECT_EQ(jsonText(json, at("objects", i, "attributes.CKA_CERTIFICATE_TYPE")), "x509");
        EXPECT_EQ(jsonText(json, at("objects", i, "attributes.CKA_VALUE")), lowerHex(expected.der));
        EXPECT_EQ(jsonText(json, at("objects", i, "attributes.CKA_SUBJECT")), lowerHex(subjectDerOf(expected.der)));
        EXPECT_EQ(jsonText(json, at("objects", i, "attributes.CKA_ID")), lowerHex(expected.certId));
    }
}

TEST_F(ObjectQueryTest, FindObjectFindsAKeyByIdAndItsHandleSigns)
{
    const TestToken& token = tokens->main();
    const TokenCert& expected = token.byLabel("ec384-id");
    ASSERT_TRUE(openSession(token));
    ASSERT_TRUE(findObject(R"({"class": "privateKey", "id": "A1B2"})"));
    ASSERT_EQ(json.IntOf(XString("count")), 1);
    EXPECT_EQ(jsonText(json, "objects[0].attributes.CKA_LABEL"), expected.label);
    EXPECT_EQ(jsonText(json, "objects[0].attributes.CKA_KEY_TYPE"), "ec");
    EXPECT_EQ(jsonText(json, "objects[0].attributes.CKA_EC_PARAMS"), ecParamsHex(expected.curve));
    EXPECT_EQ(jsonText(json, "objects[0].attributes.CKA_SENSITIVE"), "true");
    EXPECT_EQ(json.JsonTypeOf(XString("objects[0].attributes.CKA_VALUE")), ClsJsonObject::kTypeMissing);
    const auto handle = static_cast<unsigned long>(json.IntOf(XString("objects[0].handle")));
    EXPECT_TRUE(keySignsFor(token, handle, expected));
}

TEST_F(ObjectQueryTest, FindObjectMatchesAnyAttributeByName)
{
    const TestToken& token = tokens->main();
    const TokenCert& byModulus = token.byLabel("rsa3072-modulus");
    const TokenCert& bySubject = token.byLabel("rsa2048-subject");
    ASSERT_TRUE(openSession(token));

    ASSERT_TRUE(findObject(R"({"class": "privateKey", "keyType": "rsa", "attributes": {"CKA_MODULUS": ")"
                           + lowerHex(keyNumber(byModulus.key.get(), OSSL_PKEY_PARAM_RSA_N)) + "\"}}"));
    EXPECT_EQ(foundLabels(), std::multiset<std::string>{"privateKey:rsa3072-modulus"});

    ASSERT_TRUE(findObject(R"({"label": "ec521-id"})"));
    EXPECT_EQ(foundLabels(), (std::multiset<std::string>{"certificate:ec521-id", "privateKey:ec521-id"}));

    ASSERT_TRUE(findObject(R"({"attributes": {"CKA_SUBJECT": ")" + lowerHex(subjectDerOf(bySubject.der)) + "\"}}"));
    EXPECT_EQ(foundLabels(), (std::multiset<std::string>{"certificate:rsa2048-subject", "privateKey:rsa2048-subject"}));

    ASSERT_TRUE(findObject(R"({"class": "privateKey", "attributes": {"CKA_DECRYPT": true}})"));
    EXPECT_EQ(json.IntOf(XString("count")), token.numKeys(false));

    ASSERT_TRUE(findObject(R"({"class": "CKO_CERTIFICATE", "id": "ff"})"));
    EXPECT_EQ(json.IntOf(XString("count")), 0);
    EXPECT_EQ(json.SizeOfArray(XString("objects")), 0);
}
