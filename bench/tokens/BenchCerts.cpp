#include "BenchCerts.h"

#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <stdexcept>

namespace p11bench {

namespace {

struct X509Free {
    void operator()(X509* x) const { X509_free(x); }
};
using X509Owner = std::unique_ptr<X509, X509Free>;

constexpr const char* kCaName = "p11client bench CA";

template <class T, class Encode>
Bytes derOf(T* object, Encode encode)
{
    unsigned char* der = nullptr;
    const int size = encode(object, &der);
    if (size <= 0)
        throw std::runtime_error("DER encoding");
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

void addName(X509_NAME* name, const char* field, const std::string& value)
{
    X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.c_str()), -1,
                               -1, 0);
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (ext == nullptr)
        throw std::runtime_error(std::string("certificate extension ") + OBJ_nid2sn(nid));
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
}

} // namespace

BenchCa::BenchCa() : m_key(generateKey(KeyKind::EcP256)) {}

IssuedCert BenchCa::issue(EVP_PKEY* key, const std::string& commonName, long serial) const
{
    X509Owner cert(X509_new());
    X509_set_version(cert.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600);
    X509_NAME* subject = X509_get_subject_name(cert.get());
    addName(subject, "C", "FR");
    addName(subject, "O", "p11client bench");
    addName(subject, "OU", "Signing");
    addName(subject, "CN", commonName);
    X509_NAME* issuer = X509_get_issuer_name(cert.get());
    addName(issuer, "O", "p11client bench");
    addName(issuer, "CN", kCaName);
    X509_set_pubkey(cert.get(), key);
    addExtension(cert.get(), cert.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(cert.get(), cert.get(), NID_key_usage, "critical,digitalSignature,nonRepudiation");
    addExtension(cert.get(), cert.get(), NID_ext_key_usage, "clientAuth,emailProtection");
    addExtension(cert.get(), cert.get(), NID_subject_key_identifier, "hash");
    if (X509_sign(cert.get(), m_key.get(), EVP_sha256()) <= 0)
        throw std::runtime_error("certificate signature");

    IssuedCert out;
    out.der = derOf(cert.get(), i2d_X509);
    out.subjectDer = derOf(X509_get_subject_name(cert.get()), i2d_X509_NAME);
    out.issuerDer = derOf(X509_get_issuer_name(cert.get()), i2d_X509_NAME);
    out.serialDer = derOf(X509_get_serialNumber(cert.get()), i2d_ASN1_INTEGER);
    const Bytes spki = derOf(X509_get_X509_PUBKEY(cert.get()), i2d_X509_PUBKEY);
    out.keyId.resize(SHA_DIGEST_LENGTH);
    SHA1(spki.data(), spki.size(), out.keyId.data());
    return out;
}

} // namespace p11bench
