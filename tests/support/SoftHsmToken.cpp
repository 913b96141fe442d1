#include "SoftHsmToken.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace p11test {

std::string SoftHsmToken::modulePath()
{
    for (const char* candidate : {"/usr/lib/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so",
                                  "/usr/local/lib/softhsm/libsofthsm2.so"})
        if (fs::exists(candidate))
            return candidate;
    return {};
}

void SoftHsmToken::makeStore(const std::string& directory)
{
    const std::string absolute = fs::absolute(directory).string();
    fs::create_directory(absolute + "/tokens");
    std::ofstream(absolute + "/softhsm2.conf") << "directories.tokendir = " << absolute << "/tokens\nobjectstore.backend = file\nlog.level = ERROR\n";
    ::setenv("SOFTHSM2_CONF", (absolute + "/softhsm2.conf").c_str(), 1);
}

void SoftHsmToken::initToken(const std::string& label)
{
    const std::string command = "softhsm2-util --init-token --free --label " + label + " --so-pin " + kSoPin
                                + " --pin " + kUserPin + " >/dev/null 2>&1";
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("could not initialize the token " + label);
}

SoftHsmToken::SoftHsmToken()
{
    std::string templ = (fs::temp_directory_path() / "p11client-softhsm-XXXXXX").string();
    if (::mkdtemp(templ.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    makeStore(m_dir = templ);
    initToken(kLabel);
}

SoftHsmToken::~SoftHsmToken()
{
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
}

} // namespace p11test
