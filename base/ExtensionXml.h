#pragma once

#include <openssl/x509.h>

#include <string>

namespace p11client {

// The XML form of one X.509 extension:
//   <extension oid="2.5.29.32" critical="false">...</extension>
// The content depends on the extension:
//   certificatePolicies (2.5.29.32): one <policy> per policy, holding
//     <oid>policy OID</oid> and, when present, <cps>URI</cps> and
//     <userNotice>text</userNotice>. Only policy OIDs are written as <oid>.
//   keyUsage (2.5.29.15): <keyUsage> with one empty element per bit set,
//     named as in X.509 (<digitalSignature/>, <nonRepudiation/> ...).
//   extKeyUsage (2.5.29.37): <extKeyUsage> with one <oid> per purpose.
//   basicConstraints (2.5.29.19): <basicConstraints><ca>true|false</ca>
//     [<pathLen>n</pathLen>]</basicConstraints>.
//   subjectKeyIdentifier (2.5.29.14): <subjectKeyIdentifier>HEX</...>.
//   any other: <text> with OpenSSL's description, or <der> with the
//     upper-case hex of the extension value when it has none.
// Text is escaped for XML (& < > " ').
class ExtensionXml {
public:
    static bool render(X509_EXTENSION* ext, std::string& out);
};

} // namespace p11client
