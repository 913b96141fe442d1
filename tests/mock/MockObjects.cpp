// C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal, C_GetAttributeValue.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

#include <cstring>

namespace mock::entry {

namespace {

std::vector<CK_ATTRIBUTE_TYPE> typesOf(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) {
    std::vector<CK_ATTRIBUTE_TYPE> types;
    for (CK_ULONG i = 0; pTemplate != nullptr && i < ulCount; ++i) types.push_back(pTemplate[i].type);
    return types;
}

bool templateReadable(const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) {
    if (pTemplate == nullptr) return ulCount == 0;
    for (CK_ULONG i = 0; i < ulCount; ++i)
        if (pTemplate[i].pValue == nullptr && pTemplate[i].ulValueLen != 0) return false;
    return true;
}

CK_RV findInit(State& s, CK_SESSION_HANDLE hSession, const CK_ATTRIBUTE* pTemplate, CK_ULONG ulCount) {
    Session* session = s.findSession(hSession);
    if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
    if (!templateReadable(pTemplate, ulCount)) return CKR_ARGUMENTS_BAD;
    if (session->find) return CKR_OPERATION_ACTIVE;
    const Token& token = s.tokenOf(*session);
    FindOperation find;
    for (const Object& object : token.objects)
        if (token.sees(object) && object.matches(pTemplate, ulCount)) find.matches.push_back(object.handle);
    session->find = std::move(find);
    return CKR_OK;
}

CK_RV findNext(State& s, CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMax,
               CK_ULONG_PTR pulObjectCount) {
    Session* session = s.findSession(hSession);
    if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
    if (phObject == nullptr || pulObjectCount == nullptr) return CKR_ARGUMENTS_BAD;
    if (!session->find) return CKR_OPERATION_NOT_INITIALIZED;
    FindOperation& find = *session->find;
    CK_ULONG n = 0;
    for (; n < ulMax && find.next < find.matches.size(); ++n) phObject[n] = find.matches[find.next++];
    *pulObjectCount = n;
    return CKR_OK;
}

// Where several attributes fail, the most telling error wins.
int severity(CK_RV rv) {
    switch (rv) {
        case CKR_ATTRIBUTE_SENSITIVE: return 3;
        case CKR_ATTRIBUTE_TYPE_INVALID: return 2;
        case CKR_BUFFER_TOO_SMALL: return 1;
        default: return 0;
    }
}

CK_RV readAttribute(const Object& object, CK_ATTRIBUTE& attribute) {
    auto it = object.attributes.find(attribute.type);
    CK_RV rv = CKR_OK;
    if (object.sensitive.count(attribute.type)) rv = CKR_ATTRIBUTE_SENSITIVE;
    else if (it == object.attributes.end()) rv = CKR_ATTRIBUTE_TYPE_INVALID;
    else if (attribute.pValue == nullptr) attribute.ulValueLen = it->second.size();
    else if (attribute.ulValueLen < it->second.size()) rv = CKR_BUFFER_TOO_SMALL;
    else {
        if (!it->second.empty()) std::memcpy(attribute.pValue, it->second.data(), it->second.size());
        attribute.ulValueLen = it->second.size();
    }
    if (rv != CKR_OK) attribute.ulValueLen = CK_UNAVAILABLE_INFORMATION;
    return rv;
}

CK_RV getAttributes(State& s, CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                    CK_ULONG ulCount) {
    Session* session = s.findSession(hSession);
    if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
    if (pTemplate == nullptr && ulCount != 0) return CKR_ARGUMENTS_BAD;
    const Object* object = s.tokenOf(*session).findVisible(hObject);
    if (object == nullptr) return CKR_OBJECT_HANDLE_INVALID;
    CK_RV worst = CKR_OK;
    for (CK_ULONG i = 0; i < ulCount; ++i) {
        CK_RV rv = readAttribute(*object, pTemplate[i]);
        if (severity(rv) > severity(worst)) worst = rv;
    }
    return worst;
}

}  // namespace

CK_RV C_FindObjectsInit(CK_SESSION_HANDLE hSession, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount) {
    Call call{.function = "C_FindObjectsInit", .session = hSession, .count = ulCount,
              .attributeTypes = typesOf(pTemplate, ulCount)};
    return dispatch(std::move(call), Needs::initialized,
                    [&](State& s, Call&) { return findInit(s, hSession, pTemplate, ulCount); });
}

CK_RV C_FindObjects(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMaxObjectCount,
                    CK_ULONG_PTR pulObjectCount) {
    return dispatch({.function = "C_FindObjects", .session = hSession, .count = ulMaxObjectCount},
                    Needs::initialized, [&](State& s, Call&) {
        return findNext(s, hSession, phObject, ulMaxObjectCount, pulObjectCount);
    });
}

CK_RV C_FindObjectsFinal(CK_SESSION_HANDLE hSession) {
    return dispatch({.function = "C_FindObjectsFinal", .session = hSession}, Needs::initialized,
                    [&](State& s, Call&) {
        Session* session = s.findSession(hSession);
        if (session == nullptr) return CKR_SESSION_HANDLE_INVALID;
        if (!session->find) return CKR_OPERATION_NOT_INITIALIZED;
        session->find.reset();
        return CKR_OK;
    });
}

CK_RV C_GetAttributeValue(CK_SESSION_HANDLE hSession, CK_OBJECT_HANDLE hObject, CK_ATTRIBUTE_PTR pTemplate,
                          CK_ULONG ulCount) {
    Call call{.function = "C_GetAttributeValue", .session = hSession, .object = hObject, .count = ulCount,
              .attributeTypes = typesOf(pTemplate, ulCount)};
    return dispatch(std::move(call), Needs::initialized,
                    [&](State& s, Call&) { return getAttributes(s, hSession, hObject, pTemplate, ulCount); });
}

}  // namespace mock::entry
