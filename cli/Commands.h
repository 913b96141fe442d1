#pragma once

namespace CLI {
class App;
}

namespace p11cli {

class CommandContext;

// Each adds its subcommands, their options and their actions.
void addDiscoverCommand(CLI::App& app, CommandContext& context);
void addCertCommands(CLI::App& app, CommandContext& context); // certs, find-cert
void addKeyCommands(CLI::App& app, CommandContext& context); // keys, objects
void addSignCommand(CLI::App& app, CommandContext& context);
void addVerifyCommand(CLI::App& app, CommandContext& context);
void addAdminCommands(CLI::App& app, CommandContext& context); // init-token, init-pin, set-pin
void addAtrCommand(CLI::App& app, CommandContext& context);
void addReadersCommand(CLI::App& app, CommandContext& context);

} // namespace p11cli
