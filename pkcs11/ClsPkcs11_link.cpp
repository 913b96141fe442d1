// Linking a certificate to the session with the handle of its private key.
#include "ClsPkcs11.h"

#include "Certificate.h"

#include <memory>
#include <vector>

namespace p11client {

bool ClsPkcs11::linkCertToPkcs11Session(Certificate* cert, bool minimalFirstPass, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "linkCertToPkcs11Session");
    if (cert == nullptr)
        return false;
    int certKeyType = 0;
    int expectedSignatureSize = 0;
    bool keyVerified = true;
    const unsigned long handle =
        findPrivKeyHandle(*cert, minimalFirstPass, certKeyType, expectedSignatureSize, keyVerified, log);
    log.LogDataBool("hasPrivateKey", handle != 0);
    log.LogDataLong("expectedSignatureSize", expectedSignatureSize);
    if (handle == 0) {
        log.LogError("No matching private key found on the HSM.");
        return false;
    }
    cert->linkToPkcs11Session(this, certKeyType, expectedSignatureSize, handle, log, keyVerified);
    rememberLink(*cert);
    return true;
}

// A linked certificate points at this object; the ones held outside the
// cache are remembered so that none outlives the object still pointing here.
void ClsPkcs11::rememberLink(Certificate& cert)
{
    std::erase_if(m_linkedCerts, [](const std::weak_ptr<Certificate>& w) { return w.expired(); });
    std::weak_ptr<Certificate> weak = cert.weak_from_this();
    if (!weak.expired())
        m_linkedCerts.push_back(std::move(weak));
}

void ClsPkcs11::unlinkRememberedCerts()
{
    for (const std::weak_ptr<Certificate>& weak : m_linkedCerts) {
        const std::shared_ptr<Certificate> cert = weak.lock();
        const Pkcs11Link link = cert ? cert->getPkcs11Link() : Pkcs11Link{};
        if (link.module == this) // not a link another module made since
            cert->unlinkFromPkcs11Session(link);
    }
    m_linkedCerts.clear();
}

} // namespace p11client
