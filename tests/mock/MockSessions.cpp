// C_OpenSession, C_CloseSession, C_CloseAllSessions, C_GetSessionInfo.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

namespace mock::entry {

namespace {

// Why the token would refuse one more session, or CKR_OK.
CK_RV sessionRefusal(const State& s, const Slot& slot, bool readWrite) {
    const Token& token = *slot.token;
    if (!readWrite && token.loggedInAs == CKU_SO) return CKR_SESSION_READ_WRITE_SO_EXISTS;
    if (isLimited(token.spec.maxSessionCount) &&
        s.countSessions(slot.id, false) >= token.spec.maxSessionCount)
        return CKR_SESSION_COUNT;
    if (readWrite && isLimited(token.spec.maxRwSessionCount) &&
        s.countSessions(slot.id, true) >= token.spec.maxRwSessionCount)
        return CKR_SESSION_COUNT;
    return CKR_OK;
}

CK_STATE sessionState(const Session& session, const Token& token) {
    if (token.loggedInAs == CKU_SO) return CKS_RW_SO_FUNCTIONS;
    if (token.loggedInAs == CKU_USER)
        return session.readWrite ? CKS_RW_USER_FUNCTIONS : CKS_RO_USER_FUNCTIONS;
    return session.readWrite ? CKS_RW_PUBLIC_SESSION : CKS_RO_PUBLIC_SESSION;
}

CK_RV openSession(State& s, CK_SLOT_ID slotID, CK_FLAGS flags, CK_SESSION_HANDLE_PTR phSession,
                  Call& call) {
    Slot* slot = s.findSlot(slotID);
    if (slot == nullptr) return CKR_SLOT_ID_INVALID;
    if (phSession == nullptr) return CKR_ARGUMENTS_BAD;
    if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
    if (slot->spec.openSessionResult != CKR_OK) return slot->spec.openSessionResult;
    if (!slot->token) return CKR_TOKEN_NOT_PRESENT;
    bool readWrite = (flags & CKF_RW_SESSION) != 0;
    if (CK_RV refusal = sessionRefusal(s, *slot, readWrite); refusal != CKR_OK) return refusal;
    Session session{.handle = s.nextSessionHandle++, .slot = slotID, .readWrite = readWrite};
    s.sessions.emplace(session.handle, session);
    *phSession = call.session = session.handle;
    return CKR_OK;
}

}  // namespace

CK_RV C_OpenSession(CK_SLOT_ID slotID, CK_FLAGS flags, CK_VOID_PTR, CK_NOTIFY,
                    CK_SESSION_HANDLE_PTR phSession) {
    return dispatch({.function = "C_OpenSession", .slot = slotID, .flags = flags}, Needs::initialized,
                    [&](State& s, Call& call) { return openSession(s, slotID, flags, phSession, call); },
                    [&](const Verdict& v, auto&) {
        if (phSession == nullptr) return CKR_ARGUMENTS_BAD;
        if (v.kind == Verdict::Kind::fail) {
            fillGarbage(phSession, sizeof *phSession, v.value);
            return v.rv;
        }
        *phSession = v.lie == Lie::noHandle ? CK_INVALID_HANDLE : 0x7FFF0000 + v.value;
        return CKR_OK;
    });
}

CK_RV C_CloseSession(CK_SESSION_HANDLE hSession) {
    return dispatch({.function = "C_CloseSession", .session = hSession}, Needs::initialized,
                    [&](State& s, Call&) {
        if (s.findSession(hSession) == nullptr) return CKR_SESSION_HANDLE_INVALID;
        s.closeSession(hSession);
        return CKR_OK;
    });
}

CK_RV C_CloseAllSessions(CK_SLOT_ID slotID) {
    return dispatch({.function = "C_CloseAllSessions", .slot = slotID}, Needs::initialized,
                    [&](State& s, Call&) {
        const Slot* slot = s.findSlot(slotID);
        if (slot == nullptr) return CKR_SLOT_ID_INVALID;
        if (!slot->token) return CKR_TOKEN_NOT_PRESENT;
        s.closeSessionsOf(slotID);
        return CKR_OK;
    });
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE hSession, CK_SESSION_INFO_PTR pInfo) {
    return dispatch({.function = "C_GetSessionInfo", .session = hSession}, Needs::initialized,
                    [&](State& s, Call&) {
        const Session* session = s.findSession(hSession);
        if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
        if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
        pInfo->slotID = session->slot;
        pInfo->state = sessionState(*session, s.tokenOf(*session));
        pInfo->flags = CKF_SERIAL_SESSION | (session->readWrite ? CKF_RW_SESSION : 0);
        pInfo->ulDeviceError = 0;
        return CKR_OK;
    }, [&](const Verdict& v, auto& honest) {
        if (v.kind == Verdict::Kind::fail) {
            if (pInfo != nullptr) fillGarbage(pInfo, sizeof *pInfo, v.value);
            return v.rv;
        }
        const CK_RV rv = honest();
        if (rv == CKR_OK) pInfo->state = CKS_RW_SO_FUNCTIONS;
        return rv;
    });
}

}  // namespace mock::entry
