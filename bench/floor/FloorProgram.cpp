// The floor: the least a client can do for each benchmark job, in bare
// Cryptoki. One search per object class, one C_GetAttributeValue per object
// with a template sized in advance, pairing by CKA_ID (by CKA_SUBJECT on a
// token without IDs) in hash maps. It parses no certificate, except the
// first one in the "findcert" job, to learn which key type to read.
//
//   p11floor --module PATH --pin PIN --job discover|certs|keys|findcert|pair --variant id|noid
#include "BenchProgram.h"
#include "SoftHsmObjects.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <unordered_map>

using p11test::Bytes;
using p11test::checkCk;
using p11test::CryptokiModule;
using p11test::TokenSession;
using Clock = std::chrono::steady_clock;

namespace {

// One object's attributes, read with buffers of fixed size.
struct Reading {
    std::vector<CK_ATTRIBUTE> tmpl;
    std::vector<Bytes> buffers;

    Reading(std::initializer_list<std::pair<CK_ATTRIBUTE_TYPE, std::size_t>> attrs)
    {
        buffers.reserve(attrs.size());
        for (const auto& [type, size] : attrs) {
            buffers.emplace_back(size);
            tmpl.push_back({type, buffers.back().data(), size});
        }
    }
    // Reads the object; attributes it lacks come back unavailable.
    void read(const TokenSession& s, CK_OBJECT_HANDLE object)
    {
        for (std::size_t i = 0; i < tmpl.size(); ++i)
            tmpl[i].ulValueLen = buffers[i].size();
        const CK_RV rv = s.functions()->C_GetAttributeValue(s.handle(), object, tmpl.data(), tmpl.size());
        if (rv != CKR_OK && rv != CKR_ATTRIBUTE_TYPE_INVALID && rv != CKR_ATTRIBUTE_SENSITIVE)
            checkCk("C_GetAttributeValue", rv);
    }
    std::string value(std::size_t i) const
    {
        const CK_ULONG len = tmpl[i].ulValueLen;
        if (len == CK_UNAVAILABLE_INFORMATION || len > buffers[i].size())
            return {};
        return std::string(buffers[i].begin(), buffers[i].begin() + static_cast<std::ptrdiff_t>(len));
    }
};

// Every object matching the template, fetched in batches of 512.
std::vector<CK_OBJECT_HANDLE> findAll(const TokenSession& session, std::vector<CK_ATTRIBUTE> tmpl)
{
    CK_FUNCTION_LIST* f = session.functions();
    checkCk("C_FindObjectsInit", f->C_FindObjectsInit(session.handle(), tmpl.data(), tmpl.size()));
    std::vector<CK_OBJECT_HANDLE> found;
    CK_OBJECT_HANDLE batch[512];
    for (;;) {
        CK_ULONG count = 0;
        const CK_RV rv = f->C_FindObjects(session.handle(), batch, 512, &count);
        if (rv != CKR_OK) {
            f->C_FindObjectsFinal(session.handle());
            checkCk("C_FindObjects", rv);
        }
        if (count == 0)
            break;
        found.insert(found.end(), batch, batch + count);
    }
    checkCk("C_FindObjectsFinal", f->C_FindObjectsFinal(session.handle()));
    return found;
}

std::vector<CK_OBJECT_HANDLE> searchClass(const TokenSession& s, CK_OBJECT_CLASS cls,
                                          const CK_KEY_TYPE* keyType = nullptr)
{
    std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, &cls, sizeof cls}};
    CK_KEY_TYPE type = keyType != nullptr ? *keyType : 0;
    if (keyType != nullptr)
        tmpl.push_back({CKA_KEY_TYPE, &type, sizeof type});
    return findAll(s, tmpl);
}

// Certificates: value, ID and (to pair without IDs) subject.
struct CertRow {
    CK_OBJECT_HANDLE handle;
    std::string der;
    std::string pairingKey;
};

std::vector<CertRow> readCerts(const TokenSession& s, bool byId)
{
    std::vector<CertRow> rows;
    Reading r({{CKA_VALUE, 4096}, {byId ? CKA_ID : CKA_SUBJECT, byId ? 64u : 520u}});
    for (CK_OBJECT_HANDLE h : searchClass(s, CKO_CERTIFICATE)) {
        r.read(s, h);
        rows.push_back({h, r.value(0), r.value(1)});
    }
    return rows;
}

