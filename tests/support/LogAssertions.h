#pragma once

#include "ClsBase.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace p11test {

using p11client::LogEntry;

inline std::vector<std::string> linesOfKind(const std::vector<LogEntry>& log, LogEntry::Kind kind)
{
    std::vector<std::string> out;
    for (const LogEntry& e : log)
        if (e.kind == kind)
            out.push_back(e.text);
    return out;
}

inline std::vector<std::string> errors(p11client::ClsBase& obj)
{
    return linesOfKind(obj.get_LogEntries(), LogEntry::Kind::Error);
}

inline std::vector<std::string> infos(p11client::ClsBase& obj)
{
    return linesOfKind(obj.get_LogEntries(), LogEntry::Kind::Info);
}

inline bool hasError(p11client::ClsBase& obj, const std::string& text)
{
    const auto e = errors(obj);
    return std::find(e.begin(), e.end(), text) != e.end();
}

inline bool hasInfo(p11client::ClsBase& obj, const std::string& text)
{
    const auto i = infos(obj);
    return std::find(i.begin(), i.end(), text) != i.end();
}

// Values of every Data line with this tag, in order.
inline std::vector<std::string> dataValues(p11client::ClsBase& obj, const std::string& tag)
{
    std::vector<std::string> out;
    for (const LogEntry& e : obj.get_LogEntries())
        if (e.kind == LogEntry::Kind::Data && e.tag == tag)
            out.push_back(e.text);
    return out;
}

// The name of the innermost context open when the first entry with this text was written.
inline std::optional<std::string> contextOf(p11client::ClsBase& obj, const std::string& text)
{
    std::vector<std::string> open;
    for (const LogEntry& e : obj.get_LogEntries()) {
        if (e.kind == LogEntry::Kind::ContextEnter)
            open.push_back(e.tag);
        else if (e.kind == LogEntry::Kind::ContextLeave && !open.empty())
            open.pop_back();
        else if (e.text == text)
            return open.empty() ? std::string() : open.back();
    }
    return std::nullopt;
}

} // namespace p11test
