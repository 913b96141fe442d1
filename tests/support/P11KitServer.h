#pragma once

#include <string>

#include <sys/types.h>

namespace p11test {

// `p11-kit server` exporting every token of a module on a socket of its own,
// as a remote machine would; p11-kit's client module reaches it through
// P11_KIT_SERVER_ADDRESS, which the constructor sets for this process. The
// server runs until the object is destroyed.
class P11KitServer {
public:
    explicit P11KitServer(const std::string& module); // throws when it cannot start
    ~P11KitServer();
    P11KitServer(const P11KitServer&) = delete;
    P11KitServer& operator=(const P11KitServer&) = delete;

    const std::string& address() const { return m_address; }

private:
    std::string m_dir;
    std::string m_address;
    pid_t m_pid = -1;
};

} // namespace p11test
