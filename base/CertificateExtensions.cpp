#include "Certificate.h"

#include "ExtensionXml.h"
#include "LogBase.h"
#include "OpenSslPtr.h"
#include "StringBuffer.h"

#include <string>

namespace p11client {

bool Certificate::getExtensionXml(const char* oid, StringBuffer& out, LogBase& log) const
{
    Asn1ObjectPtr obj(oid == nullptr ? nullptr : OBJ_txt2obj(oid, 1));
    if (!obj) {
        log.LogError("Not an OID in dotted form.");
        return false;
    }
    const X509* x509 = parsedOrLog(log);
    const int index = x509 != nullptr ? X509_get_ext_by_OBJ(x509, obj.get(), -1) : -1;
    if (index < 0)
        return false;
    std::string xml;
    if (!ExtensionXml::render(X509_get_ext(x509, index), xml)) {
        log.LogError("Unable to decode the certificate extension.");
        log.LogData("oid", oid);
        return false;
    }
    out.setString(xml);
    return true;
}

int Certificate::getIntendedKeyUsage(LogBase&) const
{
    const X509* x509 = parsed();
    if (x509 == nullptr)
        return 0;
    int critical = 0;
    Asn1BitStringPtr bits(static_cast<ASN1_BIT_STRING*>(X509_get_ext_d2i(x509, NID_key_usage, &critical, nullptr)));
    if (!bits || ASN1_STRING_length(bits.get()) < 1)
        return 0;
    return ASN1_STRING_get0_data(bits.get())[0];
}

} // namespace p11client
