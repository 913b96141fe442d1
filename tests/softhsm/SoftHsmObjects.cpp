#include "SoftHsmObjects.h"

#include <dlfcn.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cstdio>
#include <deque>
#include <memory>
#include <stdexcept>

namespace p11test {

void checkCk(const char* function, CK_RV rv)
{
    if (rv == CKR_OK)
        return;
    char code[32];
    std::snprintf(code, sizeof code, "0x%lx", rv);
    throw std::runtime_error(std::string(function) + " returned " + code);
}

namespace {

// A Cryptoki template whose values it owns.
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
    void addBool(CK_ATTRIBUTE_TYPE type, bool value)
    {
        add(type, Bytes{static_cast<std::uint8_t>(value ? CK_TRUE : CK_FALSE)});
    }
    void addText(CK_ATTRIBUTE_TYPE type, const std::string& text) { add(type, Bytes(text.begin(), text.end())); }
    void addIfAny(CK_ATTRIBUTE_TYPE type, const Bytes& value)
    {
        if (!value.empty())
            add(type, value);
    }

    CK_OBJECT_HANDLE create(const TokenSession& session)
    {
        CK_OBJECT_HANDLE handle = 0;
        checkCk("C_CreateObject", session.functions()->C_CreateObject(session.handle(), m_attrs.data(),
                                                                      m_attrs.size(), &handle));
        return handle;
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
    const std::size_t size = std::max<std::size_t>(padTo, static_cast<std::size_t>(BN_num_bytes(bn)));
    Bytes out(size);
    BN_bn2binpad(bn, out.data(), static_cast<int>(size));
    BN_clear_free(bn);
    return out;
}

// The DER OID of the key's named curve, as CKA_EC_PARAMS holds it.
Bytes ecParams(EVP_PKEY* key)
{
    char group[64] = {};
    std::size_t len = 0;
    if (EVP_PKEY_get_group_name(key, group, sizeof group, &len) != 1)
        throw std::runtime_error("curve name");
    ASN1_OBJECT* oid = OBJ_txt2obj(group, 0);
    unsigned char* der = nullptr;
    const int size = oid != nullptr ? i2d_ASN1_OBJECT(oid, &der) : -1;
    ASN1_OBJECT_free(oid);
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
        t.addBool(CKA_DECRYPT, true);
    } else if (EVP_PKEY_is_a(key, "EC")) {
        t.addUlong(CKA_KEY_TYPE, CKK_EC);
        t.add(CKA_EC_PARAMS, ecParams(key));
        const auto fieldBytes = static_cast<std::size_t>((EVP_PKEY_get_bits(key) + 7) / 8);
        t.add(CKA_VALUE, bnParam(key, OSSL_PKEY_PARAM_PRIV_KEY, fieldBytes));
        t.addBool(CKA_DECRYPT, false);
    } else {
        throw std::runtime_error("unsupported key type");
    }
}

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

void addCertificateBasics(Template& t, const CertObjectSpec& spec)
{
    t.addUlong(CKA_CLASS, CKO_CERTIFICATE);
    t.addUlong(CKA_CERTIFICATE_TYPE, CKC_X_509);
    t.addBool(CKA_TOKEN, true);
    t.addBool(CKA_PRIVATE, false);
    t.addText(CKA_LABEL, spec.label);
    t.addIfAny(CKA_ID, spec.id);
}

} // namespace

CryptokiModule::CryptokiModule(const std::string& path)
{
    m_handle = ::dlopen(path.c_str(), RTLD_NOW);
    if (m_handle == nullptr)
        throw std::runtime_error("dlopen " + path);
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(::dlsym(m_handle, "C_GetFunctionList"));
    if (getList == nullptr || getList(&m_functions) != CKR_OK || m_functions == nullptr) {
        ::dlclose(m_handle);
        throw std::runtime_error("C_GetFunctionList of " + path);
    }
}

