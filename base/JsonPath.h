#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace p11client {

// One step of a JSON path: a member name or an array index.
using JsonPathStep = std::variant<std::string, std::size_t>;

// Splits "a.b[2][i].c" into steps; the letter i stands for indexI. Empty
// text is the root (no steps). Malformed paths give nullopt.
std::optional<std::vector<JsonPathStep>> parseJsonPath(std::string_view path, int indexI);

} // namespace p11client
