#pragma once

#include "Options.h"
#include "PinSource.h"

#include <functional>
#include <utility>
#include <vector>

namespace p11cli {

// What the command line gave, shared by every command, and the action of
// each subcommand, run once parsing is over.
class CommandContext {
public:
    using Action = std::function<int()>;

    GlobalOptions options;
    PinSource userPin {"user PIN", "P11CLIENT_PIN"};

    void addCommand(CLI::App* subcommand, Action action) { m_commands.emplace_back(subcommand, std::move(action)); }
    // A command's own PIN sources, so that their command-line copies get wiped.
    void addPinSource(PinSource* source) { m_pinSources.push_back(source); }

    // Moves every PIN given on the command line into wiped memory.
    void takePinsFromCommandLine(int argc, char** argv);
    // The action of the subcommand that was parsed (null when none).
    const Action* parsedAction() const;

private:
    std::vector<std::pair<CLI::App*, Action>> m_commands;
    std::vector<PinSource*> m_pinSources {&userPin};
};

} // namespace p11cli
