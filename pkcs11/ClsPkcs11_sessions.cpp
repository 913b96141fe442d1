// Sessions: opening one on a slot, closing it, and the quick way from
// nothing to a logged-in session.
#include "ClsPkcs11.h"

#include "ModuleInitRegistry.h"
#include "PinArg.h"

#include <vector>

namespace p11client {

namespace {

bool sessionIsGone(CK_RV rv)
{
    return rv == CKR_OK || rv == CKR_SESSION_CLOSED || rv == CKR_SESSION_HANDLE_INVALID
        || rv == CKR_DEVICE_REMOVED || rv == CKR_TOKEN_NOT_PRESENT;
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

bool ClsPkcs11::QuickSession(int userType, const XString& pin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "QuickSession");
    return runGuarded(m_log, [&] {
        if (!pinIsWhole(pin, m_log))
            return false;
        if (!m_initialized && !pkcs11_initialize(m_log)) {
            m_log.LogError("Failed to initialize");
            return false;
        }
        if (!openSession(-1, true, m_log)) {
            m_log.LogError("Failed to open session.");
            return false;
        }
        if (pin.isEmpty()) {
            m_log.LogInfo("PIN is empty, not logging in.");
            logSuccessFailure(true);
            return true;
        }
        if (!C_Login(userType, pin.getUtf8(), m_log)) {
            m_log.LogError("Failed to login.");
            return false;
        }
        logSuccessFailure(true);
        return true;
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

} // namespace p11client
