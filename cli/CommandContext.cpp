#include "CommandContext.h"

#include <CLI/CLI.hpp>

namespace p11cli {

void CommandContext::takePinsFromCommandLine(int argc, char** argv)
{
    for (PinSource* source : m_pinSources)
        source->takeFromCommandLine(argc, argv);
}

const CommandContext::Action* CommandContext::parsedAction() const
{
    for (const auto& [subcommand, action] : m_commands)
        if (subcommand->parsed())
            return &action;
    return nullptr;
}

} // namespace p11cli
