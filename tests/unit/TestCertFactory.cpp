#include "TestCertFactory.h"

#include <gtest/gtest.h>

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace p11test {

void PkeyFree::operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }

namespace {

void check(bool ok, const char* what)
{
    if (!ok)
        throw std::runtime_error(what);
}

void addName(X509_NAME* name, const std::vector<NameAttr>& attrs)
{
    for (const NameAttr& a : attrs) {
        const auto* value = reinterpret_cast<const unsigned char*>(a.value.data());
        check(X509_NAME_add_entry_by_txt(name, a.field.c_str(), MBSTRING_UTF8, value,
                                         static_cast<int>(a.value.size()), -1, a.joinPrevious ? -1 : 0) == 1,
              "name entry");
    }
}

void addExtension(X509* x, X509* issuer, int nid, const std::string& value)
{
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, issuer, x, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
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

void setBasics(X509* x, const CertSpec& spec)
{
    X509_set_version(x, 2);
    BIGNUM* bn = BN_bin2bn(spec.serial.data(), static_cast<int>(spec.serial.size()), nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(x));
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), spec.validDays * 24 * 3600);
    check(X509_set_pubkey(x, spec.key.get()) == 1, "pubkey");
    addName(X509_get_subject_name(x), spec.subject);
    addName(X509_get_issuer_name(x), spec.issuerKey ? spec.issuer : spec.subject);
}

std::vector<std::uint8_t> build(const CertSpec& spec)
{
    std::unique_ptr<X509, decltype(&X509_free)> x(X509_new(), X509_free);
    check(x != nullptr && spec.key != nullptr, "x509");
    setBasics(x.get(), spec);
    if (!spec.keyUsage.empty())
        addExtension(x.get(), x.get(), NID_key_usage, spec.keyUsage);
    addExtension(x.get(), x.get(), NID_subject_key_identifier, "hash");
    if (!spec.policies.empty())
        addPolicies(x.get(), spec);
    EVP_PKEY* signer = spec.issuerKey ? spec.issuerKey.get() : spec.key.get();
    check(X509_sign(x.get(), signer, EVP_sha256()) > 0, "sign");
    unsigned char* der = nullptr;
    const int len = i2d_X509(x.get(), &der);
    check(len > 0, "i2d");
    std::vector<std::uint8_t> out(der, der + len);
    OPENSSL_free(der);
    return out;
}

} // namespace

TestKey makeRsaKey(unsigned bits)
{
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(bits));
    EXPECT_NE(key, nullptr);
    return TestKey(key, PkeyFree{});
}

TestKey makeEcKey(const char* curve)
{
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve);
    EXPECT_NE(key, nullptr);
    return TestKey(key, PkeyFree{});
}

std::vector<std::uint8_t> makeCertDer(const CertSpec& spec)
{
    try {
        return build(spec);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "could not make the test certificate: " << e.what();
        return {};
    }
}

} // namespace p11test
