#include "Certificate.h"

#include "LogBase.h"

namespace p11client {

bool Certificate::linkToPkcs11Session(ClsPkcs11* module, int certKeyType, int expectedSignatureSize,
                                      unsigned long hPrivateKey, LogBase& log)
{
    if (module == nullptr || hPrivateKey == 0) {
        log.LogError("Cannot link the certificate without a module and a private key handle.");
        return false;
    }
    std::lock_guard lock(m_mutex);
    m_linkedPkcs11 = module;
    m_linkedKeyHandle = hPrivateKey;
    m_linkedKeyType = certKeyType;
    m_expectedSignatureSize = expectedSignatureSize;
    return true;
}

void Certificate::unlinkFromPkcs11Session()
{
    std::lock_guard lock(m_mutex);
    m_linkedPkcs11 = nullptr;
    m_linkedKeyHandle = 0;
    m_linkedKeyType = 0;
    m_expectedSignatureSize = 0;
}

ClsPkcs11* Certificate::getLinkedPkcs11() const
{
    std::lock_guard lock(m_mutex);
    return m_linkedPkcs11;
}

unsigned long Certificate::getLinkedKeyHandle() const
{
    std::lock_guard lock(m_mutex);
    return m_linkedKeyHandle;
}

int Certificate::getLinkedKeyType() const
{
    std::lock_guard lock(m_mutex);
    return m_linkedKeyType;
}

int Certificate::getExpectedSignatureSize() const
{
    std::lock_guard lock(m_mutex);
    return m_expectedSignatureSize;
}

bool Certificate::isLinkedToPkcs11() const
{
    std::lock_guard lock(m_mutex);
    return m_linkedPkcs11 != nullptr && m_linkedKeyHandle != 0;
}

bool Certificate::hasPrivateKey(bool, LogBase&) const { return isLinkedToPkcs11(); }

void Certificate::setPkcs11ObjectHandle(unsigned long handle)
{
    std::lock_guard lock(m_mutex);
    m_pkcs11ObjectHandle = handle;
}

unsigned long Certificate::getPkcs11ObjectHandle() const
{
    std::lock_guard lock(m_mutex);
    return m_pkcs11ObjectHandle;
}

void Certificate::setCkaId(std::span<const std::uint8_t> id)
{
    std::lock_guard lock(m_mutex);
    m_ckaId.clear();
    m_ckaId.append(id.data(), id.size());
}

void Certificate::getCkaId(DataBuffer& out) const
{
    std::lock_guard lock(m_mutex);
    out.clear();
    out.append(m_ckaId);
}

bool Certificate::hasCkaId() const
{
    std::lock_guard lock(m_mutex);
    return !m_ckaId.isEmpty();
}

} // namespace p11client
