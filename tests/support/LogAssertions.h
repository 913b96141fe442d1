#pragma once

#include "ClsBase.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace p11test {

using p11client::ClsBase;
using p11client::LogEntry;
using Lines = std::vector<std::string>;

// The texts of the entries of this kind (and this tag, when one is given), in order.
inline Lines linesOfKind(const std::vector<LogEntry>& log, LogEntry::Kind kind, const char* tag = nullptr)
{
    Lines out;
    for (const LogEntry& e : log)
        if (e.kind == kind && (tag == nullptr || e.tag == tag))
            out.push_back(e.text);
    return out;
}

inline Lines errors(ClsBase& obj) { return linesOfKind(obj.get_LogEntries(), LogEntry::Kind::Error); }

inline Lines infos(ClsBase& obj) { return linesOfKind(obj.get_LogEntries(), LogEntry::Kind::Info); }

inline bool hasError(ClsBase& obj, const std::string& text) { return std::ranges::count(errors(obj), text) > 0; }

inline bool hasInfo(ClsBase& obj, const std::string& text) { return std::ranges::count(infos(obj), text) > 0; }

// Values of every Data line with this tag, in order.
inline Lines dataValues(ClsBase& obj, const std::string& tag) { return linesOfKind(obj.get_LogEntries(), LogEntry::Kind::Data, tag.c_str()); }

// The name of the innermost context open when the first entry with this text was written.
inline std::optional<std::string> contextOf(ClsBase& obj, const std::string& text)
{
    Lines open{""};
    for (const LogEntry& e : obj.get_LogEntries())
        if (e.kind == LogEntry::Kind::ContextEnter)
            open.push_back(e.tag);
        else if (e.kind == LogEntry::Kind::ContextLeave && open.size() > 1)
            open.pop_back();
        else if (e.text == text)
            return open.back();
    return std::nullopt;
}

} // namespace p11test
