// Object queries.
#include "ClsPkcs11.h"

#include "ClsJsonObject.h"

namespace p11client {

// The search template is read from json as the caller filled it, and the
// result is added to it; no success or failure line is written.
bool ClsPkcs11::FindObject(ClsJsonObject& json)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindObject");
    return runGuarded(m_log, [&] { return findObject(json, m_log); });
}

bool ClsPkcs11::FindAllKeys(const XString& keyFilter, ClsJsonObject& json)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindAllKeys");
    const bool ok = runGuarded(m_log, [&] {
        json.clear(m_log);
        return findAllKeys(keyFilter, json, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
