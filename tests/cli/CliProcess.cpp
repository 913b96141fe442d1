#include "CliProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>

extern char** environ;

namespace p11test {

namespace {

struct Pipe {
    int fd[2] = {-1, -1};
    Pipe()
    {
        if (::pipe2(fd, O_CLOEXEC) != 0)
            throw std::runtime_error("pipe2 failed");
    }
    ~Pipe()
    {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void closeEnd(int i)
    {
        if (fd[i] >= 0)
            ::close(fd[i]);
        fd[i] = -1;
    }
};

std::vector<std::string> environmentFor(const std::map<std::string, std::string>& extra)
{
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        const std::string name = entry.substr(0, entry.find('='));
        if (name.rfind("P11CLIENT_", 0) != 0 && extra.count(name) == 0)
            env.push_back(entry);
    }
    for (const auto& [name, value] : extra)
        env.push_back(name + "=" + value);
    return env;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings)
{
    std::vector<char*> ptrs;
    for (std::string& s : strings)
        ptrs.push_back(s.data());
    ptrs.push_back(nullptr);
    return ptrs;
}

// Feeds stdin and drains stdout and stderr until the child closes both.
void exchange(Pipe& in, Pipe& out, Pipe& err, const std::string& input, ProcessResult& result)
{
    std::size_t written = 0;
    if (input.empty())
        in.closeEnd(1);
    std::array<char, 65536> buf {};
    while (out.fd[0] >= 0 || err.fd[0] >= 0) {
        std::array<pollfd, 3> fds {{{out.fd[0], POLLIN, 0}, {err.fd[0], POLLIN, 0}, {in.fd[1], POLLOUT, 0}}};
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            throw std::runtime_error("poll failed");
        if (fds[2].revents != 0) {
            const ssize_t n = ::write(in.fd[1], input.data() + written, input.size() - written);
            written += n > 0 ? static_cast<std::size_t>(n) : 0;
            if (n <= 0 || written == input.size())
                in.closeEnd(1);
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[static_cast<std::size_t>(i)].revents == 0)
                continue;
            Pipe& p = i == 0 ? out : err;
            const ssize_t n = ::read(p.fd[0], buf.data(), buf.size());
            if (n <= 0)
                p.closeEnd(0);
            else
                (i == 0 ? result.out : result.err).append(buf.data(), static_cast<std::size_t>(n));
        }
    }
}

} // namespace

ProcessResult runProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
                         const std::string& input)
{
    std::signal(SIGPIPE, SIG_IGN); // a child that stops reading must not end the test
    Pipe in;
    Pipe out;
    Pipe err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.fd[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out.fd[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err.fd[1], 2);
    std::vector<std::string> args = argv;
    std::vector<std::string> environment = environmentFor(env);
    std::vector<char*> argPtrs = pointersTo(args);
    std::vector<char*> envPtrs = pointersTo(environment);
    pid_t pid = 0;
    const int rc = ::posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argPtrs.data(), envPtrs.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        throw std::runtime_error("cannot start " + args[0]);
    in.closeEnd(0);
    out.closeEnd(1);
    err.closeEnd(1);
    ProcessResult result;
    exchange(in, out, err, input, result);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) { }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

} // namespace p11test
