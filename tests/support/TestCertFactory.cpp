#include "TestCertFactory.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <stdexcept>

namespace p11test {

namespace {

void check(bool ok, const char* what)
{
    if (!ok) throw std::runtime_error(std::string("test key or certificate: ") + what);
}

template <class T, class Encode>
std::vector<std::uint8_t> derOf(T* object, Encode encode)
{
    unsigned char* der = nullptr;
    const int size = encode(object, &der);
    check(size > 0, "DER encoding");
    std::vector<std::uint8_t> out(der, der + size);
    OPENSSL_free(der);
    return out;
}

void addName(X509_NAME* name, const std::vector<NameAttr>& attrs)
{
    for (const NameAttr& a : attrs)
        check(X509_NAME_add_entry_by_txt(name, a.field.c_str(), MBSTRING_UTF8,
                                         reinterpret_cast<const unsigned char*>(a.value.data()),
                                         static_cast<int>(a.value.size()), -1, a.joinPrevious ? -1 : 0) == 1,
              "name entry");
}

void addExtension(X509* x, const std::string& name, const std::string& value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, x, x, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_nconf(nullptr, &ctx, name.c_str(), value.c_str());
    check(ext != nullptr, "extension");
    X509_add_ext(x, ext, -1);
    X509_EXTENSION_free(ext);
}

void addPolicies(X509* x, const CertSpec& spec)
{
    CERTIFICATEPOLICIES* pols = sk_POLICYINFO_new_null();
    for (std::size_t i = 0; i < spec.policies.size(); ++i) {
        POLICYINFO* info = POLICYINFO_new();
        info->policyid = OBJ_txt2obj(spec.policies[i].c_str(), 1);
        check(info->policyid != nullptr, "policy oid");
        if (i == 0 && !spec.cpsUri.empty()) {
            POLICYQUALINFO* q = POLICYQUALINFO_new();
            q->pqualid = OBJ_nid2obj(NID_id_qt_cps);
            q->d.cpsuri = ASN1_IA5STRING_new();
            ASN1_STRING_set(q->d.cpsuri, spec.cpsUri.data(), static_cast<int>(spec.cpsUri.size()));
            info->qualifiers = sk_POLICYQUALINFO_new_null();
            sk_POLICYQUALINFO_push(info->qualifiers, q);
        }
        sk_POLICYINFO_push(pols, info);
    }
    check(X509_add1_ext_i2d(x, NID_certificate_policies, pols, 0, X509V3_ADD_DEFAULT) == 1, "policies");
    CERTIFICATEPOLICIES_free(pols);
}

using X509Ptr = std::unique_ptr<X509, decltype(&X509_free)>;

TestKey keyOrThrow(EVP_PKEY* key)
{
    check(key != nullptr, "key generation");
    return TestKey(key, EVP_PKEY_free);
}

} // namespace

TestKey makeRsaKey(unsigned bits) { return keyOrThrow(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{bits})); }

TestKey makeEcKey(const char* curve) { return keyOrThrow(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve)); }

std::vector<std::uint8_t> makeCertDer(const CertSpec& spec)
{
    X509Ptr x(X509_new(), X509_free);
    check(x != nullptr && spec.key != nullptr, "x509");
    X509_set_version(x.get(), 2);
    const std::unique_ptr<BIGNUM, decltype(&BN_free)> serial(BN_bin2bn(spec.serial.data(), static_cast<int>(spec.serial.size()), nullptr), BN_free);
    BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(x.get()));
    X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(x.get()), spec.validDays * 24 * 3600);
    check(X509_set_pubkey(x.get(), spec.key.get()) == 1, "pubkey");
    addName(X509_get_subject_name(x.get()), spec.subject);
    addName(X509_get_issuer_name(x.get()), spec.issuerKey ? spec.issuer : spec.subject);
    if (!spec.keyUsage.empty())
        addExtension(x.get(), "keyUsage", spec.keyUsage);
    addExtension(x.get(), "subjectKeyIdentifier", "hash");
    for (const auto& [name, value] : spec.extensions)
        addExtension(x.get(), name, value);
    if (!spec.policies.empty())
        addPolicies(x.get(), spec);
    check(X509_sign(x.get(), spec.issuerKey ? spec.issuerKey.get() : spec.key.get(), EVP_sha256()) > 0, "sign");
    return derOf(x.get(), i2d_X509);
}

CertNames namesOf(const std::vector<std::uint8_t>& certDer)
{
    const unsigned char* p = certDer.data();
    const X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(certDer.size())), X509_free);
    check(x != nullptr, "not a DER certificate");
    return {derOf(X509_get_subject_name(x.get()), i2d_X509_NAME), derOf(X509_get_issuer_name(x.get()), i2d_X509_NAME),
            derOf(X509_get0_serialNumber(x.get()), i2d_ASN1_INTEGER)};
}

std::vector<std::uint8_t> subjectDerOf(const std::vector<std::uint8_t>& certDer) { return namesOf(certDer).subject; }

std::vector<std::uint8_t> keyNumber(EVP_PKEY* key, const char* param, std::size_t padTo)
{
    BIGNUM* bn = nullptr;
    check(EVP_PKEY_get_bn_param(key, param, &bn) == 1, param);
    std::vector<std::uint8_t> out(std::max(padTo, static_cast<std::size_t>(BN_num_bytes(bn))));
    BN_bn2binpad(bn, out.data(), static_cast<int>(out.size()));
    BN_clear_free(bn);
    return out;
}

std::vector<std::uint8_t> curveOidDer(EVP_PKEY* key)
{
    char group[64] = {};
    std::size_t len = 0;
    check(EVP_PKEY_get_group_name(key, group, sizeof group, &len) == 1, "curve name");
    std::unique_ptr<ASN1_OBJECT, decltype(&ASN1_OBJECT_free)> oid(OBJ_txt2obj(group, 0), ASN1_OBJECT_free);
    check(oid != nullptr, "curve OID");
    return derOf(oid.get(), i2d_ASN1_OBJECT);
}

} // namespace p11test
