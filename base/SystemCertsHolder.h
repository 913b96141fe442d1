#pragma once

#include <memory>

namespace p11client {

class LogBase;
class SystemCerts;

// A handle on a shared SystemCerts store. Every holder starts with a store
// of its own, empty; setSystemCerts makes it share another holder's store.
class SystemCertsHolder {
public:
    SystemCertsHolder();
    virtual ~SystemCertsHolder();
    SystemCertsHolder(const SystemCertsHolder&) = delete;
    SystemCertsHolder& operator=(const SystemCertsHolder&) = delete;

    // The store of this holder; never null.
    SystemCerts* getSystemCertsPtr() const { return m_sysCerts.get(); }
    std::shared_ptr<SystemCerts> getSystemCertsShared() const { return m_sysCerts; }
    // Shares that store (not a copy). The store must be owned by a
    // std::shared_ptr, as every holder's store is; otherwise, or for null,
    // the holder keeps its store and false is returned.
    bool setSystemCerts(SystemCerts* store);
    bool setSystemCerts(std::shared_ptr<SystemCerts> store);
    // Adds the other holder's certificates to this holder's store.
    bool mergeSysCerts(SystemCertsHolder& other, LogBase& log);

private:
    std::shared_ptr<SystemCerts> m_sysCerts;
};

} // namespace p11client
