#include "SoftHsmObjects.h"

#include "TestCertFactory.h"

#include <dlfcn.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <cstdio>
#include <deque>
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

void addKeyComponents(Template& t, EVP_PKEY* key)
{
    if (EVP_PKEY_is_a(key, "RSA")) {
        t.addUlong(CKA_KEY_TYPE, CKK_RSA);
        t.add(CKA_MODULUS, keyNumber(key, OSSL_PKEY_PARAM_RSA_N));
        t.add(CKA_PUBLIC_EXPONENT, keyNumber(key, OSSL_PKEY_PARAM_RSA_E));
        t.add(CKA_PRIVATE_EXPONENT, keyNumber(key, OSSL_PKEY_PARAM_RSA_D));
        t.add(CKA_PRIME_1, keyNumber(key, OSSL_PKEY_PARAM_RSA_FACTOR1));
        t.add(CKA_PRIME_2, keyNumber(key, OSSL_PKEY_PARAM_RSA_FACTOR2));
        t.add(CKA_EXPONENT_1, keyNumber(key, OSSL_PKEY_PARAM_RSA_EXPONENT1));
        t.add(CKA_EXPONENT_2, keyNumber(key, OSSL_PKEY_PARAM_RSA_EXPONENT2));
        t.add(CKA_COEFFICIENT, keyNumber(key, OSSL_PKEY_PARAM_RSA_COEFFICIENT1));
        t.addBool(CKA_DECRYPT, true);
    } else if (EVP_PKEY_is_a(key, "EC")) {
        t.addUlong(CKA_KEY_TYPE, CKK_EC);
        t.add(CKA_EC_PARAMS, curveOidDer(key));
        const auto fieldBytes = static_cast<std::size_t>((EVP_PKEY_get_bits(key) + 7) / 8);
        t.add(CKA_VALUE, keyNumber(key, OSSL_PKEY_PARAM_PRIV_KEY, fieldBytes));
        t.addBool(CKA_DECRYPT, false);
    } else {
        throw std::runtime_error("unsupported key type");
    }
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

CryptokiModule::~CryptokiModule()
{
    if (m_initialized)
        m_functions->C_Finalize(nullptr);
    ::dlclose(m_handle);
}

void CryptokiModule::initialize()
{
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    checkCk("C_Initialize", m_functions->C_Initialize(&args));
    m_initialized = true;
}

void CryptokiModule::finalize()
{
    if (m_initialized)
        checkCk("C_Finalize", m_functions->C_Finalize(nullptr));
    m_initialized = false;
}

std::vector<CK_SLOT_ID> CryptokiModule::tokenSlots() const
{
    CK_ULONG count = 0;
    checkCk("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    checkCk("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, slots.data(), &count));
    slots.resize(count);
    return slots;
}

CK_SLOT_ID CryptokiModule::slotOfToken(const std::string& label) const
{
    for (CK_SLOT_ID slot : tokenSlots()) {
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

CK_SLOT_ID CryptokiModule::firstTokenSlot() const
{
    const std::vector<CK_SLOT_ID> slots = tokenSlots();
    if (slots.empty())
        throw std::runtime_error("no token");
    return slots.front();
}

TokenSession::TokenSession(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, const char* userPin, Access access)
    : m_functions(functions)
{
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (access == Access::ReadWrite ? CKF_RW_SESSION : 0);
    checkCk("C_OpenSession", functions->C_OpenSession(slot, flags, nullptr, nullptr, &m_session));
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

CK_OBJECT_HANDLE importCertificate(const TokenSession& session, const Bytes& der, const CertObjectSpec& spec)
{
    CertNames names = namesOf(der);
    Template t;
    addCertificateBasics(t, spec);
    t.add(CKA_VALUE, der);
    t.add(CKA_SUBJECT, std::move(names.subject));
    t.add(CKA_ISSUER, std::move(names.issuer));
    t.add(CKA_SERIAL_NUMBER, std::move(names.serial));
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
