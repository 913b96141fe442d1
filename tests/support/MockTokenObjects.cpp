#include "MockTokenObjects.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <stdexcept>

namespace p11test {

namespace {

std::vector<std::uint8_t> bignumParam(const TestKey& key, const char* name)
{
    BIGNUM* bn = nullptr;
    if (EVP_PKEY_get_bn_param(key.get(), name, &bn) != 1)
        throw std::runtime_error("no such key parameter");
    std::vector<std::uint8_t> out(static_cast<std::size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_free(bn);
    return out;
}

std::vector<std::uint8_t> ecPublicPoint(const TestKey& key)
{
    std::size_t len = 0;
    EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, &len);
    std::vector<std::uint8_t> point(len);
    if (EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), len, &len) != 1)
        throw std::runtime_error("no EC point");
    return point;
}

std::vector<std::uint8_t> ecParams(const TestKey& key)
{
    char curve[64] = {};
    std::size_t len = 0;
    EVP_PKEY_get_utf8_string_param(key.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve, sizeof curve, &len);
    ASN1_OBJECT* oid = OBJ_txt2obj(curve, 0);
    std::vector<std::uint8_t> der(static_cast<std::size_t>(i2d_ASN1_OBJECT(oid, nullptr)));
    unsigned char* p = der.data();
    i2d_ASN1_OBJECT(oid, &p);
    ASN1_OBJECT_free(oid);
    return der;
}

void addRsaMaterial(std::vector<mock::Attribute>& attrs, const TestKey& key, const MockKeyOptions& options)
{
    std::vector<std::uint8_t> modulus = bignumParam(key, OSSL_PKEY_PARAM_RSA_N);
    if (options.modulusWithLeadingZero)
        modulus.insert(modulus.begin(), 0x00);
    attrs.push_back(mock::ulongAttr(CKA_KEY_TYPE, CKK_RSA));
    attrs.push_back(mock::bytesAttr(CKA_MODULUS, modulus));
    attrs.push_back(mock::bytesAttr(CKA_PUBLIC_EXPONENT, bignumParam(key, OSSL_PKEY_PARAM_RSA_E)));
}

void addEcMaterial(std::vector<mock::Attribute>& attrs, const TestKey& key, const MockKeyOptions& options)
{
    attrs.push_back(mock::ulongAttr(CKA_KEY_TYPE, CKK_EC));
    attrs.push_back(mock::bytesAttr(CKA_EC_PARAMS, ecParams(key)));
    std::vector<std::uint8_t> point = ecPublicPoint(key);
    if (options.ecPoint == MockKeyOptions::Point::DerWrapped) {
        point.insert(point.begin(), static_cast<std::uint8_t>(point.size()));
        if (point.size() > 128)
            point.insert(point.begin(), 0x81);
        point.insert(point.begin(), 0x04);
    }
    if (options.ecPoint != MockKeyOptions::Point::None)
        attrs.push_back(mock::bytesAttr(CKA_EC_POINT, point));
}

} // namespace

CK_OBJECT_HANDLE addMockCert(CK_SLOT_ID slot, const std::vector<std::uint8_t>& der, const std::vector<std::uint8_t>& id)
{
    std::vector<mock::Attribute> attrs{mock::ulongAttr(CKA_CLASS, CKO_CERTIFICATE),
                                       mock::ulongAttr(CKA_CERTIFICATE_TYPE, CKC_X_509),
                                       mock::bytesAttr(CKA_VALUE, der), mock::bytesAttr(CKA_SUBJECT, subjectDerOf(der))};
    if (!id.empty())
        attrs.push_back(mock::bytesAttr(CKA_ID, id));
    return mock::addObject(slot, attrs);
}

CK_OBJECT_HANDLE addMockPrivateKey(CK_SLOT_ID slot, const TestKey& key, const MockKeyOptions& options)
{
    std::vector<mock::Attribute> attrs{mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY)};
    if (EVP_PKEY_is_a(key.get(), "RSA"))
        addRsaMaterial(attrs, key, options);
    else
        addEcMaterial(attrs, key, options);
    if (!options.id.empty())
        attrs.push_back(mock::bytesAttr(CKA_ID, options.id));
    if (options.sign)
        attrs.push_back(mock::boolAttr(CKA_SIGN, *options.sign));
    if (!options.subjectDer.empty())
        attrs.push_back(mock::bytesAttr(CKA_SUBJECT, options.subjectDer));
    return mock::addObject(slot, attrs);
}

std::vector<std::uint8_t> subjectDerOf(const std::vector<std::uint8_t>& certDer)
{
    const unsigned char* p = certDer.data();
    X509* x = d2i_X509(nullptr, &p, static_cast<long>(certDer.size()));
    if (x == nullptr)
        throw std::runtime_error("not a certificate");
    std::vector<std::uint8_t> der(static_cast<std::size_t>(i2d_X509_NAME(X509_get_subject_name(x), nullptr)));
    unsigned char* out = der.data();
    i2d_X509_NAME(X509_get_subject_name(x), &out);
    X509_free(x);
    return der;
}

} // namespace p11test
