#include "KeyMaterial.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace p11bench {

namespace {

std::string keyPath(const std::string& dir, KeyKind kind, std::size_t index)
{
    char name[32];
    std::snprintf(name, sizeof name, "%s-%04zu.der", kind == KeyKind::Rsa2048 ? "rsa" : "ec", index);
    return dir + "/" + name;
}

TestKey readKey(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<unsigned char> der((std::istreambuf_iterator<char>(in)), {});
    const unsigned char* p = der.data();
    EVP_PKEY* key = d2i_AutoPrivateKey(nullptr, &p, static_cast<long>(der.size()));
    if (key == nullptr)
        throw std::runtime_error("unreadable key " + path);
    return TestKey(key, EVP_PKEY_free);
}

TestKey generateKey(KeyKind kind)
{
    return kind == KeyKind::Rsa2048 ? p11test::makeRsaKey(2048) : p11test::makeEcKey("P-256");
}

void writeKey(const std::string& path, EVP_PKEY* key)
{
    unsigned char* der = nullptr;
    const int size = i2d_PrivateKey(key, &der);
    if (size <= 0)
        throw std::runtime_error("cannot encode a key");
    const std::string partial = path + ".part";
    std::ofstream(partial, std::ios::binary).write(reinterpret_cast<const char*>(der), size);
    OPENSSL_free(der);
    fs::rename(partial, path); // a key file is complete or absent
}

} // namespace

std::vector<TestKey> loadOrMakeKeys(const std::string& cacheDir, KeyKind kind, std::size_t count)
{
    fs::create_directories(cacheDir);
    std::vector<std::size_t> missing;
    for (std::size_t i = 0; i < count; ++i)
        if (!fs::exists(keyPath(cacheDir, kind, i)))
            missing.push_back(i);
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    auto work = [&] {
        for (std::size_t k = next++; k < missing.size() && !failed; k = next++) {
            try {
                writeKey(keyPath(cacheDir, kind, missing[k]), generateKey(kind).get());
            } catch (const std::exception&) {
                failed = true;
            }
        }
    };
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < std::max(1u, std::thread::hardware_concurrency()); ++t)
        workers.emplace_back(work);
    for (std::thread& w : workers)
        w.join();
    if (failed)
        throw std::runtime_error("key generation failed");
    std::vector<TestKey> keys;
    for (std::size_t i = 0; i < count; ++i)
        keys.push_back(readKey(keyPath(cacheDir, kind, i)));
    return keys;
}

} // namespace p11bench
