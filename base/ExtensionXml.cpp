#include "ExtensionXml.h"

#include "DataBuffer.h"
#include "OpenSslPtr.h"
#include "StringBuffer.h"

#include <array>
#include <cstdint>
#include <memory>

namespace p11client {

namespace {

void appendEscaped(std::string_view text, std::string& out)
{
    for (const char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default:
            // Control characters other than tab and line breaks are not XML.
            const bool control = static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
            out += control ? '?' : c;
        }
    }
}

void appendElement(const char* name, std::string_view text, std::string& out)
{
    out += '<';
    out += name;
    out += '>';
    appendEscaped(text, out);
    out += "</";
    out += name;
    out += '>';
}

std::string oidText(const ASN1_OBJECT* obj)
{
    std::array<char, 128> buf{};
    const int n = OBJ_obj2txt(buf.data(), static_cast<int>(buf.size()), obj, 1);
    if (n <= 0 || static_cast<std::size_t>(n) >= buf.size())
        return {};
    return std::string(buf.data(), static_cast<std::size_t>(n));
}

std::string upperHex(const unsigned char* data, int len)
{
    StringBuffer hex;
    if (data != nullptr && len > 0)
        DataBuffer(data, static_cast<std::size_t>(len)).appendHex(hex, true);
    return hex.toStdString();
}

std::string asn1Text(const ASN1_STRING* s)
{
    unsigned char* utf8 = nullptr;
    const int len = s == nullptr ? -1 : ASN1_STRING_to_UTF8(&utf8, s);
    if (len < 0)
        return {};
    OpenSslBytesPtr owned(utf8);
    return std::string(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(len));
}

void appendQualifier(const POLICYQUALINFO* q, std::string& out)
{
    const int nid = OBJ_obj2nid(q->pqualid);
    if (nid == NID_id_qt_cps)
        appendElement("cps", asn1Text(q->d.cpsuri), out);
    else if (nid == NID_id_qt_unotice && q->d.usernotice != nullptr && q->d.usernotice->exptext != nullptr)
        appendElement("userNotice", asn1Text(q->d.usernotice->exptext), out);
}

bool renderPolicies(X509_EXTENSION* ext, std::string& out)
{
    std::unique_ptr<CERTIFICATEPOLICIES, OpenSslDeleter<CERTIFICATEPOLICIES, CERTIFICATEPOLICIES_free>> policies(
        static_cast<CERTIFICATEPOLICIES*>(X509V3_EXT_d2i(ext)));
    if (!policies)
        return false;
    for (int i = 0; i < sk_POLICYINFO_num(policies.get()); ++i) {
        const POLICYINFO* info = sk_POLICYINFO_value(policies.get(), i);
        out += "<policy>";
        appendElement("oid", oidText(info->policyid), out);
        for (int k = 0; k < sk_POLICYQUALINFO_num(info->qualifiers); ++k)
            appendQualifier(sk_POLICYQUALINFO_value(info->qualifiers, k), out);
        out += "</policy>";
    }
    return true;
}

bool renderKeyUsage(X509_EXTENSION* ext, std::string& out)
{
    static const std::array<const char*, 9> kBits{"digitalSignature", "nonRepudiation", "keyEncipherment",
                                                   "dataEncipherment", "keyAgreement",   "keyCertSign",
                                                   "cRLSign",          "encipherOnly",   "decipherOnly"};
    Asn1BitStringPtr bits(static_cast<ASN1_BIT_STRING*>(X509V3_EXT_d2i(ext)));
    if (!bits)
        return false;
    out += "<keyUsage>";
    for (std::size_t i = 0; i < kBits.size(); ++i)
        if (ASN1_BIT_STRING_get_bit(bits.get(), static_cast<int>(i)) == 1)
            out += std::string("<") + kBits[i] + "/>";
    out += "</keyUsage>";
    return true;
}

bool renderExtKeyUsage(X509_EXTENSION* ext, std::string& out)
{
    std::unique_ptr<EXTENDED_KEY_USAGE, OpenSslDeleter<EXTENDED_KEY_USAGE, EXTENDED_KEY_USAGE_free>> eku(
        static_cast<EXTENDED_KEY_USAGE*>(X509V3_EXT_d2i(ext)));
    if (!eku)
        return false;
    out += "<extKeyUsage>";
    for (int i = 0; i < sk_ASN1_OBJECT_num(eku.get()); ++i)
        appendElement("oid", oidText(sk_ASN1_OBJECT_value(eku.get(), i)), out);
    out += "</extKeyUsage>";
    return true;
}

bool renderBasicConstraints(X509_EXTENSION* ext, std::string& out)
{
    std::unique_ptr<BASIC_CONSTRAINTS, OpenSslDeleter<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free>> bc(
        static_cast<BASIC_CONSTRAINTS*>(X509V3_EXT_d2i(ext)));
    if (!bc)
        return false;
    out += "<basicConstraints>";
    appendElement("ca", bc->ca ? "true" : "false", out);
    std::int64_t pathLen = 0;
    if (bc->pathlen != nullptr && ASN1_INTEGER_get_int64(&pathLen, bc->pathlen) == 1)
        appendElement("pathLen", std::to_string(pathLen), out);
    out += "</basicConstraints>";
    return true;
}

bool renderSubjectKeyId(X509_EXTENSION* ext, std::string& out)
{
    Asn1OctetStringPtr id(static_cast<ASN1_OCTET_STRING*>(X509V3_EXT_d2i(ext)));
    if (!id)
        return false;
    appendElement("subjectKeyIdentifier", upperHex(ASN1_STRING_get0_data(id.get()), ASN1_STRING_length(id.get())),
                  out);
    return true;
}

bool renderGeneric(X509_EXTENSION* ext, std::string& out)
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (bio && X509V3_EXT_print(bio.get(), ext, X509V3_EXT_DEFAULT, 0) == 1) {
        char* data = nullptr;
        const long len = BIO_get_mem_data(bio.get(), &data);
        appendElement("text", std::string_view(data, static_cast<std::size_t>(len > 0 ? len : 0)), out);
        return true;
    }
    const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(ext);
    appendElement("der", upperHex(ASN1_STRING_get0_data(value), ASN1_STRING_length(value)), out);
    return true;
}

bool renderContent(X509_EXTENSION* ext, std::string& out)
{
    switch (OBJ_obj2nid(X509_EXTENSION_get_object(ext))) {
    case NID_certificate_policies: return renderPolicies(ext, out);
    case NID_key_usage: return renderKeyUsage(ext, out);
    case NID_ext_key_usage: return renderExtKeyUsage(ext, out);
    case NID_basic_constraints: return renderBasicConstraints(ext, out);
    case NID_subject_key_identifier: return renderSubjectKeyId(ext, out);
    default: return renderGeneric(ext, out);
    }
}

} // namespace

bool ExtensionXml::render(X509_EXTENSION* ext, std::string& out)
{
    out.clear();
    if (ext == nullptr)
        return false;
    out += "<extension oid=\"" + oidText(X509_EXTENSION_get_object(ext)) + "\" critical=\"";
    out += X509_EXTENSION_get_critical(ext) ? "true" : "false";
    out += "\">";
    if (!renderContent(ext, out)) {
        out.clear();
        return false;
    }
    out += "</extension>";
    return true;
}

} // namespace p11client
