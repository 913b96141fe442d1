#include "ClsCert.h"

#include "Certificate.h"
#include "DataBuffer.h"
#include "XString.h"

#include <fstream>
#include <new>

namespace p11client {

namespace {

// PEM text of a certificate is at most about 4/3 of its DER plus line breaks.
constexpr std::size_t kMaxFileSize = 4 * Certificate::kMaxDerSize;

bool readSmallFile(const char* path, DataBuffer& out, LogBase& log)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) {
        log.LogError("Unable to open the file.");
        return false;
    }
    const std::streamoff size = in.tellg();
    if (size <= 0 || static_cast<std::size_t>(size) > kMaxFileSize) {
        log.LogError("The file is empty or too large to be a certificate.");
        log.LogDataLong("fileSize", static_cast<long>(size));
        return false;
    }
    out.resize(static_cast<std::size_t>(size));
    in.seekg(0);
    if (!in.read(reinterpret_cast<char*>(out.getData()), size)) {
        log.LogError("Unable to read the file.");
        return false;
    }
    return true;
}

} // namespace

ClsCert::ClsCert() = default;
ClsCert::~ClsCert() = default;

ClsCert* ClsCert::createNewCls() { return new (std::nothrow) ClsCert(); }

bool ClsCert::injectCert(std::shared_ptr<Certificate> cert, LogBase& log)
{
    CritSecExitor lock(this);
    if (!cert) {
        log.LogError("No certificate to inject.");
        return false;
    }
    m_cert = std::move(cert);
    return true;
}

bool ClsCert::injectCert(Certificate* cert, LogBase& log)
{
    if (cert == nullptr) {
        log.LogError("No certificate to inject.");
        return false;
    }
    std::shared_ptr<Certificate> shared = cert->weak_from_this().lock();
    if (!shared) {
        log.LogError("The certificate has no shared owner.");
        return false;
    }
    return injectCert(std::move(shared), log);
}

std::shared_ptr<Certificate> ClsCert::getCertificate()
{
    CritSecExitor lock(this);
    return m_cert;
}

bool ClsCert::loadBytes(const DataBuffer& bytes, bool pemOnly, LogBase& log)
{
    const std::string_view text(reinterpret_cast<const char*>(bytes.getData()), bytes.getSize());
    std::shared_ptr<Certificate> cert =
        pemOnly ? Certificate::createFromPem(text, log) : Certificate::createFromBytes(bytes.bytes(), log);
    return cert && injectCert(std::move(cert), log);
}

bool ClsCert::LoadFromFile(const XString& path)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "LoadFromFile");
    const bool ok = runGuarded(m_log, [&] {
        m_log.LogDataX("path", path);
        DataBuffer bytes;
        return readSmallFile(path.getUtf8(), bytes, m_log) && loadBytes(bytes, false, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsCert::LoadFromDer(const DataBuffer& der)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "LoadFromDer");
    const bool ok = runGuarded(m_log, [&] {
        std::shared_ptr<Certificate> cert = Certificate::createFromDer(der.bytes(), m_log);
        return cert && injectCert(std::move(cert), m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsCert::LoadPem(const XString& pem)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "LoadPem");
    const bool ok = runGuarded(m_log, [&] {
        const StringBuffer& sb = pem.getUtf8Sb();
        return loadBytes(DataBuffer(sb.getString(), sb.getSize()), true, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
