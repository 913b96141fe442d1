#pragma once

#include <openssl/types.h>

#include <string>
#include <string_view>

namespace p11client {

// Text forms of an X.509 distinguished name.
//
// Both forms list the RDNs most specific first (the reverse of their order in
// the certificate), separated by ", "; the attributes of a multi-valued RDN
// are joined by " + " in their encoded order.
//   with tags:    CN=Alice Martin, OU=Signing, O=Example Corp, C=FR
//   without tags: Alice Martin, Signing, Example Corp, FR
// With tags, values are escaped as in RFC 4514 (a backslash before , + " \ < > ;,
// before a leading # or space and a trailing space; NUL as \00). Without tags,
// values are written as they are. A value that is not a string is written as
// '#' and the upper-case hex of its DER.
class DnText {
public:
    static bool render(const X509_NAME* name, bool withTags, std::string& out);
    // The unescaped value of the first attribute, in the order above, that
    // attr names (see DnAttributeNames::nameMatches); false when there is none.
    static bool findPart(const X509_NAME* name, std::string_view attr, std::string& out);
};

} // namespace p11client
