// Signing 1,000 SHA-256 digests on the token: through the library's SignHash
// with a linked certificate, and through a bare C_SignInit + C_Sign loop on
// the same key handle (the floor no client can beat), alternating blocks of
// each so that both see the same machine. Prints the per-signature medians.
//
//   p11bench_sign --module PATH --pin PIN --key rsa|ec [--signatures 1000]
#include "BenchProgram.h"
#include "Certificate.h"
#include "ClsCert.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "LogBase.h"
#include "SoftHsmObjects.h"
#include "TokenSignature.h"
#include "XString.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

using namespace p11client;
using p11test::Bytes;
using Clock = std::chrono::steady_clock;

namespace {

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

void bareSign(const p11test::TokenSession& s, CK_OBJECT_HANDLE key, bool ec, Bytes& input)
{
    CK_MECHANISM mechanism{ec ? CKM_ECDSA : CKM_RSA_PKCS, nullptr, 0};
    std::array<std::uint8_t, 512> sig{};
    CK_ULONG sigLen = ec ? 64 : 256;
    p11test::checkCk("C_SignInit", s.functions()->C_SignInit(s.handle(), &mechanism, key));
    p11test::checkCk("C_Sign", s.functions()->C_Sign(s.handle(), input.data(), input.size(), sig.data(), &sigLen));
}

Timings run(ClsPkcs11& p11, const std::string& modulePath, const std::string& key, int count)
{
    ClsCert cert;
    const std::shared_ptr<Certificate> certificate = linkedCert(p11, key, cert);
    p11test::CryptokiModule module(modulePath); // the image the library loaded, already initialized
    p11test::TokenSession session(module.functions(), module.firstTokenSlot(), nullptr,
                                  p11test::TokenSession::Access::ReadOnly);
    std::vector<Bytes> digests(static_cast<std::size_t>(count), Bytes(32));
    std::vector<Bytes> inputs;
    for (Bytes& d : digests) {
        RAND_bytes(d.data(), static_cast<int>(d.size()));
        inputs.push_back(p11test::signingInput(key == "ec", d));
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
    return p11bench::runTool("p11bench_sign", argc, argv, [](p11bench::Args& args) {
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
    });
}
