// atr: a card looked up by its ATR in the library's card database.
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "ExtPtrArray.h"
#include "FileSys.h"
#include "LibraryLog.h"
#include "Output.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace p11cli {

using p11client::ClsJsonObject;
using p11client::ClsPkcs11;

namespace {

struct CardInfo {
    p11client::StringBuffer name;
    bool readOnly = false;
    p11client::ExtPtrArraySb paths;
};

void printCard(const std::string& atr, const CardInfo& card)
{
    FieldList fields("Card");
    fields.add("ATR", atr);
    fields.add("name", card.name.getString());
    fields.add("read-only", yesNo(card.readOnly));
    for (int i = 0; i < card.paths.getSize(); ++i) {
        const char* path = card.paths.stringAt(i);
        const bool present = p11client::FileSys::fileExistsUtf8(path, nullptr, nullptr);
        fields.add(i == 0 ? "drivers" : "", std::string(path) + (present ? "  (present)" : "  (not on this machine)"));
    }
    fields.print(stdout);
}

void printCardJson(const std::string& atr, const CardInfo& card)
{
    ClsJsonObject json;
    json.updateString("atr", atr.c_str());
    json.updateString("name", card.name.getString());
    json.updateBool("readOnly", card.readOnly);
    json.updateNewArray("driverPaths");
    for (int i = 0; i < card.paths.getSize(); ++i) {
        const std::string entry = "driverPaths[" + std::to_string(i) + "]";
        const char* path = card.paths.stringAt(i);
        json.updateString((entry + ".path").c_str(), path);
        json.updateBool((entry + ".exists").c_str(), p11client::FileSys::fileExistsUtf8(path, nullptr, nullptr));
    }
    printJson(json);
}

// pcsc_scan and others write ATRs with blanks or colons between the bytes.
std::string compactAtr(const std::string& text)
{
    std::string atr;
    for (char c : text)
        if (c != ' ' && c != ':' && c != '\t')
            atr += c;
    return atr;
}

int runAtr(const CommandContext& context, const std::string& typed)
{
    const std::string atr = compactAtr(typed);
    CardInfo card;
    p11client::_qxLogger log;
    log.m_verbose = context.options.verbose;
    const bool found = ClsPkcs11::CardDataLookupAtr2(atr.c_str(), card.name, card.readOnly, card.paths, log);
    // The database says nothing when it lacks the ATR, and why when it has
    // the card but no Linux driver for it.
    bool saidWhy = false;
    for (const p11client::LogEntry& entry : log.entries())
        saidWhy = saidWhy || entry.kind == p11client::LogEntry::Kind::Error;
    LibraryLog(context.options.verbose)
        .check(log, found,
               saidWhy ? "no Linux driver is known for the card with the ATR " + atr
                       : "the ATR " + atr + " is not in the card database");
    if (context.options.json)
        printCardJson(atr, card);
    else
        printCard(atr, card);
    return kExitSuccess;
}

} // namespace

void addAtrCommand(CLI::App& app, CommandContext& context)
{
    auto atr = std::make_shared<std::string>();
    CLI::App* sub = app.add_subcommand("atr",
                                       "Look a card up by its ATR in the card database: its name, whether "
                                       "it is read-only, and its driver's paths (and which exist here)");
    sub->add_option("atr", *atr, "the ATR in hex, as pcsc_scan shows it (blanks and colons between bytes are dropped)")
        ->required()
        ->type_name("ATR");
    context.addCommand(sub, [&context, atr] { return runAtr(context, *atr); });
}

} // namespace p11cli
