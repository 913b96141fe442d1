// The certificate cache: the token's certificates read into it, handed out,
// and one chosen by a selection record.
#include "ClsPkcs11.h"

#include "AttributeReader.h"
#include "Certificate.h"
#include "CertificateHolder.h"
#include "ClsCert.h"
#include "CertSelectionRecord.h"

#include <iterator>
#include <string>

namespace p11client {

namespace {

// The label comes along in the same call, so that a certificate named by a
// PKCS#11 URI is found in the cache without reading its value again.
constexpr CK_ATTRIBUTE_TYPE kCertAttributes[] = {CKA_VALUE, CKA_ID, CKA_LABEL};

// The part name as the rules compare it: trimmed, lower case, two aliases.
StringBuffer normalizedPartName(const StringBuffer& certPart)
{
    StringBuffer name(certPart.view());
    name.trim2();
    name.toLowerCase();
    if (name.equals("organization"))
        name.setString("o");
    else if (name.equals("email"))
        name.setString("e");
    return name;
}

struct KeyUsageWord {
    int bit;
    const char* word;
};

// In the order the rule tests them; the cRLSign bit answers to two words.
constexpr KeyUsageWord kKeyUsageWords[] = {
    {0x40, "nonrepudiation"},     {0x80, "digitalsignature"}, {0x20, "keyencipherment"},
    {0x10, "dataencipherment"},   {0x04, "certificatesigning"}, {0x02, "crlsigning"},
    {0x08, "keyagreement"},       {0x01, "encipheronly"},     {0x02, "offlinecrlsign"},
};

bool keyUsageMatches(int usage, const StringBuffer& value)
{
    for (const KeyUsageWord& k : kKeyUsageWords)
        if ((usage & k.bit) != 0 && value.containsSubstring(k.word))
            return true;
    return false;
}

bool matchesIssuerCn(const Certificate& cert, const StringBuffer& value, LogBase& log)
{
    XString serial;
    XString issuerCn;
    if (!cert.getSerialNumber(serial, log) || !cert.getIssuerPart("CN", issuerCn, log))
        return false;
    StringBuffer joined;
    joined.append3(serial.getUtf8(), ":", issuerCn.getUtf8());
    log.LogDataSb("checking", joined);
    return joined.equals(value.getString());
}

bool matchesPolicy(const Certificate& cert, const StringBuffer& value, LogBase& log)
{
    StringBuffer xml;
    if (!cert.getExtensionXml("2.5.29.32", xml, log))
        return false;
    StringBuffer oid(value.view());
    oid.trim2();
    StringBuffer wanted;
    wanted.append3("<oid>", oid.getString(), "</oid>");
    return xml.containsSubstring(wanted.getString());
}

// A getter's text compared with the value, exactly or ignoring case.
template <class Getter>
bool matchesText(Getter get, const StringBuffer& value, bool ignoreCase, LogBase& log)
{
    XString text;
    if (!get(text))
        return false;
    log.LogDataX("checking", text);
    return ignoreCase ? text.equalsIgnoreCaseUtf8(value.getString()) : text.equalsUtf8(value.getString());
}

// The match rules, the first whose key word occurs in the part name.
bool certMatches(const Certificate& cert, const StringBuffer& part, const StringBuffer& value, LogBase& log)
{
    if (part.containsSubstring("subjectdn_withtags"))
        return matchesText([&](XString& t) { return cert.getSubjectDN(t, log); }, value, false, log);
    if (part.containsSubstring("subjectdn"))
        return matchesText([&](XString& t) { return cert.getSubjectDN_noTags(t, log); }, value, false, log);
    if (part.containsSubstring("issuercn"))
        return matchesIssuerCn(cert, value, log);
    if (part.containsSubstring("serial"))
        return matchesText([&](XString& t) { return cert.getSerialNumber(t, log); }, value, true, log);
    if (part.containsSubstring("thumbprint"))
        return matchesText([&](XString& t) { return cert.getSha1ThumbprintX(t, log); }, value, true, log);
    if (part.containsSubstring("policyoid"))
        return matchesPolicy(cert, value, log);
    if (part.containsSubstring("keyusage")) {
        log.LogData("checking", "");
        return keyUsageMatches(cert.getIntendedKeyUsage(log), value);
    }
    StringBuffer attr(part.view());
    attr.toUpperCase();
    return matchesText([&](XString& t) { return cert.getSubjectPart(attr.getString(), t, log); }, value, false,
                       log);
}

void logSubject(const char* tag, const Certificate& cert, LogBase& log)
{
    XString dn;
    cert.getSubjectDN(dn, log);
    log.LogDataX(tag, dn);
}

} // namespace

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
            reportCall("C_GetAttributeValue", reader.lastRv(), log, true);
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

bool ClsPkcs11::commitCert(const std::shared_ptr<Certificate>& chosen, ClsCert& cert, LogBase& log)
{
    cert.injectCert(chosen, log);
    cert.mergeSysCerts(*this, log);
    return true;
}

// The private-key rule for one certificate: Choose, Defer, or Skip it.
ClsPkcs11::KeyRuleOutcome ClsPkcs11::applyPrivateKeyRule(Certificate& cert, bool haveCandidate, LogBase& log)
{
    LogContextExitor ctx(log, "mustHavePrivateKey");
    if (!cert.isLinkedToPkcs11()) {
        int certKeyType = 0;
        int expectedSignatureSize = 0;
        bool keyVerified = true;
        const unsigned long handle =
            findPrivKeyHandle(cert, true, certKeyType, expectedSignatureSize, keyVerified, log);
        log.LogDataBool("hasPrivateKey", handle != 0);
        if (handle != 0) {
            log.LogDataLong("expectedSignatureSize", expectedSignatureSize);
            cert.linkToPkcs11Session(this, certKeyType, expectedSignatureSize, handle, log, keyVerified);
            rememberLink(cert);
            log.LogDataBool("hasPrivateKey", cert.hasPrivateKey(false, log));
        }
    }
    if (cert.getLinkedPkcs11() == nullptr)
        return KeyRuleOutcome::Skip;
    XString issuerCn;
    cert.getIssuerPart("CN", issuerCn, log);
    if (!haveCandidate && issuerCn.getUtf8Sb().beginsWith("EC de Autentica")) {
        logSubject("candidateCert", cert, log);
        return KeyRuleOutcome::Defer;
    }
    logSubject("chosenCertDN", cert, log);
    return KeyRuleOutcome::Choose;
}

bool ClsPkcs11::findPkcs11Cert(_smartcardCertSpec& spec, ClsCert& cert, LogBase& log)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(log, "findPkcs11Cert");
    log.LogDataBool("userLoggedIn", m_userLoggedIn);
    if (!m_certsCached && !findAllCerts(log))
        return false;
    log.LogDataSb("certPart", spec.certPart);
    log.LogDataSb("certPartVal", spec.certPartVal);
    const StringBuffer part = normalizedPartName(spec.certPart);
    StringBuffer value(spec.certPartVal.view());
    if (part.equals("keyusage"))
        value.toLowerCase();

