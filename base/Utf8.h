#pragma once

#include <string>
#include <string_view>

namespace p11client {

// The text with every byte sequence that is not valid UTF-8 replaced by
// U+FFFD, so that text a module hands over can always be put in JSON.
std::string toValidUtf8(std::string_view bytes);

} // namespace p11client
