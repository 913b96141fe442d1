#include "Certificate.h"

#include "DnText.h"
#include "LogBase.h"
#include "OpenSslPtr.h"
#include "StringBuffer.h"
#include "XString.h"

#include <string>

namespace p11client {

namespace {

const X509_NAME* nameOf(const X509* x509, bool subject)
{
    return subject ? X509_get_subject_name(x509) : X509_get_issuer_name(x509);
}

} // namespace

bool Certificate::getNameText(bool subject, bool withTags, XString& out, LogBase& log) const
{
    const X509* x509 = parsedOrLog(log);
    std::string text;
    if (x509 == nullptr || !DnText::render(nameOf(x509, subject), withTags, text)) {
        log.LogError(subject ? "Unable to read the subject DN." : "Unable to read the issuer DN.");
        return false;
    }
    out.setFromUtf8(text);
    return true;
}

bool Certificate::getNamePart(bool subject, const char* attr, XString& out) const
{
    const X509* x509 = parsed();
    std::string value;
    if (attr == nullptr || x509 == nullptr || !DnText::findPart(nameOf(x509, subject), attr, value))
        return false;
    out.setFromUtf8(value);
    return true;
}

bool Certificate::getSubjectDN(XString& out, LogBase& log) const { return getNameText(true, true, out, log); }

bool Certificate::getSubjectDN_noTags(XString& out, LogBase& log) const
{
    return getNameText(true, false, out, log);
}

bool Certificate::getIssuerDN(XString& out, LogBase& log) const { return getNameText(false, true, out, log); }

bool Certificate::getIssuerDN_noTags(XString& out, LogBase& log) const
{
    return getNameText(false, false, out, log);
}

bool Certificate::getSubjectPart(const char* attr, XString& out, LogBase&) const
{
    return getNamePart(true, attr, out);
}

bool Certificate::getIssuerPart(const char* attr, XString& out, LogBase&) const
{
    return getNamePart(false, attr, out);
}

bool Certificate::getSerialNumber(XString& out, LogBase& log) const
{
    const X509* x509 = parsedOrLog(log);
    BignumPtr serial(x509 != nullptr ? ASN1_INTEGER_to_BN(X509_get0_serialNumber(x509), nullptr) : nullptr);
    if (!serial) {
        log.LogError("Unable to read the serial number.");
        return false;
    }
    DataBuffer magnitude;
    magnitude.resize(static_cast<std::size_t>(BN_num_bytes(serial.get())));
    BN_bn2bin(serial.get(), magnitude.getData());
    if (magnitude.isEmpty())
        magnitude.appendByte(0);
    StringBuffer hex;
    if (BN_is_negative(serial.get()))
        hex.append("-");
    magnitude.appendHex(hex, true);
    out.setFromUtf8(hex.view());
    return true;
}

bool Certificate::getSha1ThumbprintX(XString& out, LogBase& log) const
{
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    if (EVP_Digest(m_der.getData(), m_der.getSize(), md, &len, EVP_sha1(), nullptr) != 1) {
        log.LogError("Unable to compute the SHA-1 thumbprint.");
        return false;
    }
    StringBuffer hex;
    DataBuffer(md, len).appendHex(hex, true);
    out.setFromUtf8(hex.view());
    return true;
}

} // namespace p11client
