#include "ModuleInitRegistry.h"

#include <map>
#include <mutex>

namespace p11client {

namespace {

struct ImageUse {
    int users = 0;
    bool finalizeWhenDone = true;
};

std::mutex& registryMutex()
{
    static std::mutex m;
    return m;
}

std::map<void*, ImageUse>& registry()
{
    static std::map<void*, ImageUse> images;
    return images;
}

CK_RV initializeModule(CK_FUNCTION_LIST* functions)
{
    // We ask the module to use the operating system's locks: several of our
    // objects, each on its own thread, may share it.
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    return functions->C_Initialize(&args);
}

} // namespace

ModuleInitRegistry::Outcome ModuleInitRegistry::acquire(void* image, CK_FUNCTION_LIST* functions)
{
    std::lock_guard<std::mutex> lock(registryMutex());
    Outcome outcome;
    auto it = registry().find(image);
    if (it != registry().end() && it->second.users > 0) {
        ++it->second.users;
        return outcome;
    }
    outcome.calledInitialize = true;
    outcome.rv = initializeModule(functions);
    if (outcome.rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        outcome.initializedElsewhere = true;
        outcome.rv = CKR_OK;
    }
    if (outcome.rv == CKR_OK)
        registry()[image] = ImageUse{1, !outcome.initializedElsewhere};
    return outcome;
}

bool ModuleInitRegistry::release(void* image, CK_FUNCTION_LIST* functions)
{
    std::lock_guard<std::mutex> lock(registryMutex());
    auto it = registry().find(image);
    if (it == registry().end() || it->second.users <= 0)
        return false;
    if (--it->second.users > 0)
        return false;
    const bool finalize = it->second.finalizeWhenDone;
    registry().erase(it);
    if (!finalize || functions == nullptr || functions->C_Finalize == nullptr)
        return false;
    functions->C_Finalize(nullptr);
    return true;
}

int ModuleInitRegistry::users(void* image)
{
    std::lock_guard<std::mutex> lock(registryMutex());
    const auto it = registry().find(image);
    return it != registry().end() ? it->second.users : 0;
}

} // namespace p11client
