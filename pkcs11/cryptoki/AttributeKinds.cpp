#include "AttributeKinds.h"

#include "CkNames.h"
#include "StringBuffer.h"

#include <charconv>

namespace p11client {

namespace {

struct Named {
    CK_ULONG value;
    const char* shortName;
    const char* ckName;
};

constexpr Named kClasses[] = {
    {CKO_DATA, "data", "CKO_DATA"},
    {CKO_CERTIFICATE, "certificate", "CKO_CERTIFICATE"},
    {CKO_PUBLIC_KEY, "publicKey", "CKO_PUBLIC_KEY"},
    {CKO_PRIVATE_KEY, "privateKey", "CKO_PRIVATE_KEY"},
    {CKO_SECRET_KEY, "secretKey", "CKO_SECRET_KEY"},
    {CKO_HW_FEATURE, "hwFeature", "CKO_HW_FEATURE"},
    {CKO_DOMAIN_PARAMETERS, "domainParameters", "CKO_DOMAIN_PARAMETERS"},
    {CKO_MECHANISM, "mechanism", "CKO_MECHANISM"},
};

constexpr Named kKeyTypes[] = {
    {CKK_RSA, "rsa", "CKK_RSA"},       {CKK_DSA, "dsa", "CKK_DSA"},
    {CKK_DH, "dh", "CKK_DH"},          {CKK_EC, "ec", "CKK_EC"},
    {CKK_GENERIC_SECRET, "genericSecret", "CKK_GENERIC_SECRET"},
    {CKK_DES3, "des3", "CKK_DES3"},    {CKK_AES, "aes", "CKK_AES"},
};

constexpr Named kCertTypes[] = {
    {CKC_X_509, "x509", "CKC_X_509"},
    {CKC_X_509_ATTR_CERT, "x509AttributeCertificate", "CKC_X_509_ATTR_CERT"},
    {CKC_WTLS, "wtls", "CKC_WTLS"},
};

template <std::size_t N>
std::string nameOf(const Named (&table)[N], CK_ULONG value)
{
    for (const Named& n : table)
        if (n.value == value)
            return n.shortName;
    return std::to_string(value);
}

template <std::size_t N>
std::optional<CK_ULONG> valueOf(const Named (&table)[N], std::string_view name)
{
    for (const Named& n : table)
        if (equalsIgnoreAsciiCase(name, n.shortName) || equalsIgnoreAsciiCase(name, n.ckName))
            return n.value;
    return std::nullopt;
}

constexpr CK_ATTRIBUTE_TYPE kCommon[] = {CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_LABEL};
constexpr CK_ATTRIBUTE_TYPE kCertificate[] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_LABEL, CKA_ID, CKA_CERTIFICATE_TYPE, CKA_TRUSTED,
    CKA_CERTIFICATE_CATEGORY, CKA_SUBJECT, CKA_ISSUER, CKA_SERIAL_NUMBER, CKA_VALUE};
constexpr CK_ATTRIBUTE_TYPE kPrivateKey[] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_LABEL, CKA_ID, CKA_KEY_TYPE, CKA_SUBJECT,
    CKA_SENSITIVE, CKA_EXTRACTABLE, CKA_ALWAYS_SENSITIVE, CKA_NEVER_EXTRACTABLE, CKA_ALWAYS_AUTHENTICATE,
    CKA_LOCAL, CKA_SIGN, CKA_SIGN_RECOVER, CKA_DECRYPT, CKA_UNWRAP, CKA_DERIVE, CKA_MODULUS,
    CKA_PUBLIC_EXPONENT, CKA_EC_PARAMS, CKA_EC_POINT};
constexpr CK_ATTRIBUTE_TYPE kPublicKey[] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_LABEL, CKA_ID, CKA_KEY_TYPE, CKA_SUBJECT,
    CKA_LOCAL, CKA_VERIFY, CKA_VERIFY_RECOVER, CKA_ENCRYPT, CKA_WRAP, CKA_DERIVE, CKA_MODULUS,
    CKA_MODULUS_BITS, CKA_PUBLIC_EXPONENT, CKA_EC_PARAMS, CKA_EC_POINT};
