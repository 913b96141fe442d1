#pragma once

#include "Cryptoki.h"

#include <span>

namespace p11client {

// A flag bit and the JSON member that reports it.
struct CkFlagName {
    CK_FLAGS bit;
    const char* name;
};

std::span<const CkFlagName> slotFlagNames();
std::span<const CkFlagName> tokenFlagNames();

} // namespace p11client
