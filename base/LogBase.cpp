#include "LogBase.h"

#include "StringBuffer.h"
#include "XString.h"

#include <cstdio>

namespace p11client {

void LogBase::LogDataX(const char* tag, const XString& value) { LogData(tag, value.getUtf8()); }

void LogBase::LogDataLong(const char* tag, long value) { LogData(tag, std::to_string(value).c_str()); }

void LogBase::LogDataBool(const char* tag, bool value) { LogData(tag, value ? "true" : "false"); }

void LogBase::LogDataSb(const char* tag, const StringBuffer& value) { LogData(tag, value.getString()); }

void LogBase::LogDataHex(const char* tag, unsigned long value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%lx", value);
    LogData(tag, text);
}

void LogBase::LogVerbose(const char* message)
{
    if (m_verbose)
        LogInfo(message);
}

void _qxLogger::add(LogEntry::Kind kind, const char* tag, const char* text)
{
    m_entries.push_back(LogEntry{kind, depth(), tag != nullptr ? tag : "", text != nullptr ? text : ""});
}

void _qxLogger::LogError(const char* message) { add(LogEntry::Kind::Error, nullptr, message); }

void _qxLogger::LogInfo(const char* message) { add(LogEntry::Kind::Info, nullptr, message); }

void _qxLogger::LogData(const char* tag, const char* value) { add(LogEntry::Kind::Data, tag, value); }

void _qxLogger::enterContext(const char* name)
{
    add(LogEntry::Kind::ContextEnter, name, nullptr);
    m_open.emplace_back(name != nullptr ? name : "");
}

void _qxLogger::leaveContext()
{
    if (m_open.empty())
        return;
    const std::string name = std::move(m_open.back());
    m_open.pop_back();
    add(LogEntry::Kind::ContextLeave, name.c_str(), nullptr);
}

void _qxLogger::clearLog()
{
    m_entries.clear();
    m_open.clear();
}

std::string _qxLogger::renderText() const
{
    std::string out;
    for (const LogEntry& e : m_entries) {
        out.append(static_cast<std::size_t>(e.depth) * 2, ' ');
        switch (e.kind) {
        case LogEntry::Kind::ContextEnter: out += e.tag + ":"; break;
        case LogEntry::Kind::ContextLeave: out += "--" + e.tag; break;
        case LogEntry::Kind::Error: out += "Error: " + e.text; break;
        case LogEntry::Kind::Info: out += e.text; break;
        case LogEntry::Kind::Data: out += e.tag + ": " + e.text; break;
        }
        out += '\n';
    }
    return out;
}

} // namespace p11client
