// The module's slots: their list, the slot a number names, and the Discover
// report of the library, its slots and their tokens as JSON.
#include "ClsPkcs11.h"

#include "CkFlags.h"
#include "CkNames.h"
#include "CkText.h"
#include "ClsJsonObject.h"
#include "Cryptoki.h"

#include <algorithm>
#include <cstdint>
#include <string>

namespace p11client {

namespace {

// No reader or HSM has thousands of slots; a larger count is a broken module.
constexpr CK_ULONG kMaxSlots = 4096;
// A module whose slot list changes between the count and the fill call is
// asked again, a few times.
constexpr int kSlotListAttempts = 4;

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

bool ClsPkcs11::Discover(bool onlyTokensPresent, ClsJsonObject& json)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Discover");
    const bool ok = runGuarded(m_log, [&] { return discover(onlyTokensPresent, json, m_log); });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::discover(bool onlyTokensPresent, ClsJsonObject& json, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "discover");
    json.clear(log);
    if (m_sharedLibPath.isEmpty()) {
        log.LogError("The SharedLibPath has not yet been set.");
        return false;
    }
    log.LogDataX("sharedLibPath", m_sharedLibPath);
    log.m_verbose = true;

    if ((!loadPkcs11Dll(false, log) && !loadPkcs11Dll(true, log)) || !getPkcs11Functions(log)) {
        log.LogError("Failed to load the PKCS11 shared library.");
        return false;
    }
    if (!m_initialized && !pkcs11_initialize(log)) {
        log.LogError("Failed to Initialize");
        return false;
    }
    if (!getCryptokiInfo(json, log)) {
        log.LogError("Failed to GetInfo");
        return false;
    }
    if (!getSlotsInfo(onlyTokensPresent, json, log)) {
        log.LogError("Failed to GetSlotsInfo");
        return false;
    }
    return true;
}

bool ClsPkcs11::getCryptokiInfo(ClsJsonObject& json, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_GetInfo>(false, log);
    CK_INFO info{};
    if (!module || module->C_GetInfo(&info) != CKR_OK)
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
    if (onlyTokensPresent)
        m_recentSlotAnswers.keepSlotsWithToken(slotIds);
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
    const auto module = callsWith<&CK_FUNCTION_LIST::C_GetSlotInfo>(false, log);
    if (!module)
        return false;
    const std::string path = slotPath(index);
    CK_SLOT_INFO info{};
    const CK_RV rv = module->C_GetSlotInfo(slotId, &info);
    if (rv != CKR_OK) {
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
    const auto module = callsWith<&CK_FUNCTION_LIST::C_GetTokenInfo>(false, log);
    if (!module)
        return false;
    const std::string path = at(slotPath(index), "token");
    CK_TOKEN_INFO info{};
    const CK_RV rv = module->C_GetTokenInfo(slotId, &info);
    if (rv != CKR_OK) {
        putText(json, at(path, "error"), ckrName(rv));
        return false;
    }
    m_recentSlotAnswers.keepTokenFlags(slotId, info.flags);
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

bool ClsPkcs11::getSlotList(bool tokenPresent, std::vector<CK_SLOT_ID>& slotIds, LogBase& log)
{
    // Reported here: a list that grew between the two calls is no failure.
    const auto module = callsWith<&CK_FUNCTION_LIST::C_GetSlotList>(false, log, ModuleCalls::Report::None);
    if (!module)
        return false;
    const CK_BBOOL present = tokenPresent ? CK_TRUE : CK_FALSE;
    for (int attempt = 0; attempt < kSlotListAttempts; ++attempt) {
        CK_ULONG count = 0;
        if (!reportCall("C_GetSlotList", module->C_GetSlotList(present, nullptr, &count), log))
            return false;
        if (count > kMaxSlots) {
            log.LogError("C_GetSlotList reported more slots than any device has.");
            log.LogDataLong("slotCount", static_cast<long>(count));
            return false;
        }
        slotIds.assign(count, 0);
        if (count == 0)
            return true;
        CK_ULONG filled = count;
        const CK_RV rv = module->C_GetSlotList(present, slotIds.data(), &filled);
        if (rv == CKR_BUFFER_TOO_SMALL)
            continue; // a slot appeared between the two calls
        if (!reportCall("C_GetSlotList", rv, log))
            return false;
        slotIds.resize(std::min(filled, count));
        return true;
    }
    log.LogError("The slot list kept changing while it was read.");
    return false;
}

bool ClsPkcs11::getSlotIdsWithTokenPresent(std::vector<CK_SLOT_ID>& slotIds, LogBase& log)
{
    if (!getSlotList(true, slotIds, log))
        return false;
    // Only session opening asks, and without a token there is none to open.
    if (slotIds.empty())
        log.LogError("No slot has a token.");
    return true;
}

// The caller's int carries 32 bits of a 64-bit slot ID. It names a slot only
// when no other slot of the module has the same low bits; then the whole ID
// goes to every call.
bool ClsPkcs11::slotOfNumber(int slotNumber, const std::vector<CK_SLOT_ID>& all, CK_SLOT_ID& slotId, LogBase& log)
{
    const auto low = static_cast<std::uint32_t>(slotNumber);
    const auto named = [low](CK_SLOT_ID id) { return static_cast<std::uint32_t>(id) == low; };
    const auto count = std::ranges::count_if(all, named);
    if (count == 0) {
        log.LogError("Did not find desired slot ID.");
        return false;
    }
    if (count > 1) {
        log.LogError("The slot number names more than one slot of the module; "
                     "the module's slot IDs do not fit in an int.");
        return false;
    }
    slotId = *std::ranges::find_if(all, named);
    return true;
}

} // namespace p11client
