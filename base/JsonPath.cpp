#include "JsonPath.h"

#include <charconv>

namespace p11client {

namespace {

constexpr std::size_t kMaxPathSteps = 64;

// Reads "[n]" or "[i]" at text[pos]; advances pos past the bracket.
std::optional<std::size_t> parseIndex(std::string_view text, std::size_t& pos, int indexI)
{
    const std::size_t close = text.find(']', pos);
    if (close == std::string_view::npos)
        return std::nullopt;
    const std::string_view inside = text.substr(pos + 1, close - pos - 1);
    pos = close + 1;
    if (inside == "i")
        return indexI >= 0 ? std::optional<std::size_t>(static_cast<std::size_t>(indexI)) : std::nullopt;
    std::size_t value = 0;
    const auto [end, ec] = std::from_chars(inside.data(), inside.data() + inside.size(), value);
    if (inside.empty() || ec != std::errc() || end != inside.data() + inside.size())
        return std::nullopt;
    return value;
}

} // namespace

std::optional<std::vector<JsonPathStep>> parseJsonPath(std::string_view path, int indexI)
{
    std::vector<JsonPathStep> steps;
    std::size_t pos = 0;
    while (pos < path.size()) {
        const std::size_t nameEnd = path.find_first_of(".[", pos);
        const std::size_t end = nameEnd == std::string_view::npos ? path.size() : nameEnd;
        if (end > pos)
            steps.emplace_back(std::string(path.substr(pos, end - pos)));
        else if (end < path.size() && path[end] == '.')
            return std::nullopt; // an empty member name
        pos = end;
        while (pos < path.size() && path[pos] == '[') {
            const auto index = parseIndex(path, pos, indexI);
            if (!index)
                return std::nullopt;
            steps.emplace_back(*index);
        }
        if (pos < path.size()) {
            if (path[pos] != '.' || pos + 1 == path.size())
                return std::nullopt;
            ++pos;
        }
        if (steps.size() > kMaxPathSteps)
            return std::nullopt;
    }
    return steps;
}

} // namespace p11client
