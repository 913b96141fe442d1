// Every kind of misbehaviour of a module, at every public call where it can
// strike: the result, the exact error lines, and nothing left behind (no
// session, search or use of the module once the object is gone).
#include "HardeningFixture.h"
#include "PublicCalls.h"

#include <functional>

using namespace p11client;
using namespace p11test;

namespace {

struct Expected {
    Expected() = default;
    Expected(bool result_, std::vector<std::string> errors_, std::vector<std::string> infos_ = {}, int numCerts_ = -1,
             bool finalized_ = true, bool searchLeftOpen_ = false)
        : result(result_), errors(std::move(errors_)), infos(std::move(infos_)), numCerts(numCerts_),
          finalized(finalized_), searchLeftOpen(searchLeftOpen_)
    {
    }

    bool result = false;
    std::vector<std::string> errors; // exactly these, in order
    std::vector<std::string> infos;  // these among the information lines
    int numCerts = -1;               // the certificate cache after the call; -1: not checked
    bool finalized = true;           // the module is finalized when the object goes
    bool searchLeftOpen = false;     // the module itself refused to end a search
};

struct Case {
    std::string name;
    PublicCall call;
    std::function<void()> misbehave;
    Expected expected;
    std::function<void(ClsPkcs11&, ClsJsonObject&)> alsoCheck = {};
};

// gtest names the case in its output by this.
void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

std::string withRv(const std::string& line, const std::string& rvName)
{
    std::string out = line;
    if (const auto at = out.find('%'); at != std::string::npos)
        out.replace(at, 1, rvName);
    return out;
}

std::vector<std::string> withRv(const std::vector<std::string>& lines, const std::string& rvName)
{
    std::vector<std::string> out;
    for (const std::string& line : lines)
        out.push_back(withRv(line, rvName));
    return out;
}

std::string textAt(ClsJsonObject& json, const char* path)
{
    StringBuffer sb;
    LogNull log;
    return json.sbOfPathUtf8(path, sb, log) ? sb.toStdString() : "<none>";
}

std::string identifier(std::string text)
{
    for (char& c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    return text;
}

class HostileMatrix : public HardeningTest, public ::testing::WithParamInterface<Case> {};

TEST_P(HostileMatrix, CallSurvivesAndSaysWhy)
{
    const Case& c = GetParam();
    ClsCert linked;
    ASSERT_TRUE(prepare(*p11, c.call, linked)) << "the honest set-up failed";
    mock::clearCalls();
    c.misbehave();
    ClsJsonObject json;
    const bool ok = run(*p11, c.call, linked, json);
    EXPECT_EQ(ok, c.expected.result);
    EXPECT_EQ(errors(*p11), c.expected.errors);
    for (const std::string& info : c.expected.infos) {
        EXPECT_TRUE(hasInfo(*p11, info)) << "missing information line: " << info;
    }
    if (c.expected.numCerts >= 0) {
        EXPECT_EQ(p11->get_NumCerts(), c.expected.numCerts);
    }
    EXPECT_EQ(p11->m_log.depth(), 0);
    XString report;
    EXPECT_TRUE(json.Emit(report)) << "the JSON report cannot be written out";
    if (c.alsoCheck)
        c.alsoCheck(*p11, json);
    EXPECT_EQ(mock::activeFindOperations(), c.expected.searchLeftOpen ? 1u : 0u);
    destroyAndExpectNothingLeft(c.expected.finalized);
}

std::string caseName(const ::testing::TestParamInfo<Case>& info) { return identifier(info.param.name); }

// --- any return value, vendor codes included, with and without garbage in
// the out-parameters --------------------------------------------------------

struct ErrorSite {
    PublicCall call;
    const char* function;
    bool result;
    std::vector<std::string> errors; // % stands for the return value's name
    std::vector<std::string> infos = {};
    int numCerts = -1;
};

const std::vector<ErrorSite>& errorSites()
{
    static const std::vector<ErrorSite> sites = {
        {PublicCall::Initialize, "C_GetFunctionList", false, {"C_GetFunctionList returned %", "Failed."}},
        {PublicCall::Initialize, "C_Initialize", false, {"C_Initialize returned %", "Failed."}},
        {PublicCall::Discover, "C_GetInfo", false, {"C_GetInfo returned %", "Failed to GetInfo", "Failed."}},
        {PublicCall::Discover, "C_GetSlotList", false, {"C_GetSlotList returned %", "Failed to GetSlotsInfo", "Failed."}},
        {PublicCall::Discover, "C_GetSlotInfo", true, {"C_GetSlotInfo returned %"}},
        {PublicCall::Discover, "C_GetTokenInfo", true, {"C_GetTokenInfo returned %"}},
        {PublicCall::OpenSessionAny, "C_GetSlotList", false, {"C_GetSlotList returned %", "Failed to get slot IDs", "Failed."}},
        {PublicCall::OpenSessionAny, "C_OpenSession", false, {"C_OpenSession returned %", "Failed."}},
        {PublicCall::OpenSessionSlot, "C_OpenSession", false, {"C_OpenSession returned %", "Failed."}},
        {PublicCall::OpenSessionSlot, "C_GetSessionInfo", true, {}, {"C_GetSessionInfo returned %"}},
        {PublicCall::QuickSession, "C_Initialize", false, {"C_Initialize returned %", "Failed to initialize"}},
        {PublicCall::QuickSession, "C_OpenSession", false, {"C_OpenSession returned %", "Failed to open session."}},
        {PublicCall::QuickSession, "C_Login", false, {"C_Login returned %", "Failed to login."}},
        {PublicCall::Login, "C_Login", false, {"C_Login returned %"}},
        {PublicCall::Logout, "C_Logout", false, {"C_Logout returned %"}},
        {PublicCall::CloseSession, "C_CloseSession", false, {"C_CloseSession returned %"}},
        {PublicCall::SetPin, "C_SetPIN", false, {"C_SetPIN returned %", "Failed."}},
        {PublicCall::InitPin, "C_InitPIN", false, {"C_InitPIN returned %", "Failed."}},
        {PublicCall::InitToken, "C_InitToken", false, {"C_InitToken returned %", "Failed."}},
        {PublicCall::FindAllCerts, "C_FindObjectsInit", false, {"C_FindObjectsInit returned %", "Failed."}, {}, 0},
        {PublicCall::FindAllCerts, "C_FindObjects", false, {"C_FindObjects returned %", "Failed."}, {}, 0},
        {PublicCall::FindAllCerts, "C_GetAttributeValue", true, {}, {"C_GetAttributeValue returned %"}, 1},
        {PublicCall::FindAllKeys, "C_FindObjectsInit", false, {"C_FindObjectsInit returned %", "Failed."}},
        {PublicCall::FindAllKeys, "C_FindObjects", false, {"C_FindObjects returned %", "Failed."}},
        {PublicCall::FindAllKeys, "C_GetAttributeValue", true, {}, {"C_GetAttributeValue returned %"}},
        {PublicCall::FindObject, "C_FindObjectsInit", false, {"C_FindObjectsInit returned %"}},
        {PublicCall::FindObject, "C_FindObjects", false, {"C_FindObjects returned %"}},
        {PublicCall::FindObject, "C_GetAttributeValue", true, {}, {"C_GetAttributeValue returned %"}},
        {PublicCall::FindCertPrivateKey, "C_FindObjectsInit", false, {"C_FindObjectsInit returned %", "Failed."}},
        {PublicCall::SignHash, "C_SignInit", false, {"C_SignInit returned %", "Failed."}},
        {PublicCall::SignHash, "C_Sign", false, {"C_Sign returned %", "Failed."}},
    };
    return sites;
}

std::vector<Case> returnValueCases()
{
    struct Answer {
        const char* label;
        CK_RV rv;
        const char* name;
        bool garbage;
    };
    const Answer answers[] = {
        {"DeviceError", CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR", false},
        {"Vendor", CKR_VENDOR_DEFINED + 0x42, "CKR_VENDOR_DEFINED+0x42", false},
        {"Unknown", 0x1234, "0x1234", false},
        {"GarbageOut", CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED", true},
    };
    std::vector<Case> cases;
    for (const ErrorSite& site : errorSites())
        for (const Answer& a : answers) {
            const std::string function = site.function;
            const CK_RV rv = a.rv;
            const bool garbage = a.garbage;
            cases.push_back({std::string(nameOf(site.call)) + "_" + function + "_" + a.label, site.call,
                             [=] { garbage ? mock::failWithGarbage(function, rv) : mock::failCall(function, rv); },
                             {site.result, withRv(site.errors, a.name), withRv(site.infos, a.name), site.numCerts}});
        }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(ReturnValues, HostileMatrix, ::testing::ValuesIn(returnValueCases()), caseName);

// --- lies --------------------------------------------------------------------

struct LieRow {
    PublicCall call;
    const char* function;
    mock::Lie lie;
    int times; // -1: at every call
    Expected expected;
    std::function<void(ClsPkcs11&, ClsJsonObject&)> alsoCheck = {};
    CK_ULONG value = ~CK_ULONG{0}; // the lie's value: every attribute, no particular entry
};

std::vector<Case> casesOf(const std::vector<LieRow>& rows)
{
    std::vector<Case> cases;
    for (const LieRow& row : rows) {
        const std::string function = row.function;
        const mock::Lie lie = row.lie;
        const int times = row.times;
        const CK_ULONG value = row.value;
        std::string name = std::string(nameOf(row.call)) + "_" + function + "_" + mock::lieName(lie);
        if (value != ~CK_ULONG{0} && lie != mock::Lie::doneButFailed)
            name += "_" + std::to_string(value);
        cases.push_back({name + (times < 0 ? "_always" : ""), row.call,
                         [=] { mock::lie(function, lie, value, times); }, row.expected, row.alsoCheck});
    }
    return cases;
}

const std::string kSkipped = "Skipping a certificate object whose value is not an X.509 certificate.";
const std::string kTooLong = "Ignoring CKA_VALUE: the module reports more bytes than its buffer holds.";
const std::string kImpossible = "Ignoring CKA_VALUE: the module reports an impossible length.";

void expectArraySize(ClsJsonObject& json, const char* path, int size)
{
    LogNull log;
    EXPECT_EQ(json.sizeOfArray(path, log), size) << path;
}

// What each call makes of a lie told at the first C_GetAttributeValue (the
// first certificate or key read), or at every one.
Expected attributeLieOutcome(PublicCall call, mock::Lie lie, bool always)
{
    using L = mock::Lie;
    const bool over = lie == L::lengthJustOver || lie == L::okLengthOverBuffer || lie == L::length2Pow31
        || lie == L::length2Pow32Minus1;
    const bool unreadable = over || lie == L::lengthUnavailable; // the value never arrives
    const bool certCall = call == PublicCall::FindAllCerts || call == PublicCall::FindCertPrivateKey;
    if (!certCall)
        return {true, {}, always && (lie == L::length2Pow31 || lie == L::length2Pow32Minus1)
                              ? std::vector<std::string>{"Ignoring CKA_ID: the module reports an impossible length."}
                              : std::vector<std::string>{}};
    std::string certError;
    if (lie == L::lengthZero)
        certError = "Certificate DER is empty or too large.";
    else if (lie == L::lengthOne || lie == L::garbageValue)
        certError = "Invalid certificate DER.";
    else if (lie == L::lengthJustUnder)
        certError = "Certificate DER is followed by extra bytes.";
    std::vector<std::string> errorLines;
    if (!certError.empty())
        errorLines.assign(always ? 2 : 1, certError);
    const bool pairing = call == PublicCall::FindCertPrivateKey;
    if (always) {
        std::vector<std::string> infos{kSkipped};
        if (lie == L::length2Pow31 || lie == L::length2Pow32Minus1)
            infos.push_back(kImpossible);
        if (pairing)
            errorLines.insert(errorLines.end(), {"Not found.", "Failed."});
        return {!pairing, errorLines, infos, 0};
    }
    if (unreadable) // the second read, of the lengths and then the values, is honest
        return {true, {}, over ? std::vector<std::string>{kTooLong} : std::vector<std::string>{}, 2};
    if (pairing) { // the RSA certificate is skipped; the EC one pairs
        errorLines.push_back("Certificate key type is ECDSA.");
        return {true, errorLines, {kSkipped, "Found matching PKCS11 ECDSA private key."}, 1};
    }
    return {true, errorLines, {kSkipped}, 1};
}

std::vector<Case> attributeLieCases()
{
    using L = mock::Lie;
    std::vector<LieRow> rows;
    for (PublicCall call : {PublicCall::FindAllCerts, PublicCall::FindAllKeys, PublicCall::FindObject,
                            PublicCall::FindCertPrivateKey}) {
        const char* array = call == PublicCall::FindAllKeys ? "keys" : "objects";
        const auto listsBoth = [call, array](ClsPkcs11&, ClsJsonObject& json) {
            if (call == PublicCall::FindAllKeys || call == PublicCall::FindObject)
                expectArraySize(json, array, 2); // every object found is listed, with what could be read
        };
        for (L lie : {L::lengthZero, L::lengthOne, L::lengthJustUnder, L::lengthJustOver, L::length2Pow31,
                      L::length2Pow32Minus1, L::lengthUnavailable, L::okLengthOverBuffer, L::garbageValue})
            rows.push_back({call, "C_GetAttributeValue", lie, 1, attributeLieOutcome(call, lie, false), listsBoth});
        for (L lie : {L::lengthJustOver, L::length2Pow31, L::length2Pow32Minus1, L::lengthUnavailable,
                      L::okLengthOverBuffer, L::garbageValue})
            rows.push_back({call, "C_GetAttributeValue", lie, -1, attributeLieOutcome(call, lie, true), listsBoth});
    }
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(AttributeLies, HostileMatrix, ::testing::ValuesIn(attributeLieCases()), caseName);

// The error lines that follow a slot list that could not be had.
std::vector<std::string> noSlotList(PublicCall call, const char* why)
{
    if (call == PublicCall::Discover)
        return {why, "Failed to GetSlotsInfo", "Failed."};
    return {why, "Failed to get slot IDs", call == PublicCall::QuickSession ? "Failed to open session." : "Failed."};
}

std::vector<std::string> noSession(PublicCall call, std::vector<std::string> lines)
{
    lines.push_back(call == PublicCall::QuickSession ? "Failed to open session." : "Failed.");
    return lines;
}

std::vector<Case> slotListLieCases()
{
    using L = mock::Lie;
    std::vector<LieRow> rows;
    for (PublicCall call : {PublicCall::Discover, PublicCall::OpenSessionAny, PublicCall::OpenSessionSlot,
                            PublicCall::QuickSession}) {
        const bool discover = call == PublicCall::Discover;
        const bool slotGiven = call == PublicCall::OpenSessionSlot;
        for (L lie : {L::length2Pow31, L::length2Pow32Minus1, L::lengthUnavailable})
            for (int times : {1, -1})
                rows.push_back({call, "C_GetSlotList", lie, times,
                                {false, noSlotList(call, "C_GetSlotList reported more slots than any device has.")}});
        rows.push_back({call, "C_GetSlotList", L::slotsGrow, 1, {true, {}}});
        rows.push_back({call, "C_GetSlotList", L::slotsGrow, -1,
                        {false, noSlotList(call, "The slot list kept changing while it was read.")}});
        rows.push_back({call, "C_GetSlotList", L::slotIdsUnknown, 1, {true, {}}});
        // No slot at all, or only slots that do not exist.
        for (int times : {1, -1}) {
            Expected none{discover, {}};
            if (slotGiven)
                none.errors = {"No slot has a token.", "Did not find desired slot ID.", "Failed."};
            else if (!discover)
                none.errors = noSession(call, {"No slot has a token."});
            rows.push_back({call, "C_GetSlotList", L::slotsShrink, times, none, [discover](ClsPkcs11&, ClsJsonObject& json) {
                                if (discover) {
                                    expectArraySize(json, "slots", 0);
                                }
                            }});
        }
        Expected unknown{discover, {}};
        if (discover)
            unknown.errors = {"C_GetSlotInfo returned CKR_SLOT_ID_INVALID"};
        else if (slotGiven)
            unknown.errors = {"Did not find desired slot ID.", "Failed."};
        else
            unknown.errors = noSession(call, {"C_OpenSession returned CKR_SLOT_ID_INVALID"});
        rows.push_back({call, "C_GetSlotList", L::slotIdsUnknown, -1, unknown, [discover](ClsPkcs11&, ClsJsonObject& json) {
                            if (discover) {
                                EXPECT_EQ(textAt(json, "slots[0].error"), "CKR_SLOT_ID_INVALID");
                            }
                        }});
    }
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(SlotListLies, HostileMatrix, ::testing::ValuesIn(slotListLieCases()), caseName);

std::vector<Case> searchLieCases()
{
    using L = mock::Lie;
    std::vector<LieRow> rows;
    for (PublicCall call : {PublicCall::FindAllCerts, PublicCall::FindAllKeys, PublicCall::FindObject,
                            PublicCall::FindCertPrivateKey}) {
        const auto failing = [call](const char* why) {
            return call == PublicCall::FindObject ? std::vector<std::string>{why}
                                                  : std::vector<std::string>{why, "Failed."};
        };
        const bool certs = call == PublicCall::FindAllCerts || call == PublicCall::FindCertPrivateKey;
        const bool pairing = call == PublicCall::FindCertPrivateKey;
        const std::string unknownHandle = "C_GetAttributeValue returned CKR_OBJECT_HANDLE_INVALID";
        for (int times : {1, -1}) {
            rows.push_back({call, "C_FindObjects", L::moreObjectsThanAsked, times,
                            {false, failing("C_FindObjects reported more objects than it was asked for."), {}, 0}});
            rows.push_back({call, "C_FindObjects", L::unknownHandles, times,
                            {!pairing, pairing ? failing("Not found.") : std::vector<std::string>{}, {unknownHandle}, 0}});
        }
        // One batch of 512 handles that name nothing, then the true ones.
        rows.push_back({call, "C_FindObjects", L::neverEnding, 1, {true, {}, {unknownHandle}, certs ? 2 : 0}});
        rows.push_back({call, "C_FindObjects", L::neverEnding, -1,
                        {false, failing("The token keeps reporting objects; the search was stopped."), {}, 0}});
    }
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(SearchLies, HostileMatrix, ::testing::ValuesIn(searchLieCases()), caseName);

const std::string kReplacement = "\xEF\xBF\xBD"; // U+FFFD

std::vector<Case> infoLieCases()
{
    using L = mock::Lie;
    struct Field {
        const char* function;
        const char* text;   // a text field it fills
        const char* number; // a version or count it fills
    };
    const Field fields[] = {{"C_GetInfo", "library.manufacturer", "library.cryptokiVersion"},
                            {"C_GetSlotInfo", "slots[0].description", "slots[0].hardwareVersion"},
                            {"C_GetTokenInfo", "slots[0].token.label", "slots[0].token.firmwareVersion"}};
    std::vector<LieRow> rows;
    for (const Field& f : fields) {
        const std::string text = f.text, number = f.number;
        rows.push_back({PublicCall::Discover, f.function, L::textNotUtf8, -1, {true, {}}, [text](ClsPkcs11&, ClsJsonObject& json) {
                            const std::string value = textAt(json, text.c_str());
                            EXPECT_NE(value.find(kReplacement), std::string::npos) << value;
                        }});
        rows.push_back({PublicCall::Discover, f.function, L::textNulPadded, -1, {true, {}}, [text](ClsPkcs11&, ClsJsonObject& json) {
                            EXPECT_EQ(textAt(json, text.c_str()), "NUL padded");
                        }});
        rows.push_back({PublicCall::Discover, f.function, L::numbersGarbage, -1, {true, {}}, [number](ClsPkcs11&, ClsJsonObject& json) {
                            EXPECT_EQ(textAt(json, number.c_str()), "255.255");
                        }});
    }
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(InfoLies, HostileMatrix, ::testing::ValuesIn(infoLieCases()), caseName);

std::vector<Case> sessionLieCases()
{
    using L = mock::Lie;
    const std::string noHandle = "C_OpenSession returned no session handle.";
    const std::string staleHandle = "C_GetSessionInfo returned CKR_SESSION_HANDLE_INVALID";
    const std::string elsewhere = "The library was initialized elsewhere in this process; it will not be finalized here.";
    const auto sessionOpen = [](ClsPkcs11& p11, ClsJsonObject&) { EXPECT_TRUE(p11.hasOpenSession()); };
    const auto noSessionOpen = [](ClsPkcs11& p11, ClsJsonObject&) { EXPECT_FALSE(p11.hasOpenSession()); };
    std::vector<LieRow> rows = {
        {PublicCall::OpenSessionAny, "C_OpenSession", L::noHandle, -1, {false, {noHandle, "Failed."}}, noSessionOpen},
        {PublicCall::OpenSessionSlot, "C_OpenSession", L::noHandle, -1, {false, {noHandle, "Failed."}}, noSessionOpen},
        {PublicCall::QuickSession, "C_OpenSession", L::noHandle, -1, {false, {noHandle, "Failed to open session."}}, noSessionOpen},
        {PublicCall::OpenSessionAny, "C_OpenSession", L::unknownHandle, -1, {true, {}, {staleHandle}}, sessionOpen},
        {PublicCall::OpenSessionSlot, "C_OpenSession", L::unknownHandle, -1, {true, {}, {staleHandle}}, sessionOpen},
        {PublicCall::QuickSession, "C_OpenSession", L::unknownHandle, -1,
         {false, {"C_Login returned CKR_SESSION_HANDLE_INVALID", "Failed to login."}, {staleHandle}}},
        // The module claims the security officer is logged in: the object
        // believes it, and logs out at the end, which the module refuses.
        {PublicCall::OpenSessionSlot, "C_GetSessionInfo", L::wrongState, -1, {true, {}}},
        {PublicCall::QuickSession, "C_GetSessionInfo", L::wrongState, -1, {true, {}}},
    };
    // It initialized, yet says someone else had: it is never finalized by us.
    for (PublicCall call : {PublicCall::Initialize, PublicCall::Discover, PublicCall::QuickSession})
        rows.push_back({call, "C_Initialize", L::initializedButSaysAlready, 1, {true, {}, {elsewhere}, -1, false}});
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(SessionLies, HostileMatrix, ::testing::ValuesIn(sessionLieCases()), caseName);

// A signature of RSA-2048 is 256 bytes, no more and no less: a CKR_OK with
// another length is refused, with the reason.
std::vector<Case> signatureLengthCases()
{
    using L = mock::Lie;
    const std::vector<std::string> wrongSize{"C_Sign returned a signature of the wrong size for the key.", "Failed."};
    const std::vector<std::string> overBuffer{"C_Sign reported a signature longer than the buffer it was given.",
                                              "Failed."};
    std::vector<LieRow> rows;
    for (L lie : {L::lengthZero, L::lengthOne, L::lengthJustUnder})
        rows.push_back({PublicCall::SignHash, "C_Sign", lie, 1, {false, wrongSize}});
    for (L lie : {L::lengthJustOver, L::okLengthOverBuffer, L::length2Pow31, L::length2Pow32Minus1,
                  L::lengthUnavailable})
        rows.push_back({PublicCall::SignHash, "C_Sign", lie, 1, {false, overBuffer}});
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(SignatureLengthLies, HostileMatrix, ::testing::ValuesIn(signatureLengthCases()), caseName);

// A list cut short before the entry a call needs, or no list at all.
std::vector<Case> functionListCases()
{
    using L = mock::Lie;
    const auto named = [](const char* function) {
        return [function](ClsPkcs11& p11, ClsJsonObject&) {
            EXPECT_EQ(dataValues(p11, "functionName"), std::vector<std::string>{function});
        };
    };
    const std::string notFound = "Function not found";
    const std::string noList = "PKCS11 functions not available";
    // Entry positions in the list, from C_Initialize at 0.
    constexpr CK_ULONG kInitialize = 0, kFinalize = 1, kGetInfo = 2, kGetSlotList = 4, kGetSlotInfo = 5,
                       kGetTokenInfo = 6, kOpenSession = 12, kGetSessionInfo = 15, kLogin = 18;
    std::vector<LieRow> rows = {
        {PublicCall::Initialize, "C_GetFunctionList", L::nullList, -1, {false, {noList, "Failed."}}},
        {PublicCall::Discover, "C_GetFunctionList", L::nullList, -1,
         {false, {noList, "Failed to load the PKCS11 shared library.", "Failed."}}},
        {PublicCall::QuickSession, "C_GetFunctionList", L::nullList, -1, {false, {noList, "Failed to initialize"}}},
        {PublicCall::Initialize, "C_GetFunctionList", L::shortList, -1, {false, {notFound, "Failed."}},
         named("C_Initialize"), kInitialize},
        // Initialized, and then it cannot be finalized: no crash, no call.
        {PublicCall::Initialize, "C_GetFunctionList", L::shortList, -1, {true, {}, {}, -1, false}, {}, kFinalize},
        {PublicCall::Discover, "C_GetFunctionList", L::shortList, -1, {false, {notFound, "Failed to GetInfo", "Failed."}},
         named("C_GetInfo"), kGetInfo},
        {PublicCall::Discover, "C_GetFunctionList", L::shortList, -1, {true, {notFound}}, named("C_GetSlotInfo"),
         kGetSlotInfo},
        {PublicCall::Discover, "C_GetFunctionList", L::shortList, -1, {true, {notFound}}, named("C_GetTokenInfo"),
         kGetTokenInfo},
        {PublicCall::QuickSession, "C_GetFunctionList", L::shortList, -1,
         {false, {notFound, "Failed to get slot IDs", "Failed to open session."}}, named("C_GetSlotList"), kGetSlotList},
        {PublicCall::QuickSession, "C_GetFunctionList", L::shortList, -1, {false, {notFound, "Failed to open session."}},
         named("C_OpenSession"), kOpenSession},
        {PublicCall::QuickSession, "C_GetFunctionList", L::shortList, -1, {false, {notFound, "Failed to login."}},
         named("C_Login"), kGetSessionInfo},
        {PublicCall::QuickSession, "C_GetFunctionList", L::shortList, -1, {false, {notFound, "Failed to login."}},
         named("C_Login"), kLogin},
    };
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(FunctionListLies, HostileMatrix, ::testing::ValuesIn(functionListCases()), caseName);

// C_Initialize refusing the operating system's locks, or saying someone
// else initialized it (though nobody did).
std::vector<Case> initializeCases()
{
    const std::string serialized = "The library cannot use the operating system's locks: it is called from one thread at a time.";
    const std::string elsewhere = "The library was initialized elsewhere in this process; it will not be finalized here.";
    const auto withoutArguments = [](ClsPkcs11&, ClsJsonObject&) {
        EXPECT_EQ(mock::callCount("C_Initialize"), 2);
        EXPECT_FALSE(mock::lastInitializeHadArgs()) << "the retry promises calls one at a time";
    };
    struct Row {
        PublicCall call;
        std::vector<std::string> failed; // after "C_Initialize returned CKR_CANT_LOCK"
        std::vector<std::string> notInitialized;
    };
    const Row rows[] = {
        {PublicCall::Initialize, {"Failed."}, {}},
        {PublicCall::Discover, {"Failed to Initialize", "Failed."}, {"C_GetSlotList returned CKR_CRYPTOKI_NOT_INITIALIZED", "Failed to GetSlotsInfo", "Failed."}},
        {PublicCall::QuickSession, {"Failed to initialize"}, {"C_GetSlotList returned CKR_CRYPTOKI_NOT_INITIALIZED", "Failed to get slot IDs", "Failed to open session."}},
    };
    std::vector<Case> cases;
    for (const Row& r : rows) {
        const std::string call = nameOf(r.call);
        std::vector<std::string> failed{"C_Initialize returned CKR_CANT_LOCK"};
        failed.insert(failed.end(), r.failed.begin(), r.failed.end());
        cases.push_back({call + "_CantLockThenWithoutArguments", r.call, [] { mock::failCall("C_Initialize", CKR_CANT_LOCK); },
                         {true, {}, {serialized}}, withoutArguments});
        cases.push_back({call + "_CantLockEitherWay", r.call, [] { mock::failCall("C_Initialize", CKR_CANT_LOCK, 2); },
                         {false, failed}});
        Expected alreadyInitialized{r.notInitialized.empty(), r.notInitialized, {elsewhere}};
        if (r.call == PublicCall::Discover) // C_GetInfo comes first
            alreadyInitialized.errors = {"C_GetInfo returned CKR_CRYPTOKI_NOT_INITIALIZED", "Failed to GetInfo", "Failed."};
        cases.push_back({call + "_AlreadyInitializedSaysTheModule", r.call,
                         [] { mock::failCall("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED); }, alreadyInitialized});
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(InitializeAnswers, HostileMatrix, ::testing::ValuesIn(initializeCases()), caseName);

// Lies every function can tell: it did the work but says it failed, or says
// it did what it did not. The library believes it; nothing is left behind.
std::vector<Case> genericLieCases()
{
    using L = mock::Lie;
    const std::string failed = "returned CKR_DEVICE_ERROR";
    const auto fails = [&](const char* function, std::vector<std::string> after = {"Failed."}) {
        std::vector<std::string> lines{std::string(function) + " " + failed};
        lines.insert(lines.end(), after.begin(), after.end());
        return lines;
    };
    const std::vector<LieRow> rows = {
        // Initialized while saying it failed: nobody counts it, nobody finalizes it.
        {PublicCall::Initialize, "C_Initialize", L::doneButFailed, 1, {false, fails("C_Initialize"), {}, -1, false}, {},
         CKR_DEVICE_ERROR},
        {PublicCall::Initialize, "C_Initialize", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::OpenSessionSlot, "C_OpenSession", L::doneButFailed, 1, {false, fails("C_OpenSession")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::OpenSessionSlot, "C_OpenSession", L::okWithoutDoing, 1,
         {false, {"C_OpenSession returned no session handle.", "Failed."}}},
        {PublicCall::CloseSession, "C_CloseSession", L::doneButFailed, 1, {false, fails("C_CloseSession", {})}, {}, CKR_DEVICE_ERROR},
        {PublicCall::CloseSession, "C_CloseSession", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::Login, "C_Login", L::doneButFailed, 1, {false, fails("C_Login", {})}, {}, CKR_DEVICE_ERROR},
        {PublicCall::Login, "C_Login", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::Logout, "C_Logout", L::doneButFailed, 1, {false, fails("C_Logout", {})}, {}, CKR_DEVICE_ERROR},
        {PublicCall::Logout, "C_Logout", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::SetPin, "C_SetPIN", L::doneButFailed, 1, {false, fails("C_SetPIN")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::SetPin, "C_SetPIN", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::InitPin, "C_InitPIN", L::doneButFailed, 1, {false, fails("C_InitPIN")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::InitPin, "C_InitPIN", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::InitToken, "C_InitToken", L::doneButFailed, 1, {false, fails("C_InitToken")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::InitToken, "C_InitToken", L::okWithoutDoing, 1, {true, {}}},
        // A search the module started while saying it failed, or says it
        // ended while it did not, stays open in the module: its own doing.
        {PublicCall::FindAllCerts, "C_FindObjectsInit", L::doneButFailed, 1,
         {false, fails("C_FindObjectsInit"), {}, 0, true, true}, {}, CKR_DEVICE_ERROR},
        {PublicCall::FindAllCerts, "C_FindObjectsInit", L::okWithoutDoing, 1,
         {false, {"C_FindObjects returned CKR_OPERATION_NOT_INITIALIZED", "Failed."}, {}, 0}},
        {PublicCall::FindAllCerts, "C_FindObjectsFinal", L::doneButFailed, 1, {true, {}, {}, 2}, {}, CKR_DEVICE_ERROR},
        {PublicCall::FindAllCerts, "C_FindObjectsFinal", L::okWithoutDoing, 1, {true, {}, {}, 2, true, true}},
        {PublicCall::FindAllKeys, "C_FindObjects", L::doneButFailed, 1, {false, fails("C_FindObjects")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::FindAllKeys, "C_FindObjects", L::okWithoutDoing, 1, {true, {}}},
        {PublicCall::SignHash, "C_SignInit", L::doneButFailed, 1, {false, fails("C_SignInit")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::SignHash, "C_SignInit", L::okWithoutDoing, 1,
         {false, {"C_Sign returned CKR_OPERATION_NOT_INITIALIZED", "Failed."}}},
        {PublicCall::SignHash, "C_Sign", L::doneButFailed, 1, {false, fails("C_Sign")}, {}, CKR_DEVICE_ERROR},
        {PublicCall::SignHash, "C_Sign", L::okWithoutDoing, 1, {true, {}}},
    };
    return casesOf(rows);
}

INSTANTIATE_TEST_SUITE_P(GenericLies, HostileMatrix, ::testing::ValuesIn(genericLieCases()), caseName);

} // namespace
