// Control API of the mock PKCS#11 module (libmockp11.so).
//
// Test executables link against libmockp11.so and call these functions directly;
// the library under test dlopen()s the same file (modulePath()) and reaches it
// through C_GetFunctionList. The dynamic loader hands both the same image, so
// what a test sets up here is what the library sees, and every call the library
// makes shows up in calls().
//
// Every function here takes the module's lock; none may be called from inside an
// entry point (use afterCall() for actions that must happen between calls).
// Misuse of the control API (unknown slot, object on a slot without a token)
// throws std::invalid_argument: that is a bug in the test, not in the library.
#pragma once

#include <p11-kit/pkcs11.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// The module variants build the control API hidden (-DMOCK_API=), so that it
// stays theirs; they are reached through mockp11_control() instead.
#ifndef MOCK_API
#define MOCK_API __attribute__((visibility("default")))
#endif

namespace mock {

// Text fields (labels, descriptions, ...) are byte strings: a value shorter
// than the PKCS#11 field is blank-padded, a longer one is cut to the field
// width. Any bytes are allowed, so a test can hand in non-UTF-8 text, or a
// value exactly as wide as the field holding NULs to imitate a module that
// NUL-terminates instead of padding.

struct LibrarySpec {  // what C_GetInfo reports
    CK_VERSION cryptokiVersion{2, 40};
    std::string manufacturer = "Mock Module Project";
    std::string description = "Mock PKCS#11 Module";
    CK_FLAGS flags = 0;
    CK_VERSION libraryVersion{1, 0};
};

struct TokenSpec {
    std::string label = "Mock Token";
    std::string manufacturer = "Mock Module Project";
    std::string model = "Mock Model";
    std::string serialNumber = "0000000000000001";
    // CKF_USER_PIN_LOCKED / CKF_SO_PIN_LOCKED make C_Login answer CKR_PIN_LOCKED;
    // CKF_PROTECTED_AUTHENTICATION_PATH lets C_Login accept a NULL PIN (pinpad).
    CK_FLAGS flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED;
    std::string soPin = "12345678";
    std::string userPin = "1234";
    CK_ULONG minPinLen = 4;
    CK_ULONG maxPinLen = 255;
    // A finite maximum makes C_OpenSession answer CKR_SESSION_COUNT when reached;
    // CK_EFFECTIVELY_INFINITE and CK_UNAVAILABLE_INFORMATION impose no limit.
    CK_ULONG maxSessionCount = CK_EFFECTIVELY_INFINITE;
    CK_ULONG maxRwSessionCount = CK_EFFECTIVELY_INFINITE;
    CK_ULONG totalPublicMemory = CK_UNAVAILABLE_INFORMATION;
    CK_ULONG freePublicMemory = CK_UNAVAILABLE_INFORMATION;
    CK_ULONG totalPrivateMemory = CK_UNAVAILABLE_INFORMATION;
    CK_ULONG freePrivateMemory = CK_UNAVAILABLE_INFORMATION;
    CK_VERSION hardwareVersion{1, 0};
    CK_VERSION firmwareVersion{1, 0};
    std::string utcTime{};  // 16 bytes "YYYYMMDDhhmmss00"; empty = blanks
};

struct SlotSpec {
    std::string description = "Mock Slot";
    std::string manufacturer = "Mock Module Project";
    // CKF_TOKEN_PRESENT is managed by the mock: set exactly when a token is there.
    CK_FLAGS flags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
    CK_VERSION hardwareVersion{1, 0};
    CK_VERSION firmwareVersion{1, 0};
    std::optional<TokenSpec> token = TokenSpec{};  // std::nullopt: an empty slot
    CK_RV openSessionResult = CKR_OK;  // anything else: C_OpenSession refuses with it
};

// One entry point invocation as the module received it. Fields that do not
// apply to the function stay 0 / empty. PINs are never recorded.
struct Call {
    std::string function;             // "C_Login", ...
    CK_SLOT_ID slot = 0;              // the slot argument, or the slot of the session
    CK_SESSION_HANDLE session = 0;    // the session argument; C_OpenSession: the new handle
    CK_ULONG userType = 0;            // C_Login
    CK_FLAGS flags = 0;               // C_Initialize: args flags; C_OpenSession: flags;
                                      // C_GetSlotList: tokenPresent
    CK_OBJECT_HANDLE object = 0;      // C_GetAttributeValue
    CK_ULONG count = 0;               // C_FindObjects: ulMaxObjectCount;
                                      // C_FindObjectsInit / C_GetAttributeValue: template size
    std::vector<CK_ATTRIBUTE_TYPE> attributeTypes{};  // template types of the same two calls
    CK_RV result = CKR_OK;
};

using Attribute = std::pair<CK_ATTRIBUTE_TYPE, std::vector<uint8_t>>;

// What the last completed C_Sign was asked to sign. The mock's "signature" is
// not a real one: it proves what the library sent, not the cryptography
// (the SoftHSM2 tests prove that).
struct SignRecord {
    CK_OBJECT_HANDLE key = 0;
    CK_MECHANISM_TYPE mechanism = 0;
    std::optional<CK_RSA_PKCS_PSS_PARAMS> pss;  // for CKM_RSA_PKCS_PSS
    std::vector<uint8_t> input;
    bool contextLoggedIn = false;  // a CKU_CONTEXT_SPECIFIC login preceded it
};

// --- module lifetime -------------------------------------------------------
// Back to nothing: not initialized, library info at its defaults, no slots,
// objects, sessions, faults or afterCall actions, call record and counters emptied.
// Session and object handles keep counting up, so a handle from before stays invalid.
MOCK_API void reset();
// Absolute path of libmockp11.so, for the library's path setting.
MOCK_API std::string modulePath();
// Variants built beside it: a shared library without any C_GetFunctionList, and
// one whose C_GetFunctionList returns CKR_OK with a NULL list.
MOCK_API std::string noFunctionListModulePath();
MOCK_API std::string nullFunctionListModulePath();

// Full modules built from the same sources, each its own shared library:
// one whose C_Initialize starts a thread that its C_Finalize stops (unloading it
// with the thread still running aborts the process, as a real one would crash),
// and one that cannot use the operating system's locks: C_Initialize with
// CKF_OS_LOCKING_OK and no mutex callbacks answers CKR_CANT_LOCK, and without
// arguments it succeeds on the promise that calls come one at a time.
MOCK_API std::string workerThreadModulePath();
MOCK_API std::string noLockingModulePath();

// --- set-up ----------------------------------------------------------------
MOCK_API void setLibraryInfo(const LibrarySpec& info);
MOCK_API void addSlot(CK_SLOT_ID id, const SlotSpec& spec);  // slots list in the order added
MOCK_API void insertToken(CK_SLOT_ID slot, const TokenSpec& token);  // replaces any; closes sessions
MOCK_API void removeToken(CK_SLOT_ID slot);  // closes the slot's sessions, drops its objects
// Adds a token object; types in `sensitive` read back as CKR_ATTRIBUTE_SENSITIVE.
// An object with CKA_PRIVATE = CK_TRUE is only visible while the user is logged in.
MOCK_API CK_OBJECT_HANDLE addObject(CK_SLOT_ID slot, std::vector<Attribute> attributes,
                                    std::vector<CK_ATTRIBUTE_TYPE> sensitive = {});
MOCK_API void removeObject(CK_OBJECT_HANDLE object);

// --- faults ----------------------------------------------------------------
// The next `times` calls of `function` (-1: every call) return rv at once,
// without doing anything else (still recorded). Faults queue per function:
// a second failCall on the same function applies after the first runs out.
MOCK_API void failCall(const std::string& function, CK_RV rv, int times = 1);
// Runs `action` right after the next `times` calls of `function` (-1: every
// call), outside the module's lock, before the caller gets the result: e.g. add
// a slot between the two C_GetSlotList calls, or pull the token mid-search.
MOCK_API void afterCall(const std::string& function, std::function<void()> action, int times = 1);

// --- hostile mode --------------------------------------------------------------
// Ways a module lies. Each applies to the functions named; liesFor() lists them.
enum class Lie : uint8_t {
    // Any function.
    doneButFailed,   // does the work, then returns the error given as the lie's value
    okWithoutDoing,  // CKR_OK without doing anything; out-parameters untouched
    // C_GetAttributeValue (every attribute of the template, or the one at the
    // lie's value when it is below the template size), C_Sign and the count
    // call of C_GetSlotList: the length reported instead of the true one,
    // with the return value the honest call had. "Under" and "over" are
    // relative to the buffer given, or to the true length in a length query.
    lengthZero,
    lengthOne,
    lengthJustUnder,
    lengthJustOver,
    length2Pow31,
    length2Pow32Minus1,
    lengthUnavailable,
    okLengthOverBuffer,  // CKR_OK with a length larger than the buffer given
    garbageValue,        // C_GetAttributeValue: every value byte garbage, lengths kept
    // C_GetSlotList.
    slotsGrow,       // count call: one more than there are; fill call: CKR_BUFFER_TOO_SMALL, one more again
    slotsShrink,     // count call: one fewer; fill call: one fewer filled than there are
    slotIdsUnknown,  // IDs no slot has
    // C_FindObjects.
    moreObjectsThanAsked,  // the count exceeds the maximum asked (the array holds only that)
    neverEnding,           // full batches of handles for ever
    unknownHandles,        // handles no object has
    // C_GetInfo, C_GetSlotInfo, C_GetTokenInfo.
    textNotUtf8,     // text fields of bytes that are not UTF-8
    textNulPadded,   // text fields NUL-terminated and NUL-padded instead of blank-padded
    numbersGarbage,  // every flag set, versions 255.255, counts beyond 2^63
    // C_GetFunctionList.
    nullList,   // CKR_OK with a NULL list
    shortList,  // a list whose entries from the lie's value on are NULL
    // C_OpenSession.
    noHandle,       // CKR_OK with CK_INVALID_HANDLE, no session opened
    unknownHandle,  // CKR_OK with a handle no session has, no session opened
    // C_GetSessionInfo.
    wrongState,  // reports the security officer logged in
    // C_Initialize.
    initializedButSaysAlready,  // initializes, then answers CKR_CRYPTOKI_ALREADY_INITIALIZED
};
MOCK_API const char* lieName(Lie lie);
MOCK_API std::vector<Lie> liesFor(const std::string& function);

// The next `times` calls of `function` (-1: every call) tell the lie. Like
// failCall, lies queue per function, and they run after any fault queued.
MOCK_API void lie(const std::string& function, Lie lie, CK_ULONG value = ~CK_ULONG{0}, int times = 1);
// Like failCall, and the out-parameters are filled with garbage as well.
MOCK_API void failWithGarbage(const std::string& function, CK_RV rv, int times = 1);
// Every reply decided by a byte stream, after faults and queued lies. Per
// call: one byte; 0 or 1 in its low two bits answers honestly, 2 fails with
// a return value chosen by the next byte (vendor codes included; bit 2 also
// fills the out-parameters with garbage), 3 tells the lie of liesFor()
// chosen by the next byte, with the byte after as its value. An exhausted
// stream answers honestly. An empty stream ends the hostile mode.
MOCK_API void setHostileStream(std::vector<uint8_t> bytes);
MOCK_API size_t hostileBytesLeft();
// The return values the stream chooses from, vendor codes aside.
MOCK_API std::vector<CK_RV> hostileReturnValues();

// --- call record -------------------------------------------------------------
MOCK_API std::vector<Call> calls();
MOCK_API int callCount(const std::string& function);
MOCK_API void clearCalls();

// --- state queries -----------------------------------------------------------
MOCK_API bool initialized();
MOCK_API CK_FLAGS lastInitializeFlags();  // of the last C_Initialize that ran (0 if no args)
MOCK_API bool lastInitializeHadArgs();
MOCK_API int initializeCount();  // successful C_Initialize calls since reset()
MOCK_API int finalizeCount();    // successful C_Finalize calls since reset()
MOCK_API size_t openSessionCount();
MOCK_API bool loggedIn(CK_SLOT_ID slot, CK_USER_TYPE userType);
MOCK_API std::string tokenLabel(CK_SLOT_ID slot);  // trailing blanks trimmed
MOCK_API std::string userPin(CK_SLOT_ID slot);     // test side only: checks C_SetPIN/C_InitPIN
MOCK_API std::string soPin(CK_SLOT_ID slot);
MOCK_API CK_FLAGS tokenFlags(CK_SLOT_ID slot);
MOCK_API size_t activeFindOperations();
// The last C_Sign that produced a signature; nullopt when none since reset().
// Signatures are as long as the key's (RSA modulus, EC 2 x field size);
// a key with CKA_ALWAYS_AUTHENTICATE = CK_TRUE insists on a context-specific
// login between C_SignInit and C_Sign.
MOCK_API std::optional<SignRecord> lastSignature();
// Moments at which a call entered the module while another was still inside
// it (afterCall() actions count as inside). Not reset by reset().
MOCK_API long overlappingCalls();
MOCK_API void clearOverlappingCalls();
// Whether the thread the worker-thread variant starts in C_Initialize runs.
MOCK_API bool workerRunning();

// --- the image's behaviour ----------------------------------------------------
struct Behaviour {
    bool refusesOsLocking = false;  // C_Initialize with CKF_OS_LOCKING_OK alone: CKR_CANT_LOCK
    bool workerThread = false;      // C_Initialize starts a thread, C_Finalize stops it
    // C_Initialize or C_Login starts a helper process (fork, then the child
    // exits at once), as modules that launch a daemon do.
    bool forksInInitialize = false;
    bool forksInLogin = false;
};
// reset() returns to the behaviour the image was built with.
MOCK_API void setBehaviour(const Behaviour& behaviour);
MOCK_API Behaviour behaviour();

// --- the control API of any image ------------------------------------------------
// Every module image exports mockp11_control(), its own control API as a table,
// so a test reaches the variants it never links against (controlOf()).
struct ControlTable {
    void (*reset)();
    void (*addSlot)(CK_SLOT_ID, const SlotSpec&);
    CK_OBJECT_HANDLE (*addObject)(CK_SLOT_ID, std::vector<Attribute>, std::vector<CK_ATTRIBUTE_TYPE>);
    void (*setBehaviour)(const Behaviour&);
    bool (*initialized)();
    int (*initializeCount)();
    int (*finalizeCount)();
    size_t (*openSessionCount)();
    size_t (*activeFindOperations)();
    long (*overlappingCalls)();
    void (*clearOverlappingCalls)();
    bool (*workerRunning)();
    int (*callCount)(const std::string&);
    bool (*lastInitializeHadArgs)();
    CK_FLAGS (*lastInitializeFlags)();
    bool (*loggedIn)(CK_SLOT_ID, CK_USER_TYPE);
    void (*afterCall)(const std::string&, std::function<void()>, int);
    void (*failCall)(const std::string&, CK_RV, int);
};

// --- attribute builders ------------------------------------------------------
inline Attribute ulongAttr(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&value);
    return {type, std::vector<uint8_t>(bytes, bytes + sizeof value)};
}
inline Attribute boolAttr(CK_ATTRIBUTE_TYPE type, bool value) {
    return {type, std::vector<uint8_t>{static_cast<uint8_t>(value ? CK_TRUE : CK_FALSE)}};
}
inline Attribute stringAttr(CK_ATTRIBUTE_TYPE type, std::string_view value) {
    return {type, std::vector<uint8_t>(value.begin(), value.end())};
}
inline Attribute bytesAttr(CK_ATTRIBUTE_TYPE type, std::vector<uint8_t> value) {
    return {type, std::move(value)};
}

}  // namespace mock

extern "C" __attribute__((visibility("default"))) const mock::ControlTable* mockp11_control();
