// The call layer's start and end: the function list, C_Initialize and
// C_Finalize, and how a return value is reported.
#include "ClsPkcs11.h"

#include "CkNames.h"
#include "ModuleInitRegistry.h"

namespace p11client {

bool ClsPkcs11::checkRv(const char* function, unsigned long rv, LogBase& log, bool quiet)
{
    return reportCall(function, rv, log, quiet);
}

// The list is fetched once per loaded image: p11-kit's proxy and client
// modules hand out a new, uninitialized list at every C_GetFunctionList, and
// an object on an image in use calls through the list it was initialized with.
bool ClsPkcs11::getPkcs11Functions(LogBase& log)
{
    if (m_dlHandle.moduleFunctions() != nullptr)
        return true;
    if (const auto lists = ModuleInitRegistry::listsOf(m_dlHandle.image())) {
        m_dlHandle.setFunctions(lists->module);
        m_dlHandle.callThrough(lists->calls);
        return true;
    }
    auto* getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(m_dlHandle.symbol("C_GetFunctionList"));
    if (getFunctionList == nullptr)
        return noFunc("C_GetFunctionList", log);
    CK_FUNCTION_LIST* functions = nullptr;
    if (!checkRv("C_GetFunctionList", getFunctionList(&functions), log))
        return false;
    if (functions == nullptr)
        return noFuncs(log);
    m_dlHandle.setFunctions(functions);
    return true;
}

namespace {

void logHowItIsShared(const ModuleInitRegistry::Outcome& outcome, LogBase& log)
{
    if (!outcome.calledInitialize)
        log.LogInfo("The library is already initialized by another object that loaded it.");
    if (outcome.cannotLock)
        log.LogInfo("The library cannot use the operating system's locks: it is called from one thread at a time.");
    if (outcome.inheritedFromParent && outcome.initializedElsewhere)
        log.LogInfo("The library keeps the initialization of the parent process; it will not be finalized here.");
    else if (outcome.initializedElsewhere)
        log.LogInfo("The library was initialized elsewhere in this process; it will not be finalized here.");
}

} // namespace

bool ClsPkcs11::pkcs11_initialize(LogBase& log)
{
    if (m_initialized)
        return true;
    if (m_dlHandle.functions() == nullptr && !loadPkcs11Dll_2(log))
        return false;
    CK_FUNCTION_LIST* f = m_dlHandle.moduleFunctions();
    if (f == nullptr || m_dlHandle.functions() == nullptr)
        return noFuncs(log);
    if (f->C_Initialize == nullptr)
        return noFunc("C_Initialize", log);

    const ModuleInitRegistry::Outcome outcome = ModuleInitRegistry::acquire(m_dlHandle.image(), f);
    if (outcome.noSerializerLeft) {
        log.LogError("Too many libraries that cannot use the operating system's locks are in use at once.");
        return false;
    }
    if (!checkRv("C_Initialize", outcome.rv, log))
        return false;
    logHowItIsShared(outcome, log);
    m_dlHandle.setFunctions(outcome.module);
    m_dlHandle.callThrough(outcome.functions);
    m_initialized = true;
    return true;
}

// In a child process the parent's initialization is not ours to end.
void ClsPkcs11::finalizeQuietly(LogBase& log)
{
    if (!m_initialized)
        return;
    m_initialized = false;
    if (m_dlHandle.forkedSinceOpen())
        return;
    if (ModuleInitRegistry::release(m_dlHandle.image()))
        log.LogVerbose("C_Finalize called.");
}

} // namespace p11client
