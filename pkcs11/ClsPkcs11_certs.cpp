// The token certificate cache.
#include "ClsPkcs11.h"

#include "Certificate.h"
#include "CertificateHolder.h"
#include "ClsCert.h"

namespace p11client {

bool ClsPkcs11::FindAllCerts()
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindAllCerts");
    const bool ok = runGuarded(m_log, [&] { return findAllCerts(m_log); });
    logSuccessFailure(ok);
    return ok;
}

int ClsPkcs11::get_NumCerts()
{
    CritSecExitor lock(this);
    return m_certs.getSize();
}

bool ClsPkcs11::GetCert(int index, ClsCert& cert)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "GetCert_pkcs11");
    const bool ok = runGuarded(m_log, [&] {
        const auto* holder = static_cast<const CertificateHolder*>(m_certs.elementAt(index));
        if (holder == nullptr) {
            m_log.LogError("Error loading certificate object from DER.");
            return false;
        }
        std::shared_ptr<Certificate> certificate = holder->getCertShared();
        if (!certificate) {
            m_log.LogError("Internal error getting cert.");
            return false;
        }
        cert.injectCert(std::move(certificate), m_log);
        cert.setSystemCerts(getSystemCertsShared());
        return true;
    });
    logSuccessFailure(ok);
    return ok;
}

// Undoes every link to this module's session before the cache lets go, so a
// certificate still held by a ClsCert never points at a session or key of a
// token it has left.
void ClsPkcs11::clearCertCache(LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "clearPkcs11CertCache");
    const int n = m_certs.getSize();
    for (int i = 0; i < n; ++i) {
        const auto* holder = static_cast<const CertificateHolder*>(m_certs.elementAt(i));
        Certificate* certificate = holder != nullptr ? holder->getCertPtr(log) : nullptr;
        if (certificate != nullptr)
            certificate->unlinkFromPkcs11Session();
    }
    m_certs.removeAllObjects();
    m_certsCached = false;
}

} // namespace p11client
