// Bad input at the public surface: library paths, slot numbers, PINs,
// calls made out of order and malformed requests. Each is refused with its
// own reason in the log, the module is not asked what the library can answer
// itself (or asked once, its answer being the reason), and nothing is left
// behind once the object is gone.
#include "Hardening.h"
#include "SoftHsmToken.h"

#include <openssl/evp.h>

#include <dlfcn.h>

#include <climits>

using namespace p11client;
using namespace p11test;

namespace {

using Act = std::function<bool(ClsPkcs11&)>;

const std::string kLongPin(4096, '7');
const std::string kNotUtf8 = "\xC3\x28\xFF\xFE"; // a broken sequence, then bytes UTF-8 never uses
const std::string kUser = SoftHsmToken::kUserPin, kSo = SoftHsmToken::kSoPin;
const std::string kUserThenNul = kUser + std::string(1, '\0') + "zz"; // the token would take what precedes the NUL

Step step(Act act) { return [act](ClsPkcs11& p, ClsJsonObject&) { return act(p); }; }
const Act initialized = [](ClsPkcs11& p) { return p.Initialize(); };
const Act session = [](ClsPkcs11& p) { return p.Initialize() && p.OpenSession(token().slot, true); };
const Act readOnlySession = [](ClsPkcs11& p) { return p.Initialize() && p.OpenSession(token().slot, false); };
const Act soSession = [](ClsPkcs11& p) { return session(p) && p.Login(0, text(kSo)); };
const Act userSession = [](ClsPkcs11& p) { return p.QuickSession(1, text(kUser)); };
Act logIn(int type, std::string pin) { return [=](ClsPkcs11& p) { return p.Login(type, text(pin)); }; }
Act quickSession(int type, std::string pin) { return [=](ClsPkcs11& p) { return p.QuickSession(type, text(pin)); }; }
Act setPin(std::string from, std::string to) { return [=](ClsPkcs11& p) { return p.SetPin(text(from), text(to)); }; }
Act initPin(std::string pin) { return [=](ClsPkcs11& p) { return p.InitPin(text(pin)); }; }
Act initToken(std::string soPin, int slot = 0) { return [=](ClsPkcs11& p) { return p.InitToken(slot != 0 ? slot : token().slot, text(soPin), text("x")); }; }
// A failure must leave the certificate untouched.
Act findCert(std::string part, std::string value) { return [=](ClsPkcs11& p) { ClsCert c; return p.FindCert(text(part), text(value), c) || !c.get_IsEmpty(); }; }

// Refused with exactly these error lines; the module function the input is
// for is asked once when the first line is its answer, else never.
Scenario refused(std::string name, Act setUp, Act call, const std::string& errors, std::string function, Check also = {}) {
    const bool asked = errors.rfind(function + " returned", 0) == 0;
    return {name, setUp ? step(setUp) : Step{}, step(call), {}, {false, lines(errors), {}, -1, true, false, [=](ClsPkcs11& p, ClsJsonObject& j) {
                EXPECT_TRUE(function.empty() || shim::callCount(function) == (asked ? 1 : 0)) << function << " asked " << shim::callCount(function);
                if (also) also(p, j);
            }}};
}

Check named(const char* tag, const std::string& value) { return [=](ClsPkcs11& p, ClsJsonObject&) { EXPECT_EQ(dataValues(p, tag), Lines{value}); }; }

std::vector<Scenario> badInputs() {
    const std::string empty = "The PIN is empty.|Failed.", nul = "The PIN contains a NUL character.|Failed.";
    const std::string noLibrary = "PKCS11 functions not available", noSession = "No PKCS11 session is open.|Failed.";
    const std::string absent = "No PKCS11 shared library exists at the SharedLibPath.|", notFound = "Function not found|";
    Dl_info libcrypto{}; // a real shared library of the process that is no module
    dladdr(reinterpret_cast<void*>(&EVP_sha256), &libcrypto);
    std::vector<Scenario> cases = {
        refused("Login SO empty", session, logIn(0, ""), "The PIN is empty.", "C_Login"),
        refused("Login user 4 KiB", session, logIn(1, kLongPin), "C_Login returned CKR_PIN_INCORRECT", "C_Login"),
        refused("Login type -1", session, logIn(-1, kUser), "C_Login returned CKR_USER_TYPE_INVALID", "C_Login"),
        refused("SetPin old empty", session, setPin("", "4321"), empty, "C_SetPIN"),
        refused("SetPin new empty", session, setPin(kUser, ""), empty, "C_SetPIN"),
        refused("InitPin empty", soSession, initPin(""), empty, "C_InitPIN"),
        refused("InitToken SO empty", initialized, initToken(""), empty, "C_InitToken"),
        refused("Login context-specific NUL", session, logIn(2, kUserThenNul), "The PIN contains a NUL character.", "C_Login"),
        refused("QuickSession NUL", {}, quickSession(1, kUserThenNul), "The PIN contains a NUL character.", "C_Login"),
        refused("SetPin old NUL", session, setPin(kUserThenNul, "4321"), nul, "C_SetPIN"),
        refused("SetPin new NUL", session, setPin(kUser, kUserThenNul), nul, "C_SetPIN"),
        refused("InitPin NUL", soSession, initPin(kUserThenNul), nul, "C_InitPIN"),
        refused("InitToken SO NUL", initialized, initToken(kSo + std::string(1, '\0')), nul, "C_InitToken"),
        // Calls out of order say what is missing; before a module is loaded nothing reaches one.
        refused("Login before Initialize", {}, logIn(1, kUser), noLibrary, "C_Login"),
        refused("Logout before Initialize", {}, [](ClsPkcs11& p) { return p.Logout(); }, noLibrary, "C_Logout"),
        refused("FindObject before Initialize", {}, [](ClsPkcs11& p) { ClsJsonObject s; return s.updateString("class", "data") && p.FindObject(s); }, noLibrary, "C_FindObjectsInit"),
        refused("FindCert before Initialize", {}, findCert("privateKey", ""), noLibrary + "|Failed.", "C_FindObjectsInit"),
        refused("InitToken before Initialize", {}, initToken(kSo), noLibrary + "|Failed.", "C_InitToken"),
        refused("FindAllCerts before OpenSession", initialized, [](ClsPkcs11& p) { return p.FindAllCerts(); }, noSession, "C_FindObjectsInit"),
        refused("SetPin before OpenSession", initialized, setPin(kUser, "4321"), noSession, "C_SetPIN"),
        refused("InitPin before OpenSession", initialized, initPin("5555"), noSession, "C_InitPIN"),
        refused("InitToken with a session open", session, initToken(kSo), "C_InitToken returned CKR_SESSION_EXISTS|Failed.", "C_InitToken"),
        refused("SO Login while the user is", userSession, logIn(0, kSo), "C_Login returned CKR_USER_ANOTHER_ALREADY_LOGGED_IN", "C_Login"),
        refused("SO Login beside a read-only session", readOnlySession, logIn(0, kSo), "C_Login returned CKR_SESSION_READ_ONLY_EXISTS", "C_Login"),
        refused("SetPin in a read-only session", readOnlySession, setPin(kUser, "4321"), "C_SetPIN returned CKR_SESSION_READ_ONLY|Failed.", "C_SetPIN"),
        // An unknown part is asked of the subject like any attribute name; an empty value matches nothing.
        refused("FindCert no such part", userSession, findCert("nosuchpart", "x"), "Not found.|Failed.", ""),
        refused("FindCert empty CN", userSession, findCert("CN", ""), "Not found.|Failed.", ""),
    };
    // Library paths that name no module, each refused by a loading call; the object stays usable.
    const Act init = initialized, quick = quickSession(1, kUser);
    const Act disc = [](ClsPkcs11& p) { ClsJsonObject json; return p.Discover(false, json); };
    const std::string unset = "The SharedLibPath property is not yet set.|", noLoad = "Failed to load the PKCS11 shared library.|Failed.";
    for (const auto& [path, load, errors] : {std::tuple<std::string, Act, std::string>{"", quick, unset + unset + "Failed to initialize"},
             {"/no/such/module.so", quick, absent + "Failed to initialize"}, {"/tmp", init, absent + "Failed."},
             {"/etc/hostname", disc, "Failed to load PKCS11 shared library.|" + noLoad}, {libcrypto.dli_fname, init, notFound + "Failed."},
             {shim::noFunctionListModulePath(), disc, notFound + noLoad}, {shim::noFunctionListModulePath(), quick, notFound + "Failed to initialize"}})
        cases.push_back(refused("SharedLibPath " + std::to_string(cases.size()), {}, [path, load](ClsPkcs11& p) { return p.put_SharedLibPath(XString(path.c_str())), load(p); },
                                errors, "C_Initialize", [noEntry = errors.starts_with(notFound)](ClsPkcs11& p, ClsJsonObject& j) {
                                    if (noEntry) named("functionName", "C_GetFunctionList")(p, j);
                                    p.put_SharedLibPath(XString(shim::modulePath().c_str()));
                                    EXPECT_TRUE(p.Initialize()) << "the object stays usable";
                                }));
    // Slot numbers no slot has, or the token's (0 here) while another slot's ID has the same low 32 bits:
    // refused before the module is asked to open or initialize anything.
    const std::string ambiguous = "The slot number names more than one slot of the module; the module's slot IDs do not fit in an int.";
    const Act twoSlots = [](ClsPkcs11& p) {
        const CK_SLOT_ID slot = static_cast<std::uint32_t>(token().slot);
        return shim::aliasSlot(CK_SLOT_ID{1} << 32 | slot, slot), p.Initialize();
    };
    for (const auto& [slot, setUp, why] : {std::tuple{-2, initialized, std::string("Did not find desired slot ID.")}, {INT_MAX, initialized, "Did not find desired slot ID."},
             {INT_MIN, initialized, "Did not find desired slot ID."}, {0, twoSlots, ambiguous}}) {
        const std::string shown = slot != 0 ? std::to_string(slot) : "of two slots";
        cases.push_back(refused("OpenSession slot " + shown, setUp, [slot](ClsPkcs11& p) { return p.OpenSession(slot != 0 ? slot : token().slot, true); },
                                why + "|Failed.", "C_OpenSession", slot != 0 ? named("desiredSlotId", std::to_string(slot)) : Check{}));
        cases.push_back(refused("InitToken slot " + shown, setUp, initToken(kSo, slot), why + "|Failed.", "C_InitToken"));
    }
    // A position outside the certificate cache.
    for (int index : {INT_MIN, INT_MAX, 0})
        cases.push_back(refused("GetCert " + std::to_string(index), index == 0 ? Act{} : [](ClsPkcs11& p) { return userSession(p) && p.FindAllCerts(); },
                                [index](ClsPkcs11& p) { ClsCert c; return p.GetCert(index, c) || !c.get_IsEmpty(); },
                                "Error loading certificate object from DER.|Failed.", "C_GetAttributeValue"));
    // Key filters and search templates the library does not know: refused before any search, the caller's object emptied.
    for (const std::string& filter : Lines{"rsa2048", "*", "rsa,ec", std::string(4096, 'r'), kNotUtf8})
        cases.push_back(refused("FindAllKeys filter " + filter.substr(0, 20), userSession, [filter](ClsPkcs11& p) {
            ClsJsonObject keys;
            return keys.updateString("stale", "x"), p.FindAllKeys(text(filter), keys) || keys.jsonTypeOf("stale") != ClsJsonObject::kTypeMissing;
        }, "Unknown key filter: use a key type such as \"rsa\" or \"ec\", or an empty filter for all keys.|Failed.", "C_FindObjectsInit", named("keyFilter", filter)));
    const std::string misfit = "The search template has a value that does not fit its attribute.", unknown = "The search template names an unknown attribute.";
    for (const auto& [json, error, tag, culprit] : {std::tuple{R"({"class": "nosuchclass"})", misfit, "member", "class"},
             {R"({"class": 3.7})", misfit, "member", "class"}, // a JSON type the attribute cannot hold, which raw would widen the search
             {R"({"keyType": "rsa4096"})", misfit, "member", "keyType"}, {R"({"label": 5})", misfit, "member", "label"},
             {R"({"id": "abc"})", misfit, "member", "id"}, {R"({"attributes": {"CKA_SIGN": "yes"}})", misfit, "member", "attributes.CKA_SIGN"},
             {R"({"attributes": {"CKA_MODULUS_BITS": 2e3}})", misfit, "member", "attributes.CKA_MODULUS_BITS"},
             {R"({"attributes": [1]})", "The search template's attributes member is not an object.", "", ""},
             {R"({"attributes": {"0xZZ": true}})", unknown, "attribute", "0xZZ"}, {R"({"attributes": {"CKA_LABEL ": "x"}})", unknown, "attribute", "CKA_LABEL "},
             {R"({"attributes": {"0x1FFFFFFFFFFFFFFFF": true}})", unknown, "attribute", "0x1FFFFFFFFFFFFFFFF"}})
        cases.push_back(refused(std::string("FindObject ") + json, userSession, [doc = std::string(json)](ClsPkcs11& p) {
            ClsJsonObject s;
            return !s.Load(XString(doc.c_str())) || p.FindObject(s) || s.jsonTypeOf("objects") != ClsJsonObject::kTypeMissing;
        }, error, "C_FindObjectsInit", *tag != 0 ? named(tag, culprit) : Check{}));
    // SignHash refuses before the token is asked, and signs nothing. Each starts from a certificate linked to
    // the session; some swap it (for one never linked, or linked to another object) or spoil its link.
    const std::string unlinked = "The certificate is not linked to this PKCS11 session with a private key.|Failed.";
    using Spoil = std::function<bool(ClsPkcs11&, ClsCert&)>;
    const Spoil linked = [](ClsPkcs11&, ClsCert&) { return true; };
    const auto other = std::make_shared<std::unique_ptr<ClsPkcs11>>();
    const struct { const char* hash; std::size_t size; Spoil spoil; std::string errors; } signings[] = {
        {"", 32, linked, "Unsupported hash algorithm: use sha1, sha256, sha384 or sha512.|Failed."},
        {"sha256", 0, linked, "The digest length does not match the hash algorithm.|Failed."},
        {"sha256", 32, [](ClsPkcs11& p, ClsCert& c) { return p.GetCert(1, c); }, unlinked},
        {"sha256", 32, [other](ClsPkcs11&, ClsCert& c) { return *other = objectOn(), userSession(**other) && (*other)->FindCert(text("privateKey"), text(""), c); }, unlinked},
        {"sha256", 32, [](ClsPkcs11& p, ClsCert&) { ClsJsonObject json; return p.put_SharedLibPath(XString("/no/such.so")), !p.Discover(false, json); }, unlinked},
        {"sha256", 32, [](ClsPkcs11& p, ClsCert&) { return p.CloseSession(); }, noSession}};
    for (const auto& row : signings) {
        const auto cert = std::make_shared<ClsCert>();
        cases.push_back(refused("SignHash " + std::to_string(cases.size()), [=](ClsPkcs11& p) {
            return userSession(p) && p.FindAllCerts() && p.FindCert(text("privateKey"), text(""), *cert) && row.spoil(p, *cert);
        }, [=](ClsPkcs11& p) {
            DataBuffer digest, signature;
            return digest.resize(row.size), p.SignHash(*cert, XString(row.hash), digest, signature) || signature.getSize() != 0;
        }, row.errors, "C_SignInit", [other](ClsPkcs11&, ClsJsonObject&) { other->reset(); }));
    }
    return cases;
}

class BadInput : public HardeningTest, public ::testing::WithParamInterface<Scenario> {};

} // namespace

TEST_P(BadInput, IsRefusedWithItsReason) { play(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Inputs, BadInput, ::testing::ValuesIn(badInputs()), scenarioName);
