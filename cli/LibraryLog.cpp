#include "LibraryLog.h"

#include "ClsBase.h"
#include "Errors.h"
#include "XString.h"

#include <cctype>
#include <cstdio>

namespace p11cli {

using p11client::LogEntry;

namespace {

struct Hint {
    const char* code;
    const char* text;
};

// What the return values people meet most mean for them.
constexpr Hint kHints[] = {
    {"CKR_PIN_INCORRECT", "the PIN is incorrect"},
    {"CKR_PIN_LOCKED", "the PIN is locked"},
    {"CKR_PIN_LEN_RANGE", "the PIN's length is outside what the token accepts"},
    {"CKR_PIN_INVALID", "the PIN has characters the token does not accept"},
    {"CKR_TOKEN_NOT_RECOGNIZED", "the token is not initialized"},
    {"CKR_USER_PIN_NOT_INITIALIZED", "the user PIN is not set yet (init-pin sets it)"},
    {"CKR_USER_NOT_LOGGED_IN", "a login is needed first"},
    {"CKR_TOKEN_WRITE_PROTECTED", "the token is write-protected"},
};

std::string hintFor(const std::vector<LogEntry>& entries)
{
    for (const LogEntry& entry : entries) {
        if (entry.kind != LogEntry::Kind::Error)
            continue;
        for (const Hint& hint : kHints)
            if (entry.text.find(hint.code) != std::string::npos)
                return hint.text;
    }
    return {};
}

} // namespace

void LibraryLog::check(p11client::ClsBase& object, bool ok, const std::string& what) const
{
    show(object);
    if (!ok)
        fail(object.get_LogEntries(), what);
}

void LibraryLog::check(const p11client::_qxLogger& log, bool ok, const std::string& what) const
{
    show(log);
    if (!ok)
        fail(log.entries(), what);
}

void LibraryLog::show(p11client::ClsBase& object) const
{
    if (!m_verbose)
        return;
    p11client::XString text;
    object.get_LogText(text);
    std::fputs(text.getUtf8(), stderr);
}

void LibraryLog::show(const p11client::_qxLogger& log) const
{
    if (m_verbose)
        std::fputs(log.renderText().c_str(), stderr);
}

void LibraryLog::fail(const std::vector<LogEntry>& entries, const std::string& what) const
{
    for (const LogEntry& entry : entries)
        if (entry.kind == LogEntry::Kind::Error)
            std::fprintf(stderr, "error: %s\n", entry.text.c_str());
    const std::string hint = hintFor(entries);
    throw OperationFailed(hint.empty() ? what : what + ": " + hint);
}

std::string LibraryLog::problemOf(const std::vector<LogEntry>& entries)
{
    std::string text = "the operation failed";
    for (const LogEntry& entry : entries)
        if (entry.kind == LogEntry::Kind::Error && entry.text != "Failed.")
            text = entry.text;
    if (text.ends_with('.'))
        text.pop_back();
    if (text.size() > 1 && std::isupper(static_cast<unsigned char>(text[0])) != 0
        && std::islower(static_cast<unsigned char>(text[1])) != 0)
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

} // namespace p11cli
