#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace p11client {

class Certificate;
class DataBuffer;
class LogBase;

// A store of trusted and intermediate certificates, shared (std::shared_ptr)
// by every holder that uses it. Safe to use from several threads.
class SystemCerts : public std::enable_shared_from_this<SystemCerts> {
public:
    SystemCerts() = default;
    SystemCerts(const SystemCerts&) = delete;
    SystemCerts& operator=(const SystemCerts&) = delete;

    // Adds a certificate unless one with the same DER is there; true when
    // the store holds it afterwards.
    bool addCertificate(const std::shared_ptr<Certificate>& cert, LogBase& log);
    // Adds every certificate of the other store.
    bool addAllFrom(const SystemCerts& other, LogBase& log);
    int numCerts() const;
    // The certificate at index (0 .. numCerts-1), or null.
    std::shared_ptr<Certificate> certAt(int index) const;
    // The first certificate whose subject name has exactly this DER, or null
    // (an issuer is found by the DER of the issuer name of its child).
    std::shared_ptr<Certificate> findBySubjectDer(const DataBuffer& subjectDer, LogBase& log) const;

private:
    std::vector<std::shared_ptr<Certificate>> snapshot() const;

    mutable std::mutex m_mutex;
    std::vector<std::shared_ptr<Certificate>> m_certs;
};

} // namespace p11client
