#include "Certificate.h"

#include "CertificateDer.h"
#include "EcPointCanon.h"
#include "EccKey.h"
#include "LogBase.h"
#include "OpenSslPtr.h"
#include "RsaKey.h"
#include "ZelvanMp.h"
#include "_qxPublicKey.h"

namespace p11client {

namespace {

int keyTypeCode(const EVP_PKEY* pkey)
{
    switch (EVP_PKEY_get_base_id(pkey)) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA_PSS:
        return Certificate::kKeyTypeRsa;
    case EVP_PKEY_DSA:
        return Certificate::kKeyTypeDsa;
    case EVP_PKEY_EC:
        return Certificate::kKeyTypeEcdsa;
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
        return Certificate::kKeyTypeEdDsa;
    default:
        return Certificate::kKeyTypeOther;
    }
}

// i2d output of any of the parts, into out.
template <class T>
bool derOf(const T* item, int (*i2d)(const T*, unsigned char**), DataBuffer& out)
{
    unsigned char* der = nullptr;
    const int len = item == nullptr ? 0 : i2d(item, &der);
    if (len <= 0)
        return false;
    OpenSslBytesPtr owned(der);
    out.clear();
    out.append(der, static_cast<std::size_t>(len));
    return true;
}

// Order bits of the named curves whose keys are read from the DER alone;
// other curves go through OpenSSL's key decoding.
int curveOrderBits(int nid)
{
    switch (nid) {
    case NID_X9_62_prime192v1: return 192;
    case NID_secp224r1: return 224;
    case NID_X9_62_prime256v1:
    case NID_secp256k1:
    case NID_brainpoolP256r1: return 256;
    case NID_secp384r1:
    case NID_brainpoolP384r1: return 384;
    case NID_brainpoolP512r1: return 512;
    case NID_secp521r1: return 521;
    default: return 0;
    }
}

int nidOfObject(const certder::Element& e)
{
    if (!e.is(V_ASN1_OBJECT, false))
        return NID_undef;
    const unsigned char* p = e.start;
    Asn1ObjectPtr obj(d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(e.whole().size())));
    return obj ? OBJ_obj2nid(obj.get()) : NID_undef;
}

// The modulus of an RSAPublicKey (SEQUENCE of modulus and exponent
// INTEGERs), without leading zeros; empty when the bytes are not one.
std::span<const std::uint8_t> rsaModulus(std::span<const std::uint8_t> key)
{
    const unsigned char* p = key.data();
    const unsigned char* end = key.data() + key.size();
    certder::Element seq;
    certder::Element n;
    certder::Element e;
    if (!certder::nextElement(p, end, seq) || !seq.is(V_ASN1_SEQUENCE, true) || p != end)
        return {};
    p = seq.content;
    if (!certder::nextElement(p, seq.end(), n) || !n.is(V_ASN1_INTEGER, false) || !certder::nextElement(p, seq.end(), e)
        || !e.is(V_ASN1_INTEGER, false) || p != seq.end() || n.length < 1 || (n.content[0] & 0x80) != 0)
        return {};
    std::span<const std::uint8_t> magnitude = n.contentBytes();
    while (!magnitude.empty() && magnitude.front() == 0)
        magnitude = magnitude.subspan(1);
    return magnitude;
}

int bitsOf(std::span<const std::uint8_t> magnitude)
{
    if (magnitude.empty())
        return 0;
    int top = 0;
    for (unsigned v = magnitude.front(); v != 0; v >>= 1)
        ++top;
    return static_cast<int>(8 * (magnitude.size() - 1)) + top;
}

} // namespace

// SubjectPublicKeyInfo: SEQUENCE { AlgorithmIdentifier SEQUENCE { OID,
// parameters }, BIT STRING }. RSA (PKCS#1 or PSS) and EC on the named curves
// above are read here; everything else is left to the full parse.
Certificate::KeyOutline Certificate::readKeyOutline(std::span<const std::uint8_t> der)
{
    KeyOutline k;
    certder::TbsParts parts;
    if (certder::certificateEnd(der, &parts) == nullptr)
        return k;
    const unsigned char* p = parts.publicKey.content;
    const unsigned char* end = parts.publicKey.end();
    certder::Element algorithm;
    certder::Element bitString;
    if (!certder::nextElement(p, end, algorithm) || !algorithm.is(V_ASN1_SEQUENCE, true)
        || !certder::nextElement(p, end, bitString) || !bitString.is(V_ASN1_BIT_STRING, false) || p != end
        || bitString.length < 2 || bitString.content[0] != 0)
        return k;
    const std::span<const std::uint8_t> key = bitString.contentBytes().subspan(1);
    const unsigned char* q = algorithm.content;
    certder::Element oid;
    certder::Element params;
    if (!certder::nextElement(q, algorithm.end(), oid))
        return k;
    const int nid = nidOfObject(oid);
    if (nid == NID_rsaEncryption || nid == NID_rsassaPss) {
        const std::span<const std::uint8_t> modulus = rsaModulus(key);
        k.bits = bitsOf(modulus);
        k.keyType = kKeyTypeRsa;
        k.rsaModulus.append(modulus.data(), modulus.size());
    } else if (nid == NID_X9_62_id_ecPublicKey && certder::nextElement(q, algorithm.end(), params)
               && q == algorithm.end()) {
        const int curve = EcPointCanon::curveOfEcParams(params.whole());
        k.bits = curveOrderBits(curve);
        k.keyType = kKeyTypeEcdsa;
        if (k.bits != 0 && !EcPointCanon::uncompressedOnCurve(curve, key, k.ecPoint))
            k.bits = 0;
    }
    k.known = k.bits != 0;
    return k;
}

