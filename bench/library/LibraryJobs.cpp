// The benchmark jobs through the library's public API, one job per process:
//
//   p11bench_lib --module PATH --pin PIN --job discover|certs|keys|findcert|pair [--parse-share 1]
//
// discover  Discover(true, json)
// certs     QuickSession, FindAllCerts
// keys      QuickSession, FindAllKeys("")
// findcert  QuickSession, FindCert("privateKey")
// pair      QuickSession, FindAllCerts, then every certificate linked to its
//           private key (GetCert, linkCertToPkcs11Session), as `p11client certs`
//
// Prints the job's result count. With --parse-share, also the seconds the job
// took in the process, the seconds of its certificate work (outline, key type,
// EC point) and the seconds that parsing every certificate with d2i_X509
// would add, which the cache no longer spends.
#include "BenchProgram.h"
#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "LogBase.h"
#include "XString.h"

#include <openssl/x509.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

using namespace p11client;

namespace {

using Clock = std::chrono::steady_clock;

void require(ClsPkcs11& p11, bool ok, const char* what)
{
    if (ok)
        return;
    XString log;
    p11.get_LogText(log);
    throw std::runtime_error(std::string(what) + " failed:\n" + log.getUtf8());
}

long pairAll(ClsPkcs11& p11)
{
    require(p11, p11.FindAllCerts(), "FindAllCerts");
    long paired = 0;
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        ClsCert cert;
        require(p11, p11.GetCert(i, cert), "GetCert");
        const std::shared_ptr<Certificate> certificate = cert.getCertificate();
        _qxLogger log;
        paired += certificate && p11.linkCertToPkcs11Session(certificate.get(), false, log) ? 1 : 0;
    }
    return paired;
}

// Set when the job itself begins: after the login, or at the start of a job without one.
Clock::time_point jobStart;

long runJob(ClsPkcs11& p11, const std::string& job, const std::string& pin)
{
    jobStart = Clock::now();
    if (job == "discover") {
        ClsJsonObject json;
        require(p11, p11.Discover(true, json), "Discover");
        return json.SizeOfArray(XString("slots"));
    }
    require(p11, p11.QuickSession(ClsPkcs11::kUserTypeUser, XString(pin.c_str())), "QuickSession");
    jobStart = Clock::now();
    if (job == "certs") {
        require(p11, p11.FindAllCerts(), "FindAllCerts");
        return p11.get_NumCerts();
    }
    if (job == "keys") {
        ClsJsonObject json;
        require(p11, p11.FindAllKeys(XString(""), json), "FindAllKeys");
        return json.SizeOfArray(XString("keys"));
    }
    if (job == "findcert") {
        ClsCert cert;
        require(p11, p11.FindCert(XString("privateKey"), XString(""), cert), "FindCert");
        return cert.HasPrivateKey() ? 1 : 0;
    }
    if (job == "pair")
        return pairAll(p11);
    throw std::runtime_error("unknown job " + job);
}

std::vector<DataBuffer> cachedDers(ClsPkcs11& p11)
{
    std::vector<DataBuffer> ders;
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        ClsCert cert;
        DataBuffer der;
        if (p11.GetCert(i, cert) && cert.getCertificate() && cert.getCertificate()->getDer(der))
            ders.push_back(std::move(der));
    }
    return ders;
}

// Seconds of the certificate work the pairing does, on fresh copies of the
// cached certificates: the outline check of the cache fill, the key type and
// size, and the EC point.
double certWorkSeconds(const std::vector<DataBuffer>& ders)
{
    LogNull log;
    const Clock::time_point start = Clock::now();
    for (const DataBuffer& der : ders) {
        const std::shared_ptr<Certificate> cert = Certificate::createDeferred(der.bytes(), log);
        int bits = 0;
        DataBuffer point;
        if (cert && cert->getCertKeyType(bits, log) == Certificate::kKeyTypeEcdsa)
            cert->getEcPublicPoint(point, log);
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Seconds to parse every certificate once with d2i_X509, as a cache that
// parsed at fill time would.
double fullParseSeconds(const std::vector<DataBuffer>& ders)
{
    const Clock::time_point start = Clock::now();
    for (const DataBuffer& der : ders) {
        const unsigned char* p = der.getData();
        X509_free(d2i_X509(nullptr, &p, static_cast<long>(der.getSize())));
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv)
{
    return p11bench::runTool("p11bench_lib", argc, argv, [](p11bench::Args& args) {
        std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
        if (!p11)
            throw std::runtime_error("no module object");
        p11->put_SharedLibPath(XString(args["--module"].c_str()));
        const Clock::time_point start = Clock::now();
        const long result = runJob(*p11, args["--job"], args["--pin"]);
        const Clock::time_point end = Clock::now();
        const double jobSeconds = std::chrono::duration<double>(end - start).count();
        std::printf("%ld jobAloneSeconds=%.6f", result, std::chrono::duration<double>(end - jobStart).count());
        if (args.count("--parse-share") != 0) {
            const std::vector<DataBuffer> ders = cachedDers(*p11);
            std::printf(" jobSeconds=%.6f certWorkSeconds=%.6f fullParseSeconds=%.6f", jobSeconds, certWorkSeconds(ders),
                        fullParseSeconds(ders));
        }
        std::printf("\n");
        return 0;
    });
}
