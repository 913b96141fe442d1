// PIN and token administration.
#include "ClsPkcs11.h"

namespace p11client {

bool ClsPkcs11::SetPin(const XString& oldPin, const XString& newPin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "SetPin");
    const bool ok = runGuarded(m_log, [&] { return C_SetPIN(oldPin.getUtf8(), newPin.getUtf8(), m_log); });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::InitPin(const XString& pin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "InitPin");
    const bool ok = runGuarded(m_log, [&] { return C_InitPIN(pin.getUtf8(), m_log); });
    logSuccessFailure(ok);
    return ok;
}

// The context is named after the certificate search on purpose: tools that
// read this log already know the name.
bool ClsPkcs11::InitToken(int slotId, const XString& soPin, const XString& label)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindCert_pkcs11");
    const bool ok = runGuarded(m_log, [&] {
        return C_InitToken(static_cast<unsigned long>(slotId), soPin.getUtf8(), label.getUtf8(), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
