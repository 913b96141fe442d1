#pragma once

#include "Cryptoki.h"

#include <span>
#include <string>

namespace p11client {

// "CKR_PIN_INCORRECT"; vendor codes as "CKR_VENDOR_DEFINED+0x12"; anything
// else unknown as its hexadecimal value.
std::string ckrName(CK_RV rv);

class LogBase;

// How a call's return value is reported, the one way for every call: an
// error "C_Login returned CKR_PIN_INCORRECT" (an info line when quiet),
// CKR_OK only in a verbose log. True for CKR_OK.
bool reportCall(const char* function, CK_RV rv, LogBase& log, bool quiet = false);

// "CKA_LABEL"; unknown types as their hexadecimal value. Null-free.
std::string ckaName(CK_ATTRIBUTE_TYPE type);

// Every attribute type the CKA name table knows.
std::span<const CK_ATTRIBUTE_TYPE> knownAttributeTypes();

} // namespace p11client
