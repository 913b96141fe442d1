#pragma once

#include "XString.h"

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace p11cli {

// One PIN the tool may need (user, security officer, new, context-specific)
// and where it can come from, in this order: --NAME (visible to every user
// of the machine, so the least safe), --NAME-file, the environment variable,
// and a prompt without echo when stdin is a terminal.
//
// The PIN itself only ever lives in wiped memory (p11client::XString); the copies the
// command line left behind are wiped once it has been parsed.
class PinSource {
public:
    enum class Prompt { Never, Ask, AskTwice };

    PinSource(std::string description, std::string envName);
    PinSource(const PinSource&) = delete;
    PinSource& operator=(const PinSource&) = delete;

    // Adds --NAME and --NAME-file to a command (several commands may share a source).
    void addOptions(CLI::App& app, const std::string& name, const std::string& group);
    // Moves a PIN given with --NAME into wiped memory and overwrites the
    // command line's copies of it (argv and the parser's own).
    void takeFromCommandLine(int argc, char** argv);

    // Whether --NAME, --NAME-file or the environment variable gives the PIN.
    bool isGiven() const;
    // The PIN from the first source that has one; false when none has (the
    // prompt is used only as allowed and only on a terminal). A PIN file
    // that cannot be read is a UsageError.
    bool obtain(p11client::XString& pin, Prompt prompt) const;

    const std::string& description() const { return m_description; }
    const std::string& envName() const { return m_envName; }

private:
    bool readFile(p11client::XString& pin) const;

    std::string m_description;
    std::string m_envName;
    std::string m_flagValue; // emptied by takeFromCommandLine
    std::string m_file;
    p11client::XString m_fromFlag;
    bool m_flagGiven = false;
    std::vector<CLI::Option*> m_flagOptions;
    std::vector<CLI::Option*> m_fileOptions;
};

} // namespace p11cli
