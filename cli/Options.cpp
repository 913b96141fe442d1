#include "Options.h"

#include "CommandContext.h"
#include "Errors.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <filesystem>

namespace p11cli {

namespace {

// Where Debian and other distributions put p11-kit's proxy module, which
// reaches every module registered on the machine.
constexpr const char* kProxyModules[] = {
    "/usr/lib/x86_64-linux-gnu/p11-kit-proxy.so",
    "/usr/lib/p11-kit-proxy.so",
};

// A global option given twice counts as given once, the last time.
CLI::Option* lastWins(CLI::Option* option, const char* typeName, const std::string& group)
{
    return option->type_name(typeName)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)->group(group);
}

} // namespace

bool GlobalOptions::hasSlot() const
{
    return slotOption != nullptr && slotOption->count() > 0;
}

bool GlobalOptions::moduleFromCard() const
{
    if (!readerName.empty() && !modulePath.empty() && modulePath != "auto")
        throw UsageError("--reader goes with --module auto, not with a module path");
    return modulePath == "auto" || !readerName.empty();
}

void addGlobalOptions(CLI::App& app, CommandContext& context)
{
    GlobalOptions& o = context.options;
    const std::string group = "Token selection and output";
    lastWins(app.add_option("--module", o.modulePath,
                            "the vendor's PKCS#11 module, or auto for the driver of the card in the reader "
                            "(default: p11-kit's proxy module, p11-kit-proxy.so)"),
             "PATH", group);
    lastWins(app.add_option("--reader", o.readerName,
                            "with --module auto, the reader whose card chooses the module, as readers shows it "
                            "(needed when several readers hold a card)"),
             "NAME", group);
    o.slotOption = lastWins(app.add_option("--slot", o.slotId,
                                           "the slot ID, as discover shows it (default: the first slot with an "
                                           "initialized token)"),
                            "ID", group)
                       ->check(CLI::Range(0UL, static_cast<unsigned long>(UINT32_MAX)).description(""));
    lastWins(app.add_option("--uri,--token-uri", o.uri,
                            "a PKCS#11 URI (RFC 7512) naming the token and, for commands that take one, the "
                            "object: pkcs11:token=LABEL;object=LABEL;id=%01;type=cert"),
             "URI", group);
    app.add_flag("--json", o.json, "write JSON for scripts instead of tables")->group(group);
    app.add_flag("-v,--verbose", o.verbose, "print the library's log of every call on stderr")->group(group);
    context.userPin.addOptions(app, "pin", "PIN sources");
}

std::string chooseModulePath(const std::string& given, const std::vector<std::string>& uriModulePaths)
{
    if (!given.empty())
        return given;
    for (const std::string& path : uriModulePaths)
        if (!path.empty())
            return path;
    for (const char* proxy : kProxyModules) {
        std::error_code ignored;
        if (std::filesystem::is_regular_file(proxy, ignored))
            return proxy;
    }
    throw UsageError("no PKCS#11 module: give --module PATH (p11-kit's proxy module, p11-kit-proxy.so, is not "
                     "installed; Debian's package p11-kit-modules has it)");
}

} // namespace p11cli
