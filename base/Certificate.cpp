#include "Certificate.h"

#include "LogBase.h"
#include "OpenSslPtr.h"
#include "StringBuffer.h"
#include "XString.h"

#include <openssl/pem.h>

#include <cstring>

namespace p11client {

void Certificate::X509Free::operator()(X509* x) const { X509_free(x); }

Certificate::Certificate(X509* x509, std::span<const std::uint8_t> der) : m_x509(x509), m_der(der.data(), der.size())
{
}

Certificate::~Certificate() = default;

std::shared_ptr<Certificate> Certificate::createFromDer(std::span<const std::uint8_t> der, LogBase& log)
{
    if (der.empty() || der.size() > kMaxDerSize) {
        log.LogError("Certificate DER is empty or too large.");
        log.LogDataLong("derSize", static_cast<long>(der.size()));
        return nullptr;
    }
    const unsigned char* p = der.data();
    X509Ptr x509(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
    if (!x509) {
        log.LogError("Invalid certificate DER.");
        return nullptr;
    }
    if (p != der.data() + der.size()) {
        log.LogError("Certificate DER is followed by extra bytes.");
        log.LogDataLong("extraBytes", static_cast<long>(der.data() + der.size() - p));
        return nullptr;
    }
    return std::shared_ptr<Certificate>(new Certificate(x509.release(), der));
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
