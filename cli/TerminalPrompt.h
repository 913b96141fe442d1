#pragma once

#include "XString.h"

#include <string>

namespace p11cli {

// Asks for a secret on the terminal without echoing it: the prompt goes to
// stderr, the answer (one line) is read from stdin. False, asking nothing,
// when stdin is not a terminal. The terminal's echo is restored even when
// the user interrupts with Ctrl-C.
bool promptWithoutEcho(const std::string& prompt, p11client::XString& answer);

} // namespace p11cli
