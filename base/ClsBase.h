#pragma once

#include "LogBase.h"
#include "ZelvanCritSec.h"

#include <new>
#include <vector>

namespace p11client {

class XString;

// Base of every public object: the object is its own recursive lock and
// carries its own log, which tells the story of the last public call.
class ClsBase : public ZelvanCritSec {
public:
    ClsBase() = default;
    ~ClsBase() override = default;

    // The log of the last public call, as indented text.
    void get_LogText(XString& out);
    // The same log as entries, for programs that inspect it.
    std::vector<LogEntry> get_LogEntries();
    bool get_VerboseLogging();
    void put_VerboseLogging(bool on);

    // Records a public method's outcome in its own log.
    void logSuccessFailure(bool success);
    static void logSuccessFailure2(bool success, LogBase& log);

    _qxLogger m_log;
};

// Runs a public method's body so that no exception leaves it: anything
// thrown (in practice only allocation failure) becomes false and an error line.
template <class Body>
bool runGuarded(LogBase& log, Body&& body) noexcept
{
    const char* message = "Internal error: the operation was abandoned.";
    try {
        return body();
    } catch (const std::bad_alloc&) {
        message = "Out of memory.";
    } catch (...) {
    }
    try {
        log.LogError(message);
    } catch (...) {
        // Not even the log can grow: the false result must speak alone.
    }
    return false;
}

// Owns a public object for a scope and deletes it (null is allowed).
class _clsBaseHolder {
public:
    _clsBaseHolder() = default;
    ~_clsBaseHolder() { delete m_obj; }
    _clsBaseHolder(const _clsBaseHolder&) = delete;
    _clsBaseHolder& operator=(const _clsBaseHolder&) = delete;

    void setClsBasePtr(ClsBase* obj)
    {
        if (obj != m_obj)
            delete m_obj;
        m_obj = obj;
    }

private:
    ClsBase* m_obj = nullptr;
};

// Opens a named context in a log for its own lifetime. The ClsBase form is a
// public method's frame: at the outermost level it starts a fresh record.
class LogContextExitor {
public:
    LogContextExitor(ClsBase& obj, const char* name);
    LogContextExitor(LogBase& log, const char* name);
    ~LogContextExitor() { m_log.leaveContext(); }
    LogContextExitor(const LogContextExitor&) = delete;
    LogContextExitor& operator=(const LogContextExitor&) = delete;

private:
    LogBase& m_log;
};

} // namespace p11client
