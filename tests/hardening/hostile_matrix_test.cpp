// Every kind of misbehaviour of a module, at every public call where it can
// strike: the result, the exact error lines, and nothing left behind (no
// session, search or use of the module once the object is gone). The cases
// are generated: each lie is crossed with the calls it strikes, and a small
// rule per family says what the library makes of it.
//
// SoftHSM2 lists two slots with a token: the test token's, then a free slot
// whose token is not initialized, where a session is refused with
// CKR_TOKEN_NOT_RECOGNIZED. Calls that go through every slot say so per slot.
#include "Hardening.h"

using namespace p11client;
using namespace p11test;
using L = shim::Lie;

namespace {

constexpr std::size_t kSlots = 2;

Lines operator+(Lines a, const Lines& b) { return a.insert(a.end(), b.begin(), b.end()), a; }

Scenario at(PublicCall call, const std::string& what, std::function<void()> misbehave, Expected e) {
    const CallSteps& c = steps(call);
    return {std::string(c.name) + "_" + what, c.setUp, c.call, std::move(misbehave), std::move(e), {},
            call == SetPin || call == InitPin || call == InitToken};
}

// A lie told `times` times (-1: at every call) by the function.
Scenario lieAt(PublicCall call, const std::string& function, L lie, int times, Expected e, CK_ULONG value = ~CK_ULONG{0}) {
    const std::string shown = value != ~CK_ULONG{0} && lie != L::doneButFailed ? "_" + std::to_string(value) : "";
    return at(call, function + "_" + shim::lieName(lie) + shown + (times < 0 ? "_always" : ""),
              [=] { shim::lie(function, lie, value, times); }, std::move(e));
}

Check textIs(const std::string& path, const std::string& want, bool exact = true) {
    return [=](ClsPkcs11&, ClsJsonObject& json) {
        StringBuffer sb;
        LogNull log;
        const std::string value = json.sbOfPathUtf8(path.c_str(), sb, log) ? sb.toStdString() : "<none>";
        EXPECT_TRUE(exact ? value == want : value.find(want) != std::string::npos) << path << ": " << value;
    };
}

Check arraySize(const char* path, int size) { return [=](ClsPkcs11&, ClsJsonObject& json) { LogNull log; EXPECT_EQ(json.sizeOfArray(path, log), size) << path; }; }

class HostileMatrix : public HardeningTest, public ::testing::WithParamInterface<Scenario> {};

TEST_P(HostileMatrix, CallSurvivesAndSaysWhy) { play(GetParam()); }

// --- any return value, vendor codes included, with and without garbage in
// the out-parameters ------------------------------------------------------------

// Each site: the call, the function, the call's result, the error lines after
// "<function> returned <rv>", the certificates cached, and whether the failure
// is an information line rather than an error.
const struct Site { PublicCall call; const char* function; bool result; const char* after; int numCerts = -1; bool saidAsInfo = false; } kSites[] = {
    {Initialize, "C_GetFunctionList", false, "Failed."}, {Initialize, "C_Initialize", false, "Failed."},
    {Discover, "C_GetInfo", false, "Failed to GetInfo|Failed."}, {Discover, "C_GetSlotList", false, "Failed to GetSlotsInfo|Failed."},
    {Discover, "C_GetSlotInfo", true, ""}, {Discover, "C_GetTokenInfo", true, ""},
    {OpenSessionAny, "C_GetSlotList", false, "Failed to get slot IDs|Failed."},
    {OpenSessionAny, "C_OpenSession", false, "C_OpenSession returned CKR_TOKEN_NOT_RECOGNIZED|Failed."},
    {OpenSessionSlot, "C_OpenSession", false, "Failed."}, {OpenSessionSlot, "C_GetSessionInfo", true, "", -1, true},
    {QuickSession, "C_Initialize", false, "Failed to initialize"},
    {QuickSession, "C_OpenSession", false, "C_OpenSession returned CKR_TOKEN_NOT_RECOGNIZED|Failed to open session."},
    {QuickSession, "C_Login", false, "Failed to login."}, {Login, "C_Login", false, ""}, {Logout, "C_Logout", false, ""},
    {CloseSession, "C_CloseSession", false, ""}, {SetPin, "C_SetPIN", false, "Failed."}, {InitPin, "C_InitPIN", false, "Failed."},
    {InitToken, "C_InitToken", false, "Failed."}, {FindAllCerts, "C_FindObjectsInit", false, "Failed.", 0},
    {FindAllCerts, "C_FindObjects", false, "Failed.", 0}, {FindAllCerts, "C_GetAttributeValue", true, "", 1, true},
    {FindAllKeys, "C_FindObjectsInit", false, "Failed."}, {FindAllKeys, "C_FindObjects", false, "Failed."},
    {FindAllKeys, "C_GetAttributeValue", true, "", -1, true}, {FindObject, "C_FindObjectsInit", false, ""}, {FindObject, "C_FindObjects", false, ""},
    {FindObject, "C_GetAttributeValue", true, "", -1, true}, {FindCertPrivateKey, "C_FindObjectsInit", false, "Failed."},
    {SignHash, "C_SignInit", false, "Failed."}, {SignHash, "C_Sign", false, "Failed."},
};

// What the call makes of the function failing with this return value.
Expected failedAt(PublicCall call, const std::string& function, const std::string& rvName) {
    const std::string said = function + " returned " + rvName;
    for (const Site& s : kSites)
        if (s.call == call && s.function == function)
            return s.saidAsInfo ? Expected{s.result, lines(s.after), {said}, s.numCerts}
                                : Expected{s.result, Lines{said} + lines(s.after), {}, s.numCerts};
    throw std::logic_error("no such site: " + function);
}

// Whether the first certificate a search gave was the RSA one: SoftHSM2
// numbers its objects anew at each initialization, in no fixed order. The
// first object read that has a CKA_ID tells, asked of SoftHSM2 itself.
bool rsaCertificateFirst() {
    CryptokiModule softhsm(shim::targetPath()); // initialized by the shim
    TokenSession session(softhsm.functions(), static_cast<CK_SLOT_ID>(token().slot));
    std::uint8_t id = 0;
    CK_ATTRIBUTE attribute{CKA_ID, &id, 1};
    for (const shim::Call& c : shim::calls())
        if (id == 0 && c.function == "C_GetAttributeValue") softhsm.functions()->C_GetAttributeValue(session.handle(), c.object, &attribute, 1);
    return id == 1;
}

// FindCert("privateKey") links the first certificate that has a key: the
// lines it adds as it pairs the RSA or the EC one.
Expected pairs(Expected e, bool rsa) {
    if (!rsa) e.errors.push_back("Certificate key type is ECDSA.");
    e.infos.push_back(rsa ? "Found matching PKCS11 RSA private key by ID." : "Found matching PKCS11 ECDSA private key.");
    return e;
}

// What each call makes of a length or value lie at the first
// C_GetAttributeValue (the first certificate or key read), or at every one.
Expected attributeLieOutcome(PublicCall call, L lie, bool always) {
    const std::string skipped = "Skipping a certificate object whose value is not an X.509 certificate.";
    const bool impossible = lie == L::length2Pow31 || lie == L::length2Pow32Minus1;
    const bool over = impossible || lie == L::lengthJustOver || lie == L::okLengthOverBuffer;
    if (call == FindAllKeys || call == FindObject) // every object found is listed, with what could be read
        return {true, {}, always && impossible ? lines("Ignoring CKA_ID: the module reports an impossible length.") : Lines{},
                -1, true, false, arraySize(call == FindAllKeys ? "keys" : "objects", 2)};
    const char* certError = lie == L::lengthZero                          ? "Certificate DER is empty or too large."
                            : lie == L::lengthOne || lie == L::garbageValue ? "Invalid certificate DER."
                            : lie == L::lengthJustUnder                   ? "Certificate DER is followed by extra bytes."
                                                                          : nullptr;
    const Lines errors = certError == nullptr ? Lines{} : Lines(always ? 2 : 1, certError);
    const bool pairing = call == FindCertPrivateKey;
    if (always)
        return {!pairing, errors + (pairing ? lines("Not found.|Failed.") : Lines{}),
                Lines{skipped} + (impossible ? lines("Ignoring CKA_VALUE: the module reports an impossible length.") : Lines{}), 0};
    if (over || lie == L::lengthUnavailable) { // the second read, of the lengths and then the values, is honest
        const Expected both{true, {}, over ? lines("Ignoring CKA_VALUE: the module reports more bytes than its buffer holds.") : Lines{}, 2};
        return pairing ? pairs(both, rsaCertificateFirst()) : both;
    }
    const Expected one{true, errors, {skipped}, 1}; // the first certificate is skipped
    return pairing ? pairs(one, !rsaCertificateFirst()) : one;
}

std::vector<Scenario> matrix() {
    std::vector<Scenario> cases;
    for (const Site& s : kSites)
        for (const auto& [label, rv, name] : {std::tuple{"DeviceError", CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"}, {"Vendor", CKR_VENDOR_DEFINED + 0x42, "CKR_VENDOR_DEFINED+0x42"},
                                              {"Unknown", CK_RV{0x1234}, "0x1234"}, {"GarbageOut", CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"}})
            cases.push_back(at(s.call, std::string(s.function) + "_" + label, [f = std::string(s.function), answer = rv] {
                answer == CKR_FUNCTION_FAILED ? shim::failWithGarbage(f, answer) : shim::failCall(f, answer);
            }, failedAt(s.call, s.function, name)));
    // --- lies. Every function can say it failed though it did the work
    // (reported as any failure), or say it did what it did not (believed).
    for (const auto& [call, f] : {std::pair<PublicCall, std::string>{Initialize, "C_Initialize"}, {OpenSessionSlot, "C_OpenSession"}, {CloseSession, "C_CloseSession"},
                                  {Login, "C_Login"}, {Logout, "C_Logout"}, {SetPin, "C_SetPIN"}, {InitPin, "C_InitPIN"}, {InitToken, "C_InitToken"},
                                  {FindAllCerts, "C_FindObjectsInit"}, {FindAllKeys, "C_FindObjects"}, {SignHash, "C_SignInit"}, {SignHash, "C_Sign"}}) {
        Expected done = failedAt(call, f, "CKR_DEVICE_ERROR");
        done.finalized = f != "C_Initialize";           // initialized while saying it failed: nobody finalizes it
        done.searchLeftOpen = f == "C_FindObjectsInit"; // a search begun while saying it failed: the module's doing
        Expected skipped{true, {}};
        if (f == "C_OpenSession") skipped = {false, lines("C_OpenSession returned no session handle.|Failed.")};
        else if (f == "C_FindObjectsInit" || f == "C_SignInit")
            skipped = {false, lines(f.substr(0, f.size() - 4) + " returned CKR_OPERATION_NOT_INITIALIZED|Failed."), {}, f == "C_SignInit" ? -1 : 0};
        cases.push_back(lieAt(call, f, L::doneButFailed, 1, done, CKR_DEVICE_ERROR));
        cases.push_back(lieAt(call, f, L::okWithoutDoing, 1, skipped));
    }
    // A search said ended while it was not stays open in the module.
    cases.push_back(lieAt(FindAllCerts, "C_FindObjectsFinal", L::doneButFailed, 1, {true, {}, {}, 2}, CKR_DEVICE_ERROR));
    cases.push_back(lieAt(FindAllCerts, "C_FindObjectsFinal", L::okWithoutDoing, 1, {true, {}, {}, 2, true, true}));
    // Lengths and values of attributes that are not what they are.
    for (PublicCall call : {FindAllCerts, FindAllKeys, FindObject, FindCertPrivateKey})
        for (L lie : shim::liesFor("C_GetAttributeValue")) {
            if (lie == L::doneButFailed || lie == L::okWithoutDoing) continue;
            cases.push_back(lieAt(call, "C_GetAttributeValue", lie, 1, {}));
            cases.back().atRunTime = [=] { return attributeLieOutcome(call, lie, false); };
            // Lies that spoil every read of a value (a short length spoils only the first).
            if (lie != L::lengthZero && lie != L::lengthOne && lie != L::lengthJustUnder)
                cases.push_back(lieAt(call, "C_GetAttributeValue", lie, -1, attributeLieOutcome(call, lie, true)));
        }
    // The second object's values left unwritten though the module says CKR_OK (once: read again; at every
    // read after the first: absent), or its read failed after garbage was written: never the first one's bytes.
    const auto ownIds = [](std::string list, std::string member, bool secondAbsent) -> Check {
        return [=](ClsPkcs11&, ClsJsonObject& json) {
            Lines read;
            LogNull log;
            for (StringBuffer sb; const char* at : {"[0]", "[1]"})
                read.push_back(json.sbOfPathUtf8((list + at + member).c_str(), sb, log) ? sb.toStdString() : "<none>"), sb.clear();
            std::ranges::sort(read);
            EXPECT_TRUE(secondAbsent ? (read[0] == "01" || read[0] == "02") && read[1] == "<none>" : (read == Lines{"01", "02"})) << read[0] << " " << read[1];
        };
    };
    for (const auto& [call, list, member] : {std::tuple{FindAllCerts, "", ""}, {FindAllKeys, "keys", ".id"}, {FindObject, "objects", ".attributes.CKA_ID"}}) {
        for (int times : {1, -1})
            cases.push_back(at(call, "C_GetAttributeValue_okWithoutDoing_second" + std::string(times < 0 ? "_always" : ""), [times] { shim::lie("C_GetAttributeValue", L::okWithoutDoing, ~CK_ULONG{0}, times, 1); },
                               {true, {}, {}, call == FindAllCerts ? (times == 1 ? 2 : 1) : -1, true, false, *list ? ownIds(list, member, times < 0) : Check{}}));
        cases.push_back(at(call, "C_GetAttributeValue_GeneralErrorGarbage_second", [] { shim::failWithGarbage("C_GetAttributeValue", CKR_GENERAL_ERROR, 1, 1); },
                           failedAt(call, "C_GetAttributeValue", "CKR_GENERAL_ERROR")));
    }
    // A slot list of an impossible size, one that keeps changing (told once, it
    // is read again honestly), slots that do not exist, no slot with a token.
    for (PublicCall call : {Discover, OpenSessionAny, OpenSessionSlot, QuickSession}) {
        const std::string end = call == QuickSession ? "Failed to open session." : "Failed.";
        const auto noList = [&](const std::string& why) {
            return Expected{false, lines(why + (call == Discover ? "|Failed to GetSlotsInfo|Failed." : "|Failed to get slot IDs|" + end))};
        };
        for (L lie : {L::length2Pow31, L::length2Pow32Minus1, L::lengthUnavailable})
            for (int times : {1, -1})
                cases.push_back(lieAt(call, "C_GetSlotList", lie, times, noList("C_GetSlotList reported more slots than any device has.")));
        for (L lie : {L::slotsGrow, L::slotsShrink, L::slotIdsUnknown})
            cases.push_back(lieAt(call, "C_GetSlotList", lie, 1, {true, {}}));
        for (L lie : {L::slotsGrow, L::slotsShrink})
            cases.push_back(lieAt(call, "C_GetSlotList", lie, -1, noList("The slot list kept changing while it was read.")));
        Expected unknown{call == Discover, Lines(kSlots, "C_OpenSession returned CKR_SLOT_ID_INVALID") + Lines{end}};
        if (call == Discover)
            unknown = {true, Lines(kSlots, "C_GetSlotInfo returned CKR_SLOT_ID_INVALID"), {}, -1, true, false,
                       textIs("slots[0].error", "CKR_SLOT_ID_INVALID")};
        else if (call == OpenSessionSlot) unknown.errors = lines("Did not find desired slot ID.|Failed.");
        cases.push_back(lieAt(call, "C_GetSlotList", L::slotIdsUnknown, -1, unknown));
        const std::string noToken = "No slot has a token.|" + std::string(call == OpenSessionSlot ? "Did not find desired slot ID.|" : "") + end;
        cases.push_back(at(call, "NoSlotHasAToken", [] { shim::removeToken(static_cast<CK_SLOT_ID>(token().slot)), shim::removeToken(token().freeSlot); },
                           {call == Discover, call == Discover ? Lines{} : lines(noToken)}));
    }
    // More objects than asked, handles no object has, a search that never ends.
    const std::string unknownHandle = "C_GetAttributeValue returned CKR_OBJECT_HANDLE_INVALID";
    for (PublicCall call : {FindAllCerts, FindAllKeys, FindObject, FindCertPrivateKey}) {
        const auto failing = [call](const std::string& why) { return lines(why + (call == FindObject ? "" : "|Failed.")); };
        const bool pairing = call == FindCertPrivateKey;
        for (int times : {1, -1}) {
            cases.push_back(lieAt(call, "C_FindObjects", L::moreObjectsThanAsked, times, {false, failing("C_FindObjects reported more objects than it was asked for."), {}, 0}));
            cases.push_back(lieAt(call, "C_FindObjects", L::unknownHandles, times, {!pairing, pairing ? failing("Not found.") : Lines{}, {unknownHandle}, 0}));
        }
        // One batch of handles that name nothing, then the true ones.
        cases.push_back(lieAt(call, "C_FindObjects", L::neverEnding, 1, {true, {}, {unknownHandle}, call == FindAllCerts || pairing ? 2 : 0}));
        if (pairing) cases.back().atRunTime = [e = cases.back().expected] { return pairs(e, rsaCertificateFirst()); };
        cases.push_back(lieAt(call, "C_FindObjects", L::neverEnding, -1, {false, failing("The token keeps reporting objects; the search was stopped."), {}, 0}));
    }
    // Text and numbers of the information calls as Discover reports them;
    // sessions that are not what the module says; an initialization it denies;
    // signatures of a length no key makes.
    for (const auto& [function, text, number] : {std::tuple{"C_GetInfo", "library.manufacturer", "library.cryptokiVersion"},
             {"C_GetSlotInfo", "slots[0].description", "slots[0].hardwareVersion"}, {"C_GetTokenInfo", "slots[0].token.label", "slots[0].token.firmwareVersion"}}) {
        cases.push_back(lieAt(Discover, function, L::textNotUtf8, -1, {true, {}, {}, -1, true, false, textIs(text, "\xEF\xBF\xBD", false)}));
        cases.push_back(lieAt(Discover, function, L::textNulPadded, -1, {true, {}, {}, -1, true, false, textIs(text, "NUL padded")}));
        cases.push_back(lieAt(Discover, function, L::numbersGarbage, -1, {true, {}, {}, -1, true, false, textIs(number, "255.255")}));
    }
    const auto sessionOpen = [](bool open) -> Check { return [=](ClsPkcs11& p11, ClsJsonObject&) { EXPECT_EQ(p11.hasOpenSession(), open); }; };
    for (PublicCall call : {OpenSessionAny, OpenSessionSlot, QuickSession}) {
        const std::string freeSlot = call == OpenSessionSlot ? "" : "C_OpenSession returned CKR_TOKEN_NOT_RECOGNIZED|";
        const std::string stale = "C_GetSessionInfo returned CKR_SESSION_HANDLE_INVALID";
        cases.push_back(lieAt(call, "C_OpenSession", L::noHandle, -1,
                              {false, lines("C_OpenSession returned no session handle.|" + freeSlot + (call == QuickSession ? "Failed to open session." : "Failed.")),
                               {}, -1, true, false, sessionOpen(false)}));
        cases.push_back(lieAt(call, "C_OpenSession", L::unknownHandle, -1,
                              call == QuickSession ? Expected{false, lines("C_Login returned CKR_SESSION_HANDLE_INVALID|Failed to login."), {stale}}
                                                   : Expected{true, {}, {stale}, -1, true, false, sessionOpen(true)}));
        // The module claims the security officer is logged in: the object
        // believes it, and logs out at the end, which the module refuses.
        if (call != OpenSessionAny) cases.push_back(lieAt(call, "C_GetSessionInfo", L::wrongState, -1, {true, {}}));
    }
    // It initialized, yet says someone else had: it is never finalized by us.
    for (PublicCall call : {Initialize, Discover, QuickSession})
        cases.push_back(lieAt(call, "C_Initialize", L::initializedButSaysAlready, 1, {true, {}, {kElsewhere}, -1, false}));
    for (L lie : shim::liesFor("C_Sign"))
        if (lie != L::doneButFailed && lie != L::okWithoutDoing)
            cases.push_back(lieAt(SignHash, "C_Sign", lie, 1, {false, lines(lie == L::lengthZero || lie == L::lengthOne || lie == L::lengthJustUnder
                ? "C_Sign returned a signature of the wrong size for the key.|Failed." : "C_Sign reported a signature longer than the buffer it was given.|Failed.")}));
    // A function list cut short before the entry a call needs (the call names
    // the missing function, per slot where it goes through every slot), or no
    // list at all; C_Initialize refusing the operating system's locks (once:
    // retried without arguments; twice: given up), or saying someone else
    // initialized it though nobody did.
    const std::string noList = "PKCS11 functions not available|";
    cases.insert(cases.end(), {
        lieAt(Initialize, "C_GetFunctionList", L::nullList, -1, {false, lines(noList + "Failed.")}),
        lieAt(Discover, "C_GetFunctionList", L::nullList, -1, {false, lines(noList + "Failed to load the PKCS11 shared library.|Failed.")}),
        lieAt(QuickSession, "C_GetFunctionList", L::nullList, -1, {false, lines(noList + "Failed to initialize")}),
        // Initialized, and then it cannot be finalized: no crash, no call.
        lieAt(Initialize, "C_GetFunctionList", L::shortList, -1, {true, {}, {}, -1, false}, 1),
    });
    // Entries from C_Initialize at 0.
    for (const auto& [call, entry, function, times, result, after] :
         {std::tuple{Initialize, 0ul, "C_Initialize", 1ul, false, "Failed."}, {Discover, 2ul, "C_GetInfo", 1ul, false, "Failed to GetInfo|Failed."},
          {Discover, 5ul, "C_GetSlotInfo", kSlots, true, ""}, {Discover, 6ul, "C_GetTokenInfo", kSlots, true, ""},
          {QuickSession, 4ul, "C_GetSlotList", 1ul, false, "Failed to get slot IDs|Failed to open session."},
          {QuickSession, 12ul, "C_OpenSession", kSlots, false, "Failed to open session."},
          {QuickSession, 15ul, "C_Login", 1ul, false, "Failed to login."}, {QuickSession, 18ul, "C_Login", 1ul, false, "Failed to login."}})
        cases.push_back(lieAt(call, "C_GetFunctionList", L::shortList, -1, {result, Lines(times, "Function not found") + lines(after), {}, -1, true, false,
                              [named = Lines(times, function)](ClsPkcs11& p11, ClsJsonObject&) { EXPECT_EQ(dataValues(p11, "functionName"), named); }}, entry));
    const Check withoutArguments = [](ClsPkcs11&, ClsJsonObject&) {
        EXPECT_EQ(shim::callCount("C_Initialize"), 2);
        EXPECT_FALSE(shim::lastInitializeHadArgs()) << "the retry promises calls one at a time";
    };
    for (const auto& [call, failed, notInitialized] :
         {std::tuple<PublicCall, std::string, std::string>{Initialize, "Failed.", ""},
          {Discover, "Failed to Initialize|Failed.", "C_GetInfo returned CKR_CRYPTOKI_NOT_INITIALIZED|Failed to GetInfo|Failed."},
          {QuickSession, "Failed to initialize", "C_GetSlotList returned CKR_CRYPTOKI_NOT_INITIALIZED|Failed to get slot IDs|Failed to open session."}}) {
        cases.push_back(at(call, "CantLockThenWithoutArguments", [] { shim::failCall("C_Initialize", CKR_CANT_LOCK); },
                           {true, {}, {kCannotLock}, -1, true, false, withoutArguments}));
        cases.push_back(at(call, "CantLockEitherWay", [] { shim::failCall("C_Initialize", CKR_CANT_LOCK, 2); }, {false, lines("C_Initialize returned CKR_CANT_LOCK|" + failed)}));
        cases.push_back(at(call, "AlreadyInitializedSaysTheModule", [] { shim::failCall("C_Initialize", CKR_CRYPTOKI_ALREADY_INITIALIZED); },
                           {notInitialized.empty(), lines(notInitialized), {kElsewhere}}));
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Misbehaviours, HostileMatrix, ::testing::ValuesIn(matrix()), scenarioName);

} // namespace
