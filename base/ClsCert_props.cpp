#include "ClsCert.h"

#include "Certificate.h"
#include "DataBuffer.h"
#include "XString.h"

namespace p11client {

namespace {

const char* keyTypeName(int code)
{
    switch (code) {
    case Certificate::kKeyTypeRsa: return "RSA";
    case Certificate::kKeyTypeEcdsa: return "ECDSA";
    case Certificate::kKeyTypeDsa: return "DSA";
    case Certificate::kKeyTypeEdDsa: return "EdDSA";
    default: return "other";
    }
}

} // namespace

// A property: the lock only, no log context; the text is empty when there
// is no certificate or the value cannot be had.
template <class Read>
void ClsCert::readText(XString& out, Read&& read)
{
    CritSecExitor lock(this);
    out.clear();
    if (!m_cert)
        return;
    runGuarded(m_log, [&] {
        if (!read(*m_cert, out))
            out.clear();
        return true;
    });
}

void ClsCert::get_SubjectDN(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getSubjectDN(o, m_log); });
}

void ClsCert::get_IssuerDN(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getIssuerDN(o, m_log); });
}

void ClsCert::get_SubjectCN(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getSubjectPart("CN", o, m_log); });
}

void ClsCert::get_IssuerCN(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getIssuerPart("CN", o, m_log); });
}

void ClsCert::get_SerialNumber(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getSerialNumber(o, m_log); });
}

void ClsCert::get_Sha1Thumbprint(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getSha1ThumbprintX(o, m_log); });
}

void ClsCert::get_ValidFromStr(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getValidFromStr(o, m_log); });
}

void ClsCert::get_ValidToStr(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) { return c.getValidToStr(o, m_log); });
}

void ClsCert::get_KeyType(XString& out)
{
    readText(out, [&](const Certificate& c, XString& o) {
        int bits = 0;
        o.setFromUtf8(keyTypeName(c.getCertKeyType(bits, m_log)));
        return true;
    });
}

int ClsCert::get_KeySize()
{
    CritSecExitor lock(this);
    int bits = 0;
    if (m_cert)
        runGuarded(m_log, [&] {
            m_cert->getCertKeyType(bits, m_log);
            return true;
        });
    return bits;
}

bool ClsCert::get_IsEmpty()
{
    CritSecExitor lock(this);
    return !m_cert;
}

bool ClsCert::HasPrivateKey()
{
    CritSecExitor lock(this);
    return m_cert && m_cert->hasPrivateKey(false, m_log);
}

bool ClsCert::GetSubjectPart(const XString& name, XString& out)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "GetSubjectPart");
    const bool ok = runGuarded(m_log, [&] {
        m_log.LogDataX("part", name);
        if (!m_cert) {
            m_log.LogError("No certificate.");
            return false;
        }
        return m_cert->getSubjectPart(name.getUtf8(), out, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsCert::ExportDer(DataBuffer& out)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "ExportDer");
    const bool ok = runGuarded(m_log, [&] {
        if (!m_cert) {
            m_log.LogError("No certificate.");
            return false;
        }
        return m_cert->getDer(out);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsCert::ExportPem(XString& out)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "ExportPem");
    const bool ok = runGuarded(m_log, [&] {
        if (!m_cert) {
            m_log.LogError("No certificate.");
            return false;
        }
        return m_cert->getPem(out.getUtf8Sb_rw(), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
