// Reading the token's X.509 certificates into the cache.
#include "ClsPkcs11.h"

#include "AttributeReader.h"
#include "Certificate.h"
#include "CertificateHolder.h"

#include <string>

namespace p11client {

namespace {

// The label comes along in the same call, so that a certificate named by a
// PKCS#11 URI is found in the cache without reading its value again.
constexpr CK_ATTRIBUTE_TYPE kCertAttributes[] = {CKA_VALUE, CKA_ID, CKA_LABEL};

} // namespace

// A refill replaces the cache: the certificates read now are the token's.
bool ClsPkcs11::findAllCerts(LogBase& log)
{
    LogContextExitor ctx(log, "findAllCerts");
    CK_OBJECT_CLASS certClass = CKO_CERTIFICATE;
    CK_CERTIFICATE_TYPE certType = CKC_X_509;
    std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, &certClass, sizeof certClass},
                                   {CKA_CERTIFICATE_TYPE, &certType, sizeof certType}};
    std::vector<unsigned long> handles;
    if (!searchObjects(tmpl, handles, log))
        return false;
    clearCertCache(log);
    AttributeReader reader(kCertAttributes);
    for (unsigned long handle : handles) {
        if (!reader.read(m_dlHandle.functions(), m_hSession, handle, log)) {
            checkRv("C_GetAttributeValue", reader.lastRv(), log, true);
            continue;
        }
        const AttributeValue* value = reader.find(CKA_VALUE);
        std::shared_ptr<Certificate> cert =
            value->present ? Certificate::createDeferred(value->value.bytes(), log) : nullptr;
        if (!cert) {
            log.LogInfo("Skipping a certificate object whose value is not an X.509 certificate.");
            log.LogDataLong("objectHandle", static_cast<long>(handle));
            continue;
        }
        cert->setPkcs11ObjectHandle(handle);
        const AttributeValue* id = reader.find(CKA_ID);
        if (id->present)
            cert->setCkaId(id->value.bytes());
        if (const AttributeValue* label = reader.find(CKA_LABEL); label->present)
            cert->setPkcs11Label(std::string(label->value.bytes().begin(), label->value.bytes().end()));
        m_certs.appendObject(std::make_unique<CertificateHolder>(std::move(cert)));
    }
    m_certsCached = true;
    log.LogDataLong("numCerts", m_certs.getSize());
    return true;
}

} // namespace p11client
