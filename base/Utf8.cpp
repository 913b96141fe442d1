#include "Utf8.h"

namespace p11client {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

bool isContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Length of the valid sequence starting at text[pos], or 0.
std::size_t validSequenceLength(std::string_view text, std::size_t pos)
{
    const auto lead = static_cast<unsigned char>(text[pos]);
    std::size_t len = 0;
    unsigned char min2 = 0x80;
    unsigned char max2 = 0xBF;
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) len = 2;
    else if (lead >= 0xE0 && lead <= 0xEF) len = 3;
    else if (lead >= 0xF0 && lead <= 0xF4) len = 4;
    else return 0;
    if (lead == 0xE0) min2 = 0xA0;       // no overlong forms
    if (lead == 0xED) max2 = 0x9F;       // no surrogates
    if (lead == 0xF0) min2 = 0x90;       // no overlong forms
    if (lead == 0xF4) max2 = 0x8F;       // nothing above U+10FFFF
    if (pos + len > text.size())
        return 0;
    const auto second = static_cast<unsigned char>(text[pos + 1]);
    if (second < min2 || second > max2)
        return 0;
    for (std::size_t k = 2; k < len; ++k)
        if (!isContinuation(static_cast<unsigned char>(text[pos + k])))
            return 0;
    return len;
}

} // namespace

std::string toValidUtf8(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size());
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        const std::size_t len = validSequenceLength(bytes, pos);
        if (len == 0) {
            out += kReplacement;
            ++pos;
        } else {
            out.append(bytes.substr(pos, len));
            pos += len;
        }
    }
    return out;
}

} // namespace p11client
