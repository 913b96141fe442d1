#include "FuzzTokenMaterial.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdlib>
#include <memory>

namespace p11fuzz {

namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;

[[noreturn]] void fail() { std::abort(); }

template <class T, class Encode>
Bytes der(T* object, Encode encode)
{
    const int size = encode(object, nullptr);
    if (size <= 0)
        fail();
    Bytes out(static_cast<std::size_t>(size));
    unsigned char* p = out.data();
    encode(object, &p);
    return out;
}

Bytes bignumParam(EVP_PKEY* key, const char* name)
{
    BIGNUM* bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1)
        fail();
    Bytes out(static_cast<std::size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_free(bn);
    return out;
}

Bytes ecPoint(EVP_PKEY* key)
{
    std::size_t len = 0;
    EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, &len);
    Bytes point(len);
    if (EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, point.data(), len, &len) != 1)
        fail();
    return point;
}

Bytes curveOid(EVP_PKEY* key)
{
    char curve[64] = {};
    std::size_t len = 0;
    EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, curve, sizeof curve, &len);
    ASN1_OBJECT* oid = OBJ_txt2obj(curve, 0);
    if (oid == nullptr)
        fail();
    Bytes out = der(oid, [](ASN1_OBJECT* o, unsigned char** p) { return i2d_ASN1_OBJECT(o, p); });
    ASN1_OBJECT_free(oid);
    return out;
}

X509Ptr selfSigned(EVP_PKEY* key, const char* commonName)
{
    X509Ptr cert(X509_new());
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 0x0A1B);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 365L * 24 * 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "C", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("FR"), -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName), -1,
                               -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_set_pubkey(cert.get(), key);
    if (X509_sign(cert.get(), key, EVP_sha256()) <= 0)
        fail();
    return cert;
}

TokenMaterial materialOf(EVP_PKEY* key, bool rsa, const char* commonName)
{
    TokenMaterial m;
    m.rsa = rsa;
    X509Ptr cert = selfSigned(key, commonName);
    m.certDer = der(cert.get(), [](X509* c, unsigned char** p) { return i2d_X509(c, p); });
    m.subjectDer = der(X509_get_subject_name(cert.get()), [](X509_NAME* n, unsigned char** p) {
        return i2d_X509_NAME(n, p);
    });
    if (rsa) {
        m.modulus = bignumParam(key, OSSL_PKEY_PARAM_RSA_N);
        m.exponent = bignumParam(key, OSSL_PKEY_PARAM_RSA_E);
    } else {
        m.ecPoint = ecPoint(key);
        m.ecParams = curveOid(key);
    }
    return m;
}

} // namespace

const std::vector<TokenMaterial>& tokenMaterial()
{
    static const std::vector<TokenMaterial> all = [] {
        std::vector<TokenMaterial> out;
        PkeyPtr rsa(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048)));
        if (!rsa)
            fail();
        out.push_back(materialOf(rsa.get(), true, "fuzz rsa"));
        for (const char* curve : {"P-256", "P-384", "P-521"}) {
            PkeyPtr ec(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve));
            if (!ec)
                fail();
            out.push_back(materialOf(ec.get(), false, curve));
        }
        return out;
    }();
    return all;
}

Bytes derOctetString(const Bytes& content)
{
    Bytes out{0x04};
    if (content.size() < 0x80) {
        out.push_back(static_cast<std::uint8_t>(content.size()));
    } else {
        out.push_back(0x81);
        out.push_back(static_cast<std::uint8_t>(content.size()));
    }
    out.insert(out.end(), content.begin(), content.end());
    return out;
}

} // namespace p11fuzz
