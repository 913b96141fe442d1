// C_GetSlotList, C_GetSlotInfo, C_GetTokenInfo.
#include "MockDispatch.h"
#include "MockEntryPoints.h"

namespace mock::entry {

namespace {

std::vector<CK_SLOT_ID> listSlots(const State& s, bool tokenPresent) {
    std::vector<CK_SLOT_ID> ids;
    for (const Slot& slot : s.slots)
        if (!tokenPresent || slot.token) ids.push_back(slot.id);
    return ids;
}

void fillTokenInfo(const State& s, const Slot& slot, CK_TOKEN_INFO& info) {
    const TokenSpec& t = slot.token->spec;
    padField(info.label, sizeof info.label, t.label);
    padField(info.manufacturerID, sizeof info.manufacturerID, t.manufacturer);
    padField(info.model, sizeof info.model, t.model);
    padField(info.serialNumber, sizeof info.serialNumber, t.serialNumber);
    info.flags = t.flags;
    info.ulMaxSessionCount = t.maxSessionCount;
    info.ulSessionCount = s.countSessions(slot.id, false);
    info.ulMaxRwSessionCount = t.maxRwSessionCount;
    info.ulRwSessionCount = s.countSessions(slot.id, true);
    info.ulMaxPinLen = t.maxPinLen;
    info.ulMinPinLen = t.minPinLen;
    info.ulTotalPublicMemory = t.totalPublicMemory;
    info.ulFreePublicMemory = t.freePublicMemory;
    info.ulTotalPrivateMemory = t.totalPrivateMemory;
    info.ulFreePrivateMemory = t.freePrivateMemory;
    info.hardwareVersion = t.hardwareVersion;
    info.firmwareVersion = t.firmwareVersion;
    padField(info.utcTime, sizeof info.utcTime, t.utcTime);
}

constexpr CK_SLOT_ID kUnknownSlot = 0x7FFF0000;

// A slot list answer after the honest one: `room` is what the caller's
// buffer held, `truth` how many slots there are.
CK_RV lieAboutSlots(const Verdict& v, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount, CK_ULONG room,
                    CK_ULONG truth, CK_RV rv) {
    const bool countCall = pSlotList == nullptr;
    switch (v.lie) {
        case Lie::slotsGrow:  // by one more at every call
            *pulCount = (countCall ? truth : std::max(room, truth)) + 1;
            return countCall ? rv : CKR_BUFFER_TOO_SMALL;
        case Lie::slotsShrink:
            *pulCount = truth == 0 ? 0 : truth - 1;
            return rv;
        case Lie::slotIdsUnknown:
            for (CK_ULONG i = 0; !countCall && rv == CKR_OK && i < truth; ++i) pSlotList[i] = kUnknownSlot + i;
            return rv;
        default:
            *pulCount = lyingLength(v.lie, countCall ? truth : room);
            return rv == CKR_BUFFER_TOO_SMALL ? CKR_OK : rv;
    }
}

void lieAboutText(CK_SLOT_INFO& info, Lie lie) {
    fillLyingText(info.slotDescription, sizeof info.slotDescription, lie);
    fillLyingText(info.manufacturerID, sizeof info.manufacturerID, lie);
}

void lieAboutText(CK_TOKEN_INFO& info, Lie lie) {
    fillLyingText(info.label, sizeof info.label, lie);
    fillLyingText(info.manufacturerID, sizeof info.manufacturerID, lie);
    fillLyingText(info.model, sizeof info.model, lie);
    fillLyingText(info.serialNumber, sizeof info.serialNumber, lie);
    fillLyingText(info.utcTime, sizeof info.utcTime, lie);
}

void lieAboutNumbers(CK_SLOT_INFO& info, CK_ULONG) {
    info.flags = ~CK_FLAGS{0};
    info.hardwareVersion = info.firmwareVersion = CK_VERSION{0xFF, 0xFF};
}

void lieAboutNumbers(CK_TOKEN_INFO& info, CK_ULONG value) {
    info.flags = ~CK_FLAGS{0};
    const CK_ULONG huge = (CK_ULONG{1} << (sizeof(CK_ULONG) * 8 - 1)) | value;
    for (CK_ULONG* count : {&info.ulMaxSessionCount, &info.ulSessionCount, &info.ulMaxRwSessionCount,
                            &info.ulRwSessionCount, &info.ulMaxPinLen, &info.ulMinPinLen, &info.ulTotalPublicMemory,
                            &info.ulFreePublicMemory, &info.ulTotalPrivateMemory, &info.ulFreePrivateMemory})
        *count = huge;
    info.hardwareVersion = info.firmwareVersion = CK_VERSION{0xFF, 0xFF};
}

// The liar of C_GetSlotInfo and C_GetTokenInfo.
template <typename Info, typename Honest>
CK_RV lieAboutInfo(const Verdict& v, Honest& honest, Info* pInfo) {
    if (v.kind == Verdict::Kind::fail) {
        if (pInfo != nullptr) fillGarbage(pInfo, sizeof *pInfo, v.value);
        return v.rv;
    }
    const CK_RV rv = honest();
    if (rv != CKR_OK) return rv;
    if (v.lie == Lie::numbersGarbage)
        lieAboutNumbers(*pInfo, v.value);
    else
        lieAboutText(*pInfo, v.lie);
    return rv;
}

}  // namespace

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
    const CK_ULONG room = pulCount != nullptr ? *pulCount : 0;
    CK_ULONG truth = 0;
    return dispatch({.function = "C_GetSlotList", .flags = tokenPresent}, Needs::initialized,
                    [&](State& s, Call&) {
        if (pulCount == nullptr) return CKR_ARGUMENTS_BAD;
        std::vector<CK_SLOT_ID> ids = listSlots(s, tokenPresent != CK_FALSE);
        truth = ids.size();
        *pulCount = ids.size();
        if (pSlotList == nullptr) return CKR_OK;
        if (room < ids.size()) return CKR_BUFFER_TOO_SMALL;
        std::copy(ids.begin(), ids.end(), pSlotList);
        return CKR_OK;
    }, [&](const Verdict& v, auto& honest) {
        if (v.kind == Verdict::Kind::fail) {
            if (pSlotList != nullptr) fillGarbage(pSlotList, room * sizeof(CK_SLOT_ID), v.value);
            if (pulCount != nullptr) fillGarbage(pulCount, sizeof *pulCount, v.value);
            return v.rv;
        }
        const CK_RV rv = honest();
        if (pulCount == nullptr || (rv != CKR_OK && rv != CKR_BUFFER_TOO_SMALL)) return rv;
        return lieAboutSlots(v, pSlotList, pulCount, room, truth, rv);
    });
}

