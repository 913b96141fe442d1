// Login and logout, the PIN checks before a login, and the context-specific
// PIN kept for signing.
#include "ClsPkcs11.h"

#include "Cryptoki.h"
#include "PinArg.h"

#include <optional>

namespace p11client {

namespace {

void logContextPinKept(LogBase& log)
{
    log.LogInfo("This is a context-specific PIN, so we're not actually logging in right now...");
    log.LogInfo("The context-specific PIN is saved for the time when each signing operation occurs.");
    log.LogInfo("At that point, the PIN is used within the context of signing.");
}

// Return values by which a token refuses the PIN itself.
bool pinRefused(CK_RV rv)
{
    return rv == CKR_PIN_INCORRECT || rv == CKR_PIN_INVALID || rv == CKR_PIN_LEN_RANGE || rv == CKR_PIN_EXPIRED
        || rv == CKR_PIN_LOCKED;
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

bool ClsPkcs11::Login(int userType, const XString& pin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Login");
    return runGuarded(m_log, [&] {
        if (!pinIsWhole(pin, m_log))
            return false;
        if (userType == kUserTypeContextSpecific) {
            keepContextPin(pin);
            logContextPinKept(m_log);
            logSuccessFailure2(true, m_log);
            return true;
        }
        return loginAs(userType, pin.getUtf8(), m_log);
    });
}

bool ClsPkcs11::Logout()
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Logout");
    return runGuarded(m_log, [&] {
        m_log.LogInfo("Logging out ends the login of every session this application has on the token.");
        return logout(m_log);
    });
}

bool ClsPkcs11::login(int userType, const char* pin, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "Login");
    return loginAs(userType, pin, log);
}

void ClsPkcs11::setContextSpecificPin(const XString& pin, LogBase& log)
{
    CritSecExitor lock(this);
    keepContextPin(pin);
    logContextPinKept(log);
}

// The context PIN belongs to the token of the session open when it was given,
// or else to the token of the next session opened: another token's PIN
// would use up one of that token's tries.
void ClsPkcs11::keepContextPin(const XString& pin)
{
    m_sigContextPin.copyFromX(pin);
    m_contextPinSlot = m_hSession != 0 ? std::optional<CK_SLOT_ID>(m_slotId) : std::nullopt;
}

void ClsPkcs11::forgetContextPin(const char* why, LogBase& log)
{
    if (!m_sigContextPin.isEmpty())
        log.LogInfo(why);
    m_sigContextPin.clear();
    m_contextPinSlot.reset();
}

void ClsPkcs11::forgetContextPinOfOtherToken(CK_SLOT_ID slotId, LogBase& log)
{
    if (m_sigContextPin.isEmpty() || !m_contextPinSlot)
        m_contextPinSlot = slotId;
    else if (*m_contextPinSlot != slotId)
        forgetContextPin("The context-specific PIN belongs to the token of another slot: it is forgotten.", log);
}

bool ClsPkcs11::alreadyLoggedIn(int userType, LogBase&)
{
    CritSecExitor lock(this);
    if (m_hSession == 0)
        return false;
    if (userType < 0)
        userType = kUserTypeUser;
    if (userType == kUserTypeSecurityOfficer)
        return m_soLoggedIn;
    if (userType == kUserTypeUser)
        return m_userLoggedIn;
    return false;
}

// The token's flags, when the module tells them. Asked on the side of a
// login or a PIN change, so a failure is only an info line.
std::optional<CK_FLAGS> ClsPkcs11::tokenFlags(CK_SLOT_ID slotId, LogBase& log)
{
    if (const std::optional<CK_FLAGS> recent = m_recentSlotAnswers.takeTokenFlags(slotId))
        return recent;
    CK_TOKEN_INFO info{};
    if (quietCalls(log).C_GetTokenInfo(slotId, &info) != CKR_OK)
        return std::nullopt;
    return info.flags;
}

// An empty PIN is only usable on a token with a PIN pad, where the user
// types it on the reader. The caller reads the token's flags only when a PIN
// is empty or it needs them anyway.
bool ClsPkcs11::pinUsable(const PinArg& pin, std::optional<CK_FLAGS> flags, LogBase& log)
{
    if (pin.size != 0)
        return true;
    const bool pinPad = flags && (*flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
    if (!pinPad)
        log.LogError("The PIN is empty.");
    return pinPad;
}

bool ClsPkcs11::pinUsable(const PinArg& pin, CK_SLOT_ID slotId, LogBase& log)
{
    return pin.size != 0 || pinUsable(pin, tokenFlags(slotId, log), log);
}

// A login already in place counts as success.
bool ClsPkcs11::loginAs(int userType, const char* pin, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_Login>(true, log, ModuleCalls::Report::None);
    if (!module)
        return false;
    log.LogDataLong("userType", userType);
    const PinArg pinArg(pin);
    const bool warnable = userType == CKU_SO || userType == CKU_USER;
    const std::optional<CK_FLAGS> flags = warnable || pinArg.size == 0 ? tokenFlags(m_slotId, log) : std::nullopt;
    if (!pinUsable(pinArg, flags, log))
        return false;
    if (warnable && flags)
        warnAboutPinState(*flags, static_cast<CK_USER_TYPE>(userType), log);
    CK_RV rv = module->C_Login(m_hSession, static_cast<CK_USER_TYPE>(userType), pinArg.bytes, pinArg.size);
    if (rv == CKR_USER_ALREADY_LOGGED_IN) {
        log.LogInfo("Already logged in.");
        rv = CKR_OK;
    }
    if (!reportCall("C_Login", rv, log)) {
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

bool ClsPkcs11::logout(LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_Logout>(true, log);
    if (!module)
        return false;
    const CK_RV rv = module->C_Logout(m_hSession);
    if (rv == CKR_OK || rv == CKR_USER_NOT_LOGGED_IN) {
        m_soLoggedIn = false;
        m_userLoggedIn = false;
    }
    return rv == CKR_OK;
}

} // namespace p11client
