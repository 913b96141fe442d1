// Fuzz target: pairing certificates with private keys over arbitrary values.
// The input chooses a certificate (one of the real ones, or its own bytes as
// the certificate value), its CKA_ID, and up to four private keys whose
// CKA_ID, CKA_SUBJECT, CKA_MODULUS, CKA_EC_POINT, CKA_EC_PARAMS and CKA_SIGN
// are each absent, the real one, a variant of it or the input's own bytes.
// The module is honest; the library must neither crash nor misbehave, and a
// certificate it links must name a private key of the token.
#include "ClsCert.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "FuzzTokenMaterial.h"
#include "MockControl.h"
#include "XString.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <set>

namespace {

using namespace p11client;
using p11fuzz::Bytes;
using p11fuzz::TokenMaterial;

constexpr CK_SLOT_ID kSlot = 1;
constexpr std::size_t kMaxValue = 2048;

Bytes ownBytes(FuzzedDataProvider& in) { return in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, kMaxValue)); }

// One attribute value: absent (empty), the real one, a variant, or the input's bytes.
Bytes choose(FuzzedDataProvider& in, const Bytes& real, const Bytes& variant)
{
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0: return {};
    case 1: return real;
    case 2: return variant;
    default: return ownBytes(in);
    }
}

Bytes withLeadingZero(Bytes b)
{
    b.insert(b.begin(), 0x00);
    return b;
}

Bytes certificateValue(FuzzedDataProvider& in, const TokenMaterial& m)
{
    if (in.ConsumeBool())
        return m.certDer;
    Bytes der = m.certDer;
    const std::size_t flips = in.ConsumeIntegralInRange<std::size_t>(0, 4);
    for (std::size_t i = 0; i < flips && !der.empty(); ++i)
        der[in.ConsumeIntegralInRange<std::size_t>(0, der.size() - 1)] ^= in.ConsumeIntegral<std::uint8_t>();
    return in.ConsumeBool() ? der : ownBytes(in);
}

std::vector<mock::Attribute> keyAttributes(FuzzedDataProvider& in, const TokenMaterial& m, const Bytes& certId)
{
    std::vector<mock::Attribute> key{mock::ulongAttr(CKA_CLASS, CKO_PRIVATE_KEY)};
    const bool rsa = in.ConsumeBool() ? m.rsa : !m.rsa;
    key.push_back(mock::ulongAttr(CKA_KEY_TYPE, rsa ? CKK_RSA : CKK_EC));
    const auto add = [&](CK_ATTRIBUTE_TYPE type, Bytes value) {
        if (!value.empty() || in.ConsumeBool())
            key.push_back(mock::bytesAttr(type, std::move(value)));
    };
    add(CKA_ID, choose(in, certId, Bytes{0x01}));
    add(CKA_SUBJECT, choose(in, m.subjectDer, Bytes(m.subjectDer.begin(), m.subjectDer.end() - 1)));
    if (rsa) {
        add(CKA_MODULUS, choose(in, m.modulus, withLeadingZero(m.modulus)));
    } else {
        add(CKA_EC_POINT, choose(in, p11fuzz::derOctetString(m.ecPoint), m.ecPoint));
        add(CKA_EC_PARAMS, choose(in, m.ecParams, Bytes{0x06, 0x00}));
    }
    const int sign = in.ConsumeIntegralInRange(0, 2);
    if (sign != 2)
        key.push_back(mock::boolAttr(CKA_SIGN, sign == 1));
    return key;
}

std::unique_ptr<ClsPkcs11> loggedIn()
{
    std::unique_ptr<ClsPkcs11> p11(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(mock::modulePath().c_str()));
    if (!p11->QuickSession(1, XString("1234")))
        std::abort();
    return p11;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    p11fuzz::tokenMaterial();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const auto& all = p11fuzz::tokenMaterial();
    const TokenMaterial& m = all[in.ConsumeIntegralInRange<std::size_t>(0, all.size() - 1)];
    mock::reset();
    mock::addSlot(kSlot, mock::SlotSpec{});
    const Bytes certId = in.ConsumeBool() ? Bytes{0x01} : ownBytes(in);
    std::vector<mock::Attribute> cert{mock::ulongAttr(CKA_CLASS, CKO_CERTIFICATE),
                                      mock::ulongAttr(CKA_CERTIFICATE_TYPE, CKC_X_509),
                                      mock::bytesAttr(CKA_VALUE, certificateValue(in, m))};
    if (!certId.empty())
        cert.push_back(mock::bytesAttr(CKA_ID, certId));
    mock::addObject(kSlot, cert);
    std::set<CK_OBJECT_HANDLE> keys;
    const int keyCount = in.ConsumeIntegralInRange(0, 4);
    for (int i = 0; i < keyCount; ++i)
        keys.insert(mock::addObject(kSlot, keyAttributes(in, m, certId)));

    std::unique_ptr<ClsPkcs11> p11 = loggedIn();
    ClsCert chosen;
    if (p11->FindCert(XString("privateKey"), XString(""), chosen)) {
        if (!chosen.HasPrivateKey())
            std::abort();
        DataBuffer digest, signature;
        digest.resize(32);
        p11->SignHash(chosen, XString("sha256"), digest, signature);
        if (mock::lastSignature() && keys.count(mock::lastSignature()->key) == 0)
            std::abort(); // it signed with something that is no private key of the token
    }
    p11.reset();
    if (chosen.HasPrivateKey())
        std::abort(); // a link that outlived its session
    return 0;
}
