// Control of the fault-injecting shim: a PKCS#11 module that loads SoftHSM2
// and forwards every entry point to it, except where a test told it to
// misbehave. The token, its objects, PINs, sessions and signatures are
// SoftHSM2's own; only the lie is ours.
//
// The shim is one shared library (libp11shim_core.so) that holds all state,
// and a few module images (tiny .so files that load it) that the library
// under test dlopen()s: each image has a function list of its own and its own
// initialization state, so the library sees distinct modules. Tests link
// libp11shim_core.so and call these functions directly; rules apply to every
// image. All functions here are thread-safe; none may be called from inside
// an entry point (use afterCall for that).
//
// SoftHSM2 is found through P11SHIM_TARGET, else the path found at build
// time. It reads SOFTHSM2_CONF at its first C_Initialize: set it before.
#pragma once

#include <p11-kit/pkcs11.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#define SHIM_API __attribute__((visibility("default")))

namespace shim {

// The module images. Each is its own loaded image with its own function list.
enum class Image : int {
    standard,       // forwards honestly
    cannotLock,     // C_Initialize with CKF_OS_LOCKING_OK and no mutex callbacks: CKR_CANT_LOCK
    workerThread,   // C_Initialize starts a thread, C_Finalize stops it
    specialDriver,  // the standard image under the file name of the driver whose
                    // certificate handle is its key handle (libkeyfactorpkcs11...)
    count
};
SHIM_API std::string modulePath(Image image = Image::standard);
// A shared library that exports no C_GetFunctionList at all.
SHIM_API std::string noFunctionListModulePath();
// The module the shim forwards to (libsofthsm2.so).
SHIM_API std::string targetPath();

// Ways a module lies. Each applies to the functions liesFor() names.
enum class Lie : uint8_t {
    // Any function: forwards, then returns the rule's rv; or CKR_OK without
    // forwarding, out-parameters untouched.
    doneButFailed, okWithoutDoing,
    // C_GetAttributeValue (every attribute of the template, or only the one at
    // index `value` when below the template size), C_Sign, and the count call
    // of C_GetSlotList: this length instead of the true one, with the return
    // value the honest call had. "Under"/"over" are relative to the buffer
    // given, or to the true length in a length query.
    lengthZero, lengthOne, lengthJustUnder, lengthJustOver, length2Pow31, length2Pow32Minus1, lengthUnavailable,
    okLengthOverBuffer,  // CKR_OK with a length larger than the buffer given
    garbageValue,        // C_GetAttributeValue: every value byte garbage, lengths kept
    // C_GetSlotList. slotsGrow: the count call says one more, the fill call
    // CKR_BUFFER_TOO_SMALL and one more again; slotsShrink: one fewer counted
    // and filled; slotIdsUnknown: IDs no slot has.
    slotsGrow, slotsShrink, slotIdsUnknown,
    // C_FindObjects. moreObjectsThanAsked: a count above the maximum asked (the
    // array holds only that); neverEnding: full batches of handles no object
    // has, for ever; unknownHandles: handles no object has, then the end.
    moreObjectsThanAsked, neverEnding, unknownHandles,
    // C_GetInfo, C_GetSlotInfo, C_GetTokenInfo: text fields of bytes that are
    // not UTF-8; "NUL padded" NUL-terminated and NUL-padded; every flag set,
    // versions 255.255 and counts beyond 2^63.
    textNotUtf8, textNulPadded, numbersGarbage,
    // C_GetFunctionList: CKR_OK with a NULL list; a list whose entries from
    // index `value` on (C_Initialize = 0) are NULL.
    nullList, shortList,
    // C_OpenSession: CKR_OK with CK_INVALID_HANDLE, or with a handle no session
    // has (the real session is closed).
    noHandle, unknownHandle,
    // C_GetSessionInfo: reports the security officer logged in (CKS_RW_SO_FUNCTIONS).
    wrongState,
    // C_Initialize: initializes, then answers CKR_CRYPTOKI_ALREADY_INITIALIZED.
    initializedButSaysAlready,
};
SHIM_API const char* lieName(Lie lie);
SHIM_API std::vector<Lie> liesFor(const std::string& function);

// --- rules -------------------------------------------------------------------
// Rules queue per function: each takes `times` calls (-1: every call from then
// on), after letting `after` calls pass honestly. A function's rules apply
// in the order they were set.

// Returns rv at once without forwarding (the call is still recorded).
SHIM_API void failCall(const std::string& function, CK_RV rv, int times = 1, int after = 0);
// The same, with every out-parameter the function has filled with garbage.
SHIM_API void failWithGarbage(const std::string& function, CK_RV rv, int times = 1, int after = 0);
// Tells the lie; `value` as the lie describes (doneButFailed: the rv returned).
SHIM_API void lie(const std::string& function, Lie lie, CK_ULONG value = ~CK_ULONG{0}, int times = 1,
                  int after = 0);
// Runs `action` right after the call returns from SoftHSM2, before the caller
// gets the result, outside the shim's lock.
SHIM_API void afterCall(const std::string& function, std::function<void()> action, int times = 1);
// fork() inside the call (the child _exit()s at once, the parent waits), as
// modules that start a helper daemon do; then forwards.
SHIM_API void forkInside(const std::string& function, int times = -1);

// --- rewritten replies ---------------------------------------------------------
// Token flags as C_GetTokenInfo reports them for every slot: `set` added and
// `clear` removed (e.g. CKF_PROTECTED_AUTHENTICATION_PATH, CKF_USER_PIN_LOCKED,
// CKF_USER_PIN_FINAL_TRY, CKF_SO_PIN_LOCKED, CKF_TOKEN_INITIALIZED).
SHIM_API void rewriteTokenFlags(CK_FLAGS set, CK_FLAGS clear = 0);
// The same for C_GetSlotInfo.
SHIM_API void rewriteSlotFlags(CK_FLAGS set, CK_FLAGS clear = 0);
// The slot's token vanishes: no CKF_TOKEN_PRESENT, left out of
// C_GetSlotList(CK_TRUE), C_GetTokenInfo and C_OpenSession answer
// CKR_TOKEN_NOT_PRESENT.
SHIM_API void removeToken(CK_SLOT_ID slot);
// A second ID for a slot of SoftHSM2, as a module whose slot IDs use all 64
// bits has: listed after SoftHSM2's own slots (among those with a token while
// `slot` has one), every call naming it goes to `slot` (recorded as `alias`).
SHIM_API void aliasSlot(CK_SLOT_ID alias, CK_SLOT_ID slot);
// C_GetAttributeValue of this object reports the attribute with this value,
// whatever SoftHSM2 keeps (e.g. CKA_EC_POINT on an EC private key), or as
// unavailable (CK_UNAVAILABLE_INFORMATION, CKR_ATTRIBUTE_TYPE_INVALID) when
// value is nullopt.
SHIM_API void overrideAttribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type,
                                std::optional<std::vector<uint8_t>> value);

