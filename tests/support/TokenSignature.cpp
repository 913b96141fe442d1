#include "TokenSignature.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

namespace p11test {

Bytes signingInput(bool ec, const Bytes& sha256Digest)
{
    // The DER prefix of a DigestInfo for a SHA-256 digest.
    Bytes input{0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
    input.resize(ec ? 0 : input.size());
    input.insert(input.end(), sha256Digest.begin(), sha256Digest.end());
    return input;
}

Bytes digestOf(const std::string& hash, const std::string& message)
{
    Bytes digest(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    EVP_Digest(message.data(), message.size(), digest.data(), &size, EVP_get_digestbyname(hash.c_str()), nullptr);
    digest.resize(size);
    return digest;
}

Bytes signOnToken(const TokenSession& session, CK_OBJECT_HANDLE key, bool ec, const std::string& message)
{
    Bytes input = signingInput(ec, digestOf("sha256", message));
    Bytes signature(1024); // no key of the tests signs with more
    CK_ULONG size = signature.size();
    CK_MECHANISM mechanism{ec ? CKM_ECDSA : CKM_RSA_PKCS, nullptr, 0};
    const bool ok = session.functions()->C_SignInit(session.handle(), &mechanism, key) == CKR_OK
                    && session.functions()->C_Sign(session.handle(), input.data(), input.size(), signature.data(), &size) == CKR_OK;
    signature.resize(ok ? size : 0);
    return signature;
}

bool verifiesDigest(const Bytes& certDer, const std::string& hash, const Bytes& digest, const Bytes& signature, bool pss)
{
    const unsigned char* p = certDer.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(d2i_X509(nullptr, &p, static_cast<long>(certDer.size())), X509_free);
    EVP_PKEY* key = x509 ? X509_get0_pubkey(x509.get()) : nullptr;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    const EVP_MD* md = EVP_get_digestbyname(hash.c_str());
    return ctx && EVP_PKEY_verify_init(ctx.get()) == 1 && EVP_PKEY_CTX_set_signature_md(ctx.get(), md) == 1
           && (EVP_PKEY_is_a(key, "EC")
               || (EVP_PKEY_CTX_set_rsa_padding(ctx.get(), pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) == 1
                   && (!pss || (EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), RSA_PSS_SALTLEN_DIGEST) == 1
                                && EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), md) == 1))))
           && EVP_PKEY_verify(ctx.get(), signature.data(), signature.size(), digest.data(), digest.size()) == 1;
}

} // namespace p11test
