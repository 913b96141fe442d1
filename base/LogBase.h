#pragma once

#include <string>
#include <vector>

namespace p11client {

class XString;
class StringBuffer;

// One line of a log: a context opened or closed, an error, a note, or a
// tagged value.
struct LogEntry {
    enum class Kind { ContextEnter, ContextLeave, Error, Info, Data };

    Kind kind;
    int depth;        // nesting level: 0 outside every context
    std::string tag;  // context name, or the tag of a Data line
    std::string text; // message, or the value of a Data line
};

// Where internal members write what they do. Messages and tags are part of
// the library's behaviour; PINs are never written to a log.
class LogBase {
public:
    LogBase() = default;
    LogBase(const LogBase&) = delete;
    LogBase& operator=(const LogBase&) = delete;
    virtual ~LogBase() = default;

    virtual void LogError(const char* message) = 0;
    virtual void LogInfo(const char* message) = 0;
    virtual void LogData(const char* tag, const char* value) = 0;
    virtual void enterContext(const char* name) = 0;
    virtual void leaveContext() = 0;

    void LogDataX(const char* tag, const XString& value);
    void LogDataLong(const char* tag, long value);
    void LogDataBool(const char* tag, bool value);
    void LogDataSb(const char* tag, const StringBuffer& value);
    void LogDataHex(const char* tag, unsigned long value);
    // A detail line, written only while the verbose switch is on.
    void LogVerbose(const char* message);

    // The log's switch: when on, detail lines are written too.
    bool m_verbose = false;
};

// A log that discards everything, for steps that must leave no trace.
class LogNull : public LogBase {
public:
    void LogError(const char*) override {}
    void LogInfo(const char*) override {}
    void LogData(const char*, const char*) override {}
    void enterContext(const char*) override {}
    void leaveContext() override {}
};

// A log that keeps its entries and renders them as indented text.
class _qxLogger : public LogBase {
public:
    void LogError(const char* message) override;
    void LogInfo(const char* message) override;
    void LogData(const char* tag, const char* value) override;
    void enterContext(const char* name) override;
    void leaveContext() override;

    int depth() const { return static_cast<int>(m_open.size()); }
    const std::vector<LogEntry>& entries() const { return m_entries; }
    // Starts a fresh record; the verbose switch keeps its value.
    void clearLog();
    // One line per entry, two spaces of indent per context level.
    std::string renderText() const;

private:
    void add(LogEntry::Kind kind, const char* tag, const char* text);

    std::vector<LogEntry> m_entries;
    std::vector<std::string> m_open;
};

} // namespace p11client
