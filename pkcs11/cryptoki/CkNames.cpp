#include "CkNames.h"

#include "LogBase.h"

#include <cstdio>

namespace p11client {

namespace {

struct CkName {
    unsigned long value;
    const char* name;
};

#define P11_NAME(symbol) {symbol, #symbol},
constexpr CkName kCkrNames[] = {
#include "CkrList.inc"
};
constexpr CkName kCkaNames[] = {
#include "CkaList.inc"
};
#undef P11_NAME

#define P11_NAME(symbol) symbol,
constexpr CK_ATTRIBUTE_TYPE kCkaTypes[] = {
#include "CkaList.inc"
};
#undef P11_NAME

std::string hexText(const char* prefix, unsigned long value)
{
    char text[48];
    std::snprintf(text, sizeof text, "%s0x%lx", prefix, value);
    return text;
}

template <std::size_t N>
const char* lookup(const CkName (&table)[N], unsigned long value)
{
    for (const CkName& entry : table)
        if (entry.value == value)
            return entry.name;
    return nullptr;
}

} // namespace

std::string ckrName(CK_RV rv)
{
    if (const char* name = lookup(kCkrNames, rv))
        return name;
    if (rv >= CKR_VENDOR_DEFINED)
        return hexText("CKR_VENDOR_DEFINED+", rv - CKR_VENDOR_DEFINED);
    return hexText("", rv);
}

std::string ckaName(CK_ATTRIBUTE_TYPE type)
{
    if (const char* name = lookup(kCkaNames, type))
        return name;
    if (type >= CKA_VENDOR_DEFINED)
        return hexText("CKA_VENDOR_DEFINED+", type - CKA_VENDOR_DEFINED);
    return hexText("", type);
}

std::span<const CK_ATTRIBUTE_TYPE> knownAttributeTypes() { return kCkaTypes; }

bool reportCall(const char* function, CK_RV rv, LogBase& log, bool quiet)
{
    if (rv == CKR_OK) {
        if (log.m_verbose)
            log.LogInfo((std::string(function) + " returned CKR_OK").c_str());
        return true;
    }
    const std::string message = std::string(function) + " returned " + ckrName(rv);
    if (quiet)
        log.LogInfo(message.c_str());
    else
        log.LogError(message.c_str());
    return false;
}

} // namespace p11client
