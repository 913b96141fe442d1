// The floor: the least a client can do for each benchmark job, in bare
// Cryptoki. One search per object class, one C_GetAttributeValue per object
// with a template sized in advance, pairing by CKA_ID (by CKA_SUBJECT on a
// token without IDs) in hash maps. It parses no certificate, except the
// first one in the "findcert" job, to learn which key type to read.
//
//   p11floor --module PATH --pin PIN --job discover|certs|keys|findcert|pair --variant id|noid
#include "BenchCryptoki.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <array>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <unordered_map>

using namespace p11bench;

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
    void read(const Session& s, CK_OBJECT_HANDLE object)
    {
        for (std::size_t i = 0; i < tmpl.size(); ++i)
            tmpl[i].ulValueLen = buffers[i].size();
        const CK_RV rv = s.functions()->C_GetAttributeValue(s.handle(), object, tmpl.data(), tmpl.size());
        if (rv != CKR_OK && rv != CKR_ATTRIBUTE_TYPE_INVALID && rv != CKR_ATTRIBUTE_SENSITIVE)
            check("C_GetAttributeValue", rv);
    }
    std::string value(std::size_t i) const
    {
        const CK_ULONG len = tmpl[i].ulValueLen;
        if (len == CK_UNAVAILABLE_INFORMATION || len > buffers[i].size())
            return {};
        return std::string(buffers[i].begin(), buffers[i].begin() + static_cast<std::ptrdiff_t>(len));
    }
};

std::vector<CK_OBJECT_HANDLE> searchClass(const Session& s, CK_OBJECT_CLASS cls, const CK_KEY_TYPE* keyType = nullptr)
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

std::vector<CertRow> readCerts(const Session& s, bool byId)
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
std::unordered_map<std::string, CK_OBJECT_HANDLE> readKeys(const Session& s, bool byId, const CK_KEY_TYPE* type)
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

long pair(const Session& s, bool byId)
{
    const std::vector<CertRow> certs = readCerts(s, byId);
    const auto keys = readKeys(s, byId, nullptr);
    long paired = 0;
    for (const CertRow& c : certs)
        paired += keys.count(c.pairingKey) != 0 ? 1 : 0;
    return paired;
}

// The first certificate's key, among the keys of its type.
long findCert(const Session& s, bool byId)
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
long listKeys(const Session& s)
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

long discover(Module& module)
{
    CK_FUNCTION_LIST* f = module.functions();
    CK_INFO info{};
    check("C_GetInfo", f->C_GetInfo(&info));
    CK_ULONG count = 0;
    check("C_GetSlotList", f->C_GetSlotList(CK_TRUE, nullptr, &count));
    std::vector<CK_SLOT_ID> slots(count);
    check("C_GetSlotList", f->C_GetSlotList(CK_TRUE, slots.data(), &count));
    for (CK_ULONG i = 0; i < count; ++i) {
        CK_SLOT_INFO slot{};
        CK_TOKEN_INFO token{};
        check("C_GetSlotInfo", f->C_GetSlotInfo(slots[i], &slot));
        check("C_GetTokenInfo", f->C_GetTokenInfo(slots[i], &token));
    }
    return static_cast<long>(count);
}

long run(Module& module, const std::string& job, const std::string& pin, bool byId)
{
    if (job == "discover")
        return discover(module);
    Session s(module.functions(), module.firstTokenSlot(), false, pin);
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

} // namespace

int main(int argc, char** argv)
{
    try {
        std::map<std::string, std::string> args;
        for (int i = 1; i + 1 < argc; i += 2)
            args[argv[i]] = argv[i + 1];
        Module module(args["--module"]);
        module.initialize();
        const long result = run(module, args["--job"], args["--pin"], args["--variant"] != "noid");
        module.finalize();
        std::printf("%ld\n", result);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "p11floor: %s\n", e.what());
        return 1;
    }
}
