// The call layer for PIN and token administration.
#include "ClsPkcs11.h"

#include "Cryptoki.h"
#include "PinArg.h"

#include <cstring>

namespace p11client {

namespace {

constexpr std::size_t kTokenLabelSize = 32;

} // namespace

bool ClsPkcs11::C_SetPIN(const char* oldPin, const char* newPin, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_SetPIN, "C_SetPIN", true, log);
    if (f == nullptr)
        return false;
    const PinArg oldArg(oldPin);
    const PinArg newArg(newPin);
    if (!pinUsable(oldArg, m_slotId, log) || !pinUsable(newArg, m_slotId, log))
        return false;
    return checkRv("C_SetPIN", f->C_SetPIN(m_hSession, oldArg.bytes, oldArg.size, newArg.bytes, newArg.size), log);
}

bool ClsPkcs11::C_InitPIN(const char* pin, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_InitPIN, "C_InitPIN", true, log);
    if (f == nullptr)
        return false;
    const PinArg arg(pin);
    if (!pinUsable(arg, m_slotId, log))
        return false;
    return checkRv("C_InitPIN", f->C_InitPIN(m_hSession, arg.bytes, arg.size), log);
}

bool ClsPkcs11::C_InitToken(CK_SLOT_ID slotId, const char* soPin, const char* label, LogBase& log)
{
    CK_FUNCTION_LIST* f = functionsWith(&CK_FUNCTION_LIST::C_InitToken, "C_InitToken", false, log);
    if (f == nullptr)
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
    return checkRv("C_InitToken", f->C_InitToken(slotId, arg.bytes, arg.size, paddedLabel), log);
}

} // namespace p11client
