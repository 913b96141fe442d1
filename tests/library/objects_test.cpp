// FindAllKeys and FindObject: searches, attribute reads and their JSON.
#include "TestTokens.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/objects.h>

#include <map>
#include <set>

using namespace p11test;

using Labels = std::multiset<std::string>;

class ObjectQueryTest : public TokenTest {
protected:
    // FindObject with a template given as JSON text; the result is in json.
    ::testing::AssertionResult findObject(const std::string& templ)
    {
        json.Clear();
        if (!json.Load(XString(templ.c_str())) || !p11->FindObject(json))
            return ::testing::AssertionFailure() << "FindObject " << templ << ":\n" << logText();
        return ::testing::AssertionSuccess();
    }
    // The members of each element of the json array, joined with ':'.
    Labels column(const std::string& array, const Lines& members)
    {
        Labels out;
        for (int i = 0; i < json.SizeOfArray(XString(array.c_str())); ++i) {
            std::string joined;
            for (const std::string& t : texts(array + "[" + std::to_string(i) + "].", members))
                joined += (joined.empty() ? "" : ":") + t;
            out.insert(joined);
        }
        return out;
    }
    long long count() { return json.IntOf(XString("count")); }
};

// A key without CKA_UNWRAP (as the shim tells) gets a second read for that
// alone; an attribute its key type cannot have is not asked again.
TEST_F(ObjectQueryTest, FindAllKeysDescribesEveryPrivateKeyAfterTheLoginAndFindObjectMatchesTheTemplate)
{
    const auto keyLabels = [&](const char* filter) {
        EXPECT_TRUE(p11->FindAllKeys(XString(filter), json)) << logText();
        EXPECT_EQ(json.JsonTypeOf(XString("keys")), ClsJsonObject::kTypeArray);
        return column("keys", {"label"});
    };
    const TestToken& token = tokens.main;
    ASSERT_TRUE(openSession(token.slot, false));
    EXPECT_EQ(keyLabels(""), Labels{}) << "private keys show after the login";
    ASSERT_TRUE(p11->Login(1, XString(SoftHsmToken::kUserPin)));
    const CK_OBJECT_HANDLE rsaKey = handles(token.slot, CKO_PRIVATE_KEY, "rsa2048-id").at(0),
                           ecKey = handles(token.slot, CKO_PRIVATE_KEY, "ec256-id").at(0);
    for (CK_OBJECT_HANDLE key : {rsaKey, ecKey})
        shim::overrideAttribute(key, CKA_UNWRAP, std::nullopt);
    shim::clearCalls();
    const Labels rsa{"rsa2048-id", "rsa3072-id", "rsa2048-subject", "rsa3072-modulus"}, ec{"ec256-id", "ec384-id", "ec521-id"};
    Labels all = rsa;
    all.insert(ec.begin(), ec.end());
    EXPECT_EQ(keyLabels(""), all);
    std::map<CK_OBJECT_HANDLE, std::vector<std::vector<CK_ATTRIBUTE_TYPE>>> reads;
    for (const auto& [object, types] : recorded([](const shim::Call& c) { return std::pair{c.object, c.attributeTypes}; }, "C_GetAttributeValue"))
        reads[object].push_back(types);
    const std::vector<CK_ATTRIBUTE_TYPE> unwrapAlone{CKA_UNWRAP}; // not CKA_EC_PARAMS for RSA, nor CKA_MODULUS for EC
    EXPECT_TRUE(reads[rsaKey].size() == 2 && reads[rsaKey].back() == unwrapAlone && reads[ecKey].back() == unwrapAlone);
    for (int i = 0; i < json.SizeOfArray(XString("keys")); ++i) {
        const std::string k = "keys[" + std::to_string(i) + "].";
        const TokenCert& c = token[text(k + "label")];
        const auto handle = static_cast<CK_OBJECT_HANDLE>(json.IntOf(XString((k + "handle").c_str())));
        EXPECT_TRUE(handles(token.slot, CKO_PRIVATE_KEY, c.label) == std::vector{handle}
                    && json.JsonTypeOf(XString((k + "extractable").c_str())) == ClsJsonObject::kTypeBool) << c.label;
        EXPECT_EQ(texts(k, {"keyType", "bits", "curve", "id", "usage.sign", "usage.decrypt", "usage.unwrap", "usage.derive", "sensitive",
                            "extractable", "private"}),
                  (Lines{c.ec() ? "ec" : "rsa", std::to_string(c.bits), c.ec() ? OBJ_nid2sn(EC_curve_nist2nid(c.curve)) : "<none>",
                         lowerHex(c.keyId), "true", c.ec() ? "false" : "true", handle == rsaKey || handle == ecKey ? "<none>" : "true",
                         "false", "true", "false", "true"})) << c.label;
    }
    for (const auto& [filter, expected] : {std::pair{"rsa", rsa}, {" EC ", ec}, {" ECDSA ", ec}, {"dsa", Labels{}}, {"all", all}})
        EXPECT_EQ(keyLabels(filter), expected) << filter;

    ASSERT_TRUE(findObject(R"({"class": "certificate"})") && count() == static_cast<long long>(token.certs.size()));
    for (int i = 0; i < count(); ++i) {
        const std::string at = "objects[" + std::to_string(i) + "].attributes.";
        const TokenCert& c = token[text(at + "CKA_LABEL")];
        EXPECT_EQ(texts(at, {"CKA_CLASS", "CKA_CERTIFICATE_TYPE", "CKA_VALUE", "CKA_SUBJECT", "CKA_ID"}),
                  (Lines{"certificate", "x509", lowerHex(c.der), lowerHex(subjectDerOf(c.der)), lowerHex(c.certId)}));
    }
    ASSERT_TRUE(findObject(R"({"class": "privateKey", "id": "A1B2"})") && count() == 1);
    EXPECT_EQ(static_cast<CK_OBJECT_HANDLE>(json.IntOf(XString("objects[0].handle"))), handles(token.slot, CKO_PRIVATE_KEY, "ec384-id").at(0));
    EXPECT_EQ(texts("objects[0].attributes.", {"CKA_LABEL", "CKA_KEY_TYPE", "CKA_EC_PARAMS", "CKA_SENSITIVE", "CKA_VALUE"}),
              (Lines{"ec384-id", "ec", "06052b81040022", "true", "<none>"})) << "a sensitive value is left out";
    EXPECT_EQ(text("id"), "A1B2") << "the search stays in the object";
    const std::string modulus = lowerHex(keyNumber(token["rsa3072-modulus"].key.get(), OSSL_PKEY_PARAM_RSA_N));
    const std::string subject = lowerHex(subjectDerOf(token["rsa2048-subject"].der));
    const std::pair<std::string, Labels> cases[] = {
        {R"({"class": "privateKey", "keyType": "rsa", "attributes": {"CKA_MODULUS": ")" + modulus + "\"}}", {"privateKey:rsa3072-modulus"}},
        {R"({"label": "ec521-id"})", {"certificate:ec521-id", "privateKey:ec521-id"}},
        {R"({"attributes": {"CKA_SUBJECT": ")" + subject + "\"}}", {"certificate:rsa2048-subject", "privateKey:rsa2048-subject"}},
        {R"({"attributes": {"CKA_SIGN": true}, "id": "01"})", {"privateKey:rsa2048-id"}},
        {R"({"class": "CKO_CERTIFICATE", "id": "ff"})", {}},
        {R"({"class": "privateKey", "attributes": {"CKA_DECRYPT": true}})",
         {"privateKey:rsa2048-id", "privateKey:rsa3072-id", "privateKey:rsa2048-subject", "privateKey:rsa3072-modulus"}},
    };
    for (const auto& [templ, expected] : cases) {
        ASSERT_TRUE(findObject(templ));
        EXPECT_EQ(column("objects", {"attributes.CKA_CLASS", "attributes.CKA_LABEL"}), expected) << templ;
        EXPECT_EQ(count(), static_cast<long long>(expected.size()));
    }
}

