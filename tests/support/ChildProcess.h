#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace p11test {

// A process that runs a shell command line (redirections included), ended
// when the object goes: SIGTERM, then SIGKILL if it lingers for 5 s.
class ChildProcess {
public:
    explicit ChildProcess(const std::string& command)
    {
        const std::string line = "exec " + command; // made before fork: the child only execs
        if ((m_pid = fork()) == 0)
            execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr)), _exit(127);
    }
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool running() const { return m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0; }
    void stop()
    {
        if (m_pid <= 0)
            return;
        kill(m_pid, SIGTERM);
        for (int i = 0; i < 50 && running(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        if (kill(m_pid, SIGKILL) == 0)
            waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid = -1;
};

} // namespace p11test
