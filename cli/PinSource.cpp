#include "PinSource.h"

#include "Errors.h"
#include "TerminalPrompt.h"

#include <CLI/CLI.hpp>
#include <openssl/crypto.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace p11cli {

using p11client::XString;

namespace {

constexpr std::size_t kMaxPinFileSize = 1024;

void wipe(std::string& s)
{
    OPENSSL_cleanse(s.data(), s.size());
    s.clear();
}

// Overwrites the argv copies of a value given as "--name value" or "--name=value".
void wipeArgv(int argc, char** argv, const std::vector<std::string>& longNames, const std::string& value)
{
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        for (const std::string& name : longNames) {
            const std::string flag = "--" + name;
            if (arg == flag && i + 1 < argc && value == argv[i + 1])
                OPENSSL_cleanse(argv[i + 1], value.size());
            else if (arg.size() == flag.size() + 1 + value.size() && arg.starts_with(flag + "=")
                     && arg.substr(flag.size() + 1) == value)
                OPENSSL_cleanse(argv[i] + flag.size() + 1, value.size());
        }
    }
}

} // namespace

PinSource::PinSource(std::string description, std::string envName)
    : m_description(std::move(description)), m_envName(std::move(envName))
{
}

void PinSource::addOptions(CLI::App& app, const std::string& name, const std::string& group)
{
    CLI::Option* flag
        = app.add_option("--" + name, m_flagValue,
                         "the " + m_description + " itself (least safe: other users of the machine can see it)");
    CLI::Option* file
        = app.add_option("--" + name + "-file", m_file, "read the " + m_description + " from the first line of FILE");
    flag->type_name("PIN")->group(group);
    file->type_name("FILE")->group(group)->excludes(flag);
    m_flagOptions.push_back(flag);
    m_fileOptions.push_back(file);
}

void PinSource::takeFromCommandLine(int argc, char** argv)
{
    for (CLI::Option* opt : m_flagOptions) {
        if (opt->count() == 0)
            continue;
        m_flagGiven = true;
        wipeArgv(argc, argv, opt->get_lnames(), m_flagValue);
        // The parser keeps the text it read; it is of no further use.
        for (std::string& result : const_cast<std::vector<std::string>&>(opt->results()))
            wipe(result);
    }
    if (m_flagGiven)
        m_fromFlag.setFromUtf8(m_flagValue);
    wipe(m_flagValue);
}

bool PinSource::isGiven() const
{
    const char* env = std::getenv(m_envName.c_str());
    return m_flagGiven || !m_file.empty() || (env != nullptr && *env != '\0');
}

bool PinSource::obtain(XString& pin, Prompt prompt) const
{
    if (m_flagGiven) {
        pin.copyFromX(m_fromFlag);
        return true;
    }
    if (!m_file.empty())
        return readFile(pin);
    if (const char* env = std::getenv(m_envName.c_str()); env != nullptr && *env != '\0') {
        pin.setFromUtf8(env);
        return true;
    }
    if (prompt == Prompt::Never || !promptWithoutEcho("Enter the " + m_description, pin))
        return false;
    if (prompt == Prompt::AskTwice) {
        XString again;
        promptWithoutEcho("Enter the " + m_description + " again", again);
        if (!again.equalsX(pin))
            throw UsageError("the two " + m_description + "s typed differ");
    }
    return true;
}

bool PinSource::readFile(XString& pin) const
{
    std::FILE* f = std::fopen(m_file.c_str(), "rb");
    if (f == nullptr)
        throw UsageError("cannot read the " + m_description + " file " + m_file + ": " + std::strerror(errno));
    std::array<char, kMaxPinFileSize + 1> buf {};
    const std::size_t n = std::fread(buf.data(), 1, buf.size(), f);
    std::fclose(f);
    std::size_t end = 0;
    while (end < n && buf[end] != '\n' && buf[end] != '\r' && buf[end] != '\0')
        ++end;
    const bool tooLong = n > kMaxPinFileSize;
    if (!tooLong && end > 0)
        pin.setFromUtf8(std::string_view(buf.data(), end));
    OPENSSL_cleanse(buf.data(), buf.size());
    if (tooLong)
        throw UsageError("the " + m_description + " file " + m_file + " is longer than a PIN can be");
    if (end == 0)
        throw UsageError("the first line of the " + m_description + " file " + m_file + " is empty");
    return true;
}

} // namespace p11cli
