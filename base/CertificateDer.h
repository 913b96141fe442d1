#pragma once

// The outline of a DER certificate, walked with OpenSSL's DER header parser
// (ASN1_get_object) without decoding the certificate: enough to refuse a
// value that is not a certificate at once, and to find the subject name and
// the public key of one that is, without the cost of d2i_X509.

#include <cstdint>
#include <span>

namespace p11client::certder {

// One DER element: where it starts, its tag, class, form and content.
struct Element {
    const unsigned char* start = nullptr;
    int tag = 0;
    int tagClass = 0;
    bool constructed = false;
    const unsigned char* content = nullptr;
    long length = 0;

    bool is(int universalTag, bool isConstructed) const;
    const unsigned char* end() const { return content + length; }
    std::span<const std::uint8_t> whole() const;
    std::span<const std::uint8_t> contentBytes() const;
};

// Reads the element at p, which must lie within end and have a definite
// length, and moves p past it.
bool nextElement(const unsigned char*& p, const unsigned char* end, Element& out);

// The subject Name and SubjectPublicKeyInfo elements of a certificate.
struct TbsParts {
    Element subject;
    Element publicKey;
};

// Where the Certificate SEQUENCE at the start of der ends, with its
// to-be-signed fields in their order; null when the outline does not hold.
// parts, when given, receives the subject and public key elements.
const unsigned char* certificateEnd(std::span<const std::uint8_t> der, TbsParts* parts = nullptr);

} // namespace p11client::certder
