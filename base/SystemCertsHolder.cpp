#include "SystemCertsHolder.h"

#include "SystemCerts.h"

namespace p11client {

SystemCertsHolder::SystemCertsHolder() : m_sysCerts(std::make_shared<SystemCerts>()) {}

SystemCertsHolder::~SystemCertsHolder() = default;

bool SystemCertsHolder::setSystemCerts(SystemCerts* store)
{
    return store != nullptr && setSystemCerts(store->weak_from_this().lock());
}

bool SystemCertsHolder::setSystemCerts(std::shared_ptr<SystemCerts> store)
{
    if (!store)
        return false;
    m_sysCerts = std::move(store);
    return true;
}

bool SystemCertsHolder::mergeSysCerts(SystemCertsHolder& other, LogBase& log)
{
    return m_sysCerts->addAllFrom(*other.m_sysCerts, log);
}

} // namespace p11client
