#include "PinLeakForms.h"

#include <openssl/evp.h>

namespace p11test {

std::vector<std::string> leakedForms(const std::string& pin)
{
    std::string upper, lower, base64(4 * ((pin.size() + 2) / 3) + 1, '\0');
    for (const unsigned char c : std::vector<unsigned char>(pin.begin(), pin.end()))
        upper += {"0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]}, lower += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
    base64.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                                           reinterpret_cast<const unsigned char*>(pin.data()), static_cast<int>(pin.size()))));
    return {pin, upper, lower, base64.substr(0, base64.find('='))};
}

} // namespace p11test
