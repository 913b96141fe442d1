#pragma once

#include "Cryptoki.h"

#include <vector>

namespace p11client {

class LogBase;

// One C_FindObjectsInit .. C_FindObjectsFinal search, as a scoped guard: the
// search is finished in the destructor on every path. Handles are fetched in
// batches, and the whole search is read before any attribute is, since some
// modules cannot serve other calls on a session in the middle of a search.
class ObjectSearch {
public:
    static constexpr CK_ULONG kBatchSize = 512;
    // More objects than any token holds: a module that never stops answering
    // is cut off here rather than followed into memory exhaustion.
    static constexpr std::size_t kMaxObjects = 200000;

    ObjectSearch(CK_FUNCTION_LIST* functions, CK_SESSION_HANDLE session);
    ~ObjectSearch();
    ObjectSearch(const ObjectSearch&) = delete;
    ObjectSearch& operator=(const ObjectSearch&) = delete;

    // Runs the search for the template and appends every handle found.
    // False, with the reason logged, when the module fails a call.
    bool findAll(std::vector<CK_ATTRIBUTE>& tmpl, std::vector<CK_OBJECT_HANDLE>& found, LogBase& log);

private:
    bool fetchAll(std::vector<CK_OBJECT_HANDLE>& found, LogBase& log);
    void finish();

    CK_FUNCTION_LIST* m_functions;
    CK_SESSION_HANDLE m_session;
    bool m_active = false;
};

} // namespace p11client