// Keys by CKA_ID (or subject); the first key of a value wins, as a scan would.
std::unordered_map<std::string, CK_OBJECT_HANDLE> readKeys(const TokenSession& s, bool byId, const CK_KEY_TYPE* type)
{
    std::unordered_map<std::string, CK_OBJECT_HANDLE> keys;
    Reading r({{byId ? CKA_ID : CKA_SUBJECT, byId ? 64u : 520u}, {CKA_SIGN, sizeof(CK_BBOOL)}});
    for (CK_OBJECT_HANDLE h : searchClass(s, CKO_PRIVATE_KEY, type)) {
        r.read(s, h);
        const std::string v = r.value(0);
        if (!v.empty())
            keys.emplace(v, h);
    }
    return keys;
}

long pair(const TokenSession& s, bool byId)
{
    const std::vector<CertRow> certs = readCerts(s, byId);
    const auto keys = readKeys(s, byId, nullptr);
    long paired = 0;
    for (const CertRow& c : certs)
        paired += keys.count(c.pairingKey) != 0 ? 1 : 0;
    return paired;
}

// The first certificate's key, among the keys of its type.
long findCert(const TokenSession& s, bool byId)
{
    const std::vector<CertRow> certs = readCerts(s, byId);
    if (certs.empty())
        return 0;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(certs[0].der.data());
    X509* x = d2i_X509(nullptr, &p, static_cast<long>(certs[0].der.size()));
    const CK_KEY_TYPE type = x != nullptr && EVP_PKEY_get_base_id(X509_get0_pubkey(x)) == EVP_PKEY_EC ? CKK_EC : CKK_RSA;
    X509_free(x);
    const auto keys = readKeys(s, byId, &type);
    return keys.count(certs[0].pairingKey) != 0 ? 1 : 0;
}

// What FindAllKeys reports of each key, in one template.
long listKeys(const TokenSession& s)
{
    Reading r({{CKA_LABEL, 128}, {CKA_ID, 64}, {CKA_KEY_TYPE, sizeof(CK_ULONG)}, {CKA_MODULUS, 520},
               {CKA_EC_PARAMS, 64}, {CKA_SIGN, 1}, {CKA_SIGN_RECOVER, 1}, {CKA_DECRYPT, 1}, {CKA_UNWRAP, 1},
               {CKA_DERIVE, 1}, {CKA_ALWAYS_AUTHENTICATE, 1}, {CKA_SENSITIVE, 1}, {CKA_EXTRACTABLE, 1},
               {CKA_PRIVATE, 1}});
    long n = 0;
    for (CK_OBJECT_HANDLE h : searchClass(s, CKO_PRIVATE_KEY)) {
        r.read(s, h);
        ++n;
    }
    return n;
}

long discover(CryptokiModule& module)
{
    CK_FUNCTION_LIST* f = module.functions();
    CK_INFO info{};
    checkCk("C_GetInfo", f->C_GetInfo(&info));
    const std::vector<CK_SLOT_ID> slots = module.tokenSlots();
    for (CK_SLOT_ID id : slots) {
        CK_SLOT_INFO slot{};
        CK_TOKEN_INFO token{};
        checkCk("C_GetSlotInfo", f->C_GetSlotInfo(id, &slot));
        checkCk("C_GetTokenInfo", f->C_GetTokenInfo(id, &token));
    }
    return static_cast<long>(slots.size());
}

long runJob(TokenSession& s, const std::string& job, bool byId)
{
    if (job == "certs")
        return static_cast<long>(readCerts(s, true).size());
    if (job == "keys")
        return listKeys(s);
    if (job == "findcert")
        return findCert(s, byId);
    if (job == "pair")
        return pair(s, byId);
    throw std::runtime_error("unknown job " + job);
}

// The job's result and the seconds of the job alone: after the login, before
// the session closes (the whole job when it needs no session).
std::pair<long, double> run(CryptokiModule& module, const std::string& job, const std::string& pin, bool byId)
{
    Clock::time_point start = Clock::now();
    const auto seconds = [&start] { return std::chrono::duration<double>(Clock::now() - start).count(); };
    if (job == "discover") {
        const long slots = discover(module);
        return {slots, seconds()};
    }
    TokenSession s(module.functions(), module.firstTokenSlot(), pin.empty() ? nullptr : pin.c_str(),
                   TokenSession::Access::ReadOnly);
    start = Clock::now();
    const long result = runJob(s, job, byId);
    return {result, seconds()};
}

} // namespace

int main(int argc, char** argv)
{
    return p11bench::runTool("p11floor", argc, argv, [](p11bench::Args& args) {
        CryptokiModule module(args["--module"]);
        module.initialize();
        const auto [result, jobAlone] = run(module, args["--job"], args["--pin"], args["--variant"] != "noid");
        module.finalize();
        std::printf("%ld jobAloneSeconds=%.6f\n", result, jobAlone);
        return 0;
    });
}
