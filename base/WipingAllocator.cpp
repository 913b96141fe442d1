#include "WipingAllocator.h"

#include <openssl/crypto.h>

namespace p11client {

void wipeMemory(void* p, std::size_t n) noexcept
{
    if (p != nullptr && n != 0)
        OPENSSL_cleanse(p, n);
}

} // namespace p11client
