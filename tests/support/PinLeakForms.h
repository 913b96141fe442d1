#pragma once

#include <string>
#include <vector>

namespace p11test {

// The forms a PIN could leak in: as it is, upper and lower hex, base64
// (without its padding, as it shows inside a longer base64 text).
std::vector<std::string> leakedForms(const std::string& pin);

} // namespace p11test
