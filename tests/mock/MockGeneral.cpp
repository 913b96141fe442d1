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
    // The module guards itself with its own mutex whatever the application offers.
    s.initialized = true;
    ++s.initializeCount;
    return CKR_OK;
}

}  // namespace

CK_RV C_Initialize(CK_VOID_PTR pInitArgs) {
    const auto* args = static_cast<const CK_C_INITIALIZE_ARGS*>(pInitArgs);
    return dispatch({.function = "C_Initialize", .flags = args ? args->flags : 0}, Needs::nothing,
                    [&](State& s, Call&) { return initialize(s, args); });
}

CK_RV C_Finalize(CK_VOID_PTR pReserved) {
    return dispatch({.function = "C_Finalize"}, Needs::initialized, [&](State& s, Call&) {
        if (pReserved != nullptr) return CKR_ARGUMENTS_BAD;
        s.sessions.clear();
        for (Slot& slot : s.slots)
            if (slot.token) slot.token->loggedInAs.reset();
        s.initialized = false;
        ++s.finalizeCount;
        return CKR_OK;
    });
}

CK_RV C_GetInfo(CK_INFO_PTR pInfo) {
    return dispatch({.function = "C_GetInfo"}, Needs::initialized, [&](State& s, Call&) {
        if (pInfo == nullptr) return CKR_ARGUMENTS_BAD;
        pInfo->cryptokiVersion = s.library.cryptokiVersion;
        padField(pInfo->manufacturerID, sizeof pInfo->manufacturerID, s.library.manufacturer);
        pInfo->flags = s.library.flags;
        padField(pInfo->libraryDescription, sizeof pInfo->libraryDescription, s.library.description);
        pInfo->libraryVersion = s.library.libraryVersion;
        return CKR_OK;
    });
}

}  // namespace mock::entry
