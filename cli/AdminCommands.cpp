// init-token, init-pin, set-pin: token and PIN administration.
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Output.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace p11cli {

using p11client::ClsJsonObject;
using p11client::ClsPkcs11;
using p11client::XString;

namespace {

// A token label is a 32-byte Cryptoki field.
constexpr std::size_t kMaxLabelSize = 32;

struct AdminOptions {
    std::string label;
    bool securityOfficer = false;
    PinSource soPin {"security officer PIN", "P11CLIENT_SO_PIN"};
    PinSource newPin {"new PIN", "P11CLIENT_NEW_PIN"};
};

XString requirePin(const PinSource& source, PinSource::Prompt prompt, const std::string& flag)
{
    XString pin;
    if (!source.obtain(pin, prompt))
        throw UsageError("the " + source.description() + " is needed: give --" + flag + "-file FILE, set "
                         + source.envName() + ", or run this on a terminal to be asked");
    return pin;
}

void report(const CommandContext& context, const SlotRecord& slot, const std::string& label, const char* done)
{
    if (context.options.json) {
        ClsJsonObject json;
        json.updateUInt("slot", slot.id);
        json.updateString("token", label.c_str());
        json.updateString("done", done);
        printJson(json);
    } else {
        std::printf("Token \"%s\" in slot %lu: %s.\n", label.c_str(), slot.id, done);
    }
}

int runInitToken(CommandContext& context, const AdminOptions& o)
{
    if (o.label.size() > kMaxLabelSize)
        throw UsageError("a token label has at most 32 bytes");
    TokenSession session(context);
    const SlotRecord& slot = session.chooseSlot(TokenSession::SlotNeed::NamedToken);
    const XString soPin = requirePin(o.soPin, PinSource::Prompt::AskTwice, "so-pin");
    ClsPkcs11& p11 = session.module();
    session.log().check(p11, p11.InitToken(slot.libraryId(), soPin, XString(o.label.c_str())),
                        "could not initialize the token in slot " + std::to_string(slot.id));
    report(context, slot, o.label, "initialized (its user PIN is not set yet: init-pin sets it)");
    return kExitSuccess;
}

int runInitPin(CommandContext& context, const AdminOptions& o)
{
    TokenSession session(context);
    session.open(true);
    session.loginSecurityOfficer(o.soPin);
    const XString newPin = requirePin(o.newPin, PinSource::Prompt::AskTwice, "new-pin");
    ClsPkcs11& p11 = session.module();
    session.log().check(p11, p11.InitPin(newPin), "could not set the user PIN");
    report(context, session.slot(), session.slot().label, "user PIN set");
    return kExitSuccess;
}

int runSetPin(CommandContext& context, const AdminOptions& o)
{
    TokenSession session(context);
    session.open(true);
    const PinSource& oldSource = o.securityOfficer ? o.soPin : context.userPin;
    const XString oldPin = requirePin(oldSource, PinSource::Prompt::Ask, o.securityOfficer ? "so-pin" : "pin");
    const XString newPin = requirePin(o.newPin, PinSource::Prompt::AskTwice, "new-pin");
    ClsPkcs11& p11 = session.module();
    if (o.securityOfficer)
        session.log().check(p11, p11.Login(ClsPkcs11::kUserTypeSecurityOfficer, oldPin),
                            "login as the security officer failed");
    session.log().check(p11, p11.SetPin(oldPin, newPin), "could not change the PIN");
    report(context, session.slot(), session.slot().label,
           o.securityOfficer ? "security officer PIN changed" : "user PIN changed");
    return kExitSuccess;
}

void addSoPin(CLI::App& command, AdminOptions& o, CommandContext& context)
{
    o.soPin.addOptions(command, "so-pin", "PIN sources");
    context.addPinSource(&o.soPin);
}

void addNewPin(CLI::App& command, AdminOptions& o, CommandContext& context)
{
    o.newPin.addOptions(command, "new-pin", "PIN sources");
    context.addPinSource(&o.newPin);
}

} // namespace

void addAdminCommands(CLI::App& app, CommandContext& context)
{
    auto token = std::make_shared<AdminOptions>();
    CLI::App* initToken = app.add_subcommand("init-token",
                                             "Initialize the token in a slot (--slot or --uri): "
                                             "every object on it is destroyed");
    initToken->add_option("--label", token->label, "the token's new label (at most 32 bytes)")->required();
    addSoPin(*initToken, *token, context);
    context.addCommand(initToken, [&context, token] { return runInitToken(context, *token); });

    auto pin = std::make_shared<AdminOptions>();
    CLI::App* initPin = app.add_subcommand("init-pin", "Set the user PIN, logged in as the security officer");
    addSoPin(*initPin, *pin, context);
    addNewPin(*initPin, *pin, context);
    context.addCommand(initPin, [&context, pin] { return runInitPin(context, *pin); });

    auto change = std::make_shared<AdminOptions>();
    CLI::App* setPin = app.add_subcommand("set-pin",
                                          "Change the user PIN (old PIN from the user PIN sources), or "
                                          "with --so the security officer's");
    setPin->add_flag("--so", change->securityOfficer,
                     "change the security officer's PIN (old PIN from the "
                     "--so-pin sources)");
    addSoPin(*setPin, *change, context);
    addNewPin(*setPin, *change, context);
    context.addCommand(setPin, [&context, change] { return runSetPin(context, *change); });
}

} // namespace p11cli
