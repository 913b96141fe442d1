// C_Initialize, C_Finalize, C_GetInfo.
#include "MockDispatch.h"
#include "MockEntryPoints.h"


namespace mock::entry {

namespace {

// The four mutex callbacks come all together or not at all.
bool mutexCallbacksConsistent(const CK_C_INITIALIZE_ARGS& args) {
    int given = (args.CreateMutex != nullptr) + (args.DestroyMutex != nullptr) +
                (args.LockMutex != nullptr) + (args.UnlockMutex != nullptr);
    return given == 0 || given == 4;
}

CK_RV initialize(State& s, const CK_C_INITIALIZE_ARGS* args) {
    s.lastInitializeHadArgs = args != nullptr;
    s.lastInitializeFlags = args ? args->flags : 0;
    if (s.initialized) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
    if (args && (args->pReserved != nullptr || !mutexCallbacksConsistent(*args)))
        return CKR_ARGUMENTS_BAD;
    if (s.behaviour.refusesOsLocking && args && (args->flags & CKF_OS_LOCKING_OK) && args->CreateMutex == nullptr)
        return CKR_CANT_LOCK;
    // The module guards itself with its own mutex whatever the application offers.
    s.initialized = true;
    ++s.initializeCount;
    if (s.behaviour.workerThread) startWorker(s);
    if (s.behaviour.forksInInitialize) forkHelperProcess();
    return CKR_OK;
}

void fillInfo(const State& s, CK_INFO& info) {
    info.cryptokiVersion = s.library.cryptokiVersion;
    padField(info.manufacturerID, sizeof info.manufacturerID, s.library.manufacturer);
    info.flags = s.library.flags;
    padField(info.libraryDescription, sizeof info.libraryDescription, s.library.description);
    info.libraryVersion = s.library.libraryVersion;
}

// Called after an honest answer filled the structure.
void lieAboutInfo(const Verdict& v, CK_INFO& info) {
    if (v.lie == Lie::numbersGarbage) {
        info.cryptokiVersion = info.libraryVersion = CK_VERSION{0xFF, 0xFF};
        info.flags = ~CK_FLAGS{0};
        return;
    }
    fillLyingText(info.manufacturerID, sizeof info.manufacturerID, v.lie);
    fillLyingText(info.libraryDescription, sizeof info.libraryDescription, v.lie);
}

}  // namespace

CK_RV C_Initialize(CK_VOID_PTR pInitArgs) {
    const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs);
    return dispatch({.function = "C_Initialize", .flags = args ? args->flags : 0}, Needs::nothing,
                    [&](State& s, Call&) { return initialize(s, args); },
                    [&](const Verdict& v, auto& honest) {
        if (v.kind == Verdict::Kind::lie && v.lie == Lie::initializedButSaysAlready) honest();
        return CKR_CRYPTOKI_ALREADY_INITIALIZED;
    });
}

CK_RV C_Finalize(CK_VOID_PTR pReserved) {
    return dispatch({.function = "C_Finalize"}, Needs::initialized, [&](State& s, Call&) {
        if (pReserved != nullptr) return CKR_ARGUMENTS_BAD;
        s.sessions.clear();
        for (Slot& slot : s.slots)
            if (slot.token) slot.token->loggedInAs.reset();
        s.initialized = false;
        ++s.finalizeCount;
        stopWorker(s);
        return CKR_OK;
    });
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
    return dispatch({.function = "C_GetInfo"}, Needs::initialized, [&](State& s, Call&) {
        if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
        fillInfo(s, *pInfo);
        return CKR_OK;
    }, [&](const Verdict& v, auto& honest) {
        if (v.kind == Verdict::Kind::fail) {
            if (pInfo != nullptr) fillGarbage(pInfo, sizeof *pInfo, v.value);
            return v.rv;
        }
        const CK_RV rv = honest();
        if (rv == CKR_OK) lieAboutInfo(v, *pInfo);
        return rv;
    });
}

}  // namespace mock::entry