CryptokiModule::~CryptokiModule() { ::dlclose(m_handle); }

CK_SLOT_ID CryptokiModule::slotOfToken(const std::string& label) const
{
    CK_ULONG count = 0;
    checkCk("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    checkCk("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, slots.data(), &count));
    slots.resize(count);
    for (CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info{};
        if (m_functions->C_GetTokenInfo(slot, &info) != CKR_OK)
            continue;
        std::string text(reinterpret_cast<const char*>(info.label), sizeof info.label);
        text.erase(text.find_last_not_of(' ') + 1);
        if (text == label)
            return slot;
    }
    throw std::runtime_error("no token labelled " + label);
}

TokenSession::TokenSession(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, const char* userPin)
    : m_functions(functions)
{
    checkCk("C_OpenSession", functions->C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                                      &m_session));
    if (userPin == nullptr)
        return;
    std::string pin(userPin);
    const CK_RV rv = functions->C_Login(m_session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size());
    if (rv != CKR_USER_ALREADY_LOGGED_IN) {
        if (rv != CKR_OK)
            functions->C_CloseSession(m_session);
        checkCk("C_Login", rv);
    }
}

TokenSession::~TokenSession() { m_functions->C_CloseSession(m_session); }

CK_OBJECT_HANDLE importPrivateKey(const TokenSession& session, EVP_PKEY* key, const KeyObjectSpec& spec)
{
    Template t;
    t.addUlong(CKA_CLASS, CKO_PRIVATE_KEY);
    t.addBool(CKA_TOKEN, true);
    t.addBool(CKA_PRIVATE, true);
    t.addBool(CKA_SENSITIVE, true);
    t.addBool(CKA_EXTRACTABLE, false);
    t.addBool(CKA_SIGN, true);
    t.addBool(CKA_DERIVE, false);
    t.addText(CKA_LABEL, spec.label);
    t.addIfAny(CKA_ID, spec.id);
    t.addIfAny(CKA_SUBJECT, spec.subject);
    if (spec.alwaysAuthenticate)
        t.addBool(CKA_ALWAYS_AUTHENTICATE, true);
    addKeyComponents(t, key);
    return t.create(session);
}

namespace {

std::unique_ptr<X509, decltype(&X509_free)> parseCertificate(const Bytes& der)
{
    const unsigned char* p = der.data();
    std::unique_ptr<X509, decltype(&X509_free)> x509(d2i_X509(nullptr, &p, static_cast<long>(der.size())),
                                                     X509_free);
    if (!x509)
        throw std::runtime_error("not a DER certificate");
    return x509;
}

} // namespace

Bytes subjectDerOf(const Bytes& certDer)
{
    return derOf(X509_get_subject_name(parseCertificate(certDer).get()), i2d_X509_NAME);
}

CK_OBJECT_HANDLE importCertificate(const TokenSession& session, const Bytes& der, const CertObjectSpec& spec)
{
    const auto x509 = parseCertificate(der);
    Template t;
    addCertificateBasics(t, spec);
    t.add(CKA_VALUE, der);
    t.add(CKA_SUBJECT, derOf(X509_get_subject_name(x509.get()), i2d_X509_NAME));
    t.add(CKA_ISSUER, derOf(X509_get_issuer_name(x509.get()), i2d_X509_NAME));
    t.add(CKA_SERIAL_NUMBER, derOf(X509_get0_serialNumber(x509.get()), i2d_ASN1_INTEGER));
    return t.create(session);
}

CK_OBJECT_HANDLE importCertificateValue(const TokenSession& session, const Bytes& value, const Bytes& nameDer,
                                        const CertObjectSpec& spec)
{
    Template t;
    addCertificateBasics(t, spec);
    t.add(CKA_VALUE, value);
    t.add(CKA_SUBJECT, nameDer);
    t.add(CKA_ISSUER, nameDer);
    return t.create(session);
}

} // namespace p11test
