#pragma once

#include "Cryptoki.h"

#include <cstring>

namespace p11client {

// A PIN as Cryptoki takes it. An empty PIN goes to the module as NULL: a
// token with a PIN pad then asks for it on the reader.
struct PinArg {
    CK_UTF8CHAR_PTR bytes;
    CK_ULONG size;

    explicit PinArg(const char* pin)
        : bytes(nullptr), size(pin != nullptr ? std::strlen(pin) : 0)
    {
        if (size != 0)
            bytes = reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(pin));
    }
};

} // namespace p11client
