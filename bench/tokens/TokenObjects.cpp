#include "TokenObjects.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <algorithm>
#include <deque>
#include <stdexcept>

namespace p11bench {

namespace {

// A template whose values it owns.
class Template {
public:
    void add(CK_ATTRIBUTE_TYPE type, Bytes value)
    {
        m_values.push_back(std::move(value));
        Bytes& v = m_values.back();
        m_attrs.push_back(CK_ATTRIBUTE{type, v.empty() ? nullptr : v.data(), v.size()});
    }
    void addUlong(CK_ATTRIBUTE_TYPE type, CK_ULONG value)
    {
        const auto* p = reinterpret_cast<const std::uint8_t*>(&value);
        add(type, Bytes(p, p + sizeof value));
    }
    void addBool(CK_ATTRIBUTE_TYPE type, bool value) { add(type, Bytes{static_cast<std::uint8_t>(value ? CK_TRUE : CK_FALSE)}); }
    void addIfAny(CK_ATTRIBUTE_TYPE type, const Bytes& value)
    {
        if (!value.empty())
            add(type, value);
    }
    void addNames(const ObjectNames& names)
    {
        add(CKA_LABEL, Bytes(names.label.begin(), names.label.end()));
        addIfAny(CKA_ID, names.id);
        addIfAny(CKA_SUBJECT, names.subject);
    }
    void create(const Session& session)
    {
        CK_OBJECT_HANDLE handle = 0;
        check("C_CreateObject",
              session.functions()->C_CreateObject(session.handle(), m_attrs.data(), m_attrs.size(), &handle));
    }

private:
    std::deque<Bytes> m_values; // stable addresses
    std::vector<CK_ATTRIBUTE> m_attrs;
};

Bytes bnParam(EVP_PKEY* key, const char* name, std::size_t padTo = 0)
{
    BIGNUM* bn = nullptr;
    if (EVP_PKEY_get_bn_param(key, name, &bn) != 1)
        throw std::runtime_error(std::string("key parameter ") + name);
    const std::size_t size = std::max(padTo, static_cast<std::size_t>(BN_num_bytes(bn)));
    Bytes out(size);
    BN_bn2binpad(bn, out.data(), static_cast<int>(size));
    BN_clear_free(bn);
    return out;
}

// The DER of the P-256 curve OID, as CKA_EC_PARAMS holds it.
Bytes p256Params()
{
    ASN1_OBJECT* oid = OBJ_nid2obj(NID_X9_62_prime256v1);
    unsigned char* der = nullptr;
    const int size = i2d_ASN1_OBJECT(oid, &der);
    if (size <= 0)
        throw std::runtime_error("curve OID");
    Bytes out(der, der + size);
    OPENSSL_free(der);
    return out;
}

void addKeyComponents(Template& t, EVP_PKEY* key)
{
    if (EVP_PKEY_is_a(key, "RSA")) {
        t.addUlong(CKA_KEY_TYPE, CKK_RSA);
        t.add(CKA_MODULUS, bnParam(key, OSSL_PKEY_PARAM_RSA_N));
        t.add(CKA_PUBLIC_EXPONENT, bnParam(key, OSSL_PKEY_PARAM_RSA_E));
        t.add(CKA_PRIVATE_EXPONENT, bnParam(key, OSSL_PKEY_PARAM_RSA_D));
        t.add(CKA_PRIME_1, bnParam(key, OSSL_PKEY_PARAM_RSA_FACTOR1));
        t.add(CKA_PRIME_2, bnParam(key, OSSL_PKEY_PARAM_RSA_FACTOR2));
        t.add(CKA_EXPONENT_1, bnParam(key, OSSL_PKEY_PARAM_RSA_EXPONENT1));
        t.add(CKA_EXPONENT_2, bnParam(key, OSSL_PKEY_PARAM_RSA_EXPONENT2));
        t.add(CKA_COEFFICIENT, bnParam(key, OSSL_PKEY_PARAM_RSA_COEFFICIENT1));
    } else {
        t.addUlong(CKA_KEY_TYPE, CKK_EC);
        t.add(CKA_EC_PARAMS, p256Params());
        t.add(CKA_VALUE, bnParam(key, OSSL_PKEY_PARAM_PRIV_KEY, 32));
    }
}

} // namespace

void createPrivateKey(const Session& session, EVP_PKEY* key, const ObjectNames& names)
{
    Template t;
    t.addUlong(CKA_CLASS, CKO_PRIVATE_KEY);
    t.addBool(CKA_TOKEN, true);
    t.addBool(CKA_PRIVATE, true);
    t.addBool(CKA_SENSITIVE, true);
    t.addBool(CKA_EXTRACTABLE, false);
    t.addBool(CKA_SIGN, true);
    t.addNames(names);
    addKeyComponents(t, key);
    t.create(session);
}

void createCertificate(const Session& session, const CertParts& cert, const ObjectNames& names)
{
    Template t;
    t.addUlong(CKA_CLASS, CKO_CERTIFICATE);
    t.addUlong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    t.addBool(CKA_TOKEN, true);
    t.addBool(CKA_PRIVATE, false);
    t.addNames(names);
    t.add(CKA_ISSUER, cert.issuer);
    t.add(CKA_SERIAL_NUMBER, cert.serial);
    t.add(CKA_VALUE, cert.der);
    t.create(session);
}

} // namespace p11bench
