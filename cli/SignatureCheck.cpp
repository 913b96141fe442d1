#include "SignatureCheck.h"

#include "ClsPkcs11.h"
#include "Errors.h"
#include "HashNames.h"

#include <openssl/ecdsa.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>

namespace p11cli {

using p11client::DataBuffer;

namespace {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
struct PkeyCtxFree {
    void operator()(EVP_PKEY_CTX* c) const { EVP_PKEY_CTX_free(c); }
};

DataBuffer digestOfInput(const VerifyRequest& request, const DataBuffer& input)
{
    if (request.inputIsDigest)
        return input;
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(input.getData(), input.getSize(), md, &length, digestOf(request.hash), nullptr) != 1)
        throw OperationFailed("OpenSSL could not hash the input");
    return DataBuffer(md, length);
}

bool isWholeDerSignature(const DataBuffer& signature)
{
    const unsigned char* p = signature.getData();
    ECDSA_SIG* parsed = d2i_ECDSA_SIG(nullptr, &p, static_cast<long>(signature.getSize()));
    const bool whole = parsed != nullptr && p == signature.getData() + signature.getSize();
    ECDSA_SIG_free(parsed);
    return whole;
}

// The ECDSA signature as DER, the form OpenSSL verifies; empty when it is
// not r||s of the curve's size where that form was asked or guessed.
DataBuffer ecdsaAsDer(EVP_PKEY* key, const DataBuffer& signature, EcdsaFormat format, std::string& scheme)
{
    if (format == EcdsaFormat::Der || (format == EcdsaFormat::Auto && isWholeDerSignature(signature))) {
        scheme = "ECDSA (DER)";
        return signature;
    }
    scheme = "ECDSA (r||s)";
    const auto rawSize = static_cast<std::size_t>(2 * ((EVP_PKEY_get_bits(key) + 7) / 8));
    DataBuffer der;
    if (signature.getSize() != rawSize || !p11client::ClsPkcs11::EcdsaSignatureToDer(signature, der))
        der.clear();
    return der;
}

void setRsaPadding(EVP_PKEY_CTX* ctx, const EVP_MD* md, bool pss)
{
    bool ok = EVP_PKEY_CTX_set_rsa_padding(ctx, pss ? RSA_PKCS1_PSS_PADDING : RSA_PKCS1_PADDING) == 1;
    if (ok && pss)
        ok = EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, RSA_PSS_SALTLEN_DIGEST) == 1
            && EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, md) == 1;
    if (!ok)
        throw OperationFailed("OpenSSL cannot set the RSA padding");
}

std::unique_ptr<X509, X509Free> parseCertificate(const DataBuffer& der)
{
    const unsigned char* p = der.getData();
    std::unique_ptr<X509, X509Free> x509(d2i_X509(nullptr, &p, static_cast<long>(der.getSize())));
    if (!x509 || X509_get0_pubkey(x509.get()) == nullptr)
        throw OperationFailed("OpenSSL cannot read the certificate or its public key");
    return x509;
}

} // namespace

VerifyResult verifySignature(const DataBuffer& certDer, const VerifyRequest& request, const DataBuffer& input,
                             const DataBuffer& signature)
{
    const auto x509 = parseCertificate(certDer);
    EVP_PKEY* key = X509_get0_pubkey(x509.get());
    const EVP_MD* md = digestOf(request.hash);
    const int type = EVP_PKEY_get_base_id(key);
    VerifyResult result;
    DataBuffer sig = signature;
    if (type == EVP_PKEY_EC) {
        if (request.pss)
            throw UsageError("--pss is for RSA keys; the certificate's key is an EC key");
        sig = ecdsaAsDer(key, signature, request.format, result.scheme);
        if (sig.isEmpty()) {
            result.reason = "the signature is neither DER nor r||s of the curve's size";
            return result;
        }
    } else if (type == EVP_PKEY_RSA) {
        result.scheme = request.pss ? "RSA-PSS" : "RSA PKCS#1 v1.5";
    } else {
        throw OperationFailed("the certificate's key is neither RSA nor EC");
    }
    const DataBuffer digest = digestOfInput(request, input);
    std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree> ctx(EVP_PKEY_CTX_new(key, nullptr));
    if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1 || EVP_PKEY_CTX_set_signature_md(ctx.get(), md) != 1)
        throw OperationFailed("OpenSSL cannot verify with the certificate's key");
    if (type == EVP_PKEY_RSA)
        setRsaPadding(ctx.get(), md, request.pss);
    result.valid = EVP_PKEY_verify(ctx.get(), sig.getData(), sig.getSize(), digest.getData(), digest.getSize()) == 1;
    ERR_clear_error();
    return result;
}

} // namespace p11cli