// --- the hostile stream (fuzzing) --------------------------------------------------
// Every reply decided by a byte stream, after the rules. Per call one byte: 0 or
// 1 in its low two bits answers honestly; 2 fails with a return value chosen by
// the next byte (bit 2 also fills the out-parameters with garbage); 3 tells the
// lie of liesFor() chosen by the next byte, the byte after as its value. An
// exhausted stream answers honestly; an empty one ends the hostile mode.
SHIM_API void setHostileStream(std::vector<uint8_t> bytes);

// --- record ----------------------------------------------------------------------
// One entry point call as the shim received it. PINs are never recorded.
struct Call {
    std::string function;
    Image image = Image::standard;
    CK_SLOT_ID slot = 0;            // the slot argument, else the slot of the session
    CK_SESSION_HANDLE session = 0;  // the session argument; C_OpenSession: the new handle
    CK_ULONG userType = 0;          // C_Login
    CK_OBJECT_HANDLE object = 0;    // C_GetAttributeValue, C_SignInit: the object or key
    std::vector<CK_ATTRIBUTE_TYPE> attributeTypes{};  // C_GetAttributeValue
    CK_RV result = CKR_OK;
};
SHIM_API std::vector<Call> calls();
SHIM_API int callCount(const std::string& function);
SHIM_API void clearCalls();

// --- state -----------------------------------------------------------------------
SHIM_API bool initialized(Image image = Image::standard);
SHIM_API int initializeCount(Image image = Image::standard);  // successful, since reset()
SHIM_API int finalizeCount(Image image = Image::standard);
SHIM_API bool lastInitializeHadArgs(Image image = Image::standard);
SHIM_API CK_FLAGS lastInitializeFlags(Image image = Image::standard);
// Sessions opened through the shim (any image) and not yet closed.
SHIM_API size_t openSessionCount();
// Searches begun through the shim and not yet finished.
SHIM_API size_t activeFindOperations();
// Moments at which a call entered an image while another call was inside it.
SHIM_API long overlappingCalls(Image image);

// Back to honest forwarding: no rules, rewrites, aliases, overrides or
// stream; record and counters emptied. SoftHSM2's own state is not touched.
SHIM_API void reset();

}  // namespace shim
