#include "ObjectSearch.h"

#include "CkNames.h"
#include "LogBase.h"

namespace p11client {

ObjectSearch::ObjectSearch(CK_FUNCTION_LIST* functions, CK_SESSION_HANDLE session)
    : m_functions(functions), m_session(session)
{
}

ObjectSearch::~ObjectSearch() { finish(); }

void ObjectSearch::finish()
{
    if (m_active && m_functions->C_FindObjectsFinal != nullptr)
        m_functions->C_FindObjectsFinal(m_session);
    m_active = false;
}

bool ObjectSearch::findAll(std::vector<CK_ATTRIBUTE>& tmpl, std::vector<CK_OBJECT_HANDLE>& found, LogBase& log)
{
    const CK_RV rv = m_functions->C_FindObjectsInit(m_session, tmpl.empty() ? nullptr : tmpl.data(), tmpl.size());
    if (rv != CKR_OK)
        return reportCall("C_FindObjectsInit", rv, log);
    m_active = true;
    const bool ok = fetchAll(found, log);
    finish();
    return ok;
}

bool ObjectSearch::fetchAll(std::vector<CK_OBJECT_HANDLE>& found, LogBase& log)
{
    std::vector<CK_OBJECT_HANDLE> batch(kBatchSize);
    for (;;) {
        CK_ULONG count = 0;
        const CK_RV rv = m_functions->C_FindObjects(m_session, batch.data(), kBatchSize, &count);
        if (rv != CKR_OK)
            return reportCall("C_FindObjects", rv, log);
        if (count > kBatchSize) {
            log.LogError("C_FindObjects reported more objects than it was asked for.");
            return false;
        }
        found.insert(found.end(), batch.begin(), batch.begin() + static_cast<std::ptrdiff_t>(count));
        if (found.size() > kMaxObjects) {
            log.LogError("The token keeps reporting objects; the search was stopped.");
            return false;
        }
        // A short batch does not promise the end; only an empty one does.
        if (count == 0)
            return true;
    }
}

} // namespace p11client