CK_RV C_GetSlotInfo(CK_SLOT_ID slotID, CK_SLOT_INFO_PTR pInfo) {
    return dispatch({.function = "C_GetSlotInfo", .slot = slotID}, Needs::initialized,
                    [&](State& s, Call&) {
        const Slot* slot = s.findSlot(slotID);
        if (slot == nullptr) return CKR_SLOT_ID_INVALID;
        if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
        padField(pInfo->slotDescription, sizeof pInfo->slotDescription, slot->spec.description);
        padField(pInfo->manufacturerID, sizeof pInfo->manufacturerID, slot->spec.manufacturer);
        pInfo->flags = (slot->spec.flags & ~CKF_TOKEN_PRESENT) | (slot->token ? CKF_TOKEN_PRESENT : 0);
        pInfo->hardwareVersion = slot->spec.hardwareVersion;
        pInfo->firmwareVersion = slot->spec.firmwareVersion;
        return CKR_OK;
    }, [&](const Verdict& v, auto& honest) { return lieAboutInfo(v, honest, pInfo); });
}

CK_RV C_GetTokenInfo(CK_SLOT_ID slotID, CK_TOKEN_INFO_PTR pInfo) {
    return dispatch({.function = "C_GetTokenInfo", .slot = slotID}, Needs::initialized,
                    [&](State& s, Call&) {
        const Slot* slot = s.findSlot(slotID);
        if (slot == nullptr) return CKR_SLOT_ID_INVALID;
        if (!slot->token) return CKR_TOKEN_NOT_PRESENT;
        if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
        fillTokenInfo(s, *slot, *pInfo);
        return CKR_OK;
    }, [&](const Verdict& v, auto& honest) { return lieAboutInfo(v, honest, pInfo); });
}

}  // namespace mock::entry
