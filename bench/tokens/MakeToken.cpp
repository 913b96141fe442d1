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
#include "BenchProgram.h"
#include "KeyMaterial.h"
#include "SoftHsmObjects.h"
#include "SoftHsmToken.h"

#include <openssl/sha.h>
#include <openssl/x509.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;
using namespace p11test;

namespace {

constexpr const char* kLabel = "p11client-bench";

struct Options {
    std::string store;
    std::string keys;
    std::string module;
    std::size_t pairs = 0;
    bool withIds = true;
};

Options parse(p11bench::Args& args)
{
    Options o{args["--store"], args["--keys"], args["--module"], std::stoul(args["--pairs"]), args["--variant"] != "noid"};
    if (o.store.empty() || o.keys.empty() || o.module.empty() || o.pairs == 0)
        throw std::runtime_error("usage: --store DIR --pairs N --variant id|noid --keys DIR --module PATH");
    return o;
}

// Certificates issued by a throwaway P-256 CA, with the extensions an
// end-entity signing certificate usually carries.
class BenchCa {
public:
    BenchCa() : m_key(makeEcKey("P-256")) {}

    // serial must be unique.
    Bytes issue(const TestKey& key, const std::string& commonName, long serial) const
    {
        CertSpec spec;
        spec.key = key;
        spec.subject = {{"C", "FR"}, {"O", "p11client bench"}, {"OU", "Signing"}, {"CN", commonName}};
        spec.serial = {static_cast<std::uint8_t>(serial >> 16), static_cast<std::uint8_t>(serial >> 8),
                       static_cast<std::uint8_t>(serial)};
        spec.keyUsage = "critical,digitalSignature,nonRepudiation";
        spec.extensions = {{"basicConstraints", "critical,CA:FALSE"}, {"extendedKeyUsage", "clientAuth,emailProtection"}};
        spec.validDays = 10 * 365;
        spec.issuerKey = m_key;
        spec.issuer = {{"O", "p11client bench"}, {"CN", "p11client bench CA"}};
        return makeCertDer(spec);
    }

private:
    TestKey m_key;
};

// The CKA_ID tools give a key pair: the SHA-1 of the public key's DER.
Bytes publicKeyId(EVP_PKEY* key)
{
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(key, &der);
    if (size <= 0)
        throw std::runtime_error("cannot encode a public key");
    Bytes id(SHA_DIGEST_LENGTH);
    SHA1(der, static_cast<std::size_t>(size), id.data());
    OPENSSL_free(der);
    return id;
}

std::string name(const char* kind, std::size_t i)
{
    char text[48];
    std::snprintf(text, sizeof text, "bench %s %04zu", kind, i);
    return text;
}

// One certificate and its key; keyWithSubject puts CKA_SUBJECT on a key
// without CKA_ID.
void addPair(const TokenSession& session, const BenchCa& ca, const TestKey& key, const std::string& label,
             long serial, bool withIds, bool keyWithSubject)
{
    const Bytes der = ca.issue(key, label, serial);
    const Bytes id = withIds ? publicKeyId(key.get()) : Bytes();
    importPrivateKey(session, key.get(), {label, id, keyWithSubject && !withIds ? subjectDerOf(der) : Bytes()});
    importCertificate(session, der, {label, id});
}

void fill(const Options& o)
{
    const std::vector<TestKey> rsa = p11bench::loadOrMakeKeys(o.keys, p11bench::KeyKind::Rsa2048, o.pairs);
    const std::vector<TestKey> ec = p11bench::loadOrMakeKeys(o.keys, p11bench::KeyKind::EcP256, o.pairs);
    fs::remove_all(o.store);
    fs::create_directories(o.store);
    SoftHsmToken::makeStore(o.store);
    SoftHsmToken::initToken(kLabel);
    CryptokiModule module(o.module);
    module.initialize();
    {
        TokenSession session(module.functions(), module.firstTokenSlot(), SoftHsmToken::kUserPin);
        const BenchCa ca;
        for (std::size_t i = 0; i < o.pairs; ++i) {
            const long serial = static_cast<long>(2 * i + 1);
            addPair(session, ca, rsa[i], name("rsa", i), serial, o.withIds, i % 2 == 0);
            addPair(session, ca, ec[i], name("ec", i), serial + 1, o.withIds, true);
        }
    }
    module.finalize();
    std::ofstream(o.store + "/READY") << "pairs=" << o.pairs << " variant=" << (o.withIds ? "id" : "noid") << "\n";
}

} // namespace

int main(int argc, char** argv)
{
    return p11bench::runTool("p11bench_mktoken", argc, argv, [](p11bench::Args& args) {
        fill(parse(args));
        return 0;
    });
}
