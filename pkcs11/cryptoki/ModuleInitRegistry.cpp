#include "ModuleInitRegistry.h"

#include "ForkSafeMutex.h"
#include "SerializedFunctionList.h"

#include <pthread.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace p11client {

namespace {

struct ImageUse {
    int users = 0;
    bool finalizeWhenDone = true;
    pid_t process = 0;                      // the process that initialized it
    CK_FUNCTION_LIST* module = nullptr;     // the module's own list
    CK_FUNCTION_LIST* serialized = nullptr; // the serializing list, when it cannot lock
    std::map<CK_SLOT_ID, int> sessions{};   // open sessions of our objects, per slot
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

// C_Initialize and C_Finalize of one image run under that image's own lock,
// so that a slow module delays only the objects that use it, never another
// module's load nor a fork(). The locks are per process: a child made by
// fork() while a thread of the parent held one never waits for it. They are
// never freed (one per image and process), as a parent's may still be held.
std::mutex& imageMutex(void* image)
{
    static auto* mutexes = new std::map<std::pair<pid_t, void*>, std::unique_ptr<std::mutex>>;
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    std::unique_ptr<std::mutex>& m = (*mutexes)[{getpid(), image}];
    if (!m)
        m = std::make_unique<std::mutex>();
    return *m;
}

// The entry of an image in use by our objects of this process; a parent's
// entry is dropped (its initialization is the parent's, not ours).
ImageUse* entryInUse(void* image, ModuleInitRegistry::Outcome& outcome, bool& serializedByParent)
{
    auto it = registry().find(image);
    if (it != registry().end() && it->second.process != getpid()) {
        outcome.inheritedFromParent = true;
        serializedByParent = it->second.serialized != nullptr;
        registry().erase(it);
        return nullptr;
    }
    return it != registry().end() && it->second.users > 0 ? &it->second : nullptr;
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
    return false;
}

} // namespace

ModuleInitRegistry::Outcome ModuleInitRegistry::acquire(void* image, CK_FUNCTION_LIST* functions)
{
    watchForks();
    std::lock_guard<std::mutex> imageLock(imageMutex(image));
    Outcome outcome;
    outcome.module = outcome.functions = functions;
    bool serializedByParent = false;
    {
        std::lock_guard<ForkSafeMutex> lock(registryMutex());
        if (ImageUse* use = entryInUse(image, outcome, serializedByParent)) {
            ++use->users;
            outcome.module = use->module;
            outcome.functions = use->serialized != nullptr ? use->serialized : use->module;
            return outcome;
        }
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
    if (outcome.rv != CKR_OK)
        return outcome;
    std::unique_lock<ForkSafeMutex> lock(registryMutex());
    if (!serializeIfNeeded(outcome, functions)) {
        lock.unlock();
        if (!outcome.initializedElsewhere && functions->C_Finalize != nullptr)
            functions->C_Finalize(nullptr);
        return outcome;
    }
    CK_FUNCTION_LIST* serialized = outcome.cannotLock ? outcome.functions : nullptr;
    registry()[image] = ImageUse{1, !outcome.initializedElsewhere, getpid(), functions, serialized, {}};
    return outcome;
}

bool ModuleInitRegistry::release(void* image)
{
    std::lock_guard<std::mutex> imageLock(imageMutex(image));
    ImageUse use;
    {
        std::lock_guard<ForkSafeMutex> lock(registryMutex());
        auto it = registry().find(image);
        if (it == registry().end() || it->second.users <= 0 || it->second.process != getpid())
            return false;
        if (--it->second.users > 0)
            return false;
        use = it->second;
        registry().erase(it);
    }
    CK_FUNCTION_LIST* calls = use.serialized != nullptr ? use.serialized : use.module;
    const bool finalize = use.finalizeWhenDone && calls != nullptr && calls->C_Finalize != nullptr;
    if (finalize)
        calls->C_Finalize(nullptr);
    if (use.serialized != nullptr) {
        std::lock_guard<ForkSafeMutex> lock(registryMutex());
        SerializedFunctionList::release(use.serialized);
    }
    return finalize;
}

std::optional<ModuleInitRegistry::Lists> ModuleInitRegistry::listsOf(void* image)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    if (it == registry().end() || it->second.process != getpid() || it->second.users <= 0)
        return std::nullopt;
    const ImageUse& use = it->second;
    return Lists{use.module, use.serialized != nullptr ? use.serialized : use.module};
}

void ModuleInitRegistry::sessionOpened(void* image, CK_SLOT_ID slot)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    if (it != registry().end() && it->second.process == getpid())
        ++it->second.sessions[slot];
}

void ModuleInitRegistry::sessionClosed(void* image, CK_SLOT_ID slot)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    if (it == registry().end() || it->second.process != getpid())
        return;
    const auto count = it->second.sessions.find(slot);
    if (count != it->second.sessions.end() && --count->second <= 0)
        it->second.sessions.erase(count);
}

int ModuleInitRegistry::sessions(void* image, CK_SLOT_ID slot)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    if (it == registry().end() || it->second.process != getpid())
        return 0;
    const auto count = it->second.sessions.find(slot);
    return count != it->second.sessions.end() ? count->second : 0;
}

int ModuleInitRegistry::users(void* image)
{
    std::lock_guard<ForkSafeMutex> lock(registryMutex());
    const auto it = registry().find(image);
    return it != registry().end() && it->second.process == getpid() ? it->second.users : 0;
}

} // namespace p11client
