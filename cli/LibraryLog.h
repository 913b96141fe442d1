#pragma once

#include "LogBase.h"

#include <string>
#include <vector>

namespace p11client {
class ClsBase;
}

namespace p11cli {

// Shows the library's log of each call as the command line asks: all of it
// on stderr with --verbose, and its error lines whenever a call fails. The
// library never writes a PIN to its log, so nothing here can reveal one.
class LibraryLog {
public:
    explicit LibraryLog(bool verbose) : m_verbose(verbose) { }

    // After a call on a public object: prints its log when verbose; when the
    // call failed, prints the error lines and throws OperationFailed with
    // what failed (and a hint for the errors people meet most).
    void check(p11client::ClsBase& object, bool ok, const std::string& what) const;
    // The same for a log the tool handed to a library entry point.
    void check(const p11client::_qxLogger& log, bool ok, const std::string& what) const;
    // Prints the log when verbose, whatever the outcome.
    void show(p11client::ClsBase& object) const;
    void show(const p11client::_qxLogger& log) const;
    bool verbose() const { return m_verbose; }
    // The reason a call gave for failing, its last error line but the
    // closing "Failed.", as the tool words its own errors.
    static std::string problemOf(const std::vector<p11client::LogEntry>& entries);

private:
    void fail(const std::vector<p11client::LogEntry>& entries, const std::string& what) const;

    bool m_verbose;
};

} // namespace p11cli
