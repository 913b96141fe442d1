// Initialization and discovery.
#include "ClsPkcs11.h"

#include "ClsJsonObject.h"

namespace p11client {

bool ClsPkcs11::Initialize()
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Initialize");
    const bool ok = runGuarded(m_log, [&] {
        if (m_initialized) {
            m_log.LogInfo("Already initialized.");
            return true;
        }
        return pkcs11_initialize(m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

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

} // namespace p11client
