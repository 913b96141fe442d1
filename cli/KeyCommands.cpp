// keys: the token's private keys; objects: a search by JSON template.
#include "ClsJsonObject.h"
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "Output.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace p11cli {

using p11client::ClsJsonObject;
using p11client::XString;

namespace {

constexpr std::size_t kMaxTemplateSize = 64 * 1024;

std::string textAt(ClsJsonObject& json, const std::string& path)
{
    p11client::StringBuffer text;
    p11client::LogNull log;
    if (json.jsonTypeOf(path.c_str()) == ClsJsonObject::kTypeMissing)
        return {};
    json.sbOfPathUtf8(path.c_str(), text, log);
    return text.toStdString();
}

std::string flagAt(ClsJsonObject& json, const std::string& path)
{
    const std::string text = textAt(json, path);
    return text == "true" ? "yes" : text == "false" ? "no" : text;
}

void noteNotLoggedIn(bool loggedIn, const char* what)
{
    if (!loggedIn)
        std::fprintf(stderr, "Not logged in: the token may hide its %s.\n", what);
}

int runKeys(CommandContext& context, const std::string& filter)
{
    TokenSession session(context);
    session.open(false);
    noteNotLoggedIn(session.loginUser(TokenSession::UserLogin::IfAvailable), "private keys");
    ClsJsonObject keys;
    auto& p11 = session.module();
    session.log().check(p11, p11.FindAllKeys(XString(filter == "all" ? "" : filter.c_str()), keys),
                        "could not list the private keys");
    if (context.options.json) {
        printJson(keys);
        return kExitSuccess;
    }
    Table table({"HANDLE", "LABEL", "ID", "TYPE", "BITS", "CURVE", "SIGN", "ALWAYS AUTH"});
    p11client::LogNull log;
    for (int i = 0; i < keys.sizeOfArray("keys", log); ++i) {
        const std::string key = "keys[" + std::to_string(i) + "]";
        table.addRow({textAt(keys, key + ".handle"), textAt(keys, key + ".label"), textAt(keys, key + ".id"),
                      textAt(keys, key + ".keyType"), textAt(keys, key + ".bits"), textAt(keys, key + ".curve"),
                      flagAt(keys, key + ".usage.sign"), flagAt(keys, key + ".alwaysAuthenticate")});
    }
    if (table.isEmpty())
        std::printf("No private key found.\n");
    else
        table.print(stdout);
    return kExitSuccess;
}

struct ObjectsOptions {
    std::string templateText;
    std::string templateFile;
};

void loadTemplate(const ObjectsOptions& o, const TokenSession& session, ClsJsonObject& search)
{
    std::string text = o.templateText;
    if (!o.templateFile.empty()) {
        const p11client::DataBuffer bytes = readInput(o.templateFile, kMaxTemplateSize, "search template");
        text.assign(reinterpret_cast<const char*>(bytes.getData()), bytes.getSize());
    }
    if (!text.empty()) {
        if (!search.Load(XString(text.c_str())))
            throw UsageError("the search template is not valid JSON");
        return;
    }
    if (const Pkcs11Uri* uri = session.objectUri())
        uri->putSearchTemplate(search);
}

void printObjects(ClsJsonObject& result)
{
    Table table({"HANDLE", "CLASS", "LABEL", "ID", "TYPE"});
    p11client::LogNull log;
    for (int i = 0; i < result.sizeOfArray("objects", log); ++i) {
        const std::string object = "objects[" + std::to_string(i) + "]";
        const std::string attrs = object + ".attributes.";
        std::string type = textAt(result, attrs + "CKA_KEY_TYPE");
        if (type.empty())
            type = textAt(result, attrs + "CKA_CERTIFICATE_TYPE");
        table.addRow({textAt(result, object + ".handle"), textAt(result, attrs + "CKA_CLASS"),
                      textAt(result, attrs + "CKA_LABEL"), textAt(result, attrs + "CKA_ID"), type});
    }
    if (table.isEmpty()) {
        std::printf("No object matches.\n");
        return;
    }
    table.print(stdout);
    std::printf("\n%s object(s)\n", textAt(result, "count").c_str());
}

int runObjects(CommandContext& context, const ObjectsOptions& o)
{
    TokenSession session(context);
    ClsJsonObject search;
    loadTemplate(o, session, search);
    session.open(false);
    noteNotLoggedIn(session.loginUser(TokenSession::UserLogin::IfAvailable), "private objects");
    auto& p11 = session.module();
    session.log().check(p11, p11.FindObject(search), "the object search failed");
    if (context.options.json)
        printJson(search);
    else
        printObjects(search);
    return kExitSuccess;
}

} // namespace

void addKeyCommands(CLI::App& app, CommandContext& context)
{
    auto filter = std::make_shared<std::string>("all");
    CLI::App* keys = app.add_subcommand("keys", "List the token's private keys");
    keys->add_option("--type", *filter, "only keys of this type: rsa, ec or all (the default)")
        ->check(CLI::IsMember({"rsa", "ec", "all"}, CLI::ignore_case));
    context.addCommand(keys, [&context, filter] { return runKeys(context, *filter); });

    auto o = std::make_shared<ObjectsOptions>();
    CLI::App* objects = app.add_subcommand(
        "objects",
        "Search the token's objects with a JSON template, e.g. '{\"class\":\"privateKey\",\"keyType\":"
        "\"ec\"}' (members: class, keyType, label, id, attributes); without one, the object in --uri, "
        "else every object");
    CLI::Option* text
        = objects->add_option("template", o->templateText, "the search template as JSON text")->type_name("JSON");
    objects->add_option("--template-file", o->templateFile, "read the search template from FILE (- for stdin)")
        ->type_name("FILE")
        ->excludes(text);
    context.addCommand(objects, [&context, o] { return runObjects(context, *o); });
}

} // namespace p11cli