constexpr CK_ATTRIBUTE_TYPE kSecretKey[] = {
    CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_LABEL, CKA_ID, CKA_KEY_TYPE, CKA_VALUE_LEN,
    CKA_SENSITIVE, CKA_EXTRACTABLE, CKA_ENCRYPT, CKA_DECRYPT, CKA_WRAP, CKA_UNWRAP, CKA_SIGN, CKA_VERIFY,
    CKA_DERIVE, CKA_CHECK_VALUE};
constexpr CK_ATTRIBUTE_TYPE kData[] = {CKA_CLASS, CKA_TOKEN, CKA_PRIVATE, CKA_MODIFIABLE, CKA_LABEL,
                                       CKA_APPLICATION, CKA_OBJECT_ID, CKA_VALUE};

} // namespace

AttributeKind attributeKind(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_CLASS: return AttributeKind::Class;
    case CKA_KEY_TYPE: return AttributeKind::KeyType;
    case CKA_CERTIFICATE_TYPE: return AttributeKind::CertType;
    case CKA_LABEL:
    case CKA_APPLICATION:
    case CKA_URL: return AttributeKind::Text;
    case CKA_MODULUS_BITS:
    case CKA_VALUE_LEN:
    case CKA_CERTIFICATE_CATEGORY:
    case CKA_KEY_GEN_MECHANISM: return AttributeKind::Ulong;
    case CKA_TOKEN: case CKA_PRIVATE: case CKA_MODIFIABLE: case CKA_TRUSTED: case CKA_SENSITIVE:
    case CKA_EXTRACTABLE: case CKA_ALWAYS_SENSITIVE: case CKA_NEVER_EXTRACTABLE: case CKA_ALWAYS_AUTHENTICATE:
    case CKA_LOCAL: case CKA_SIGN: case CKA_SIGN_RECOVER: case CKA_DECRYPT: case CKA_UNWRAP: case CKA_DERIVE:
    case CKA_VERIFY: case CKA_VERIFY_RECOVER: case CKA_ENCRYPT: case CKA_WRAP: case CKA_COPYABLE:
    case CKA_DESTROYABLE: case CKA_WRAP_WITH_TRUSTED: return AttributeKind::Bool;
    default: return AttributeKind::Bytes;
    }
}

std::optional<CK_ATTRIBUTE_TYPE> attributeTypeByName(std::string_view name)
{
    if (name.size() > 2 && (name.starts_with("0x") || name.starts_with("0X"))) {
        CK_ATTRIBUTE_TYPE value = 0;
        const auto [end, ec] = std::from_chars(name.data() + 2, name.data() + name.size(), value, 16);
        if (ec == std::errc() && end == name.data() + name.size())
            return value;
        return std::nullopt;
    }
    for (CK_ATTRIBUTE_TYPE type : knownAttributeTypes())
        if (equalsIgnoreAsciiCase(name, ckaName(type)))
            return type;
    return std::nullopt;
}

std::string objectClassName(CK_ULONG value) { return nameOf(kClasses, value); }
std::optional<CK_ULONG> objectClassByName(std::string_view name) { return valueOf(kClasses, name); }
std::string keyTypeName(CK_ULONG value) { return nameOf(kKeyTypes, value); }
std::optional<CK_ULONG> keyTypeByName(std::string_view name) { return valueOf(kKeyTypes, name); }
std::string certificateTypeName(CK_ULONG value) { return nameOf(kCertTypes, value); }
std::optional<CK_ULONG> certificateTypeByName(std::string_view name) { return valueOf(kCertTypes, name); }

std::span<const CK_ATTRIBUTE_TYPE> reportedAttributes(CK_OBJECT_CLASS objectClass)
{
    switch (objectClass) {
    case CKO_CERTIFICATE: return kCertificate;
    case CKO_PRIVATE_KEY: return kPrivateKey;
    case CKO_PUBLIC_KEY: return kPublicKey;
    case CKO_SECRET_KEY: return kSecretKey;
    case CKO_DATA: return kData;
    default: return kCommon;
    }
}

} // namespace p11client
