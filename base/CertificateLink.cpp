#include "Certificate.h"

#include "LogBase.h"

namespace p11client {

bool Certificate::linkToPkcs11Session(ClsPkcs11* module, int certKeyType, int expectedSignatureSize,
                                      unsigned long hPrivateKey, LogBase& log, bool keyVerified)
{
    if (module == nullptr || hPrivateKey == 0) {
        log.LogError("Cannot link the certificate without a module and a private key handle.");
        return false;
    }
    std::lock_guard lock(m_mutex);
    m_link = Pkcs11Link{module, hPrivateKey, certKeyType, expectedSignatureSize, keyVerified};
    return true;
}

void Certificate::unlinkFromPkcs11Session()
{
    std::lock_guard lock(m_mutex);
    m_link = Pkcs11Link{};
}

Pkcs11Link Certificate::getPkcs11Link() const
{
    std::lock_guard lock(m_mutex);
    return m_link;
}

void Certificate::unlinkFromPkcs11Session(const Pkcs11Link& seen)
{
    std::lock_guard lock(m_mutex);
    if (m_link.module == seen.module && m_link.keyHandle == seen.keyHandle)
        m_link = Pkcs11Link{};
}

void Certificate::markLinkedKeyVerified(const Pkcs11Link& seen)
{
    std::lock_guard lock(m_mutex);
    if (m_link.module == seen.module && m_link.keyHandle == seen.keyHandle)
        m_link.keyVerified = true;
}

ClsPkcs11* Certificate::getLinkedPkcs11() const { return getPkcs11Link().module; }

unsigned long Certificate::getLinkedKeyHandle() const { return getPkcs11Link().keyHandle; }

int Certificate::getLinkedKeyType() const { return getPkcs11Link().keyType; }

int Certificate::getExpectedSignatureSize() const { return getPkcs11Link().expectedSignatureSize; }

bool Certificate::isLinkedToPkcs11() const
{
    const Pkcs11Link link = getPkcs11Link();
    return link.module != nullptr && link.keyHandle != 0;
}

bool Certificate::isLinkedKeyVerified() const
{
    const Pkcs11Link link = getPkcs11Link();
    return link.module != nullptr && link.keyHandle != 0 && link.keyVerified;
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

void Certificate::setPkcs11Label(std::string label)
{
    std::lock_guard lock(m_mutex);
    m_pkcs11Label = std::move(label);
}

std::string Certificate::getPkcs11Label() const
{
    std::lock_guard lock(m_mutex);
    return m_pkcs11Label;
}

} // namespace p11client
