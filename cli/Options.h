#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace p11cli {

class CommandContext;

// The options every command takes.
struct GlobalOptions {
    std::string modulePath; // "auto": the driver of the card in a reader
    std::string readerName;
    unsigned long slotId = 0;
    CLI::Option* slotOption = nullptr;
    std::string uri;
    bool json = false;
    bool verbose = false;

    bool hasSlot() const;
    // Whether the module comes from the card in a reader (--module auto, or
    // --reader alone); a UsageError when --reader comes with a module path.
    bool moduleFromCard() const;
};

// Adds the global options (and the user PIN's sources) to the application.
void addGlobalOptions(CLI::App& app, CommandContext& context);

// The module to load: the one given, else the module-path of a URI, else
// p11-kit's proxy module when installed; a UsageError when there is none.
std::string chooseModulePath(const std::string& given, const std::vector<std::string>& uriModulePaths);

} // namespace p11cli
