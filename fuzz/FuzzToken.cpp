#include "FuzzToken.h"

#include "ShimControl.h"
#include "SoftHsmToken.h"

#include <openssl/core_names.h>

namespace p11fuzz {

using namespace p11test;

const FuzzToken& fuzzToken(std::size_t keys, std::size_t certs) {
    static FuzzToken token;
    if (!token.pairs.empty()) return token;
    static const SoftHsmToken store; // removed with the process
    static CryptokiModule keeper(shim::modulePath(shim::Image::specialDriver));
    keeper.initialize();
    token.slot = keeper.slotOfToken(SoftHsmToken::kLabel);
    TokenSession session(keeper.functions(), token.slot, SoftHsmToken::kUserPin);
    const char* const curves[] = {"P-256", "P-384", "P-521"};
    for (std::size_t i = 0; i < keys; ++i) {
        Pair p{.key = i == 0 ? makeRsaKey(2048) : makeEcKey(curves[i - 1]), .rsa = i == 0};
        CertSpec spec;
        spec.key = p.key, spec.subject = {{"C", "FR"}, {"CN", "fuzz " + std::to_string(i)}};
        p.der = makeCertDer(spec), p.subject = subjectDerOf(p.der);
        if (p.rsa) {
            p.modulus = keyNumber(p.key.get(), OSSL_PKEY_PARAM_RSA_N);
        } else { // the uncompressed point, as the certificate holds it
            p.point = ecPointValue(p.key.get(), false), p.curve = curveOidDer(p.key.get());
        }
        const Bytes id{static_cast<std::uint8_t>(i + 1)};
        importPrivateKey(session, p.key.get(), {"fuzz", id, p.subject});
        if (i < certs) importCertificate(session, p.der, {"fuzz", id});
        token.pairs.push_back(std::move(p));
    }
    createObject(session, {{CKA_CLASS, ulongValue(CKO_DATA)}, {CKA_TOKEN, boolValue(true)}, {CKA_VALUE, Bytes(300, 0x5A)}});
    shim::reset();
    return token;
}

} // namespace p11fuzz
