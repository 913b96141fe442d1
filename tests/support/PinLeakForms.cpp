#include "PinLeakForms.h"

#include <openssl/evp.h>

namespace p11test {

std::vector<std::string> leakedForms(const std::string& pin)
{
    std::string upper, lower;
    static const char* const kHex = "0123456789ABCDEF";
    static const char* const kHexLower = "0123456789abcdef";
    for (char ch : pin) {
        const auto c = static_cast<unsigned char>(ch);
        upper += {kHex[c >> 4], kHex[c & 15]};
        lower += {kHexLower[c >> 4], kHexLower[c & 15]};
    }
    std::string base64(4 * ((pin.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                  reinterpret_cast<const unsigned char*>(pin.data()), static_cast<int>(pin.size()));
    base64.resize(static_cast<std::size_t>(n));
    return {pin, upper, lower, base64.substr(0, base64.find('='))};
}

} // namespace p11test
