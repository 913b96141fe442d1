#include "HashNames.h"

#include <openssl/evp.h>

namespace p11cli {

std::vector<std::string> hashNames()
{
    return {"sha1", "sha256", "sha384", "sha512"};
}

const EVP_MD* digestOf(const std::string& hashName)
{
    if (hashName == "sha1")
        return EVP_sha1();
    if (hashName == "sha256")
        return EVP_sha256();
    if (hashName == "sha384")
        return EVP_sha384();
    if (hashName == "sha512")
        return EVP_sha512();
    return nullptr;
}

std::size_t digestSizeOf(const std::string& hashName)
{
    const EVP_MD* md = digestOf(hashName);
    return md != nullptr ? static_cast<std::size_t>(EVP_MD_get_size(md)) : 0;
}

} // namespace p11cli
