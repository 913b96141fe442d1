#pragma once

#include "ZelvanObject.h"

#include <memory>

namespace p11client {

class Certificate;
class LogBase;

// An element of the module's certificate cache: one shared reference to a
// Certificate. Deleting the holder drops only this reference; ClsCerts that
// were given the certificate keep it alive.
class CertificateHolder : public NonRefCountedObj {
public:
    explicit CertificateHolder(std::shared_ptr<Certificate> cert) : m_cert(std::move(cert)) {}
    ~CertificateHolder() override = default;
    CertificateHolder(const CertificateHolder&) = delete;
    CertificateHolder& operator=(const CertificateHolder&) = delete;

    // The held certificate, or null.
    Certificate* getCertPtr(LogBase& log) const;
    // The shared owner, for handing the certificate on (null when none).
    std::shared_ptr<Certificate> getCertShared() const { return m_cert; }

private:
    std::shared_ptr<Certificate> m_cert;
};

} // namespace p11client
