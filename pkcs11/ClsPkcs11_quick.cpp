// One call from nothing to a logged-in session.
#include "ClsPkcs11.h"

#include "PinArg.h"

namespace p11client {

bool ClsPkcs11::QuickSession(int userType, const XString& pin)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "QuickSession");
    return runGuarded(m_log, [&] {
        if (!pinIsWhole(pin, m_log))
            return false;
        if (!m_initialized && !pkcs11_initialize(m_log)) {
            m_log.LogError("Failed to initialize");
            return false;
        }
        if (!openSession(-1, true, m_log)) {
            m_log.LogError("Failed to open session.");
            return false;
        }
        if (pin.isEmpty()) {
            m_log.LogInfo("PIN is empty, not logging in.");
            logSuccessFailure(true);
            return true;
        }
        if (!C_Login(userType, pin.getUtf8(), m_log)) {
            m_log.LogError("Failed to login.");
            return false;
        }
        logSuccessFailure(true);
        return true;
    });
}

} // namespace p11client
