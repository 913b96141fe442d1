// C_Login, C_Logout. The login state belongs to the token: every session of
// the token shares it, and closing the token's last session ends it.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

#include <algorithm>

namespace mock::entry {

namespace {

bool pinMatches(const std::string& expected, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    return expected.size() == ulPinLen && std::equal(expected.begin(), expected.end(), pPin);
}

bool pinpad(const Token& token) {
    return (token.spec.flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0;
}

// A NULL PIN means "ask the pinpad", which the mock answers with the right PIN.
CK_RV checkPin(const Token& token, const std::string& expected, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    if (pPin == nullptr) return pinpad(token) ? CKR_OK : CKR_ARGUMENTS_BAD;
    return pinMatches(expected, pPin, ulPinLen) ? CKR_OK : CKR_PIN_INCORRECT;
}

CK_RV contextLogin(State& s, Session& session, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    if (!session.cryptoOperationActive) return CKR_OPERATION_NOT_INITIALIZED;
    const Token& token = s.tokenOf(session);
    const CK_RV rv = checkPin(token, token.spec.userPin, pPin, ulPinLen);
    if (rv == CKR_OK && session.sign) session.sign->contextLoggedIn = true;
    return rv;
}

CK_RV soOrUserLogin(State& s, const Session& session, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
                    CK_ULONG ulPinLen) {
    Token& token = s.tokenOf(session);
    if (token.loggedInAs == userType) return CKR_USER_ALREADY_LOGGED_IN;
    if (token.loggedInAs) return CKR_USER_ANOTHER_ALREADY_LOGGED_IN;
    bool so = userType == CKU_SO;
    if (so && s.countSessions(session.slot, false) != s.countSessions(session.slot, true))
        return CKR_SESSION_READ_ONLY_EXISTS;
    if (!so && (token.spec.flags & CKF_USER_PIN_INITIALIZED) == 0) return CKR_USER_PIN_NOT_INITIALIZED;
    if (token.spec.flags & (so ? CKF_SO_PIN_LOCKED : CKF_USER_PIN_LOCKED)) return CKR_PIN_LOCKED;
    CK_RV rv = checkPin(token, so ? token.spec.soPin : token.spec.userPin, pPin, ulPinLen);
    if (rv == CKR_OK) token.loggedInAs = userType;
    return rv;
}

CK_RV login(State& s, CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin,
            CK_ULONG ulPinLen) {
    Session* session = s.findSession(hSession);
    if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
    if (userType == CKU_CONTEXT_SPECIFIC) return contextLogin(s, *session, pPin, ulPinLen);
    if (userType != CKU_SO && userType != CKU_USER) return CKR_USER_TYPE_INVALID;
    return soOrUserLogin(s, *session, userType, pPin, ulPinLen);
}

}  // namespace

CK_RV C_Login(CK_SESSION_HANDLE hSession, CK_USER_TYPE userType, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    return dispatch({.function = "C_Login", .session = hSession, .userType = userType}, Needs::initialized,
                    [&](State& s, Call&) {
                        if (s.behaviour.forksInLogin) forkHelperProcess();
                        return login(s, hSession, userType, pPin, ulPinLen);
                    });
}

CK_RV C_Logout(CK_SESSION_HANDLE hSession) {
    return dispatch({.function = "C_Logout", .session = hSession}, Needs::initialized, [&](State& s, Call&) {
        const Session* session = s.findSession(hSession);
        if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
        Token& token = s.tokenOf(*session);
        if (!token.loggedInAs) return CKR_USER_NOT_LOGGED_IN;
        token.loggedInAs.reset();
        return CKR_OK;
    });
}

}  // namespace mock::entry
