// Bad input at the public surface: library paths, slot numbers, PINs, ATRs,
// calls made out of order and malformed requests. Each is refused with its
// own reason in the log, the module is not asked what the library can answer
// itself, and nothing is left behind once the object is gone.
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "ExtPtrArray.h"
#include "HardeningFixture.h"

#include <openssl/evp.h>

#include <dlfcn.h>

#include <climits>
#include <functional>

using namespace p11client;
using namespace p11test;

namespace {

using Lines = std::vector<std::string>;
using Call = std::function<bool(ClsPkcs11&)>;

constexpr int kSlotId = static_cast<int>(HardeningToken::kSlot);
const std::string kUserPin = HardeningToken::kUserPin;
const std::string kSoPin = HardeningToken::kSoPin;
const std::string kLongPin(4096, '7');
const std::string kNotUtf8 = "\xC3\x28\xFF\xFE"; // a broken sequence, then bytes UTF-8 never uses
const std::string kUserPinThenNul = kUserPin + std::string(1, '\0') + "zz"; // the token would take what precedes the NUL

// Every byte of s, a NUL inside included.
XString text(const std::string& s)
{
    XString x;
    x.setFromUtf8(std::string_view(s));
    return x;
}

// A real shared library of the process that is no PKCS11 module.
std::string libcryptoPath()
{
    Dl_info info{};
    return dladdr(reinterpret_cast<void*>(&EVP_sha256), &info) != 0 ? info.dli_fname : "";
}

class BadInput : public HardeningTest {
protected:
    void TearDown() override
    {
        other.reset();
        destroyAndExpectNothingLeft();
        HardeningTest::TearDown();
    }

    // A fresh object on the mock, brought to a state by the set-up call.
    void restart(const Call& setUp = {})
    {
        other.reset();
        p11 = makeObject(mock::modulePath());
        if (setUp) {
            ASSERT_TRUE(setUp(*p11)) << "the honest set-up failed";
        }
        mock::clearCalls();
    }

    // Refused with exactly these error lines, every log context closed.
    void expectRefused(bool ok, const Lines& expected)
    {
        EXPECT_FALSE(ok);
        EXPECT_EQ(errors(*p11), expected);
        EXPECT_EQ(p11->m_log.depth(), 0);
    }

    std::unique_ptr<ClsPkcs11> other; // a second object on the same token
};

bool initialized(ClsPkcs11& p) { return p.Initialize(); }
bool session(ClsPkcs11& p) { return p.Initialize() && p.OpenSession(kSlotId, true); }
bool readOnlySession(ClsPkcs11& p) { return p.Initialize() && p.OpenSession(kSlotId, false); }
bool soSession(ClsPkcs11& p) { return session(p) && p.Login(0, text(kSoPin)); }
bool userSession(ClsPkcs11& p) { return p.QuickSession(1, text(kUserPin)); }

// The public calls as values, for the tables.
Call logIn(int type, std::string pin) { return [=](ClsPkcs11& p) { return p.Login(type, text(pin)); }; }
Call quickSession(int type, std::string pin) { return [=](ClsPkcs11& p) { return p.QuickSession(type, text(pin)); }; }
Call setPin(std::string from, std::string to) { return [=](ClsPkcs11& p) { return p.SetPin(text(from), text(to)); }; }
Call initPin(std::string pin) { return [=](ClsPkcs11& p) { return p.InitPin(text(pin)); }; }
Call initToken(std::string soPin) { return [=](ClsPkcs11& p) { return p.InitToken(kSlotId, text(soPin), text("x")); }; }
bool logout(ClsPkcs11& p) { return p.Logout(); }
bool closeSession(ClsPkcs11& p) { return p.CloseSession(); }
bool findAllCerts(ClsPkcs11& p) { return p.FindAllCerts(); }
bool discover(ClsPkcs11& p) { ClsJsonObject json; return p.Discover(false, json); }
bool findAllKeys(ClsPkcs11& p) { ClsJsonObject keys; return p.FindAllKeys(XString(""), keys); }
bool findDataObjects(ClsPkcs11& p)
{
    ClsJsonObject search;
    return search.updateString("class", "data") && p.FindObject(search);
}
// A failure must leave the certificate untouched.
Call findCert(std::string part, std::string value)
{
    return [=](ClsPkcs11& p) {
        ClsCert cert;
        return p.FindCert(text(part), text(value), cert) || !cert.get_IsEmpty();
    };
}

} // namespace

