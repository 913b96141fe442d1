#include "TokenSignature.h"

#include <openssl/bn.h>
#include <openssl/ecdsa.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>

namespace p11test {

namespace {

// The DER prefix of a DigestInfo for a SHA-256 digest.
constexpr std::uint8_t kSha256DigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                              0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
// No key of the tests signs with more than this.
constexpr CK_ULONG kMaxSignature = 1024;

Bytes sha256(const std::string& message)
{
    Bytes digest(32);
    unsigned int size = 0;
    EVP_Digest(message.data(), message.size(), digest.data(), &size, EVP_sha256(), nullptr);
    digest.resize(size);
    return digest;
}

// The DER ECDSA-Sig-Value of a raw r||s signature.
Bytes ecdsaDer(const Bytes& raw)
{
    const int half = static_cast<int>(raw.size() / 2);
    std::unique_ptr<ECDSA_SIG, decltype(&ECDSA_SIG_free)> sig(ECDSA_SIG_new(), ECDSA_SIG_free);
    BIGNUM* r = BN_bin2bn(raw.data(), half, nullptr);
    BIGNUM* s = BN_bin2bn(raw.data() + half, half, nullptr);
    if (!sig || ECDSA_SIG_set0(sig.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        return {};
    }
    unsigned char* der = nullptr;
    const int size = i2d_ECDSA_SIG(sig.get(), &der);
    if (size <= 0)
        return {};
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

} // namespace

Bytes signingInput(bool ec, const Bytes& sha256Digest)
{
    Bytes input = sha256Digest;
    if (!ec)
        input.insert(input.begin(), std::begin(kSha256DigestInfo), std::end(kSha256DigestInfo));
    return input;
}

TokenSignature signOnToken(const TokenSession& session, CK_OBJECT_HANDLE key, bool ec, const std::string& message)
{
    TokenSignature out;
    Bytes input = signingInput(ec, sha256(message));
    CK_MECHANISM mechanism{ec ? CKM_ECDSA : CKM_RSA_PKCS, nullptr, 0};
    CK_FUNCTION_LIST* f = session.functions();
    out.rv = f->C_SignInit(session.handle(), &mechanism, key);
    if (out.rv != CKR_OK)
        return out;
    CK_ULONG size = 0;
    out.rv = f->C_Sign(session.handle(), input.data(), input.size(), nullptr, &size);
    if (out.rv == CKR_OK && size > kMaxSignature)
        out.rv = CKR_DATA_LEN_RANGE;
    if (out.rv != CKR_OK)
        return out;
    out.raw.resize(size);
    out.rv = f->C_Sign(session.handle(), input.data(), input.size(), out.raw.data(), &size);
    out.raw.resize(out.rv == CKR_OK ? size : 0);
    return out;
}

bool verifiesWithCertificate(const Bytes& certDer, const std::string& message, const TokenSignature& signature,
                             bool ec)
{
    if (signature.rv != CKR_OK || signature.raw.empty())
        return false;
    const unsigned char* p = certDer.data();
    std::unique_ptr<X509, decltype(&X509_free)> cert(d2i_X509(nullptr, &p, static_cast<long>(certDer.size())),
                                                     X509_free);
    EVP_PKEY* key = cert ? X509_get0_pubkey(cert.get()) : nullptr;
    if (key == nullptr)
        return false;
    const Bytes sig = ec ? ecdsaDer(signature.raw) : signature.raw;
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!ctx || sig.empty() || EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) != 1)
        return false;
    const auto* data = reinterpret_cast<const unsigned char*>(message.data());
    return EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), data, message.size()) == 1;
}

} // namespace p11test
