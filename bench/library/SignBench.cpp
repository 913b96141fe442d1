// Signing 1,000 SHA-256 digests on the token: through the library's SignHash
// with a linked certificate, and through a bare C_SignInit + C_Sign loop on
// the same key handle (the floor no client can beat), alternating blocks of
// each so that both see the same machine. Prints the per-signature medians.
//
//   p11bench_sign --module PATH --pin PIN --key rsa|ec [--signatures 1000]
#include "BenchCryptoki.h"
#include "Certificate.h"
#include "ClsCert.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "LogBase.h"
#include "XString.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

using namespace p11client;
using Clock = std::chrono::steady_clock;

namespace {

// The DER prefix of a SHA-256 DigestInfo, as PKCS#1 v1.5 signs it.
constexpr std::array<std::uint8_t, 19> kSha256Prefix{0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                                     0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};

double micros(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::micro>(b - a).count(); }

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// The benchmark certificate of the key type, linked to the session.
std::shared_ptr<Certificate> linkedCert(ClsPkcs11& p11, const std::string& key, ClsCert& cert)
{
    const std::string cn = key == "ec" ? "bench ec 0000" : "bench rsa 0000";
    _qxLogger log;
    if (!p11.FindCert(XString("CN"), XString(cn.c_str()), cert) || !cert.getCertificate()
        || !p11.linkCertToPkcs11Session(cert.getCertificate().get(), true, log))
        throw std::runtime_error("no linked certificate " + cn);
    return cert.getCertificate();
}

struct Timings {
    std::vector<double> library;
    std::vector<double> bare;
};

// What the token signs for a digest: a DigestInfo for RSA PKCS#1 v1.5, the
// digest itself for ECDSA.
p11bench::Bytes signingInput(bool ec, const p11bench::Bytes& digest)
{
    p11bench::Bytes input;
    input.reserve(kSha256Prefix.size() + digest.size());
    if (!ec)
        for (std::uint8_t b : kSha256Prefix)
            input.push_back(b);
    for (std::uint8_t b : digest)
        input.push_back(b);
    return input;
}

void bareSign(const p11bench::Session& s, CK_OBJECT_HANDLE key, bool ec, p11bench::Bytes& input)
{
    CK_MECHANISM mechanism{ec ? CKM_ECDSA : CKM_RSA_PKCS, nullptr, 0};
    std::array<std::uint8_t, 512> sig{};
    CK_ULONG sigLen = ec ? 64 : 256;
    p11bench::check("C_SignInit", s.functions()->C_SignInit(s.handle(), &mechanism, key));
    p11bench::check("C_Sign", s.functions()->C_Sign(s.handle(), input.data(), input.size(), sig.data(), &sigLen));
}

Timings run(ClsPkcs11& p11, const std::string& modulePath, const std::string& key, int count)
{
    ClsCert cert;
    const std::shared_ptr<Certificate> certificate = linkedCert(p11, key, cert);
    p11bench::Module module(modulePath); // the image the library loaded, already initialized
    p11bench::Session session(module.functions(), module.firstTokenSlot(), false, "");
    std::vector<p11bench::Bytes> digests(static_cast<std::size_t>(count), p11bench::Bytes(32));
    std::vector<p11bench::Bytes> inputs;
    for (p11bench::Bytes& d : digests) {
        RAND_bytes(d.data(), static_cast<int>(d.size()));
        inputs.push_back(signingInput(key == "ec", d));
    }
    Timings t;
    const XString sha256("sha256");
    constexpr int kBlock = 50;
    for (int start = 0; start < count; start += kBlock) {
        for (int i = start; i < std::min(count, start + kBlock); ++i) {
            DataBuffer digest(digests[static_cast<std::size_t>(i)].data(), 32);
            DataBuffer signature;
            const Clock::time_point a = Clock::now();
            if (!p11.SignHash(cert, sha256, digest, signature))
                throw std::runtime_error("SignHash failed");
            t.library.push_back(micros(a, Clock::now()));
        }
        for (int i = start; i < std::min(count, start + kBlock); ++i) {
            const Clock::time_point a = Clock::now();
            bareSign(session, certificate->getLinkedKeyHandle(), key == "ec", inputs[static_cast<std::size_t>(i)]);
            t.bare.push_back(micros(a, Clock::now()));
        }
    }
    return t;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        std::map<std::string, std::string> args;
        for (int i = 1; i + 1 < argc; i += 2)
            args[argv[i]] = argv[i + 1];
        const int count = args.count("--signatures") != 0 ? std::stoi(args["--signatures"]) : 1000;
        std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
        p11->put_SharedLibPath(XString(args["--module"].c_str()));
        if (!p11->QuickSession(ClsPkcs11::kUserTypeUser, XString(args["--pin"].c_str())))
            throw std::runtime_error("QuickSession failed");
        const Timings t = run(*p11, args["--module"], args["--key"], count);
        const double lib = median(t.library);
        const double bare = median(t.bare);
        std::printf("signatures=%d libraryMedianUs=%.2f bareMedianUs=%.2f overheadPercent=%.2f\n", count, lib, bare,
                    100.0 * (lib - bare) / bare);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "p11bench_sign: %s\n", e.what());
        return 1;
    }
}