// Queries need a session. One read with buffers of typical sizes when the
// object has every attribute within them; then the lengths of the missing
// ones alone; then the values that were larger than their buffer. A large
// search is read in batches to its end.
TEST_F(ObjectQueryTest, AttributesComeInOnePresizedReadAndLargeSearchesInBatchesToTheEnd)
{
    ASSERT_TRUE(p11->Initialize());
    EXPECT_TRUE(!p11->FindAllKeys(XString(""), json) && hasError(*p11, "No PKCS11 session is open."));
    EXPECT_TRUE(!p11->FindObject(json) && hasError(*p11, "No PKCS11 session is open."));

    const std::string longLabel(300, 'L');
    ASSERT_TRUE(onScratch([&](const TokenSession& s) {
        for (const std::string& label : {std::string("complete"), longLabel, std::string("incomplete"), std::string("big")})
            createObject(s, {{CKA_CLASS, ulongValue(CKO_DATA)}, {CKA_TOKEN, boolValue(true)}, {CKA_PRIVATE, boolValue(false)},
                             {CKA_LABEL, textValue(label)}, {CKA_APPLICATION, textValue("app")}, {CKA_OBJECT_ID, {0x06, 0x01, 0x2A}},
                             {CKA_VALUE, Bytes(label == "big" ? 200 * 1024 : 1, 9)}});
    }));
    shim::overrideAttribute(handles(tokens.scratch, CKO_DATA, "incomplete").at(0), CKA_VALUE, std::nullopt);
    const std::tuple<std::string, int, std::string> cases[] = {
        {"complete", 1, "09"}, {"incomplete", 2, "<none>"}, {longLabel, 3, "09"}, {"big", 2, "<none>"}};
    for (const auto& [label, reads, value] : cases) {
        shim::clearCalls();
        ASSERT_TRUE(findObject(R"({"class": "data", "label": ")" + label + "\"}") && count() == 1);
        EXPECT_EQ(shim::callCount("C_GetAttributeValue"), reads) << label;
        EXPECT_EQ(texts("objects[0].attributes.", {"CKA_VALUE", "CKA_LABEL", "CKA_OBJECT_ID", "CKA_APPLICATION"}),
                  (Lines{value, label, "06012a", "app"}));
    }
    EXPECT_TRUE(hasInfo(*p11, "Ignoring CKA_VALUE: the module reports an impossible length."));
    const Lines order = recorded(&shim::Call::function);
    EXPECT_LT(std::ranges::find(order, "C_FindObjectsFinal"), std::ranges::find(order, "C_GetAttributeValue"))
        << "the search ends before attributes are read";
    EXPECT_EQ(shim::activeFindOperations(), 0u);

    const TokenSession holder = tokens.session(tokens.scratch); // its session objects live as long as it
    for (int i = 0; i < 1100; ++i)
        createObject(holder, {{CKA_CLASS, ulongValue(CKO_DATA)}, {CKA_LABEL, textValue("many")}});
    shim::clearCalls();
    ASSERT_TRUE(findObject(R"({"class": "data", "label": "many"})"));
    EXPECT_EQ(count(), 1100);
    EXPECT_EQ(shim::callCount("C_FindObjects"), 4) << "512 + 512 + 76, then the empty batch";
}