// --- the library path ------------------------------------------------------

TEST_F(BadInput, SharedLibPathThatIsNoModuleIsRefusedByEveryLoadingCall)
{
    struct Loader {
        const char* name;
        Call call;
        Lines tail; // what the call adds to the loader's reason
    };
    const Loader init{"Initialize", initialized, {"Failed."}};
    const Loader disc{"Discover", discover, {"Failed to load the PKCS11 shared library.", "Failed."}};
    const Loader quick{"QuickSession", quickSession(1, kUserPin), {"Failed to initialize"}};
    const std::string overlong = "/tmp/" + std::string(5000, 'x') + ".so";
    const Lines absent = {"No PKCS11 shared library exists at the SharedLibPath."};
    const Lines notElf = {"Failed to load PKCS11 shared library."};
    const Lines noEntry = {"Function not found"};
    const Lines noList = {"PKCS11 functions not available"};
    const Lines notSet(2, "The SharedLibPath property is not yet set."); // the path, then its bare name
    const struct {
        std::string path;
        const Loader& load;
        Lines reason;
    } cases[] = {
        {"", quick, notSet},
        {"/no/such/module.so", quick, absent},
        {"/tmp", init, absent},
        {"/tmp", quick, absent},
        {overlong, init, absent},
        {overlong, quick, absent},
        {"/etc/hostname", disc, notElf},
        {"/etc/hostname", quick, notElf},
        {libcryptoPath(), init, noEntry},
        {libcryptoPath(), disc, noEntry},
        {libcryptoPath(), quick, noEntry},
        {mock::noFunctionListModulePath(), disc, noEntry}, {mock::noFunctionListModulePath(), quick, noEntry},
        {mock::nullFunctionListModulePath(), disc, noList}, {mock::nullFunctionListModulePath(), quick, noList},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path.substr(0, 60) + " " + c.load.name);
        restart();
        setPath(c.path);
        Lines expected = c.reason;
        expected.insert(expected.end(), c.load.tail.begin(), c.load.tail.end());
        expectRefused(c.load.call(*p11), expected);
        if (c.reason == noEntry) {
            EXPECT_EQ(dataValues(*p11, "functionName"), Lines{"C_GetFunctionList"});
        }
        EXPECT_FALSE(mock::initialized());
        setPath(mock::modulePath());
        EXPECT_TRUE(p11->Initialize()) << "the object stays usable";
    }
}

// --- slot numbers ------------------------------------------------------------

TEST_F(BadInput, OpenSessionOnASlotNumberNoSlotHas)
{
    mock::addSlot(7, mock::SlotSpec{.token = std::nullopt});
    for (int slot : {-2, INT_MAX, INT_MIN}) {
        SCOPED_TRACE(slot);
        restart(initialized);
        expectRefused(p11->OpenSession(slot, true), {"Did not find desired slot ID.", "Failed."});
        EXPECT_EQ(dataValues(*p11, "desiredSlotId"), Lines{std::to_string(slot)});
        EXPECT_EQ(mock::callCount("C_OpenSession"), 0);
    }
}

TEST_F(BadInput, InitTokenOnASlotNumberNoTokenHasNamesTheSlotAsA32BitValue)
{
    mock::addSlot(7, mock::SlotSpec{.token = std::nullopt});
    const struct {
        int slot;
        CK_SLOT_ID asked;
        const char* rv;
    } cases[] = {{-2, 0xFFFFFFFEul, "CKR_SLOT_ID_INVALID"}, {INT_MAX, 0x7FFFFFFFul, "CKR_SLOT_ID_INVALID"},
                 {INT_MIN, 0x80000000ul, "CKR_SLOT_ID_INVALID"}, {7, 7, "CKR_TOKEN_NOT_PRESENT"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.slot);
        restart(initialized);
        expectRefused(p11->InitToken(c.slot, text(kSoPin), XString("x")),
                      {std::string("C_InitToken returned ") + c.rv, "Failed."});
        const auto calls = mock::calls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].slot, c.asked);
        EXPECT_EQ(mock::tokenLabel(HardeningToken::kSlot), "Mock Token");
    }
}

// --- PINs ----------------------------------------------------------------------

