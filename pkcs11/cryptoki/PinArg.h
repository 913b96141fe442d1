#pragma once

#include "Cryptoki.h"
#include "LogBase.h"
#include "XString.h"

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

// A PIN travels to the module as a C string: one with a NUL inside would
// arrive cut short, and a token could accept the shorter PIN.
inline bool pinIsWhole(const XString& pin, LogBase& log)
{
    if (std::strlen(pin.getUtf8()) == pin.getSizeUtf8())
        return true;
    log.LogError("The PIN contains a NUL character.");
    return false;
}

} // namespace p11client
