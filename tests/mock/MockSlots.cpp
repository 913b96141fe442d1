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

}  // namespace

CK_RV C_GetSlotList(CK_BBOOL tokenPresent, CK_SLOT_ID_PTR pSlotList, CK_ULONG_PTR pulCount) {
    return dispatch({.function = "C_GetSlotList", .flags = tokenPresent}, Needs::initialized,
                    [&](State& s, Call&) {
        if (pulCount == nullptr) return CKR_ARGUMENTS_BAD;
        std::vector<CK_SLOT_ID> ids = listSlots(s, tokenPresent != CK_FALSE);
        CK_ULONG room = *pulCount;
        *pulCount = ids.size();
        if (pSlotList == nullptr) return CKR_OK;
        if (room < ids.size()) return CKR_BUFFER_TOO_SMALL;
        std::copy(ids.begin(), ids.end(), pSlotList);
        return CKR_OK;
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
    });
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
    });
}

}  // namespace mock::entry
