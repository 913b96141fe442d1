#include "ModuleInitRegistry.h"

#include "ForkSafeMutex.h"
#include "SerializedFunctionList.h"

#include <pthread.h>
#include <unistd.h>

#include <map>
#include <mutex>

namespace p11client {

namespace {

struct ImageUse {
    int users = 0;
    bool finalizeWhenDone = true;
    pid_t process = 0;                      // the process that initialized it
    CK_FUNCTION_LIST* module = nullptr;     // the module's own list
    CK_FUNCTION_LIST* serialized = nullptr; // the serializing list, when it cannot lock
};

ForkSafeMutex& registryMutex()
{
    static ForkSafeMutex m;
    return m;
}

std::map<void*, ImageUse>& registry()
{
    static std::map<void*, ImageUse> images;
    return images;
}

// fork() from another thread while one of ours initializes, finalizes or is
// inside a module that cannot lock would leave the child a lock nobody
// releases: fork waits until they are done (unless the forking thread is the
// one holding them: a module that starts a helper process from inside
// C_Initialize or any other call).
void lockForFork()
{
    registryMutex().holdForFork();
    SerializedFunctionList::holdAllForFork();
}

void unlockAfterFork()
{
    SerializedFunctionList::releaseAllAfterFork();
    registryMutex().releaseAfterFork();
}

void watchForks()
{
    static std::once_flag once;
    std::call_once(once, [] { pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork); });
}

CK_RV initializeModule(CK_FUNCTION_LIST* functions, bool& cannotLock)
{
    // We ask the module to use the operating system's locks: several of our
    // objects, each on its own thread, may share it.
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;
    const CK_RV rv = functions->C_Initialize(&args);
    cannotLock = rv == CKR_CANT_LOCK;
    // Without arguments we promise to call it from one thread at a time.
    return cannotLock ? functions->C_Initialize(nullptr) : rv;
}

// Takes the serializing list a module that cannot lock needs; without one it
// is not used at all.
bool serializeIfNeeded(ModuleInitRegistry::Outcome& outcome, CK_FUNCTION_LIST* functions)
{
    if (!outcome.cannotLock)
        return true;
    outcome.functions = SerializedFunctionList::acquire(functions);
    if (outcome.functions != nullptr)
        return true;
    outcome.noSerializerLeft = true;
    outcome.rv = CKR_CANT_LOCK;
    if (!outcome.initializedElsewhere && functions->C_Finalize != nullptr)
        functions->C_Finalize(nullptr);
    return false;
}

} // namespace

ModuleInitRegistry::Outcome ModuleInitRegistry::acquire(void* image, CK_FUNCTION_LIST* functions)
{
    watchForks();
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    Outcome outcome;
    outcome.functions = functions;
    auto it = registry().find(image);
    bool serializedByParent = false;
    if (it != registry().end() && it->second.process != getpid()) {
        outcome.inheritedFromParent = true;
        serializedByParent = it->second.serialized != nullptr;
        registry().erase(it);
        it = registry().end();
    }
    if (it != registry().end() && it->second.users > 0) {
        ++it->second.users;
        if (it->second.serialized != nullptr)
            outcome.functions = it->second.serialized;
        return outcome;
    }
    outcome.calledInitialize = true;
    outcome.rv = initializeModule(functions, outcome.cannotLock);
    // A module the parent had to serialize still cannot lock, whatever the
    // child's C_Initialize answers.
    outcome.cannotLock = outcome.cannotLock || serializedByParent;
    if (outcome.rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        outcome.initializedElsewhere = true;
        outcome.rv = CKR_OK;
    }
    if (outcome.rv != CKR_OK || !serializeIfNeeded(outcome, functions))
        return outcome;
    CK_FUNCTION_LIST* serialized = outcome.cannotLock ? outcome.functions : nullptr;
    registry()[image] = ImageUse{1, !outcome.initializedElsewhere, getpid(), functions, serialized};
    return outcome;
}

bool ModuleInitRegistry::release(void* image)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    auto it = registry().find(image);
    if (it == registry().end() || it->second.users <= 0 || it->second.process != getpid())
        return false;
    if (--it->second.users > 0)
        return false;
    const ImageUse use = it->second;
    registry().erase(it);
    CK_FUNCTION_LIST* calls = use.serialized != nullptr ? use.serialized : use.module;
    const bool finalize = use.finalizeWhenDone && calls != nullptr && calls->C_Finalize != nullptr;
    if (finalize)
        calls->C_Finalize(nullptr);
    if (use.serialized != nullptr)
        SerializedFunctionList::release(use.serialized);
    return finalize;
}

std::optional<ModuleInitRegistry::SerializedLists> ModuleInitRegistry::serializedLists(void* image)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    if (it == registry().end() || it->second.process != getpid() || it->second.serialized == nullptr)
        return std::nullopt;
    return SerializedLists{it->second.module, it->second.serialized};
}

int ModuleInitRegistry::users(void* image)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    return it != registry().end() && it->second.process == getpid() ? it->second.users : 0;
}

} // namespace p11client