// An empty PIN never reaches a token without a PIN pad, nor does a PIN with a
// NUL inside; any other PIN goes to the module once, byte for byte, and its
// answer is the reason.
TEST_F(BadInput, PinsTheTokenCannotTake)
{
    const Lines empty = {"The PIN is empty.", "Failed."};
    const Lines nul = {"The PIN contains a NUL character."};
    const Lines nulFailed = {"The PIN contains a NUL character.", "Failed."};
    const Lines loginRefused = {"C_Login returned CKR_PIN_INCORRECT"};
    const Lines quickRefused = {"C_Login returned CKR_PIN_INCORRECT", "Failed to login."};
    const Lines badType = {"C_Login returned CKR_USER_TYPE_INVALID"};
    const Lines setRefused = {"C_SetPIN returned CKR_PIN_INCORRECT", "Failed."};
    const Lines initTokenRefused = {"C_InitToken returned CKR_PIN_INCORRECT", "Failed."};
    const struct {
        const char* name;
        Call setUp;
        Call call;
        const char* function;
        Lines errors;
    } cases[] = {
        {"Login SO empty", session, logIn(0, ""), "C_Login", {"The PIN is empty."}},
        {"Login user 4 KiB", session, logIn(1, kLongPin), "C_Login", loginRefused},
        {"Login SO 4 KiB", session, logIn(0, kLongPin), "C_Login", loginRefused},
        {"Login user not UTF-8", session, logIn(1, kNotUtf8), "C_Login", loginRefused},
        {"Login SO not UTF-8", session, logIn(0, kNotUtf8), "C_Login", loginRefused},
        {"Login type -1", session, logIn(-1, kUserPin), "C_Login", badType},
        {"Login type 3", session, logIn(3, kUserPin), "C_Login", badType},
        {"Login type 99", session, logIn(99, kUserPin), "C_Login", badType},
        {"QuickSession user 4 KiB", {}, quickSession(1, kLongPin), "C_Login", quickRefused},
        {"QuickSession SO 4 KiB", {}, quickSession(0, kLongPin), "C_Login", quickRefused},
        {"QuickSession not UTF-8", {}, quickSession(1, kNotUtf8), "C_Login", quickRefused},
        {"SetPin old empty", session, setPin("", "4321"), "C_SetPIN", empty},
        {"SetPin new empty", session, setPin(kUserPin, ""), "C_SetPIN", empty},
        {"SetPin old 4 KiB", session, setPin(kLongPin, "4321"), "C_SetPIN", setRefused},
        {"SetPin old not UTF-8", session, setPin(kNotUtf8, "4321"), "C_SetPIN", setRefused},
        {"SetPin new 4 KiB", session, setPin(kUserPin, kLongPin), "C_SetPIN",
         {"C_SetPIN returned CKR_PIN_LEN_RANGE", "Failed."}},
        {"InitPin empty", soSession, initPin(""), "C_InitPIN", empty},
        {"InitPin 4 KiB", soSession, initPin(kLongPin), "C_InitPIN",
         {"C_InitPIN returned CKR_PIN_LEN_RANGE", "Failed."}},
        {"InitToken SO 4 KiB", initialized, initToken(kLongPin), "C_InitToken", initTokenRefused},
        {"InitToken SO not UTF-8", initialized, initToken(kNotUtf8), "C_InitToken", initTokenRefused},
        {"InitToken SO empty", initialized, initToken(""), "C_InitToken", empty},
        {"Login user NUL", session, logIn(1, kUserPinThenNul), "C_Login", nul},
        {"Login context-specific NUL", session, logIn(2, kUserPinThenNul), "C_Login", nul},
        {"QuickSession NUL", {}, quickSession(1, kUserPinThenNul), "C_Login", nul},
        {"SetPin old NUL", session, setPin(kUserPinThenNul, "4321"), "C_SetPIN", nulFailed},
        {"SetPin new NUL", session, setPin(kUserPin, kUserPinThenNul), "C_SetPIN", nulFailed},
        {"InitPin NUL", soSession, initPin(kUserPinThenNul), "C_InitPIN", nulFailed},
        {"InitToken SO NUL", initialized, initToken(kSoPin + std::string(1, '\0')), "C_InitToken", nulFailed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        restart(c.setUp);
        expectRefused(c.call(*p11), c.errors);
        const bool refusedHere = c.errors.front() == empty.front() || c.errors.front() == nul.front();
        EXPECT_EQ(mock::callCount(c.function), refusedHere ? 0 : 1);
        EXPECT_EQ(mock::userPin(HardeningToken::kSlot), kUserPin);
        EXPECT_EQ(mock::soPin(HardeningToken::kSlot), kSoPin);
        EXPECT_FALSE(mock::loggedIn(HardeningToken::kSlot, CKU_USER));
    }
}

// --- ATRs ----------------------------------------------------------------------

// Any ATR the database does not hold is an unknown card: false, nothing
// logged, and the outputs of an earlier lookup do not survive.
TEST(BadInputAtr, MalformedAtrIsAnUnknownCard)
{
    const std::string spaced = "3B 89 80 01 4A 43 4F 50 32 34 32 52 32 4A"; // a known card's ATR
    const std::string longHex(4096, 'A');
    const std::string longText(4096, 'Z');
    const char* const cases[] = {"3B8980014A434F5032343252324", "3B8980014A434F50323432523GZZ", spaced.c_str(),
                                 "3B:89:80:01:4A:43:4F:50:32:34:32:52:32:4A", longHex.c_str(), longText.c_str(),
                                 "", " \t\r\n  ", nullptr};
    for (const char* atr : cases) {
        SCOPED_TRACE(atr != nullptr ? std::string(atr).substr(0, 60) : "null");
        StringBuffer name("previous");
        bool readOnly = true;
        ExtPtrArraySb paths;
        paths.appendString("/previous.so");
        _qxLogger log;
        EXPECT_FALSE(ClsPkcs11::CardDataLookupAtr2(atr, name, readOnly, paths, log));
        EXPECT_TRUE(name.isEmpty());
        EXPECT_FALSE(readOnly);
        EXPECT_EQ(paths.getSize(), 0);
        EXPECT_TRUE(linesOfKind(log.entries(), LogEntry::Kind::Error).empty()) << log.renderText();
        EXPECT_EQ(log.depth(), 0);
    }
}

// --- calls out of order ------------------------------------------------------

TEST_F(BadInput, CallsBeforeTheirTimeSayWhatIsMissing)
{
    const Lines noLibrary = {"PKCS11 functions not available"};
    const Lines noLibraryFailed = {"PKCS11 functions not available", "Failed."};
    const Lines noSession = {"No PKCS11 session is open.", "Failed."};
    const struct {
        const char* name;
        Call setUp;
        Call call;
        Lines errors;
    } cases[] = {
        {"Login before Initialize", {}, logIn(1, kUserPin), noLibrary},
        {"Logout before Initialize", {}, logout, noLibrary},
        {"CloseSession before Initialize", {}, closeSession, noLibrary},
        {"FindObject before Initialize", {}, findDataObjects, noLibrary},
        {"FindAllCerts before Initialize", {}, findAllCerts, noLibraryFailed},
        {"FindAllKeys before Initialize", {}, findAllKeys, noLibraryFailed},
        {"FindCert before Initialize", {}, findCert("privateKey", ""), noLibraryFailed},
        {"SetPin before Initialize", {}, setPin(kUserPin, "4321"), noLibraryFailed},
        {"InitPin before Initialize", {}, initPin("5555"), noLibraryFailed},
        {"InitToken before Initialize", {}, initToken(kSoPin), noLibraryFailed},
        {"FindAllCerts before OpenSession", initialized, findAllCerts, noSession},
        {"FindCert before OpenSession", initialized, findCert("CN", "x"), noSession},
        {"SetPin before OpenSession", initialized, setPin(kUserPin, "4321"), noSession},
        {"InitPin before OpenSession", initialized, initPin("5555"), noSession},
        {"InitToken with a session open", session, initToken(kSoPin),
         {"C_InitToken returned CKR_SESSION_EXISTS", "Failed."}},
        {"Logout before Login", session, logout, {"C_Logout returned CKR_USER_NOT_LOGGED_IN"}},
        {"SO Login while the user is", userSession, logIn(0, kSoPin),
         {"C_Login returned CKR_USER_ANOTHER_ALREADY_LOGGED_IN"}},
        {"SO Login beside a read-only session", readOnlySession, logIn(0, kSoPin),
         {"C_Login returned CKR_SESSION_READ_ONLY_EXISTS"}},
        {"SetPin in a read-only session", readOnlySession, setPin(kUserPin, "4321"),
         {"C_SetPIN returned CKR_SESSION_READ_ONLY", "Failed."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        restart(c.setUp);
        expectRefused(c.call(*p11), c.errors);
        if (!c.setUp) {
            EXPECT_TRUE(mock::calls().empty()) << "the module was reached before it was loaded";
        }
        EXPECT_EQ(mock::userPin(HardeningToken::kSlot), kUserPin);
        EXPECT_EQ(mock::tokenLabel(HardeningToken::kSlot), "Mock Token");
    }
}

TEST_F(BadInput, GetCertOutsideTheCache)
{
    for (int index : {INT_MIN, INT_MAX, 0}) {
        SCOPED_TRACE(index);
        restart(index == 0 ? Call{} : Call([](ClsPkcs11& p) { return userSession(p) && p.FindAllCerts(); }));
        ClsCert cert;
        expectRefused(p11->GetCert(index, cert), {"Error loading certificate object from DER.", "Failed."});
        EXPECT_TRUE(cert.get_IsEmpty());
    }
}

// An unknown part is asked of the subject like any attribute name; an empty
// value matches no certificate.
TEST_F(BadInput, FindCertWithAPartOrValueNoCertificateHas)
{
    const std::pair<const char*, const char*> cases[] = {
        {"nosuchpart", "x"}, {"no such part", ""}, {"CN", ""},       {"serial", ""},    {"thumbprint", ""},
        {"subjectDN", ""},   {"issuerCN", ""},     {"keyusage", ""}, {"policyoid", ""},
    };
    for (const auto& [part, value] : cases) {
        SCOPED_TRACE(std::string(part) + "=" + value);
        restart(userSession);
        expectRefused(findCert(part, value)(*p11), {"Not found.", "Failed."});
    }
}

// --- malformed requests --------------------------------------------------------

TEST_F(BadInput, SignHashRefusesBeforeTheTokenIsAsked)
{
    const Lines badHash = {"Unsupported hash algorithm: use sha1, sha256, sha384 or sha512.", "Failed."};
    const Lines badLength = {"The digest length does not match the hash algorithm.", "Failed."};
    const Lines unlinked = {"The certificate is not linked to this PKCS11 session with a private key.", "Failed."};
    // Each case starts from a certificate linked to the session; some swap it or spoil its link.
    const struct {
        const char* name;
        const char* hash;
        std::size_t digestSize;
        std::function<void(ClsCert&)> spoil;
        Lines errors;
    } cases[] = {
        {"empty hash name", "", 32, {}, badHash},
        {"sha224", "sha224", 28, {}, badHash},
        {"blank inside", "sha 256", 32, {}, badHash},
        {"sha3", "sha3-256", 32, {}, badHash},
        {"signature algorithm", "sha256WithRSA", 32, {}, badHash},
        {"empty digest", "sha256", 0, {}, badLength},
        {"one byte short", "sha256", 31, {}, badLength},
        {"one byte over", "sha256", 33, {}, badLength},
        {"sha512 length", "sha256", 64, {}, badLength},
        {"4 KiB digest", "sha512", 4096, {}, badLength},
        {"cache certificate never linked", "sha256", 32, [&](ClsCert& c) { ASSERT_TRUE(p11->GetCert(1, c)); },
         unlinked},
        {"linked to another object", "sha256", 32,
         [&](ClsCert& c) {
             other = makeObject(mock::modulePath());
             ASSERT_TRUE(userSession(*other) && other->FindCert(XString("privateKey"), XString(""), c));
         },
         unlinked},
        {"module unloaded since", "sha256", 32,
         [&](ClsCert&) {
             setPath("/no/such/module.so");
             ASSERT_FALSE(discover(*p11));
         },
         unlinked},
        {"session closed since", "sha256", 32, [&](ClsCert&) { ASSERT_TRUE(p11->CloseSession()); },
         {"No PKCS11 session is open.", "Failed."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ClsCert cert;
        restart([&](ClsPkcs11& p) { return userSession(p) && p.FindCert(text("privateKey"), text(""), cert); });
        if (c.spoil)
            c.spoil(cert);
        mock::clearCalls();
        DataBuffer digest;
        digest.resize(c.digestSize);
        DataBuffer signature;
        expectRefused(p11->SignHash(cert, XString(c.hash), digest, signature), c.errors);
        EXPECT_EQ(mock::callCount("C_SignInit"), 0);
        EXPECT_EQ(signature.getSize(), 0u);
    }
}

TEST_F(BadInput, FindObjectRefusesATemplateItCannotBuild)
{
    const char* const misfit = "The search template has a value that does not fit its attribute.";
    const char* const unknown = "The search template names an unknown attribute.";
    const char* const notAnObject = "The search template's attributes member is not an object.";
    const struct {
        const char* json;
        const char* error;
        const char* tag; // the Data line that names the culprit, if any
        const char* culprit;
    } cases[] = {
        {R"({"class": "nosuchclass"})", misfit, "member", "class"},
        {R"({"class": "CKO_DATA "})", misfit, "member", "class"},
        {R"({"class": -1})", misfit, "member", "class"},
        {R"({"class": null})", misfit, "member", "class"},
        {R"({"class": ["certificate"]})", misfit, "member", "class"},
        {R"({"keyType": "rsa4096"})", misfit, "member", "keyType"},
        {R"({"label": {"text": "x"}})", misfit, "member", "label"},
        {R"({"id": "abc"})", misfit, "member", "id"},
        {R"({"attributes": {"CKA_SIGN": "yes"}})", misfit, "member", "attributes.CKA_SIGN"},
        {R"({"attributes": {"CKA_MODULUS_BITS": "2048"}})", misfit, "member", "attributes.CKA_MODULUS_BITS"},
        {R"({"attributes": {"CKA_CERTIFICATE_TYPE": "pem"}})", misfit, "member", "attributes.CKA_CERTIFICATE_TYPE"},
        // A JSON type the attribute cannot hold, which raw would widen the search.
        {R"({"class": 3.7})", misfit, "member", "class"},
        {R"({"class": true})", misfit, "member", "class"},
        {R"({"label": 5})", misfit, "member", "label"},
        {R"({"label": true})", misfit, "member", "label"},
        {R"({"attributes": {"CKA_SIGN": 1}})", misfit, "member", "attributes.CKA_SIGN"},
        {R"({"attributes": {"CKA_LABEL": 2.5}})", misfit, "member", "attributes.CKA_LABEL"},
        {R"({"attributes": {"CKA_MODULUS_BITS": 2e3}})", misfit, "member", "attributes.CKA_MODULUS_BITS"},
        {R"({"attributes": "CKA_SIGN"})", notAnObject, nullptr, nullptr},
        {R"({"attributes": [1]})", notAnObject, nullptr, nullptr},
        {R"({"attributes": {"0x": true}})", unknown, "attribute", "0x"},
        {R"({"attributes": {"0xZZ": true}})", unknown, "attribute", "0xZZ"},
        {R"({"attributes": {"0x1FFFFFFFFFFFFFFFF": true}})", unknown, "attribute", "0x1FFFFFFFFFFFFFFFF"},
        {R"({"attributes": {"": true}})", unknown, "attribute", ""},
        {R"({"attributes": {"CKA_LABEL ": "x"}})", unknown, "attribute", "CKA_LABEL "},
    };
    restart(userSession);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        ClsJsonObject search;
        ASSERT_TRUE(search.Load(XString(c.json)));
        mock::clearCalls();
        expectRefused(p11->FindObject(search), {c.error});
        if (c.tag != nullptr) {
            EXPECT_EQ(dataValues(*p11, c.tag), Lines{c.culprit});
        }
        EXPECT_EQ(mock::callCount("C_FindObjectsInit"), 0);
        EXPECT_EQ(search.jsonTypeOf("objects"), ClsJsonObject::kTypeMissing);
    }
}

TEST_F(BadInput, FindAllKeysRefusesAFilterItDoesNotKnow)
{
    restart(userSession);
    const Lines filters = {"rsa2048", "*", "rsa,ec", "CKO_PRIVATE_KEY", std::string(4096, 'r'), kNotUtf8};
    for (const std::string& filter : filters) {
        SCOPED_TRACE(filter.substr(0, 40));
        ClsJsonObject keys;
        keys.updateString("stale", "value");
        mock::clearCalls();
        expectRefused(p11->FindAllKeys(text(filter), keys),
                      {"Unknown key filter: use a key type such as \"rsa\" or \"ec\", or an empty filter for all keys.", "Failed."});
        EXPECT_EQ(dataValues(*p11, "keyFilter"), Lines{filter});
        EXPECT_EQ(keys.jsonTypeOf("stale"), ClsJsonObject::kTypeMissing);
        EXPECT_EQ(mock::callCount("C_FindObjectsInit"), 0);
    }
}
