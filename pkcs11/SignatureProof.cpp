#include "SignatureProof.h"

#include "Certificate.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "HashAlgorithm.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

namespace p11client {

namespace {

bool setRsaPadding(EVP_PKEY_CTX* ctx, const EVP_MD* md, bool pss)
{
    if (EVP_PKEY_CTX_set_rsa_padding(ctx, pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) != 1)
        return false;
    return !pss
        || (EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, RSA_PSS_SALTLEN_DIGEST) == 1 && EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, md) == 1);
}

} // namespace

bool certificateVerifiesSignature(const Certificate& cert, const HashAlgorithm& alg, bool pss,
                                  const DataBuffer& digest, const DataBuffer& signature)
{
    const X509* x509 = cert.x509();
    EVP_PKEY* key = x509 != nullptr ? X509_get0_pubkey(x509) : nullptr;
    const EVP_MD* md = alg.digest();
    if (key == nullptr || md == nullptr)
        return false;
    const bool ec = EVP_PKEY_get_base_id(key) == EVP_PKEY_EC;
    DataBuffer der; // OpenSSL verifies the DER form of r||s
    if (ec && !ClsPkcs11::EcdsaSignatureToDer(signature, der))
        return false;
    const DataBuffer& sig = ec ? der : signature;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> ctx(EVP_PKEY_CTX_new(key, nullptr), EVP_PKEY_CTX_free);
    const bool ok = ctx && EVP_PKEY_verify_init(ctx.get()) == 1 && EVP_PKEY_CTX_set_signature_md(ctx.get(), md) == 1
        && (ec || setRsaPadding(ctx.get(), md, pss))
        && EVP_PKEY_verify(ctx.get(), sig.getData(), sig.getSize(), digest.getData(), digest.getSize()) == 1;
    ERR_clear_error();
    return ok;
}

} // namespace p11client
