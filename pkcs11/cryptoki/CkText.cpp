#include "CkText.h"

#include "Utf8.h"

#include <string_view>

namespace p11client {

std::string ckText(const CK_UTF8CHAR* field, std::size_t size)
{
    std::string_view text(reinterpret_cast<const char*>(field), size);
    const std::size_t last = text.find_last_not_of(std::string_view(" \0", 2));
    text = last == std::string_view::npos ? std::string_view() : text.substr(0, last + 1);
    const std::size_t first = text.find_first_not_of(' ');
    return toValidUtf8(first == std::string_view::npos ? std::string_view() : text.substr(first));
}

std::string ckVersion(const CK_VERSION& version)
{
    return std::to_string(version.major) + "." + std::to_string(version.minor);
}

} // namespace p11client
