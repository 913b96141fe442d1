// The call layer for slots, sessions and login.
#include "ClsPkcs11.h"

#include "Cryptoki.h"
#include "ModuleInitRegistry.h"
#include "PinArg.h"

#include <algorithm>
#include <cstdint>
#include <optional>

namespace p11client {

namespace {

// No reader or HSM has thousands of slots; a larger count is a broken module.
constexpr CK_ULONG kMaxSlots = 4096;
// A module whose slot list changes between the count and the fill call is
// asked again, a few times.
constexpr int kSlotListAttempts = 4;

bool sessionIsGone(CK_RV rv)
{
    return rv == CKR_OK || rv == CKR_SESSION_CLOSED || rv == CKR_SESSION_HANDLE_INVALID
        || rv == CKR_DEVICE_REMOVED || rv == CKR_TOKEN_NOT_PRESENT;
}

// Return values by which a token refuses the PIN itself.
bool pinRefused(CK_RV rv)
{
    return rv == CKR_PIN_INCORRECT || rv == CKR_PIN_INVALID || rv == CKR_PIN_LEN_RANGE || rv == CKR_PIN_EXPIRED
        || rv == CKR_PIN_LOCKED;
}

// The token's flags, when the module tells them.
std::optional<CK_FLAGS> tokenFlags(CK_FUNCTION_LIST* f, CK_SLOT_ID slotId)
{
    CK_TOKEN_INFO info{};
    if (f == nullptr || f->C_GetTokenInfo == nullptr || f->C_GetTokenInfo(slotId, &info) != CKR_OK)
        return std::nullopt;
    return info.flags;
}

// Before a login: a PIN the token has locked, or one wrong try away from
// locking, is worth saying before the token is asked.
void warnAboutPinState(CK_FLAGS flags, CK_USER_TYPE userType, LogBase& log)
{
    const bool so = userType == CKU_SO;
    if ((flags & (so ? CKF_SO_PIN_LOCKED : CKF_USER_PIN_LOCKED)) != 0)
        log.LogInfo(so ? "Warning: the token reports the security officer PIN as locked."
                       : "Warning: the token reports the user PIN as locked.");
    else if ((flags & (so ? CKF_SO_PIN_FINAL_TRY : CKF_USER_PIN_FINAL_TRY)) != 0)
        log.LogInfo(so ? "Warning: the token reports one try left for the security officer PIN; a wrong PIN locks it."
                       : "Warning: the token reports one try left for the user PIN; a wrong PIN locks it.");
}

} // namespace

bool ClsPkcs11::getSlotList(bool tokenPresent, std::vector<CK_SLOT_ID>& slotIds, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_GetSlotList, "C_GetSlotList", false, log);
    if (f == nullptr)
        return false;
    const CK_BBOOL present = tokenPresent ? CK_TRUE : CK_FALSE;
    for (int attempt = 0; attempt < kSlotListAttempts; ++attempt) {
        CK_ULONG count = 0;
        if (!checkRv("C_GetSlotList", f->C_GetSlotList(present, nullptr, &count), log))
            return false;
        if (count > kMaxSlots) {
            log.LogError("C_GetSlotList reported more slots than any device has.");
            log.LogDataLong("slotCount", static_cast<long>(count));
            return false;
        }
        slotIds.assign(count, 0);
        if (count == 0)
            return true;
        CK_ULONG filled = count;
        const CK_RV rv = f->C_GetSlotList(present, slotIds.data(), &filled);
        if (rv == CKR_BUFFER_TOO_SMALL)
            continue; // a slot appeared between the two calls
        if (!checkRv("C_GetSlotList", rv, log))
            return false;
        slotIds.resize(std::min(filled, count));
        return true;
    }
    log.LogError("The slot list kept changing while it was read.");
    return false;
}

bool ClsPkcs11::getSlotIdsWithTokenPresent(std::vector<CK_SLOT_ID>& slotIds, LogBase& log)
{
    if (!getSlotList(true, slotIds, log))
        return false;
    // Only session opening asks, and without a token there is none to open.
    if (slotIds.empty())
        log.LogError("No slot has a token.");
    return true;
}

// The caller's int carries 32 bits of a 64-bit slot ID. It names a slot only
// when no other slot of the module has the same low bits; then the whole ID
// goes to every call.
bool ClsPkcs11::slotOfNumber(int slotNumber, const std::vector<CK_SLOT_ID>& all, CK_SLOT_ID& slotId, LogBase& log)
{
    const auto low = static_cast<std::uint32_t>(slotNumber);
    const auto named = [low](CK_SLOT_ID id) { return static_cast<std::uint32_t>(id) == low; };
    const auto count = std::ranges::count_if(all, named);
    if (count == 0) {
        log.LogError("Did not find desired slot ID.");
        return false;
    }
    if (count > 1) {
        log.LogError("The slot number names more than one slot of the module; "
                     "the module's slot IDs do not fit in an int.");
        return false;
    }
    slotId = *std::ranges::find_if(all, named);
    return true;
}

bool ClsPkcs11::C_OpenSession(CK_SLOT_ID slotId, bool readWrite, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_OpenSession, "C_OpenSession", false, log);
    if (f == nullptr)
        return false;
    if (m_hSession != 0) {
        log.LogInfo("Closing the session that is open before opening another.");
        endSessionQuietly(log);
    }
    log.LogDataLong("slotId", static_cast<long>(slotId));
    if (slotId != m_slotId)
        clearTokenCaches(log); // they describe the token of another slot
    forgetContextPinOfOtherToken(slotId, log);
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    if (!checkRv("C_OpenSession", f->C_OpenSession(slotId, flags, nullptr, nullptr, &session), log))
        return false;
    if (session == CK_INVALID_HANDLE) {
        log.LogError("C_OpenSession returned no session handle.");
        return false;
    }
    m_hSession = session;
    ModuleInitRegistry::sessionOpened(m_dlHandle.image(), slotId);
    refreshLoginState(log);
    return true;
}

