// The call layer's report of the library, its slots and their tokens, as
// JSON for Discover.
#include "ClsPkcs11.h"

#include "CkFlags.h"
#include "CkNames.h"
#include "CkText.h"
#include "ClsJsonObject.h"
#include "Cryptoki.h"

#include <string>

namespace p11client {

namespace {

std::string at(const std::string& base, const char* member) { return base + "." + member; }

void putText(ClsJsonObject& json, const std::string& path, const std::string& text)
{
    json.updateString(path.c_str(), text.c_str());
}

// Counts the module does not know (CK_UNAVAILABLE_INFORMATION) are left out.
void putCount(ClsJsonObject& json, const std::string& path, CK_ULONG value)
{
    if (value != CK_UNAVAILABLE_INFORMATION)
        json.updateUInt(path.c_str(), value);
}

void putFlags(ClsJsonObject& json, const std::string& path, CK_FLAGS flags, std::span<const CkFlagName> names)
{
    json.updateNewObject(path.c_str());
    for (const CkFlagName& flag : names)
        json.updateBool(at(path, flag.name).c_str(), (flags & flag.bit) != 0);
}

std::string slotPath(int index) { return "slots[" + std::to_string(index) + "]"; }

} // namespace

bool ClsPkcs11::getCryptokiInfo(ClsJsonObject& json, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_GetInfo, "C_GetInfo", false, log);
    if (f == nullptr)
        return false;
    CK_INFO info{};
    if (!checkRv("C_GetInfo", f->C_GetInfo(&info), log))
        return false;
    putText(json, "library.cryptokiVersion", ckVersion(info.cryptokiVersion));
    putText(json, "library.manufacturer", ckText(info.manufacturerID));
    putText(json, "library.description", ckText(info.libraryDescription));
    putText(json, "library.libraryVersion", ckVersion(info.libraryVersion));
    return true;
}

// A slot that can't be read carries an "error" member; the others are still
// reported.
bool ClsPkcs11::getSlotsInfo(bool onlyTokensPresent, ClsJsonObject& json, LogBase& log)
{
    std::vector<CK_SLOT_ID> slotIds;
    if (!getSlotList(onlyTokensPresent, slotIds, log))
        return false;
    json.updateNewArray("slots");
    for (std::size_t i = 0; i < slotIds.size(); ++i) {
        const int index = static_cast<int>(i);
        json.updateUInt(at(slotPath(index), "id").c_str(), slotIds[i]);
        addSlotInfo(slotIds[i], index, json, log);
    }
    return true;
}

bool ClsPkcs11::addSlotInfo(CK_SLOT_ID slotId, int index, ClsJsonObject& json, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_GetSlotInfo, "C_GetSlotInfo", false, log);
    if (f == nullptr)
        return false;
    const std::string path = slotPath(index);
    CK_SLOT_INFO info{};
    const CK_RV rv = f->C_GetSlotInfo(slotId, &info);
    if (!checkRv("C_GetSlotInfo", rv, log)) {
        putText(json, at(path, "error"), ckrName(rv));
        return false;
    }
    putText(json, at(path, "description"), ckText(info.slotDescription));
    putText(json, at(path, "manufacturer"), ckText(info.manufacturerID));
    putText(json, at(path, "hardwareVersion"), ckVersion(info.hardwareVersion));
    putText(json, at(path, "firmwareVersion"), ckVersion(info.firmwareVersion));
    putFlags(json, at(path, "flags"), info.flags, slotFlagNames());
    const bool tokenPresent = (info.flags & CKF_TOKEN_PRESENT) != 0;
    json.updateBool(at(path, "tokenPresent").c_str(), tokenPresent);
    return !tokenPresent || addTokenInfo(slotId, index, json, log);
}

bool ClsPkcs11::addTokenInfo(CK_SLOT_ID slotId, int index, ClsJsonObject& json, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_GetTokenInfo, "C_GetTokenInfo", false, log);
    if (f == nullptr)
        return false;
    const std::string path = at(slotPath(index), "token");
    CK_TOKEN_INFO info{};
    const CK_RV rv = f->C_GetTokenInfo(slotId, &info);
    if (!checkRv("C_GetTokenInfo", rv, log)) {
        putText(json, at(path, "error"), ckrName(rv));
        return false;
    }
    putText(json, at(path, "label"), ckText(info.label));
    putText(json, at(path, "manufacturer"), ckText(info.manufacturerID));
    putText(json, at(path, "model"), ckText(info.model));
    putText(json, at(path, "serialNumber"), ckText(info.serialNumber));
    putFlags(json, at(path, "flags"), info.flags, tokenFlagNames());
    putCount(json, at(path, "minPinLen"), info.ulMinPinLen);
    putCount(json, at(path, "maxPinLen"), info.ulMaxPinLen);
    putCount(json, at(path, "sessionCount"), info.ulSessionCount);
    putCount(json, at(path, "maxSessionCount"), info.ulMaxSessionCount);
    putCount(json, at(path, "rwSessionCount"), info.ulRwSessionCount);
    putCount(json, at(path, "maxRwSessionCount"), info.ulMaxRwSessionCount);
    putCount(json, at(path, "totalPublicMemory"), info.ulTotalPublicMemory);
    putCount(json, at(path, "freePublicMemory"), info.ulFreePublicMemory);
    putCount(json, at(path, "totalPrivateMemory"), info.ulTotalPrivateMemory);
    putCount(json, at(path, "freePrivateMemory"), info.ulFreePrivateMemory);
    putText(json, at(path, "hardwareVersion"), ckVersion(info.hardwareVersion));
    putText(json, at(path, "firmwareVersion"), ckVersion(info.firmwareVersion));
    if ((info.flags & CKF_CLOCK_ON_TOKEN) != 0)
        putText(json, at(path, "utcTime"), ckText(info.utcTime));
    return true;
}

} // namespace p11client
