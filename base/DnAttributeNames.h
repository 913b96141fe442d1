#pragma once

#include <openssl/types.h>

#include <string>
#include <string_view>

namespace p11client {

// The names of distinguished-name attribute types: the tag written in DN text
// ("CN", "E", "SERIALNUMBER" ...) and the names a caller may ask a part by.
class DnAttributeNames {
public:
    // The tag written before an attribute's value: the tag of the table in
    // DnAttributeNames.cpp, else OpenSSL's short name, else the dotted OID.
    static std::string tagOf(const ASN1_OBJECT* type);
    // Whether name, in any ASCII case, names this attribute type: its tag,
    // one of its aliases ("EMAIL", "GIVENNAME" ...), OpenSSL's short or long
    // name for it, or its dotted OID.
    static bool nameMatches(const ASN1_OBJECT* type, std::string_view name);
};

} // namespace p11client
