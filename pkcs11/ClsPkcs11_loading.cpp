// Loading the vendor PKCS#11 library, initializing it, and letting go of it.
#include "ClsPkcs11.h"

#include "CkNames.h"
#include "FileSys.h"
#include "ModuleInitRegistry.h"
#include "TrustedFile.h"

namespace p11client {

namespace {

// Path fragment of the one driver whose private keys share the handle of
// their certificate object.
constexpr const char* kCertHandleIsKeyHandleDriver = "libkeyfactorpkcs11";

// dlopen looks a name without a slash up in the library search path, not in
// the working directory where the existence check just found the file.
std::string loaderPathFor(const StringBuffer& path)
{
    if (path.containsSubstring("/"))
        return path.toStdString();
    return "./" + path.toStdString();
}

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

bool ClsPkcs11::Initialize()
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Initialize");
    const bool ok = runGuarded(m_log, [&] {
        if (m_initialized) {
            m_log.LogInfo("Already initialized.");
            return true;
        }
        return pkcs11_initialize(m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::loadPkcs11Dll(bool stripDirectory, LogBase& log)
{
    LogContextExitor ctx(log, "loadPkcs11Dll_nonWindows");
    if (m_dlHandle.forkedSinceOpen()) {
        log.LogInfo("This process was forked after the library was loaded: it is loaded afresh here.");
        unloadModule(log);
    }
    StringBuffer path(m_sharedLibPath.getUtf8Sb().view());
    if (stripDirectory) {
        path.stripDirectory();
        if (!path.equals(m_sharedLibPath.getUtf8()))
            log.LogDataSb("filename", path);
    }
    if (!m_dlHandle.isNull() && path.equals(m_loadedLibPath.getUtf8()))
        return true;

    log.LogDataX("sharedLib", m_sharedLibPath);
    if (!m_dlHandle.isNull()) {
        forgetContextPin("The context-specific PIN is forgotten with the library it was given for.", log);
        unloadModule(log);
    }
    if (path.isEmpty()) {
        log.LogError("The SharedLibPath property is not yet set.");
        return false;
    }
    if (!FileSys::fileExistsUtf8(path.getString(), nullptr, nullptr))
        return false;
    // A library taken from the working directory may have been planted there.
    std::string why;
    if (!path.containsSubstring("/") && !workingDirectoryFileTrusted(path.getString(), why)) {
        log.LogError(("Refusing to load the PKCS11 library from the working directory: " + why).c_str());
        return false;
    }

    std::string dlError;
    if (!m_dlHandle.open(loaderPathFor(path).c_str(), dlError)) {
        log.LogError("Failed to load PKCS11 shared library.");
        log.LogData("dlerror", dlError.c_str());
        return false;
    }
    m_loadedLibPath.setFromUtf8(path.view());
    checkSetSpecial(log);
    return true;
}

bool ClsPkcs11::loadPkcs11Dll_2(LogBase& log)
{
    CritSecExitor lock(this);
    if (loadPkcs11Dll(false, log) || loadPkcs11Dll(true, log))
        return getPkcs11Functions(log);
    // The loader itself is silent about a missing file; say it here.
    if (!m_sharedLibPath.isEmpty() && !FileSys::fileExistsUtf8(m_sharedLibPath.getUtf8(), nullptr, nullptr)) {
        log.LogError("No PKCS11 shared library exists at the SharedLibPath.");
        log.LogDataX("sharedLibPath", m_sharedLibPath);
    }
    return false;
}

void ClsPkcs11::checkSetSpecial(LogBase& log)
{
    CritSecExitor lock(this);
    m_certHandleIsKeyHandle = m_loadedLibPath.containsSubstringUtf8(kCertHandleIsKeyHandleDriver);
    if (m_certHandleIsKeyHandle)
        log.LogInfo("Will use the certificate handle as the private key handle...");
}

// A session handle, an initialization or a cached object handle means
// nothing once its library is gone, so they end here with it: caches
// emptied, logged out, session closed, the module finalized when this object
// was its last user, then dlclose. In a child process made by fork() the
// session and the initialization are the parent's: they are forgotten
// first, so nothing here calls into the module.
void ClsPkcs11::unloadModule(LogBase& log)
{
    if (m_dlHandle.forkedSinceOpen())
        forgetParentProcessState();
    clearTokenCaches(log);
    m_recentSlotAnswers.clear();
    unlinkRememberedCerts();
    endSessionQuietly(log);
    finalizeQuietly(log);
    m_dlHandle.close();
    m_loadedLibPath.clear();
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
    if (!reportCall("C_GetFunctionList", getFunctionList(&functions), log))
        return false;
    if (functions == nullptr)
        return noFuncs(log);
    m_dlHandle.setFunctions(functions);
    return true;
}

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
    if (!reportCall("C_Initialize", outcome.rv, log))
        return false;
    logHowItIsShared(outcome, log);
    m_dlHandle.setFunctions(outcome.module);
    m_dlHandle.callThrough(outcome.functions);
    m_initialized = true;
    return true;
}

// C_Finalize only when this object was the module's last user.
void ClsPkcs11::finalizeQuietly(LogBase& log)
{
    if (!m_initialized)
        return;
    m_initialized = false;
    if (ModuleInitRegistry::release(m_dlHandle.image()))
        log.LogVerbose("C_Finalize called.");
}

} // namespace p11client
