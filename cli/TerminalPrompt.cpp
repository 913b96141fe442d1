#include "TerminalPrompt.h"

#include "Errors.h"

#include <openssl/crypto.h>

#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <string_view>

namespace p11cli {

using p11client::XString;

namespace {

// The terminal's settings while echo is off, for the signal handler.
termios g_savedTerminal {};
volatile std::sig_atomic_t g_echoOff = 0;

void restoreAndReraise(int signal)
{
    if (g_echoOff != 0)
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_savedTerminal);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

// Switches echo off for its lifetime.
class EchoOff {
public:
    EchoOff()
    {
        if (::tcgetattr(STDIN_FILENO, &g_savedTerminal) != 0)
            return;
        termios quiet = g_savedTerminal;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        m_oldInt = std::signal(SIGINT, restoreAndReraise);
        m_oldTerm = std::signal(SIGTERM, restoreAndReraise);
        g_echoOff = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0 ? 1 : 0;
    }
    ~EchoOff()
    {
        if (g_echoOff != 0)
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_savedTerminal);
        g_echoOff = 0;
        std::signal(SIGINT, m_oldInt);
        std::signal(SIGTERM, m_oldTerm);
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

private:
    void (*m_oldInt)(int) = SIG_DFL;
    void (*m_oldTerm)(int) = SIG_DFL;
};

constexpr std::size_t kMaxAnswer = 256;

// One line from stdin into buf; false when it does not fit.
bool readLine(std::array<char, kMaxAnswer>& buf, std::size_t& length)
{
    length = 0;
    bool fits = true;
    char c = 0;
    while (::read(STDIN_FILENO, &c, 1) == 1 && c != '\n') {
        if (length < buf.size())
            buf[length++] = c;
        else
            fits = false;
    }
    if (length > 0 && buf[length - 1] == '\r')
        --length;
    return fits;
}

} // namespace

bool promptWithoutEcho(const std::string& prompt, XString& answer)
{
    if (::isatty(STDIN_FILENO) != 1)
        return false;
    std::fprintf(stderr, "%s: ", prompt.c_str());
    std::fflush(stderr);
    std::array<char, kMaxAnswer> buf {};
    std::size_t length = 0;
    bool fits = false;
    {
        EchoOff quiet;
        fits = readLine(buf, length);
    }
    std::fputc('\n', stderr);
    if (fits)
        answer.setFromUtf8(std::string_view(buf.data(), length));
    OPENSSL_cleanse(buf.data(), buf.size());
    if (!fits)
        throw UsageError("the answer typed is longer than a PIN can be");
    return true;
}

} // namespace p11cli
