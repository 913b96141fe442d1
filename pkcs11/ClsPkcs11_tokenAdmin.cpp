// Token administration: initializing a token, setting and changing PINs.
#include "ClsPkcs11.h"

#include "Cryptoki.h"
#include "PinArg.h"

#include <cstring>

namespace p11client {

namespace {

constexpr std::size_t kTokenLabelSize = 32;

} // namespace

bool ClsPkcs11::SetPin(const XString& oldPin, const XString& newPin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "SetPin");
    const bool ok = runGuarded(m_log, [&] {
        return pinIsWhole(oldPin, m_log) && pinIsWhole(newPin, m_log)
            && setPin(oldPin.getUtf8(), newPin.getUtf8(), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::InitPin(const XString& pin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "InitPin");
    const bool ok = runGuarded(m_log, [&] { return pinIsWhole(pin, m_log) && initPin(pin.getUtf8(), m_log); });
    logSuccessFailure(ok);
    return ok;
}

// The log context is "FindCert_pkcs11", the name under which tools reading
// this log find token initialization. The slot number names the module's
// slot whose ID has its 32 bits, so slot IDs above INT_MAX can be named too
// (-1 is then 0xFFFFFFFF, no "any slot" here); the token is initialized
// through that slot's whole ID.
bool ClsPkcs11::InitToken(int slotId, const XString& soPin, const XString& label)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindCert_pkcs11");
    const bool ok = runGuarded(m_log, [&] {
        CK_SLOT_ID slot = 0;
        std::vector<CK_SLOT_ID> slots;
        return pinIsWhole(soPin, m_log) && getSlotList(false, slots, m_log) && slotOfNumber(slotId, slots, slot, m_log)
            && initToken(slot, soPin.getUtf8(), label.getUtf8(), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::setPin(const char* oldPin, const char* newPin, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_SetPIN>(true, log);
    if (!module)
        return false;
    const PinArg oldArg(oldPin);
    const PinArg newArg(newPin);
    if (!pinUsable(oldArg, m_slotId, log) || !pinUsable(newArg, m_slotId, log))
        return false;
    return module->C_SetPIN(m_hSession, oldArg.bytes, oldArg.size, newArg.bytes, newArg.size) == CKR_OK;
}

bool ClsPkcs11::initPin(const char* pin, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_InitPIN>(true, log);
    if (!module)
        return false;
    const PinArg arg(pin);
    if (!pinUsable(arg, m_slotId, log))
        return false;
    return module->C_InitPIN(m_hSession, arg.bytes, arg.size) == CKR_OK;
}

bool ClsPkcs11::initToken(CK_SLOT_ID slotId, const char* soPin, const char* label, LogBase& log)
{
    const auto module = callsWith<&CK_FUNCTION_LIST::C_InitToken>(false, log);
    if (!module)
        return false;
    log.LogDataLong("slotId", static_cast<long>(slotId));
    const std::size_t labelSize = label != nullptr ? std::strlen(label) : 0;
    if (labelSize > kTokenLabelSize) {
        log.LogError("The token label is longer than 32 bytes.");
        return false;
    }
    // The label travels blank-padded to exactly 32 bytes, with no terminator.
    CK_UTF8CHAR paddedLabel[kTokenLabelSize];
    std::memset(paddedLabel, ' ', sizeof paddedLabel);
    if (labelSize != 0)
        std::memcpy(paddedLabel, label, labelSize);
    const PinArg arg(soPin);
    if (!pinUsable(arg, slotId, log))
        return false;
    return module->C_InitToken(slotId, arg.bytes, arg.size, paddedLabel) == CKR_OK;
}

} // namespace p11client
