#include "SystemCerts.h"

#include "Certificate.h"
#include "DataBuffer.h"

namespace p11client {

bool SystemCerts::addCertificate(const std::shared_ptr<Certificate>& cert, LogBase&)
{
    if (!cert)
        return false;
    std::lock_guard lock(m_mutex);
    for (const auto& held : m_certs)
        if (held->sameDer(*cert))
            return true;
    m_certs.push_back(cert);
    return true;
}

std::vector<std::shared_ptr<Certificate>> SystemCerts::snapshot() const
{
    std::lock_guard lock(m_mutex);
    return m_certs;
}

bool SystemCerts::addAllFrom(const SystemCerts& other, LogBase& log)
{
    if (&other == this)
        return true;
    bool ok = true;
    for (const auto& cert : other.snapshot())
        ok = addCertificate(cert, log) && ok;
    return ok;
}

int SystemCerts::numCerts() const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_certs.size());
}

std::shared_ptr<Certificate> SystemCerts::certAt(int index) const
{
    std::lock_guard lock(m_mutex);
    if (index < 0 || static_cast<std::size_t>(index) >= m_certs.size())
        return nullptr;
    return m_certs[static_cast<std::size_t>(index)];
}

std::shared_ptr<Certificate> SystemCerts::findBySubjectDer(const DataBuffer& subjectDer, LogBase& log) const
{
    for (const auto& cert : snapshot()) {
        DataBuffer der;
        if (cert->getPartDer(Certificate::kPartSubject, der, log) && der.equals(subjectDer))
            return cert;
    }
    return nullptr;
}

} // namespace p11client
