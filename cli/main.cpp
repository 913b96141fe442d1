// p11client: smart cards, USB tokens and HSMs from the shell, through their
// PKCS#11 module and the p11client library.
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Options.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>

using namespace p11cli;

namespace {

constexpr const char* kFooter
    = "PINs come from --pin-file FILE (its first line), from the environment (P11CLIENT_PIN; P11CLIENT_SO_PIN,\n"
      "P11CLIENT_NEW_PIN and P11CLIENT_CONTEXT_PIN for the others), or from a prompt without echo when stdin\n"
      "is a terminal. --pin PIN works too but is the least safe: every user of the machine can read a\n"
      "command line. No PIN is ever printed, not even with --verbose.\n"
      "\n"
      "Exit status: 0 success, 1 the operation failed (the library's error lines on stderr), 2 usage error.";

void addCommands(CLI::App& app, CommandContext& context)
{
    addDiscoverCommand(app, context);
    addCertCommands(app, context);
    addKeyCommands(app, context);
    addSignCommand(app, context);
    addVerifyCommand(app, context);
    addAdminCommands(app, context);
    addAtrCommand(app, context);
    addReadersCommand(app, context);
}

int runParsed(const CommandContext& context)
{
    const CommandContext::Action* action = context.parsedAction();
    if (action == nullptr)
        return kExitUsage;
    try {
        return (*action)();
    } catch (const UsageError& e) {
        std::fprintf(stderr, "p11client: %s\nRun with --help for more information.\n", e.what());
        return kExitUsage;
    } catch (const OperationFailed& e) {
        std::fprintf(stderr, "p11client: %s\n", e.what());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "p11client: internal error: %s\n", e.what());
    }
    return kExitFailure;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Smart cards, USB tokens and HSMs through their PKCS#11 module", "p11client");
    app.fallthrough();
    app.require_subcommand(1);
    app.footer(kFooter);
    CommandContext context;
    try {
        addGlobalOptions(app, context);
        addCommands(app, context);
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        context.takePinsFromCommandLine(argc, argv);
        return app.exit(e) == 0 ? kExitSuccess : kExitUsage;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "p11client: internal error: %s\n", e.what());
        return kExitFailure;
    }
    context.takePinsFromCommandLine(argc, argv);
    return runParsed(context);
}
