// discover: the module, its slots and their tokens.
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Output.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace p11cli {

namespace {

std::string stateOf(const SlotRecord& slot)
{
    if (!slot.tokenInitialized)
        return "not initialized";
    if (slot.userPinLocked)
        return "user PIN locked";
    if (!slot.userPinInitialized)
        return "user PIN not set";
    return "ready";
}

std::string textAt(p11client::ClsJsonObject& json, const char* path)
{
    p11client::StringBuffer text;
    p11client::LogNull log;
    json.sbOfPathUtf8(path, text, log);
    return text.toStdString();
}

void printLibrary(TokenSession& session, p11client::ClsJsonObject& report)
{
    p11client::XString path;
    session.module().get_SharedLibPath(path);
    std::printf("Module   %s\n", path.getUtf8());
    std::printf("Library  %s, %s %s (Cryptoki %s)\n\n", textAt(report, "library.manufacturer").c_str(),
                textAt(report, "library.description").c_str(), textAt(report, "library.libraryVersion").c_str(),
                textAt(report, "library.cryptokiVersion").c_str());
}

int runDiscover(CommandContext& context)
{
    TokenSession session(context);
    p11client::ClsJsonObject& report = session.discover();
    if (context.options.json) {
        printJson(report);
        return kExitSuccess;
    }
    printLibrary(session, report);
    Table table({"SLOT ID", "TOKEN LABEL", "MANUFACTURER", "MODEL", "SERIAL", "STATE"});
    for (const SlotRecord& slot : slotsOfReport(report))
        if (slot.tokenPresent)
            table.addRow({std::to_string(slot.id), slot.label, slot.tokenManufacturer, slot.model, slot.serialNumber,
                          stateOf(slot)});
    if (table.isEmpty())
        std::printf("No slot holds a token.\n");
    else
        table.print(stdout);
    return kExitSuccess;
}

} // namespace

void addDiscoverCommand(CLI::App& app, CommandContext& context)
{
    CLI::App* sub = app.add_subcommand("discover", "Show the module, its slots and their tokens");
    context.addCommand(sub, [&context] { return runDiscover(context); });
}

} // namespace p11cli
