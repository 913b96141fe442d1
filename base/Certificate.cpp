#include "Certificate.h"

#include "CertificateDer.h"

#include "LogBase.h"
#include "OpenSslPtr.h"
#include "StringBuffer.h"
#include "XString.h"

#include <openssl/asn1.h>
#include <openssl/pem.h>

#include <cstring>

namespace p11client {

namespace certder {

bool Element::is(int universalTag, bool isConstructed) const
{
    return tagClass == V_ASN1_UNIVERSAL && tag == universalTag && constructed == isConstructed;
}

std::span<const std::uint8_t> Element::whole() const
{
    return {start, static_cast<std::size_t>(end() - start)};
}

std::span<const std::uint8_t> Element::contentBytes() const { return {content, static_cast<std::size_t>(length)}; }

bool nextElement(const unsigned char*& p, const unsigned char* end, Element& out)
{
    if (p >= end)
        return false;
    const unsigned char* content = p;
    const int flags = ASN1_get_object(&content, &out.length, &out.tag, &out.tagClass, end - p);
    if ((flags & 0x80) != 0 || (flags & 0x01) != 0 || out.length > end - content)
        return false; // malformed, or an indefinite length, which DER never uses
    out.start = p;
    out.constructed = (flags & V_ASN1_CONSTRUCTED) != 0;
    out.content = content;
    p = content + out.length;
    return true;
}

namespace {

// TBSCertificate: [0] version (optional), serial INTEGER; signature
// algorithm, issuer, validity, subject and public key SEQUENCEs; then only
// the optional [1], [2] and [3].
bool tbsOutlineHolds(const Element& tbs, TbsParts& parts)
{
    const unsigned char* p = tbs.content;
    Element e;
    if (!nextElement(p, tbs.end(), e))
        return false;
    if (e.tagClass == V_ASN1_CONTEXT_SPECIFIC && e.tag == 0 && e.constructed && !nextElement(p, tbs.end(), e))
        return false;
    if (!e.is(V_ASN1_INTEGER, false))
        return false;
    for (int i = 0; i < 5; ++i) {
        if (!nextElement(p, tbs.end(), e) || !e.is(V_ASN1_SEQUENCE, true))
            return false;
        if (i == 3)
            parts.subject = e;
    }
    parts.publicKey = e;
    while (p < tbs.end())
        if (!nextElement(p, tbs.end(), e) || e.tagClass != V_ASN1_CONTEXT_SPECIFIC || e.tag < 1 || e.tag > 3)
            return false;
    return true;
}

} // namespace

const unsigned char* certificateEnd(std::span<const std::uint8_t> der, TbsParts* parts)
{
    const unsigned char* p = der.data();
    Element cert;
    if (!nextElement(p, der.data() + der.size(), cert) || !cert.is(V_ASN1_SEQUENCE, true))
        return nullptr;
    const unsigned char* q = cert.content;
    Element tbs;
    Element algorithm;
    Element signature;
    TbsParts found;
    const bool holds = nextElement(q, cert.end(), tbs) && tbs.is(V_ASN1_SEQUENCE, true) && tbsOutlineHolds(tbs, found)
        && nextElement(q, cert.end(), algorithm) && algorithm.is(V_ASN1_SEQUENCE, true)
        && nextElement(q, cert.end(), signature) && signature.is(V_ASN1_BIT_STRING, false) && q == cert.end();
    if (holds && parts != nullptr)
        *parts = found;
    return holds ? cert.end() : nullptr;
}

} // namespace certder

namespace {

bool derSizeAcceptable(std::span<const std::uint8_t> der, LogBase& log)
{
    if (!der.empty() && der.size() <= Certificate::kMaxDerSize)
        return true;
    log.LogError("Certificate DER is empty or too large.");
    log.LogDataLong("derSize", static_cast<long>(der.size()));
    return false;
}

bool nothingAfter(const unsigned char* certEnd, std::span<const std::uint8_t> der, LogBase& log)
{
    if (certEnd == der.data() + der.size())
        return true;
    log.LogError("Certificate DER is followed by extra bytes.");
    log.LogDataLong("extraBytes", static_cast<long>(der.data() + der.size() - certEnd));
    return false;
}

} // namespace

void Certificate::X509Free::operator()(X509* x) const { X509_free(x); }

Certificate::Certificate(X509* x509, std::span<const std::uint8_t> der) : m_x509(x509), m_der(der.data(), der.size())
{
    std::call_once(m_parseOnce, [] {}); // parsed already
}

Certificate::Certificate(std::span<const std::uint8_t> der) : m_der(der.data(), der.size()) {}

const X509* Certificate::parsed() const
{
    std::call_once(m_parseOnce, [this] {
        const unsigned char* p = m_der.getData();
        X509Ptr x509(d2i_X509(nullptr, &p, static_cast<long>(m_der.getSize())));
        if (x509 && p == m_der.getData() + m_der.getSize())
            m_x509.reset(x509.release());
    });
    return m_x509.get();
}

const X509* Certificate::parsedOrLog(LogBase& log) const
{
    const X509* x509 = parsed();
    if (x509 == nullptr)
        log.LogError("Invalid certificate DER.");
    return x509;
}

Certificate::~Certificate() = default;

std::shared_ptr<Certificate> Certificate::createFromDer(std::span<const std::uint8_t> der, LogBase& log)
{
    if (!derSizeAcceptable(der, log))
        return nullptr;
    const unsigned char* p = der.data();
    X509Ptr x509(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!x509) {
        log.LogError("Invalid certificate DER.");
        return nullptr;
    }
    if (!nothingAfter(p, der, log))
        return nullptr;
    return std::shared_ptr<Certificate>(new Certificate(x509.release(), der));
}

std::shared_ptr<Certificate> Certificate::createDeferred(std::span<const std::uint8_t> der, LogBase& log)
{
    if (!derSizeAcceptable(der, log))
        return nullptr;
    const unsigned char* end = certder::certificateEnd(der);
    if (end == nullptr) {
        log.LogError("Invalid certificate DER.");
        return nullptr;
    }
    if (!nothingAfter(end, der, log))
        return nullptr;
    return std::shared_ptr<Certificate>(new Certificate(der));
}

std::shared_ptr<Certificate> Certificate::createFromPem(std::string_view pem, LogBase& log)
{
    if (pem.size() > 4 * kMaxDerSize) {
        log.LogError("Certificate PEM is too large.");
        return nullptr;
    }
    // Text before the first block (blanks, "Bag Attributes" lines ...) is skipped.
    const std::size_t begin = pem.find("-----BEGIN");
    pem = begin == std::string_view::npos ? std::string_view() : pem.substr(begin);
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long len = 0;
    while (bio && PEM_read_bio(bio.get(), &name, &header, &data, &len) == 1) {
        OpenSslCharsPtr ownedName(name);
        OpenSslCharsPtr ownedHeader(header);
        OpenSslBytesPtr ownedData(data);
        if (std::strcmp(name, PEM_STRING_X509) == 0 || std::strcmp(name, PEM_STRING_X509_OLD) == 0)
            return createFromDer({data, static_cast<std::size_t>(len)}, log);
    }
    log.LogError("No PEM certificate found.");
    return nullptr;
}

std::shared_ptr<Certificate> Certificate::createFromBytes(std::span<const std::uint8_t> bytes, LogBase& log)
{
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    if (start != std::string_view::npos && text.substr(start).starts_with("-----BEGIN"))
        return createFromPem(text, log);
    return createFromDer(bytes, log);
}

bool Certificate::getDer(DataBuffer& out) const
{
    out.clear();
    out.append(m_der);
    return true;
}

bool Certificate::getPem(StringBuffer& out, LogBase& log) const
{
    BioPtr bio(BIO_new(BIO_s_mem()));
    // The bytes as loaded, not a re-encoding, so PEM and DER always agree.
    if (!bio || PEM_write_bio(bio.get(), PEM_STRING_X509, "", m_der.getData(), static_cast<long>(m_der.getSize())) <= 0) {
        log.LogError("Unable to write the certificate as PEM.");
        return false;
    }
    char* data = nullptr;
    const long len = BIO_get_mem_data(bio.get(), &data);
    out.setString(std::string_view(data, static_cast<std::size_t>(len > 0 ? len : 0)));
    return true;
}

} // namespace p11client
