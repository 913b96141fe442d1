#pragma once

#include "Cryptoki.h"

#include <cstddef>
#include <string>

namespace p11client {

// A blank-padded text field of CK_INFO, CK_SLOT_INFO or CK_TOKEN_INFO as
// trimmed, valid UTF-8. Trailing blanks and NULs (some modules pad with
// those) are removed; invalid bytes become U+FFFD.
std::string ckText(const CK_UTF8CHAR* field, std::size_t size);

template <std::size_t N>
std::string ckText(const CK_UTF8CHAR (&field)[N])
{
    return ckText(field, N);
}

// "2.40" for major 2, minor 40.
std::string ckVersion(const CK_VERSION& version);

} // namespace p11client
