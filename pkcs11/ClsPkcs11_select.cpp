// Choosing one certificate of the token by a selection record.
#include "ClsPkcs11.h"

#include "Certificate.h"
#include "CertificateHolder.h"
#include "ClsCert.h"
#include "CertSelectionRecord.h"

#include <iterator>
#include <string>

namespace p11client {

namespace {

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

// In the order the rule tests them; cRLSign is tested twice on purpose.
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
