// Loading and unloading the vendor PKCS#11 library.
#include "ClsPkcs11.h"

#include "FileSys.h"
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

} // namespace

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
// without a call into the module.
void ClsPkcs11::unloadModule(LogBase& log)
{
    clearTokenCaches(log);
    unlinkRememberedCerts();
    endSessionQuietly(log);
    finalizeQuietly(log);
    m_dlHandle.close();
    m_loadedLibPath.clear();
}

} // namespace p11client
