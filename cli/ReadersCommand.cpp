// readers: the card readers, their cards and the drivers that serve them.
#include "ClsCardReaders.h"
#include "ClsJsonObject.h"
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "LibraryLog.h"
#include "Output.h"
#include "StringBuffer.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace p11cli {

using p11client::ClsJsonObject;

namespace {

std::string textAt(ClsJsonObject& json, const std::string& path)
{
    p11client::StringBuffer text;
    p11client::LogNull log;
    json.sbOfPathUtf8(path.c_str(), text, log);
    return text.toStdString();
}

std::vector<std::string> stringsAt(ClsJsonObject& json, const std::string& path)
{
    p11client::LogNull log;
    std::vector<std::string> values;
    for (int i = 0; i < json.sizeOfArray(path.c_str(), log); ++i)
        values.push_back(textAt(json, path + "[" + std::to_string(i) + "]"));
    return values;
}

void addCard(FieldList& fields, ClsJsonObject& json, const std::string& card)
{
    p11client::LogNull log;
    fields.add("card", textAt(json, card + ".name"));
    fields.add("read-only", yesNo(json.boolOf((card + ".readOnly").c_str(), log)));
    const std::vector<std::string> installed = stringsAt(json, card + ".installed");
    bool first = true;
    for (const std::string& path : stringsAt(json, card + ".driverPaths")) {
        const bool present = std::find(installed.begin(), installed.end(), path) != installed.end();
        fields.add(first ? "drivers" : "", path + (present ? "  (present)" : "  (not on this machine)"));
        first = false;
    }
}

void printReader(ClsJsonObject& json, int index)
{
    const std::string reader = "readers[" + std::to_string(index) + "]";
    FieldList fields("Reader " + textAt(json, reader + ".name"));
    p11client::LogNull log;
    if (!json.boolOf((reader + ".cardPresent").c_str(), log)) {
        fields.add("card", "none");
    } else {
        fields.add("ATR", textAt(json, reader + ".atr"));
        if (json.jsonTypeOf((reader + ".card").c_str()) == ClsJsonObject::kTypeObject)
            addCard(fields, json, reader + ".card");
        else
            fields.add("card", "not in the card database");
    }
    fields.print(stdout);
}

int runReaders(const CommandContext& context)
{
    p11client::ClsCardReaders readers;
    readers.put_VerboseLogging(context.options.verbose);
    ClsJsonObject report;
    const bool ok = readers.ListReaders(report);
    LibraryLog(context.options.verbose).show(readers);
    if (!ok)
        throw OperationFailed(LibraryLog::problemOf(readers.get_LogEntries()));
    p11client::LogNull log;
    const int count = report.sizeOfArray("readers", log);
    if (count <= 0)
        throw OperationFailed("no card reader is connected");
    if (context.options.json) {
        printJson(report);
        return kExitSuccess;
    }
    for (int i = 0; i < count; ++i) {
        std::printf(i > 0 ? "\n" : "");
        printReader(report, i);
    }
    return kExitSuccess;
}

} // namespace

void addReadersCommand(CLI::App& app, CommandContext& context)
{
    CLI::App* sub = app.add_subcommand("readers", "Show the card readers, their cards and the PKCS#11 drivers "
                                                  "that serve them (from the card database)");
    context.addCommand(sub, [&context] { return runReaders(context); });
}

} // namespace p11cli
