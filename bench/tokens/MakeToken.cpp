// Builds a SoftHSM2 token store for the benchmarks: one token holding N RSA
// 2048 and N EC P-256 certificate and key pairs, made in one process with
// C_CreateObject from key material cached between runs.
//
//   p11bench_mktoken --store DIR --pairs N --variant id|noid --keys DIR --module PATH
//
// Variant "id": each key and its certificate share a CKA_ID (the SHA-1 of the
// public key). Variant "noid": no object has a CKA_ID; every EC key and every
// other RSA key carries the certificate's subject as CKA_SUBJECT, so RSA
// certificates pair by subject or by modulus.
#include "BenchCerts.h"
#include "BenchCryptoki.h"
#include "KeyMaterial.h"
#include "TokenObjects.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;
using namespace p11bench;

namespace {

constexpr const char* kLabel = "p11client-bench";
constexpr const char* kSoPin = "12345678";
constexpr const char* kUserPin = "1234";

struct Options {
    std::string store;
    std::string keys;
    std::string module;
    std::size_t pairs = 0;
    bool withIds = true;
};

Options parse(int argc, char** argv)
{
    std::map<std::string, std::string> args;
    for (int i = 1; i + 1 < argc; i += 2)
        args[argv[i]] = argv[i + 1];
    Options o{args["--store"], args["--keys"], args["--module"], std::stoul(args["--pairs"]), args["--variant"] != "noid"};
    if (o.store.empty() || o.keys.empty() || o.module.empty() || o.pairs == 0)
        throw std::runtime_error("usage: --store DIR --pairs N --variant id|noid --keys DIR --module PATH");
    return o;
}

void initStore(const std::string& store)
{
    fs::remove_all(store);
    fs::create_directories(store + "/tokens");
    std::ofstream(store + "/softhsm2.conf") << "directories.tokendir = " << fs::absolute(store).string() << "/tokens\n"
                                            << "objectstore.backend = file\n"
                                            << "log.level = ERROR\n";
    ::setenv("SOFTHSM2_CONF", (store + "/softhsm2.conf").c_str(), 1);
    const std::string command = std::string("softhsm2-util --init-token --free --label ") + kLabel + " --so-pin "
        + kSoPin + " --pin " + kUserPin + " >/dev/null";
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("softhsm2-util --init-token failed");
}

std::string name(const char* kind, std::size_t i)
{
    char text[48];
    std::snprintf(text, sizeof text, "bench %s %04zu", kind, i);
    return text;
}

// One certificate and its key; keyWithSubject puts CKA_SUBJECT on a key
// without CKA_ID.
void addPair(const Session& session, const BenchCa& ca, EVP_PKEY* key, const std::string& label, long serial,
             bool withIds, bool keyWithSubject)
{
    const IssuedCert cert = ca.issue(key, label, serial);
    const Bytes id = withIds ? cert.keyId : Bytes();
    createPrivateKey(session, key, {label, id, keyWithSubject && !withIds ? cert.subjectDer : Bytes()});
    createCertificate(session, {cert.der, cert.subjectDer, cert.issuerDer, cert.serialDer},
                      {label, id, cert.subjectDer});
}

void fill(const Options& o)
{
    const std::vector<Pkey> rsa = loadOrMakeKeys(o.keys, KeyKind::Rsa2048, o.pairs);
    const std::vector<Pkey> ec = loadOrMakeKeys(o.keys, KeyKind::EcP256, o.pairs);
    initStore(o.store);
    Module module(o.module);
    module.initialize();
    {
        Session session(module.functions(), module.firstTokenSlot(), true, kUserPin);
        const BenchCa ca;
        for (std::size_t i = 0; i < o.pairs; ++i) {
            const long serial = static_cast<long>(2 * i + 1);
            addPair(session, ca, rsa[i].get(), name("rsa", i), serial, o.withIds, i % 2 == 0);
            addPair(session, ca, ec[i].get(), name("ec", i), serial + 1, o.withIds, true);
        }
    }
    module.finalize();
    std::ofstream(o.store + "/READY") << "pairs=" << o.pairs << " variant=" << (o.withIds ? "id" : "noid") << "\n";
}

} // namespace

int main(int argc, char** argv)
{
    try {
        fill(parse(argc, argv));
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "p11bench_mktoken: %s\n", e.what());
        return 1;
    }
}