const Certificate::KeyOutline& Certificate::keyOutline() const
{
    std::call_once(m_keyOutlineOnce, [this] { m_keyOutline = readKeyOutline(m_der.bytes()); });
    return m_keyOutline;
}

int Certificate::getCertKeyType(int& bits, LogBase& log) const
{
    bits = 0;
    if (const KeyOutline& k = keyOutline(); k.known) {
        bits = k.bits;
        return k.keyType;
    }
    const X509* x509 = parsedOrLog(log);
    const EVP_PKEY* pkey = x509 != nullptr ? X509_get0_pubkey(x509) : nullptr;
    if (pkey == nullptr) {
        log.LogError("Unable to read the certificate's public key.");
        return kKeyTypeOther;
    }
    bits = EVP_PKEY_get_bits(pkey);
    if (bits < 0)
        bits = 0;
    return keyTypeCode(pkey);
}

bool Certificate::getRsaModulus(DataBuffer& magnitude, LogBase& log) const
{
    if (const KeyOutline& k = keyOutline(); k.known && k.keyType == kKeyTypeRsa) {
        magnitude.clear();
        magnitude.append(k.rsaModulus);
        return true;
    }
    _qxPublicKey key;
    return getCertPublicKey(key, log) && key.getRsaKey() != nullptr
        && ZelvanMp::unsigned_mpint_to_db(key.getRsaKey()->modulus(), magnitude);
}

bool Certificate::getCertPublicKey(_qxPublicKey& key, LogBase& log) const
{
    const X509* x509 = parsedOrLog(log);
    const EVP_PKEY* pkey = x509 != nullptr ? X509_get0_pubkey(x509) : nullptr;
    if (pkey == nullptr) {
        key.clear();
        log.LogError("Unable to read the certificate's public key.");
        return false;
    }
    return key.loadFromPkey(pkey, log);
}

bool Certificate::getEcPublicPoint(DataBuffer& out, LogBase& log) const
{
    if (const KeyOutline& k = keyOutline(); k.known && k.keyType == kKeyTypeEcdsa) {
        out.clear();
        out.append(k.ecPoint);
        return true;
    }
    _qxPublicKey key;
    if (getCertPublicKey(key, log) && key.getEccKey() != nullptr)
        return key.getEccKey()->exportEccPoint(out, log);
    return false;
}

// The subject comes as encoded in the certificate, which is what OpenSSL's
// encoding of the parsed name gives too, without parsing.
bool Certificate::getPartDer(int part, DataBuffer& out, LogBase& log) const
{
    if (part == kPartCertificate)
        return getDer(out);
    certder::TbsParts parts;
    if (part == kPartSubject && certder::certificateEnd(m_der.bytes(), &parts) != nullptr) {
        out.clear();
        out.append(parts.subject.start, parts.subject.whole().size());
        return true;
    }
    const X509* x509 = part >= kPartSubject && part <= kPartPublicKey ? parsedOrLog(log) : nullptr;
    bool ok = false;
    switch (part) {
    case kPartSubject:
        ok = x509 != nullptr && derOf(X509_get_subject_name(x509), i2d_X509_NAME, out);
        break;
    case kPartIssuer:
        ok = x509 != nullptr && derOf(X509_get_issuer_name(x509), i2d_X509_NAME, out);
        break;
    case kPartPublicKey:
        ok = x509 != nullptr && derOf(X509_get_X509_PUBKEY(x509), i2d_X509_PUBKEY, out);
        break;
    default:
        log.LogError("Unknown certificate part.");
        log.LogDataLong("part", part);
        return false;
    }
    if (!ok)
        log.LogError("Unable to encode the certificate part.");
    return ok;
}

} // namespace p11client
