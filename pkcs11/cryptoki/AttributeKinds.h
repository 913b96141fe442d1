#pragma once

#include "Cryptoki.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace p11client {

// How an attribute's bytes are read and written as JSON.
enum class AttributeKind {
    Bool,   // CK_BBOOL: true / false
    Ulong,  // CK_ULONG: a number
    Class,  // CK_OBJECT_CLASS: "certificate", "privateKey", ...
    KeyType, // CK_KEY_TYPE: "rsa", "ec", ...
    CertType, // CK_CERTIFICATE_TYPE: "x509", ...
    Text,   // UTF-8 text
    Bytes,  // anything else: lower-case hex
};

AttributeKind attributeKind(CK_ATTRIBUTE_TYPE type);

// "CKA_LABEL" -> CKA_LABEL (case-insensitive); also hexadecimal "0x..." for
// vendor attributes.
std::optional<CK_ATTRIBUTE_TYPE> attributeTypeByName(std::string_view name);

// Names of object classes, key types and certificate types, both ways. Names
// are accepted in our short form ("privateKey", "rsa", "x509") or in the
// Cryptoki form ("CKO_PRIVATE_KEY", "CKK_RSA", "CKC_X_509"), without regard to case.
std::string objectClassName(CK_ULONG value);
std::optional<CK_ULONG> objectClassByName(std::string_view name);
std::string keyTypeName(CK_ULONG value);
std::optional<CK_ULONG> keyTypeByName(std::string_view name);
std::string certificateTypeName(CK_ULONG value);
std::optional<CK_ULONG> certificateTypeByName(std::string_view name);

// The attributes worth reporting for an object of this class.
std::span<const CK_ATTRIBUTE_TYPE> reportedAttributes(CK_OBJECT_CLASS objectClass);

} // namespace p11client
