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
    return runGuarded(m_log, [&] { return closeSession(m_log); });
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
        if (!loginAs(userType, pin.getUtf8(), m_log)) {
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
    if (!m_recentSlotAnswers.takeSlotsWithToken(slotId, ids) && !getSlotIdsWithTokenPresent(ids, log)) {
        log.LogError("Failed to get slot IDs");
        return false;
    }
    if (slotId == -1) {
        for (CK_SLOT_ID id : ids) {
            if (openSessionOn(id, readWrite, log)) {
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
    if (!openSessionOn(wanted, readWrite, log))
        return false;
    m_slotId = wanted;
    return true;
}

bool ClsPkcs11::openSessionOn(CK_SLOT_ID slotId, bool readWrite, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_OpenSession>(false, log);
    if (!module)
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
    if (module->C_OpenSession(slotId, flags, nullptr, nullptr, &session) != CKR_OK)
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
    CK_SESSION_INFO info{};
    if (m_hSession == 0 || quietCalls(log).C_GetSessionInfo(m_hSession, &info) != CKR_OK)
        return;
    m_soLoggedIn = info.state == CKS_RW_SO_FUNCTIONS;
    m_userLoggedIn = info.state == CKS_RO_USER_FUNCTIONS || info.state == CKS_RW_USER_FUNCTIONS;
}

bool ClsPkcs11::closeSession(LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_CloseSession>(true, log);
    if (!module)
        return false;
    const CK_RV rv = module->C_CloseSession(m_hSession);
    if (sessionIsGone(rv)) {
        ModuleInitRegistry::sessionClosed(m_dlHandle.image(), m_slotId);
        m_hSession = 0;
        m_soLoggedIn = false;
        m_userLoggedIn = false;
    }
    return rv == CKR_OK;
}

// For cleanup paths: never fails, whatever the module says about a session
// that may already be gone. The login is left to the other objects of this
// process that still have a session on the token: C_Logout would end theirs.
void ClsPkcs11::endSessionQuietly(LogBase& log)
{
    if (m_hSession != 0 && m_dlHandle.functions() != nullptr) {
        const ModuleCalls module = quietCalls(log);
        const bool othersOnToken = ModuleInitRegistry::sessions(m_dlHandle.image(), m_slotId) > 1;
        if ((m_soLoggedIn || m_userLoggedIn) && othersOnToken)
            log.LogInfo("Not logging out: another object of this application still has a session on the token.");
        else if (m_soLoggedIn || m_userLoggedIn)
            module.C_Logout(m_hSession);
        module.C_CloseSession(m_hSession);
        ModuleInitRegistry::sessionClosed(m_dlHandle.image(), m_slotId);
    }
    m_hSession = 0;
    m_soLoggedIn = false;
    m_userLoggedIn = false;
}

} // namespace p11client
