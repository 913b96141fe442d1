#include "HashAlgorithm.h"

#include "StringBuffer.h"

#include <openssl/evp.h>

namespace p11client {

namespace {

// DigestInfo ::= SEQUENCE { AlgorithmIdentifier, OCTET STRING digest }, up to
// the digest itself (RFC 8017, 9.2 note 1).
constexpr std::uint8_t kSha1Prefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                        0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
constexpr std::uint8_t kSha256Prefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                          0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
constexpr std::uint8_t kSha384Prefix[] = {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                          0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00, 0x04, 0x30};
constexpr std::uint8_t kSha512Prefix[] = {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                          0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};

const HashAlgorithm kAlgorithms[] = {
    {"sha1", "SHA1", 20, kSha1Prefix, CKM_SHA_1, CKG_MGF1_SHA1},
    {"sha256", "SHA256", 32, kSha256Prefix, CKM_SHA256, CKG_MGF1_SHA256},
    {"sha384", "SHA384", 48, kSha384Prefix, CKM_SHA384, CKG_MGF1_SHA384},
    {"sha512", "SHA512", 64, kSha512Prefix, CKM_SHA512, CKG_MGF1_SHA512},
};

} // namespace

const EVP_MD* HashAlgorithm::digest() const { return EVP_get_digestbyname(opensslName); }

std::span<const HashAlgorithm> HashAlgorithm::all() { return kAlgorithms; }

std::optional<HashAlgorithm> HashAlgorithm::byName(std::string_view name)
{
    StringBuffer key;
    for (char c : name)
        if (c != '-')
            key.appendChar(c);
    for (const HashAlgorithm& alg : kAlgorithms)
        if (key.equalsIgnoreCase(alg.name))
            return alg;
    return std::nullopt;
}

} // namespace p11client
