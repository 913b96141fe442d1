// C_SetPIN, C_InitPIN, C_InitToken.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

namespace mock::entry {

namespace {

bool pinLengthFits(const Token& token, CK_ULONG length) {
    return length >= token.spec.minPinLen && length <= token.spec.maxPinLen;
}

std::string pinText(CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    return std::string(reinterpret_cast<const char*>(pPin), ulPinLen);
}

// The SO changes the SO PIN; anyone else (user or public session) the user PIN.
CK_RV setPin(State& s, CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
             CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen) {
    const Session* session = s.findSession(hSession);
    if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
    if (pOldPin == nullptr || pNewPin == nullptr) return CKR_ARGUMENTS_BAD;
    if (!session->readWrite) return CKR_SESSION_READ_ONLY;
    Token& token = s.tokenOf(*session);
    std::string& pin = token.loggedInAs == CKU_SO ? token.spec.soPin : token.spec.userPin;
    if (pinText(pOldPin, ulOldLen) != pin) return CKR_PIN_INCORRECT;
    if (!pinLengthFits(token, ulNewLen)) return CKR_PIN_LEN_RANGE;
    pin = pinText(pNewPin, ulNewLen);
    return CKR_OK;
}

CK_RV initPin(State& s, CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    const Session* session = s.findSession(hSession);
    if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
    if (pPin == nullptr) return CKR_ARGUMENTS_BAD;
    Token& token = s.tokenOf(*session);
    if (token.loggedInAs != CKU_SO) return CKR_USER_NOT_LOGGED_IN;
    if (!session->readWrite) return CKR_SESSION_READ_ONLY;
    if (!pinLengthFits(token, ulPinLen)) return CKR_PIN_LEN_RANGE;
    token.spec.userPin = pinText(pPin, ulPinLen);
    token.spec.flags |= CKF_USER_PIN_INITIALIZED;
    token.spec.flags &= ~(CKF_USER_PIN_LOCKED | CKF_USER_PIN_COUNT_LOW | CKF_USER_PIN_FINAL_TRY);
    return CKR_OK;
}

// An initialized token checks the SO PIN; a fresh one takes it as its SO PIN.
CK_RV initToken(State& s, CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pLabel) {
    Token* token = s.findToken(slotID);
    if (token == nullptr) return s.findSlot(slotID) ? CKR_TOKEN_NOT_PRESENT : CKR_SLOT_ID_INVALID;
    if (pPin == nullptr || pLabel == nullptr) return CKR_ARGUMENTS_BAD;
    if (s.countSessions(slotID, false) > 0) return CKR_SESSION_EXISTS;
    bool initialized = (token->spec.flags & CKF_TOKEN_INITIALIZED) != 0;
    if (initialized && pinText(pPin, ulPinLen) != token->spec.soPin) return CKR_PIN_INCORRECT;
    if (!initialized) token->spec.soPin = pinText(pPin, ulPinLen);
    token->spec.label = std::string(reinterpret_cast<const char*>(pLabel), sizeof(CK_TOKEN_INFO::label));
    token->spec.userPin.clear();
    token->spec.flags = (token->spec.flags | CKF_TOKEN_INITIALIZED) & ~CKF_USER_PIN_INITIALIZED;
    token->objects.clear();
    return CKR_OK;
}

}  // namespace

CK_RV C_SetPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pOldPin, CK_ULONG ulOldLen,
               CK_UTF8CHAR_PTR pNewPin, CK_ULONG ulNewLen) {
    return dispatch({.function = "C_SetPIN", .session = hSession}, Needs::initialized, [&](State& s, Call&) {
        return setPin(s, hSession, pOldPin, ulOldLen, pNewPin, ulNewLen);
    });
}

CK_RV C_InitPIN(CK_SESSION_HANDLE hSession, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen) {
    return dispatch({.function = "C_InitPIN", .session = hSession}, Needs::initialized,
                    [&](State& s, Call&) { return initPin(s, hSession, pPin, ulPinLen); });
}

CK_RV C_InitToken(CK_SLOT_ID slotID, CK_UTF8CHAR_PTR pPin, CK_ULONG ulPinLen, CK_UTF8CHAR_PTR pLabel) {
    return dispatch({.function = "C_InitToken", .slot = slotID}, Needs::initialized,
                    [&](State& s, Call&) { return initToken(s, slotID, pPin, ulPinLen, pLabel); });
}

}  // namespace mock::entry