    const int count = m_certs.getSize();
    if (count < 1) {
        log.LogError("Not found.");
        return false;
    }
    std::shared_ptr<Certificate> candidate;
    for (int i = 0; i < count; ++i) {
        LogContextExitor check(log, "checkCertMatches");
        const auto* holder = static_cast<const CertificateHolder*>(m_certs.elementAt(i));
        std::shared_ptr<Certificate> certificate = holder != nullptr ? holder->getCertShared() : nullptr;
        if (!certificate)
            continue;
        if (spec.mustHavePrivateKey && part.isEmpty()) {
            const KeyRuleOutcome outcome = applyPrivateKeyRule(*certificate, candidate != nullptr, log);
            if (outcome == KeyRuleOutcome::Choose)
                return commitCert(certificate, cert, log);
            if (outcome == KeyRuleOutcome::Defer)
                candidate = certificate;
        } else if (part.isEmpty()) {
            log.LogInfo("Simply choosing the 1st encountered certificate...");
            logSubject("chosenCert", *certificate, log);
            return commitCert(certificate, cert, log);
        } else if (certMatches(*certificate, part, value, log)) {
            return commitCert(certificate, cert, log);
        }
    }
    if (candidate) {
        log.LogInfo("The candidate certificate was chosen.");
        return commitCert(candidate, cert, log);
    }
    log.LogError("Not found.");
    return false;
}

bool ClsPkcs11::FindCert(const XString& certPart, const XString& value, ClsCert& cert)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindCert_pkcs11");
    const bool ok = runGuarded(m_log, [&] {
        StringBuffer part(certPart.getUtf8Sb().view());
        part.trim2();
        _smartcardCertSpec spec;
        if (part.equalsIgnoreCase("privateKey")) {
            spec.mustHavePrivateKey = true;
        } else {
            spec.certPart.setString(part.view());
            spec.certPartVal.setString(value.getUtf8Sb().view());
        }
        return findPkcs11Cert(spec, cert, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
