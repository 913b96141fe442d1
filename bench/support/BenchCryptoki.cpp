#include "BenchCryptoki.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace p11bench {

void check(const char* function, CK_RV rv)
{
    if (rv == CKR_OK)
        return;
    char code[32];
    std::snprintf(code, sizeof code, "0x%lx", rv);
    throw std::runtime_error(std::string(function) + " returned " + code);
}

Module::Module(const std::string& path)
{
    m_handle = ::dlopen(path.c_str(), RTLD_NOW);
    if (m_handle == nullptr)
        throw std::runtime_error("cannot load " + path);
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(::dlsym(m_handle, "C_GetFunctionList"));
    if (getList == nullptr || getList(&m_functions) != CKR_OK || m_functions == nullptr) {
        ::dlclose(m_handle);
        throw std::runtime_error("no function list in " + path);
    }
}

Module::~Module()
{
    if (m_initialized)
        m_functions->C_Finalize(nullptr);
    ::dlclose(m_handle);
}

void Module::initialize()
{
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    check("C_Initialize", m_functions->C_Initialize(&args));
    m_initialized = true;
}

void Module::finalize()
{
    if (m_initialized)
        check("C_Finalize", m_functions->C_Finalize(nullptr));
    m_initialized = false;
}

CK_SLOT_ID Module::firstTokenSlot() const
{
    CK_ULONG count = 0;
    check("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    check("C_GetSlotList", m_functions->C_GetSlotList(CK_TRUE, slots.data(), &count));
    if (count == 0)
        throw std::runtime_error("no token");
    return slots[0];
}

Session::Session(CK_FUNCTION_LIST* functions, CK_SLOT_ID slot, bool readWrite, const std::string& userPin)
    : m_functions(functions)
{
    const CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
    check("C_OpenSession", functions->C_OpenSession(slot, flags, nullptr, nullptr, &m_session));
    if (userPin.empty())
        return;
    std::string pin(userPin);
    const CK_RV rv = functions->C_Login(m_session, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(pin.data()), pin.size());
    if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) {
        functions->C_CloseSession(m_session);
        check("C_Login", rv);
    }
}

Session::~Session() { m_functions->C_CloseSession(m_session); }

std::vector<CK_OBJECT_HANDLE> findAll(const Session& session, std::vector<CK_ATTRIBUTE> tmpl)
{
    CK_FUNCTION_LIST* f = session.functions();
    check("C_FindObjectsInit", f->C_FindObjectsInit(session.handle(), tmpl.data(), tmpl.size()));
    std::vector<CK_OBJECT_HANDLE> found;
    CK_OBJECT_HANDLE batch[512];
    for (;;) {
        CK_ULONG count = 0;
        const CK_RV rv = f->C_FindObjects(session.handle(), batch, 512, &count);
        if (rv != CKR_OK) {
            f->C_FindObjectsFinal(session.handle());
            check("C_FindObjects", rv);
        }
        if (count == 0)
            break;
        found.insert(found.end(), batch, batch + count);
    }
    check("C_FindObjectsFinal", f->C_FindObjectsFinal(session.handle()));
    return found;
}

std::string envOr(const char* name, const std::string& fallback)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

} // namespace p11bench
