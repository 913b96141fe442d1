#include "SoftHsmToken.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;

namespace p11test {

namespace {

void run(const std::string& command)
{
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0)
        throw std::runtime_error("command failed: " + command);
}

} // namespace

std::string SoftHsmToken::modulePath()
{
    for (const char* candidate : {"/usr/lib/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so",
                                  "/usr/local/lib/softhsm/libsofthsm2.so"})
        if (fs::exists(candidate))
            return candidate;
    return {};
}

SoftHsmToken::SoftHsmToken()
{
    char templ[] = "/tmp/p11client-softhsm-XXXXXX";
    if (::mkdtemp(templ) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    m_dir = templ;
    fs::create_directory(m_dir + "/tokens");
    std::ofstream(m_dir + "/softhsm2.conf") << "directories.tokendir = " << m_dir << "/tokens\n"
                                            << "objectstore.backend = file\n"
                                            << "log.level = ERROR\n";
    ::setenv("SOFTHSM2_CONF", (m_dir + "/softhsm2.conf").c_str(), 1);
    run(std::string("softhsm2-util --init-token --free --label ") + kLabel + " --so-pin " + kSoPin + " --pin "
        + kUserPin);
}

SoftHsmToken::~SoftHsmToken()
{
    std::error_code ignored;
    fs::remove_all(m_dir, ignored);
}

} // namespace p11test
