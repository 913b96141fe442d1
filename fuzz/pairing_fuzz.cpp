// Fuzz target: pairing a certificate with private keys over arbitrary
// values. SoftHSM2 holds one certificate and four private keys (RSA 2048, EC
// P-256, P-384, P-521); through the shim the input chooses what they report:
// the certificate's value (one of the four real ones, a mutation, or its own
// bytes) and CKA_ID, and for each key its type, CKA_ID, CKA_SUBJECT,
// CKA_MODULUS, CKA_EC_POINT, CKA_EC_PARAMS and CKA_SIGN, each absent, the one
// of the certificate's key, a variant of it or the input's own bytes. The
// library must neither crash nor misbehave, a certificate it links must sign
// with a private key of the token, and no link outlives its session.
#include "ClsCert.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "FuzzToken.h"
#include "ShimControl.h"
#include "SoftHsmToken.h"
#include "XString.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

using namespace p11client;
using p11fuzz::Bytes;
using Value = std::optional<Bytes>;

static Bytes ownBytes(FuzzedDataProvider& in) { return in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 2048)); }

static Value choose(FuzzedDataProvider& in, const Bytes& real, const Bytes& variant) {
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0: return std::nullopt;
    case 1: return real;
    case 2: return variant;
    default: return ownBytes(in);
    }
}

// The objects' handles as they are now (SoftHSM2 numbers them anew as logins
// come and go), found past the shim by their true class and CKA_ID.
static std::vector<CK_OBJECT_HANDLE> handles(CK_OBJECT_CLASS cls, std::size_t n) {
    static p11test::CryptokiModule softhsm(shim::targetPath()); // initialized by the shim
    const p11test::TokenSession session(softhsm.functions(), p11fuzz::fuzzToken(4, 1).slot);
    std::vector<CK_OBJECT_HANDLE> out;
    for (std::uint8_t id = 1; id <= n; ++id)
        out.push_back(p11test::findObjects(session, {{CKA_CLASS, p11test::ulongValue(cls)}, {CKA_ID, {id}}}).at(0));
    return out;
}

static Bytes certificateValue(FuzzedDataProvider& in, const p11fuzz::Pair& m) {
    if (in.ConsumeBool()) return m.der;
    Bytes der = m.der;
    for (std::size_t i = in.ConsumeIntegralInRange<std::size_t>(0, 4); i > 0; --i)
        der[in.ConsumeIntegralInRange<std::size_t>(0, der.size() - 1)] ^= in.ConsumeIntegral<std::uint8_t>();
    return in.ConsumeBool() ? der : ownBytes(in);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) { return p11fuzz::fuzzToken(4, 1), 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const p11fuzz::Pair& m = p11fuzz::fuzzToken(4, 1).pairs[in.ConsumeIntegralInRange<std::size_t>(0, 3)];
    shim::reset();
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(shim::modulePath().c_str()));
    if (!p11->QuickSession(1, XString(p11test::SoftHsmToken::kUserPin))) std::abort();
    const CK_OBJECT_HANDLE cert = handles(CKO_CERTIFICATE, 1)[0];
    const std::vector<CK_OBJECT_HANDLE> keys = handles(CKO_PRIVATE_KEY, 4);
    const Bytes certId = in.ConsumeBool() ? Bytes{0x01} : ownBytes(in);
    shim::overrideAttribute(cert, CKA_VALUE, certificateValue(in, m));
    shim::overrideAttribute(cert, CKA_ID, certId.empty() ? Value{} : certId);
    for (CK_OBJECT_HANDLE key : keys) {
        const bool rsa = in.ConsumeBool() ? m.rsa : !m.rsa;
        const auto set = [&](CK_ATTRIBUTE_TYPE type, Value value) { shim::overrideAttribute(key, type, std::move(value)); };
        set(CKA_KEY_TYPE, p11test::ulongValue(rsa ? CKK_RSA : CKK_EC));
        set(CKA_ID, choose(in, certId, Bytes{0x01}));
        set(CKA_SUBJECT, choose(in, m.subject, Bytes(m.subject.begin(), m.subject.end() - 1)));
        Bytes withZero = m.modulus;
        withZero.insert(withZero.begin(), 0x00);
        set(CKA_MODULUS, rsa ? choose(in, m.modulus, withZero) : Value{});
        set(CKA_EC_POINT, rsa ? Value{} : choose(in, p11test::ecPointValue(m.key.get()), m.point)); // DER-wrapped or raw
        set(CKA_EC_PARAMS, rsa ? Value{} : choose(in, m.curve, Bytes{0x06, 0x00}));
        const int sign = in.ConsumeIntegralInRange(0, 2);
        set(CKA_SIGN, sign == 2 ? Value{} : Bytes{static_cast<std::uint8_t>(sign)});
    }
    ClsCert chosen;
    if (p11->FindCert(XString("privateKey"), XString(""), chosen)) {
        if (!chosen.HasPrivateKey()) std::abort();
        DataBuffer digest, signature;
        digest.resize(32);
        p11->SignHash(chosen, XString("sha256"), digest, signature);
        for (const shim::Call& c : shim::calls())
            if (c.function == "C_SignInit" && std::find(keys.begin(), keys.end(), c.object) == keys.end())
                std::abort(); // it signed with something that is no private key of the token
    }
    p11.reset();
    if (chosen.HasPrivateKey())
        std::abort(); // a link that outlived its session
    return 0;
}
