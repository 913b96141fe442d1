#include "HardeningFixture.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <filesystem>
#include <stdexcept>

namespace p11test {

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bignumParam(const TestKey& key, const char* name)
{
    BIGNUM* bn = nullptr;
    if (EVP_PKEY_get_bn_param(key.get(), name, &bn) != 1)
        throw std::runtime_error("no such key parameter");
    Bytes out(static_cast<std::size_t>(BN_num_bytes(bn)));
    BN_bn2bin(bn, out.data());
    BN_free(bn);
    return out;
}

// The point as an OCTET STRING, as most tokens give CKA_EC_POINT.
Bytes wrappedPoint(const TestKey& key)
{
    std::size_t len = 0;
    EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, nullptr, 0, &len);
    Bytes point(len + 2);
    EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, point.data() + 2, len, &len);
    point[0] = 0x04;
    point[1] = static_cast<std::uint8_t>(len);
    return point;
}

const Bytes kP256Oid{0x06, 0x08, 0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07};

CertSpec specFor(const TestKey& key, const char* cn)
{
    CertSpec s;
    s.key = key;
    s.subject = {{"C", "FR"}, {"CN", cn}};
    s.keyUsage = "critical,digitalSignature";
    return s;
}

std::vector<mock::Attribute> certificate(const Bytes& der, std::uint8_t id)
{
    return {mock::ulongAttr(CKA_CLASS, CKO_CERTIFICATE), mock::ulongAttr(CKA_CERTIFICATE_TYPE, CKC_X_509),
            mock::bytesAttr(CKA_VALUE, der), mock::bytesAttr(CKA_SUBJECT, subjectDerOf(der)),
            mock::bytesAttr(CKA_ID, {id}), mock::stringAttr(CKA_LABEL, "hardening")};
}

std::vector<std::vector<mock::Attribute>> makeObjects()
{
    const TestKey rsa = makeRsaKey(2048);
    const TestKey ec = makeEcKey("P-256");
    const auto key = [](CK_KEY_TYPE type, std::uint8_t id) {
        return std::vector<mock::Attribute>{mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY), mock::ulongAttr(CKA_KEY_TYPE, type),
                                            mock::bytesAttr(CKA_ID, {id}), mock::boolAttr(CKA_SIGN, true),
                                            mock::stringAttr(CKA_LABEL, "hardening")};
    };
    std::vector<mock::Attribute> rsaKey = key(CKK_RSA, 0x01);
    rsaKey.push_back(mock::bytesAttr(CKA_MODULUS, bignumParam(rsa, OSSL_PKEY_PARAM_RSA_N)));
    rsaKey.push_back(mock::bytesAttr(CKA_PUBLIC_EXPONENT, bignumParam(rsa, OSSL_PKEY_PARAM_RSA_E)));
    std::vector<mock::Attribute> ecKey = key(CKK_EC, 0x02);
    ecKey.push_back(mock::bytesAttr(CKA_EC_PARAMS, kP256Oid));
    ecKey.push_back(mock::bytesAttr(CKA_EC_POINT, wrappedPoint(ec)));
    return {certificate(makeCertDer(specFor(rsa, "hardening rsa")), 0x01), rsaKey,
            certificate(makeCertDer(specFor(ec, "hardening ec")), 0x02), ecKey,
            {mock::ulongAttr(CKA_CLASS, CKO_DATA), mock::stringAttr(CKA_LABEL, "data"),
             mock::bytesAttr(CKA_VALUE, Bytes(300, 0x5A))}};
}

} // namespace

const std::vector<std::vector<mock::Attribute>>& HardeningToken::objects()
{
    static const std::vector<std::vector<mock::Attribute>> all = makeObjects();
    return all;
}

void HardeningToken::put(const mock::ControlTable& module)
{
    module.addSlot(kSlot, mock::SlotSpec{});
    putObjects(module);
}

void HardeningToken::putObjects(const mock::ControlTable& module)
{
    for (const std::vector<mock::Attribute>& object : objects())
        module.addObject(kSlot, object, {});
}

ModuleControl::ModuleControl(const std::string& path) : m_handle(dlopen(path.c_str(), RTLD_NOW))
{
    if (m_handle == nullptr)
        throw std::runtime_error("cannot load " + path);
    auto control = reinterpret_cast<const mock::ControlTable* (*)()>(dlsym(m_handle, "mockp11_control"));
    if (control == nullptr)
        throw std::runtime_error(path + " has no control table");
    m_table = control();
}

ModuleControl::~ModuleControl() { dlclose(m_handle); }

bool isLoaded(const std::string& path)
{
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr)
        return false;
    dlclose(handle);
    return true;
}

int openDescriptors()
{
    int n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++n;
    return n;
}

} // namespace p11test
