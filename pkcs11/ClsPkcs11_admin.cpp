// PIN and token administration.
#include "ClsPkcs11.h"

#include "PinArg.h"

namespace p11client {

bool ClsPkcs11::SetPin(const XString& oldPin, const XString& newPin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "SetPin");
    const bool ok = runGuarded(m_log, [&] {
        return pinIsWhole(oldPin, m_log) && pinIsWhole(newPin, m_log)
            && C_SetPIN(oldPin.getUtf8(), newPin.getUtf8(), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::InitPin(const XString& pin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "InitPin");
    const bool ok = runGuarded(m_log, [&] { return pinIsWhole(pin, m_log) && C_InitPIN(pin.getUtf8(), m_log); });
    logSuccessFailure(ok);
    return ok;
}

// The context is named after the certificate search on purpose: tools that
// read this log already know the name. The slot number names the module's
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
            && C_InitToken(slot, soPin.getUtf8(), label.getUtf8(), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
