// C_SignInit, C_Sign. The "signature" is a deterministic pattern of the
// right length: what a test checks is what the library asked the token to
// sign, and whether it logged in for a key that insists on it.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

#include <algorithm>
#include <cstring>

namespace mock::entry {

namespace {

const std::vector<uint8_t>* attributeOf(const Object& key, CK_ATTRIBUTE_TYPE type) {
    const auto it = key.attributes.find(type);
    return it != key.attributes.end() ? &it->second : nullptr;
}

bool flagOf(const Object& key, CK_ATTRIBUTE_TYPE type) {
    const std::vector<uint8_t>* v = attributeOf(key, type);
    return v != nullptr && v->size() == 1 && (*v)[0] != CK_FALSE;
}

CK_ULONG ulongOf(const Object& key, CK_ATTRIBUTE_TYPE type) {
    const std::vector<uint8_t>* v = attributeOf(key, type);
    CK_ULONG value = CK_UNAVAILABLE_INFORMATION;
    if (v != nullptr && v->size() == sizeof value) std::memcpy(&value, v->data(), sizeof value);
    return value;
}

// RSA: the modulus' length; EC: twice the field size of the curve, known by
// the length of the OID in CKA_EC_PARAMS (P-256, P-384, P-521).
size_t signatureLengthOf(const Object& key) {
    if (const std::vector<uint8_t>* modulus = attributeOf(key, CKA_MODULUS)) {
        const auto first = std::find_if(modulus->begin(), modulus->end(), [](uint8_t b) { return b != 0; });
        return static_cast<size_t>(modulus->end() - first);
    }
    const std::vector<uint8_t>* params = attributeOf(key, CKA_EC_PARAMS);
    if (params == nullptr || params->empty()) return 64;
    const uint8_t lastOidByte = params->back();
    return lastOidByte == 0x22 ? 96 : lastOidByte == 0x23 ? 132 : 64;
}

bool mechanismFits(CK_MECHANISM_TYPE mechanism, CK_ULONG keyType) {
    if (keyType == CKK_RSA) return mechanism == CKM_RSA_PKCS || mechanism == CKM_RSA_PKCS_PSS;
    return keyType == CKK_EC && mechanism == CKM_ECDSA;
}

CK_RV signInit(State& s, Session& session, const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE hKey) {
    if (session.sign) return CKR_OPERATION_ACTIVE;
    Token& token = s.tokenOf(session);
    const Object* key = token.findVisible(hKey);
    if (key == nullptr || ulongOf(*key, CKA_CLASS) != CKO_PRIVATE_KEY) return CKR_KEY_HANDLE_INVALID;
    if (!flagOf(*key, CKA_SIGN)) return CKR_KEY_FUNCTION_NOT_PERMITTED;
    if (!mechanismFits(mechanism.mechanism, ulongOf(*key, CKA_KEY_TYPE))) return CKR_KEY_TYPE_INCONSISTENT;
    SignOperation op;
    op.record.key = hKey;
    op.record.mechanism = mechanism.mechanism;
    if (mechanism.mechanism == CKM_RSA_PKCS_PSS) {
        if (mechanism.pParameter == nullptr || mechanism.ulParameterLen != sizeof(CK_RSA_PKCS_PSS_PARAMS))
            return CKR_MECHANISM_PARAM_INVALID;
        op.record.pss = *static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism.pParameter);
    }
    op.signatureLength = signatureLengthOf(*key);
    op.needsContextLogin = flagOf(*key, CKA_ALWAYS_AUTHENTICATE);
    session.sign = std::move(op);
    session.cryptoOperationActive = true;
    return CKR_OK;
}

void endSign(Session& session) {
    session.sign.reset();
    session.cryptoOperationActive = false;
}

CK_RV sign(State& s, Session& session, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
           CK_ULONG_PTR pulSignatureLen) {
    if (!session.sign) return CKR_OPERATION_NOT_INITIALIZED;
    SignOperation& op = *session.sign;
    if (op.needsContextLogin && !op.contextLoggedIn) {
        endSign(session);
        return CKR_USER_NOT_LOGGED_IN;
    }
    if (pSignature == nullptr) {
        *pulSignatureLen = op.signatureLength;
        return CKR_OK;
    }
    if (*pulSignatureLen < op.signatureLength) {
        *pulSignatureLen = op.signatureLength;
        return CKR_BUFFER_TOO_SMALL;
    }
    for (size_t i = 0; i < op.signatureLength; ++i)
        pSignature[i] = static_cast<uint8_t>(ulDataLen == 0 ? i : pData[i % ulDataLen] ^ i);
    *pulSignatureLen = op.signatureLength;
    op.record.input.assign(pData, pData + ulDataLen);
    op.record.contextLoggedIn = op.contextLoggedIn;
    s.lastSignature = op.record;
    endSign(session);
    return CKR_OK;
}

}  // namespace

CK_RV C_SignInit(CK_SESSION_HANDLE hSession, CK_MECHANISM_PTR pMechanism, CK_OBJECT_HANDLE hKey) {
    return dispatch({.function = "C_SignInit", .session = hSession, .object = hKey}, Needs::initialized,
                    [&](State& s, Call&) {
                        Session* session = s.findSession(hSession);
                        if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
                        if (pMechanism == nullptr) return CKR_ARGUMENTS_BAD;
                        return signInit(s, *session, *pMechanism, hKey);
                    });
}

CK_RV C_Sign(CK_SESSION_HANDLE hSession, CK_BYTE_PTR pData, CK_ULONG ulDataLen, CK_BYTE_PTR pSignature,
             CK_ULONG_PTR pulSignatureLen) {
    const CK_ULONG room = pulSignatureLen != nullptr ? *pulSignatureLen : 0;
    return dispatch({.function = "C_Sign", .session = hSession}, Needs::initialized, [&](State& s, Call&) {
        Session* session = s.findSession(hSession);
        if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
        if ((pData == nullptr && ulDataLen != 0) || pulSignatureLen == nullptr) return CKR_ARGUMENTS_BAD;
        return sign(s, *session, pData, ulDataLen, pSignature, pulSignatureLen);
    }, [&](const Verdict& v, auto& honest) {
        if (pulSignatureLen == nullptr) return honest();
        if (v.kind == Verdict::Kind::fail) {
            if (pSignature != nullptr) fillGarbage(pSignature, room, v.value);
            fillGarbage(pulSignatureLen, sizeof *pulSignatureLen, v.value);
            return v.rv;
        }
        const CK_RV rv = honest();
        if (rv != CKR_OK && rv != CKR_BUFFER_TOO_SMALL) return rv;
        *pulSignatureLen = lyingLength(v.lie, pSignature != nullptr ? room : *pulSignatureLen);
        return v.lie == Lie::okLengthOverBuffer ? CKR_OK : rv;
    });
}

}  // namespace mock::entry
