#include "MockTokenObjects.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <stdexcept>

namespace p11test {

namespace {

std::vector<std::uint8_t> ecPublicPoint(const TestKey& key)
{
    std::size_t len = 0;
    EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, &len);
    std::vector<std::uint8_t> point(len);
    if (EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data(), len, &len) != 1)
        throw std::runtime_error("no EC point");
    return point;
}

void addRsaMaterial(std::vector<mock::Attribute>& attrs, const TestKey& key, const MockKeyOptions& options)
{
    std::vector<std::uint8_t> modulus = keyNumber(key.get(), OSSL_PKEY_PARAM_RSA_N);
    if (options.modulusWithLeadingZero)
        modulus.insert(modulus.begin(), 0x00);
    attrs.push_back(mock::ulongAttr(CKA_KEY_TYPE, CKK_RSA));
    attrs.push_back(mock::bytesAttr(CKA_MODULUS, modulus));
    attrs.push_back(mock::bytesAttr(CKA_PUBLIC_EXPONENT, keyNumber(key.get(), OSSL_PKEY_PARAM_RSA_E)));
}

void addEcMaterial(std::vector<mock::Attribute>& attrs, const TestKey& key, const MockKeyOptions& options)
{
    attrs.push_back(mock::ulongAttr(CKA_KEY_TYPE, CKK_EC));
    attrs.push_back(mock::bytesAttr(CKA_EC_PARAMS, curveOidDer(key.get())));
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

} // namespace p11test
