#include "P11KitServer.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace p11test {

P11KitServer::P11KitServer(const std::string& module)
{
    char dir[] = "/tmp/p11kit-server-XXXXXX";
    if (mkdtemp(dir) == nullptr)
        throw std::runtime_error("p11-kit server: no temporary directory");
    m_dir = dir;
    const std::string socket = m_dir + "/socket";
    m_pid = fork();
    if (m_pid == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO); // it prints the address the socket's path tells
        execlp("p11-kit", "p11-kit", "server", "--foreground", "--name", socket.c_str(), "--provider", module.c_str(),
               "pkcs11:", static_cast<char*>(nullptr));
        _exit(127);
    }
    for (int i = 0; i < 500 && !std::filesystem::exists(socket); ++i) {
        if (m_pid < 0 || waitpid(m_pid, nullptr, WNOHANG) != 0)
            throw std::runtime_error("p11-kit server did not start (is the p11-kit package installed?)");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    m_address = "unix:path=" + socket;
    setenv("P11_KIT_SERVER_ADDRESS", m_address.c_str(), 1);
}

P11KitServer::~P11KitServer()
{
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
}

} // namespace p11test
