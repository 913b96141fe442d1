#include "SoftHsmObjects.h"

#include "TestCertFactory.h"

#include <dlfcn.h>

#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <stdexcept>

namespace p11test {

void checkCk(const char* function, CK_RV rv)
{
    if (rv != CKR_OK) throw std::runtime_error(std::string(function) + " returned " + std::to_string(rv));
}

namespace {

std::vector<CK_ATTRIBUTE> templateOf(const Attributes& attributes)
{
    std::vector<CK_ATTRIBUTE> out;
    for (const auto& [type, value] : attributes)
        if (!value.empty())
            out.push_back({type, const_cast<std::uint8_t*>(value.data()), value.size()});
    return out;
}

Attributes keyComponents(EVP_PKEY* key)
{
    if (EVP_PKEY_is_a(key, "EC"))
        return {{CKA_KEY_TYPE, ulongValue(CKK_EC)}, {CKA_EC_PARAMS, curveOidDer(key)}, {CKA_DECRYPT, boolValue(false)},
                {CKA_VALUE, keyNumber(key, OSSL_PKEY_PARAM_PRIV_KEY, static_cast<std::size_t>(EVP_PKEY_get_bits(key) + 7) / 8)}};
    Attributes out{{CKA_KEY_TYPE, ulongValue(CKK_RSA)}, {CKA_DECRYPT, boolValue(true)}};
    for (const auto& [type, param] : {std::pair{CKA_MODULUS, OSSL_PKEY_PARAM_RSA_N}, {CKA_PUBLIC_EXPONENT, OSSL_PKEY_PARAM_RSA_E},
                                      {CKA_PRIVATE_EXPONENT, OSSL_PKEY_PARAM_RSA_D}, {CKA_PRIME_1, OSSL_PKEY_PARAM_RSA_FACTOR1},
                                      {CKA_PRIME_2, OSSL_PKEY_PARAM_RSA_FACTOR2}, {CKA_EXPONENT_1, OSSL_PKEY_PARAM_RSA_EXPONENT1},
                                      {CKA_EXPONENT_2, OSSL_PKEY_PARAM_RSA_EXPONENT2}, {CKA_COEFFICIENT, OSSL_PKEY_PARAM_RSA_COEFFICIENT1}})
        out.emplace_back(type, keyNumber(key, param));
    return out;
}

} // namespace

CryptokiModule::CryptokiModule(const std::string& path) : m_handle(::dlopen(path.c_str(), RTLD_NOW))
{
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(m_handle ? ::dlsym(m_handle, "C_GetFunctionList") : nullptr);
    if (getList == nullptr || getList(&m_functions) != CKR_OK || m_functions == nullptr)
        throw std::runtime_error("no Cryptoki module at " + path);
}

CryptokiModule::~CryptokiModule()
{
    finalize();
    ::dlclose(m_handle);
}

void CryptokiModule::initialize()
{
    CK_C_INITIALIZE_ARGS args{nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};
    checkCk("C_Initialize", m_functions->C_Initialize(&args));
    m_initialized = true;
}

std::vector<CK_SLOT_ID> CryptokiModule::tokenSlots() const
{
    std::vector<CK_SLOT_ID> slots(64);
    CK_ULONG count = slots.size();
    checkCk("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, slots.data(), &count));
    slots.resize(count);
    return slots;
}

CK_SLOT_ID CryptokiModule::slotOfToken(const std::string& label) const
{
    for (CK_SLOT_ID slot : tokenSlots()) {
        CK_TOKEN_INFO info{};
        if (m_functions->C_GetTokenInfo(slot, &info) == CKR_OK
            && std::string(reinterpret_cast<const char*>(info.label), sizeof info.label).starts_with(label + ' '))
            return slot;
    }
    throw std::runtime_error("no token labelled " + label);
}

TokenSession::TokenSession(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, const char* userPin, Access access)
    : m_functions(functions)
{
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (access == Access::ReadWrite ? CKF_RW_SESSION : 0);
    checkCk("C_OpenSession", functions->C_OpenSession(slot, flags, nullptr, nullptr, &m_session));
    std::string pin(userPin != nullptr ? userPin : "");
    const CK_RV rv = userPin ? functions->C_Login(m_session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size()) : CKR_OK;
    if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) {
        functions->C_CloseSession(m_session);
        checkCk("C_Login", rv);
    }
}

CK_OBJECT_HANDLE createObject(const TokenSession& session, const Attributes& attributes)
{
    std::vector<CK_ATTRIBUTE> t = templateOf(attributes);
    CK_OBJECT_HANDLE handle = 0;
    checkCk("C_CreateObject", session.functions()->C_CreateObject(session.handle(), t.data(), t.size(), &handle));
    return handle;
}

std::vector<CK_OBJECT_HANDLE> findObjects(const TokenSession& session, const Attributes& match)
{
    std::vector<CK_ATTRIBUTE> t = templateOf(match);
    std::vector<CK_OBJECT_HANDLE> out(4096);
    CK_ULONG count = 0;
    checkCk("C_FindObjectsInit", session.functions()->C_FindObjectsInit(session.handle(), t.data(), t.size()));
    const CK_RV rv = session.functions()->C_FindObjects(session.handle(), out.data(), out.size(), &count);
    session.functions()->C_FindObjectsFinal(session.handle());
    checkCk("C_FindObjects", rv);
    out.resize(count);
    return out;
}

CK_OBJECT_HANDLE importPrivateKey(const TokenSession& session, EVP_PKEY* key, const KeyObjectSpec& spec)
{
    Attributes a{{CKA_CLASS, ulongValue(CKO_PRIVATE_KEY)}, {CKA_TOKEN, boolValue(true)}, {CKA_PRIVATE, boolValue(true)},
                 {CKA_SENSITIVE, boolValue(true)}, {CKA_EXTRACTABLE, boolValue(false)}, {CKA_SIGN, boolValue(spec.sign)},
                 {CKA_DERIVE, boolValue(false)}, {CKA_ALWAYS_AUTHENTICATE, boolValue(spec.alwaysAuthenticate)},
                 {CKA_LABEL, textValue(spec.label)}, {CKA_ID, spec.id}, {CKA_SUBJECT, spec.subject}};
    for (auto& component : keyComponents(key))
        a.push_back(std::move(component));
    return createObject(session, a);
}

Bytes ecPointValue(EVP_PKEY* key, bool derWrapped)
{
    unsigned char* p = nullptr;
    const std::size_t n = EVP_PKEY_get1_encoded_public_key(key, &p);
    Bytes point(p, p + n);
    OPENSSL_free(p);
    if (!derWrapped)
        return point;
    Bytes wrapped = n < 0x80 ? Bytes{0x04} : Bytes{0x04, 0x81}; // P-521's 133 bytes take a long-form length
    wrapped.push_back(static_cast<std::uint8_t>(n));
    wrapped.insert(wrapped.end(), point.begin(), point.end());
    return wrapped;
}

CK_OBJECT_HANDLE importPublicKey(const TokenSession& session, EVP_PKEY* key, const KeyObjectSpec& spec)
{
    Attributes a{{CKA_CLASS, ulongValue(CKO_PUBLIC_KEY)}, {CKA_TOKEN, boolValue(true)}, {CKA_PRIVATE, boolValue(false)},
                 {CKA_LABEL, textValue(spec.label)}, {CKA_ID, spec.id}};
    if (EVP_PKEY_is_a(key, "EC"))
        a.insert(a.end(), {{CKA_KEY_TYPE, ulongValue(CKK_EC)}, {CKA_EC_PARAMS, curveOidDer(key)}, {CKA_EC_POINT, ecPointValue(key)}});
    else
        a.insert(a.end(), {{CKA_KEY_TYPE, ulongValue(CKK_RSA)}, {CKA_MODULUS, keyNumber(key, OSSL_PKEY_PARAM_RSA_N)},
                           {CKA_PUBLIC_EXPONENT, keyNumber(key, OSSL_PKEY_PARAM_RSA_E)}});
    return createObject(session, a);
}

CK_OBJECT_HANDLE importCertificate(const TokenSession& session, const Bytes& der, const CertObjectSpec& spec)
{
    const CertNames names = namesOf(der);
    return createObject(session, {{CKA_CLASS, ulongValue(CKO_CERTIFICATE)}, {CKA_CERTIFICATE_TYPE, ulongValue(CKC_X_509)},
                                  {CKA_TOKEN, boolValue(true)}, {CKA_PRIVATE, boolValue(false)}, {CKA_LABEL, textValue(spec.label)},
                                  {CKA_ID, spec.id}, {CKA_VALUE, der}, {CKA_SUBJECT, names.subject}, {CKA_ISSUER, names.issuer},
                                  {CKA_SERIAL_NUMBER, names.serial}});
}

} // namespace p11test