// Login state belongs to the token, not to one session: a new session on a
// token where this application is already logged in starts logged in.
void ClsPkcs11::refreshLoginState(LogBase& log)
{
    m_soLoggedIn = false;
    m_userLoggedIn = false;
    CK_FUNCTION_LIST* f = m_dlHandle.functions();
    if (f == nullptr || f->C_GetSessionInfo == nullptr || m_hSession == 0)
        return;
    CK_SESSION_INFO info{};
    if (!checkRv("C_GetSessionInfo", f->C_GetSessionInfo(m_hSession, &info), log, true))
        return;
    m_soLoggedIn = info.state == CKS_RW_SO_FUNCTIONS;
    m_userLoggedIn = info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS;
}

bool ClsPkcs11::C_CloseSession(LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_CloseSession, "C_CloseSession", true, log);
    if (f == nullptr)
        return false;
    const CK_RV rv = f->C_CloseSession(m_hSession);
    if (sessionIsGone(rv)) {
        ModuleInitRegistry::sessionClosed(m_dlHandle.image(), m_slotId);
        m_hSession = 0;
        m_soLoggedIn = false;
        m_userLoggedIn = false;
    }
    return checkRv("C_CloseSession", rv, log);
}

// For cleanup paths: never fails, whatever the module says about a session
// that may already be gone. The login is left to the other objects of this
// process that still have a session on the token: C_Logout would end theirs.
void ClsPkcs11::endSessionQuietly(LogBase& log)
{
    CK_FUNCTION_LIST* f = m_dlHandle.functions();
    if (m_hSession != 0 && f != nullptr) {
        const bool othersOnToken = ModuleInitRegistry::sessions(m_dlHandle.image(), m_slotId) > 1;
        if ((m_soLoggedIn || m_userLoggedIn) && othersOnToken)
            log.LogInfo("Not logging out: another object of this application still has a session on the token.");
        else if ((m_soLoggedIn || m_userLoggedIn) && f->C_Logout != nullptr)
            checkRv("C_Logout", f->C_Logout(m_hSession), log, true);
        if (f->C_CloseSession != nullptr)
            checkRv("C_CloseSession", f->C_CloseSession(m_hSession), log, true);
        ModuleInitRegistry::sessionClosed(m_dlHandle.image(), m_slotId);
    }
    m_hSession = 0;
    m_soLoggedIn = false;
    m_userLoggedIn = false;
}

// An empty PIN is only usable on a token with a PIN pad, where the user
// types it on the reader.
bool ClsPkcs11::pinUsable(const PinArg& pin, CK_SLOT_ID slotId, LogBase& log)
{
    if (pin.size != 0)
        return true;
    CK_FUNCTION_LIST* f = m_dlHandle.functions();
    CK_TOKEN_INFO info{};
    const bool pinPad = f != nullptr && f->C_GetTokenInfo != nullptr
        && checkRv("C_GetTokenInfo", f->C_GetTokenInfo(slotId, &info), log, true)
        && (info.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    if (!pinPad)
        log.LogError("The PIN is empty.");
    return pinPad;
}

bool ClsPkcs11::C_Login(int userType, const char* pin, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_Login, "C_Login", true, log);
    if (f == nullptr)
        return false;
    log.LogDataLong("userType", userType);
    const PinArg pinArg(pin);
    if (!pinUsable(pinArg, m_slotId, log))
        return false;
    if (userType == CKU_SO || userType == CKU_USER) {
        if (const std::optional<CK_FLAGS> flags = tokenFlags(f, m_slotId))
            warnAboutPinState(*flags, static_cast<CK_USER_TYPE>(userType), log);
    }
    CK_RV rv = f->C_Login(m_hSession, static_cast<CK_USER_TYPE>(userType), pinArg.bytes, pinArg.size);
    if (rv == CKR_USER_ALREADY_LOGGED_IN) {
        log.LogInfo("Already logged in.");
        rv = CKR_OK;
    }
    if (!checkRv("C_Login", rv, log)) {
        // The PIN kept for signing would be offered again at the next
        // signature: a PIN the token refused is never tried twice.
        if (userType == CKU_CONTEXT_SPECIFIC && pinRefused(rv) && !m_sigContextPin.isEmpty()) {
            m_sigContextPin.clear();
            log.LogInfo("The context-specific PIN was refused; it is forgotten and not tried again.");
        }
        return false;
    }
    // Many tokens show private keys, and some certificates, only after a
    // login: the next search must see what this one revealed. A
    // context-specific login reveals nothing; it authorizes one signature.
    if (userType != CKU_CONTEXT_SPECIFIC)
        clearTokenCaches(log);
    if (userType == CKU_SO)
        m_soLoggedIn = true;
    else if (userType == CKU_USER)
        m_userLoggedIn = true;
    return true;
}

bool ClsPkcs11::C_Logout(LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_Logout, "C_Logout", true, log);
    if (f == nullptr)
        return false;
    const CK_RV rv = f->C_Logout(m_hSession);
    if (rv == CKR_OK || rv == CKR_USER_NOT_LOGGED_IN) {
        m_soLoggedIn = false;
        m_userLoggedIn = false;
    }
    return checkRv("C_Logout", rv, log);
}

} // namespace p11client
