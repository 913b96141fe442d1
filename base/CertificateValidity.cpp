#include "Certificate.h"

#include "LogBase.h"
#include "OpenSslPtr.h"
#include "XString.h"

#include <array>

namespace p11client {

bool Certificate::getTime(bool notAfter, std::time_t* when, XString* text, LogBase& log) const
{
    const X509* x509 = parsedOrLog(log);
    const ASN1_TIME* t = x509 == nullptr ? nullptr : notAfter ? X509_get0_notAfter(x509) : X509_get0_notBefore(x509);
    std::tm tm{};
    if (t == nullptr || ASN1_TIME_to_tm(t, &tm) != 1) {
        log.LogError(notAfter ? "Unable to read the end of validity." : "Unable to read the start of validity.");
        return false;
    }
    if (text != nullptr) {
        std::array<char, 32> buf{};
        const std::size_t n = std::strftime(buf.data(), buf.size(), "%Y-%m-%dT%H:%M:%SZ", &tm);
        text->setFromUtf8(std::string_view(buf.data(), n));
    }
    if (when != nullptr)
        *when = timegm(&tm);
    return true;
}

bool Certificate::getValidFromStr(XString& out, LogBase& log) const { return getTime(false, nullptr, &out, log); }

bool Certificate::getValidToStr(XString& out, LogBase& log) const { return getTime(true, nullptr, &out, log); }

bool Certificate::getValidFrom(std::time_t& out, LogBase& log) const { return getTime(false, &out, nullptr, log); }

bool Certificate::getValidTo(std::time_t& out, LogBase& log) const { return getTime(true, &out, nullptr, log); }

} // namespace p11client
