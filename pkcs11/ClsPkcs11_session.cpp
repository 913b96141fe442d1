// Sessions and login.
#include "ClsPkcs11.h"

#include "PinArg.h"

#include <algorithm>
#include <vector>

namespace p11client {

namespace {

void logContextPinKept(LogBase& log)
{
    log.LogInfo("This is a context-specific PIN, so we're not actually logging in right now...");
    log.LogInfo("The context-specific PIN is saved for the time when each signing operation occurs.");
    log.LogInfo("At that point, the PIN is used within the context of signing.");
}

} // namespace

bool ClsPkcs11::OpenSession(int slotId, bool readWrite)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "OpenSession");
    const bool ok = runGuarded(m_log, [&] { return openSession(slotId, readWrite, m_log); });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::CloseSession()
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "CloseSession");
    return runGuarded(m_log, [&] { return C_CloseSession(m_log); });
}

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
        return C_Login(userType, pin.getUtf8(), m_log);
    });
}

bool ClsPkcs11::Logout()
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Logout");
    return runGuarded(m_log, [&] {
        m_log.LogInfo("Logging out ends the login of every session this application has on the token.");
        return C_Logout(m_log);
    });
}

bool ClsPkcs11::openSession(int slotId, bool readWrite, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "openSession");
    std::vector<CK_SLOT_ID> ids;
    if (!getSlotIdsWithTokenPresent(ids, log)) {
        log.LogError("Failed to get slot IDs");
        return false;
    }
    if (slotId == -1) {
        for (CK_SLOT_ID id : ids) {
            if (C_OpenSession(id, readWrite, log)) {
                m_slotId = id;
                return true;
            }
        }
        return false;
    }
    log.LogDataLong("desiredSlotId", slotId);
    CK_SLOT_ID wanted = 0;
    if (!slotOfNumber(slotId, ids, wanted, log))
        return false;
    if (!C_OpenSession(wanted, readWrite, log))
        return false;
    m_slotId = wanted;
    return true;
}

bool ClsPkcs11::login(int userType, const char* pin, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "Login");
    return C_Login(userType, pin, log);
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

} // namespace p11client
