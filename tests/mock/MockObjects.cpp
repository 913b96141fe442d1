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

constexpr CK_OBJECT_HANDLE kUnknownObject = 0x7FFF0000;

template <typename Honest>
CK_RV lieAboutFound(const Verdict& v, Honest& honest, CK_OBJECT_HANDLE_PTR phObject, CK_ULONG ulMax,
                    CK_ULONG_PTR pulObjectCount) {
    if (v.kind == Verdict::Kind::fail) {
        if (phObject != nullptr) fillGarbage(phObject, ulMax * sizeof(CK_OBJECT_HANDLE), v.value);
        if (pulObjectCount != nullptr) fillGarbage(pulObjectCount, sizeof *pulObjectCount, v.value);
        return v.rv;
    }
    if (v.lie == Lie::neverEnding) {
        if (phObject == nullptr || pulObjectCount == nullptr) return CKR_ARGUMENTS_BAD;
        for (CK_ULONG i = 0; i < ulMax; ++i) phObject[i] = kUnknownObject + i;
        *pulObjectCount = ulMax;
        return CKR_OK;
    }
    const CK_RV rv = honest();
    if (rv != CKR_OK) return rv;
    if (v.lie == Lie::moreObjectsThanAsked) *pulObjectCount = ulMax + 1 + (v.value & 0xFF);
    if (v.lie == Lie::unknownHandles)
        for (CK_ULONG i = 0; i < *pulObjectCount; ++i) phObject[i] = kUnknownObject + i;
    return rv;
}

// The attribute lies, told after the honest answer: `rooms` are the buffer
// sizes the caller gave.
CK_RV lieAboutAttributes(const Verdict& v, CK_ATTRIBUTE_PTR pTemplate, CK_ULONG ulCount,
                         const std::vector<CK_ULONG>& rooms, CK_RV rv) {
    const bool one = v.value < ulCount;
    for (CK_ULONG i = one ? v.value : 0; i < (one ? v.value + 1 : ulCount); ++i) {
        CK_ATTRIBUTE& a = pTemplate[i];
        if (v.lie == Lie::garbageValue) {
            if (a.pValue != nullptr && a.ulValueLen <= rooms[i]) fillGarbage(a.pValue, a.ulValueLen, i);
            continue;
        }
        const bool known = a.ulValueLen != CK_UNAVAILABLE_INFORMATION;
        const CK_ULONG room = a.pValue != nullptr ? rooms[i] : (known ? a.ulValueLen : 0);
        a.ulValueLen = lyingLength(v.lie, room);
    }
    return v.lie == Lie::okLengthOverBuffer ? CKR_OK : rv;
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
    }, [&](const Verdict& v, auto& honest) {
        return lieAboutFound(v, honest, phObject, ulMaxObjectCount, pulObjectCount);
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
    std::vector<CK_ULONG> rooms;
    for (CK_ULONG i = 0; pTemplate != nullptr && i < ulCount; ++i) rooms.push_back(pTemplate[i].ulValueLen);
    return dispatch(std::move(call), Needs::initialized,
                    [&](State& s, Call&) { return getAttributes(s, hSession, hObject, pTemplate, ulCount); },
                    [&](const Verdict& v, auto& honest) {
        if (pTemplate == nullptr) return honest();
        if (v.kind == Verdict::Kind::fail) {
            for (CK_ULONG i = 0; v.garbage && i < ulCount; ++i) {
                if (pTemplate[i].pValue != nullptr) fillGarbage(pTemplate[i].pValue, rooms[i], i);
                fillGarbage(&pTemplate[i].ulValueLen, sizeof(CK_ULONG), v.value + i);
            }
            return v.rv;
        }
        const CK_RV rv = honest();
        if (rv != CKR_OK && rv != CKR_ATTRIBUTE_SENSITIVE && rv != CKR_ATTRIBUTE_TYPE_INVALID &&
            rv != CKR_BUFFER_TOO_SMALL)
            return rv;
        return lieAboutAttributes(v, pTemplate, ulCount, rooms, rv);
    });
}

}  // namespace mock::entry
