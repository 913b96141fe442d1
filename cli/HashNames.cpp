#include "HashNames.h"

#include "HashAlgorithm.h"

namespace p11cli {

using p11client::HashAlgorithm;

std::vector<std::string> hashNames()
{
    std::vector<std::string> names;
    for (const HashAlgorithm& alg : HashAlgorithm::all())
        names.emplace_back(alg.name);
    return names;
}

const EVP_MD* digestOf(const std::string& hashName)
{
    const auto alg = HashAlgorithm::byName(hashName);
    return alg ? alg->digest() : nullptr;
}

std::size_t digestSizeOf(const std::string& hashName)
{
    const auto alg = HashAlgorithm::byName(hashName);
    return alg ? alg->digestSize : 0;
}

} // namespace p11cli
