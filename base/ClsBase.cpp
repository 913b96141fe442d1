#include "ClsBase.h"

#include "XString.h"

namespace p11client {

void ClsBase::get_LogText(XString& out)
{
    CritSecExitor lock(this);
    out.setFromUtf8(m_log.renderText());
}

std::vector<LogEntry> ClsBase::get_LogEntries()
{
    CritSecExitor lock(this);
    return m_log.entries();
}

bool ClsBase::get_VerboseLogging()
{
    CritSecExitor lock(this);
    return m_log.m_verbose;
}

void ClsBase::put_VerboseLogging(bool on)
{
    CritSecExitor lock(this);
    m_log.m_verbose = on;
}

void ClsBase::logSuccessFailure(bool success) { logSuccessFailure2(success, m_log); }

void ClsBase::logSuccessFailure2(bool success, LogBase& log)
{
    if (success)
        log.LogInfo("Success.");
    else
        log.LogError("Failed.");
}

LogContextExitor::LogContextExitor(ClsBase& obj, const char* name) : m_log(obj.m_log)
{
    if (obj.m_log.depth() == 0)
        obj.m_log.clearLog();
    m_log.enterContext(name);
}

LogContextExitor::LogContextExitor(LogBase& log, const char* name) : m_log(log)
{
    m_log.enterContext(name);
}

} // namespace p11client
