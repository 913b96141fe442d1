// The module object: construction, destruction, properties, the state a
// child process forgets, and what a missing list, entry or session logs.
#include "ClsPkcs11.h"

#include <memory>

namespace p11client {

ClsPkcs11::ClsPkcs11() = default;

// Leaves nothing behind in the module: logs out, closes the session and lets
// go of the library (finalizing it when this was its last user).
ClsPkcs11::~ClsPkcs11()
{
    CritSecExitor lock(this);
    LogNull log;
    unloadModule(log);
}

ClsPkcs11* ClsPkcs11::createNewCls()
{
    try {
        return std::make_unique<ClsPkcs11>().release();
    } catch (...) {
        return nullptr;
    }
}

void ClsPkcs11::get_SharedLibPath(XString& out)
{
    CritSecExitor lock(this);
    out.copyFromX(m_sharedLibPath);
}

void ClsPkcs11::put_SharedLibPath(const XString& path)
{
    CritSecExitor lock(this);
    m_sharedLibPath.copyFromX(path);
}

bool ClsPkcs11::hasOpenSession()
{
    CritSecExitor lock(this);
    return m_hSession != 0;
}

void ClsPkcs11::get_SigContextPin(XString& out)
{
    CritSecExitor lock(this);
    out.copyFromX(m_sigContextPin);
}

void ClsPkcs11::put_SigContextPin(const XString& pin)
{
    CritSecExitor lock(this);
    keepContextPin(pin);
}

bool ClsPkcs11::noFunc(const char* functionName, LogBase& log)
{
    log.LogError("Function not found");
    log.LogData("functionName", functionName);
    log.LogDataX("sharedLibPath", m_loadedLibPath);
    return false;
}

// In a child process made by fork() the session, the login and the
// initialization are the parent's: the object forgets them without a word to
// the module. The list is withheld there (ModuleLibrary), and unloading the
// module starts here too.
void ClsPkcs11::forgetParentProcessState()
{
    m_hSession = 0;
    m_soLoggedIn = false;
    m_userLoggedIn = false;
    m_initialized = false;
}

// In a child process the next Initialize, Discover or QuickSession loads the
// library afresh.
bool ClsPkcs11::noFuncs(LogBase& log)
{
    CritSecExitor lock(this);
    if (m_dlHandle.forkedSinceOpen()) {
        log.LogError("This process was forked after the PKCS11 library was loaded: its session and login belong "
                     "to the parent process.");
        log.LogInfo("Initialize loads and initializes the library afresh in this process.");
        forgetParentProcessState();
        return false;
    }
    log.LogError("PKCS11 functions not available");
    log.LogDataX("sharedLibPath", m_loadedLibPath);
    return false;
}

bool ClsPkcs11::noSession(LogBase& log)
{
    log.LogError("No PKCS11 session is open.");
    return false;
}

} // namespace p11client
