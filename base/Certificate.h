#pragma once

#include "DataBuffer.h"

#include <openssl/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>

namespace p11client {

class ClsPkcs11;
class LogBase;
class StringBuffer;
class XString;
class _qxPublicKey;

// A certificate's link to a PKCS#11 session, through which it signs with a
// private key that stays on the token. The module pointer is the link
// marker; a certificate counts as linked when marker and key handle are both
// non-zero. keyVerified tells whether the key was proven to be the
// certificate's (by CKA_ID, subject, modulus or public point, or by a
// signature the certificate verified) rather than taken for want of another.
struct Pkcs11Link {
    ClsPkcs11* module = nullptr;
    unsigned long keyHandle = 0;
    int keyType = 0;
    int expectedSignatureSize = 0;
    bool keyVerified = false;
};

// An X.509 certificate.
//
// A Certificate is always owned through std::shared_ptr: the module's
// certificate cache and every ClsCert it was handed to share it, so a
// ClsCert stays valid after the cache lets go. Its X.509 content never
// changes after creation. A certificate read from a token keeps its DER and
// is parsed at its first use that needs the X.509 content (once, safely from
// any thread): listing thousands of certificates costs no parse, and pairing
// reads what it needs (key type and size, EC point, subject) straight from
// the DER. The token data (object handle, CKA_ID) and the
// link to a PKCS#11 session may change and are guarded by the certificate's
// own lock, so readers on other threads see consistent values.
//
// Text forms (compared by the certificate selection, so fixed):
//   DN with tags     CN=Alice Martin, OU=Signing, O=Example Corp, C=FR
//   DN without tags  Alice Martin, Signing, Example Corp, FR   (see DnText.h)
//   serial number    upper-case hex of the magnitude, two digits per byte,
//                    no sign byte: 0A1B, 8F00C3; zero is 00
//   SHA-1 thumbprint 40 upper-case hex digits, over the DER as loaded
//   validity         2024-03-01T12:00:00Z (UTC)
// Getters that find nothing (an absent attribute or extension) return false
// and log nothing; genuine failures are logged.
class Certificate : public std::enable_shared_from_this<Certificate> {
public:
    // Key type codes of getCertKeyType.
    static constexpr int kKeyTypeOther = 0;
    static constexpr int kKeyTypeRsa = 1;
    static constexpr int kKeyTypeDsa = 2;
    static constexpr int kKeyTypeEcdsa = 3;
    static constexpr int kKeyTypeEdDsa = 4;
    // Part numbers of getPartDer.
    static constexpr int kPartCertificate = 0;
    static constexpr int kPartSubject = 1;
    static constexpr int kPartIssuer = 2;
    static constexpr int kPartPublicKey = 3;
    // Certificates are a few KiB; anything larger is refused before parsing.
    static constexpr std::size_t kMaxDerSize = 256 * 1024;

    // A certificate from exactly one DER-encoded X.509 certificate (no
    // trailing bytes); null, with the reason logged, otherwise.
    static std::shared_ptr<Certificate> createFromDer(std::span<const std::uint8_t> der, LogBase& log);
    // From the first PEM block labelled CERTIFICATE in the text.
    static std::shared_ptr<Certificate> createFromPem(std::string_view pem, LogBase& log);
    // PEM when the bytes begin (after white space) with "-----BEGIN", else DER.
    static std::shared_ptr<Certificate> createFromBytes(std::span<const std::uint8_t> bytes, LogBase& log);
    // A certificate from a token object's value, parsed at first need. Only
    // the DER outline is checked here (a certificate SEQUENCE of the
    // to-be-signed SEQUENCE, the algorithm SEQUENCE and the signature BIT
    // STRING, with the to-be-signed part's fields in order, no trailing
    // bytes); null, with the reason logged, when it does not hold. A value
    // that passes the outline and still fails to parse later makes every
    // getter that needs the X.509 content fail ("Invalid certificate DER.").
    static std::shared_ptr<Certificate> createDeferred(std::span<const std::uint8_t> der, LogBase& log);

    ~Certificate();
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    // Names.
    bool getSubjectDN(XString& out, LogBase& log) const;
    bool getSubjectDN_noTags(XString& out, LogBase& log) const;
    bool getIssuerDN(XString& out, LogBase& log) const;
    bool getIssuerDN_noTags(XString& out, LogBase& log) const;
    // The value of an attribute of the subject or issuer, asked by its tag in
    // any case ("CN", "O", "OU", "C", "L", "ST", "E", "SERIALNUMBER", "STREET",
    // "T", "G", "SN" (surname), "DC", "UID" ...), an alias ("EMAIL", "TITLE",
    // "GIVENNAME", "SURNAME" ...), OpenSSL's name or the dotted OID. When the
    // attribute occurs more than once, the most specific one (the first in
    // the DN text) is given. False when absent.
    bool getSubjectPart(const char* attr, XString& out, LogBase& log) const;
    bool getIssuerPart(const char* attr, XString& out, LogBase& log) const;
    bool getSerialNumber(XString& out, LogBase& log) const;
    bool getSha1ThumbprintX(XString& out, LogBase& log) const;

    // Extensions. The XML form is that of ExtensionXml.h; false (silently)
    // when the certificate lacks the extension.
    bool getExtensionXml(const char* oid, StringBuffer& out, LogBase& log) const;
    // First octet of the KeyUsage bits: 0x80 digitalSignature down to 0x01
    // encipherOnly; 0 when the certificate has no KeyUsage extension.
    int getIntendedKeyUsage(LogBase& log) const;

    // The public key. getCertKeyType returns a kKeyType code and sets bits
    // to the key size (RSA modulus bits, EC curve order bits), 0 if unknown.
    int getCertKeyType(int& bits, LogBase& log) const;
    bool getCertPublicKey(_qxPublicKey& key, LogBase& log) const;
    // The EC public point as the EC key cache keeps it (04||X||Y): what
    // getCertPublicKey followed by EccKey::exportEccPoint gives, with the
    // same log when it fails.
    bool getEcPublicPoint(DataBuffer& out, LogBase& log) const;
    // The RSA modulus without leading zeros, with the same log as
    // getCertPublicKey when it fails.
    bool getRsaModulus(DataBuffer& magnitude, LogBase& log) const;
    // Replaces out with the DER of a part: kPartSubject (the subject name, as
    // a token's CKA_SUBJECT holds it), kPartIssuer, kPartPublicKey (the
    // SubjectPublicKeyInfo) or kPartCertificate.
    bool getPartDer(int part, DataBuffer& out, LogBase& log) const;

    // Validity.
    bool getValidFromStr(XString& out, LogBase& log) const;
    bool getValidToStr(XString& out, LogBase& log) const;
    bool getValidFrom(std::time_t& out, LogBase& log) const;
    bool getValidTo(std::time_t& out, LogBase& log) const;

    // Export: the DER as loaded; PEM with 64-character lines.
    bool getDer(DataBuffer& out) const;
    // Whether both hold the same DER bytes.
    bool sameDer(const Certificate& other) const { return m_der.equals(other.m_der); }
    bool getPem(StringBuffer& out, LogBase& log) const;

    // The link to a PKCS#11 session (see Pkcs11Link).
    bool linkToPkcs11Session(ClsPkcs11* module, int certKeyType, int expectedSignatureSize,
                             unsigned long hPrivateKey, LogBase& log, bool keyVerified);
    void unlinkFromPkcs11Session();
    // The whole link in one read, so that no relink on another thread can
    // mix the fields of two links.
    Pkcs11Link getPkcs11Link() const;
    // Unlinks, or marks the key verified, only while the link is still the
    // one given (same module and key handle).
    void unlinkFromPkcs11Session(const Pkcs11Link& seen);
    void markLinkedKeyVerified(const Pkcs11Link& seen);
    ClsPkcs11* getLinkedPkcs11() const;
    unsigned long getLinkedKeyHandle() const;
    int getLinkedKeyType() const;
    int getExpectedSignatureSize() const;
    bool isLinkedToPkcs11() const;
    // Whether the linked key was proven to be the certificate's; false when
    // not linked.
    bool isLinkedKeyVerified() const;
    // Whether a private key is available to sign with: this library keeps
    // private keys only on tokens, so this is isLinkedToPkcs11(); the flag,
    // for callers that would accept a wider search, changes nothing.
    bool hasPrivateKey(bool searchElsewhere, LogBase& log) const;

    // The token object the certificate was read from (set when the cache is
    // filled): its handle (0 when none) and its CKA_ID (empty when none).
    void setPkcs11ObjectHandle(unsigned long handle);
    unsigned long getPkcs11ObjectHandle() const;
    void setCkaId(std::span<const std::uint8_t> id);
    // Replaces out with the CKA_ID bytes.
    void getCkaId(DataBuffer& out) const;
    bool hasCkaId() const;
    // The object's CKA_LABEL (empty when none).
    void setPkcs11Label(std::string label);
    std::string getPkcs11Label() const;

    // The parsed certificate, for library code that needs OpenSSL directly
    // (null when a deferred parse failed).
    const X509* x509() const { return parsed(); }

private:
    struct X509Free {
        void operator()(X509* x) const;
    };
    Certificate(X509* x509, std::span<const std::uint8_t> der);
    explicit Certificate(std::span<const std::uint8_t> der);

    // The parsed certificate, parsing the DER at the first call; null when
    // it does not parse. parsedOrLog also logs that failure.
    const X509* parsed() const;
    const X509* parsedOrLog(LogBase& log) const;
    // What pairing needs of the public key (type, size, EC point), read from
    // the DER without building an OpenSSL key; known is false for the key
    // kinds and encodings left to the full parse. Worked out once.
    struct KeyOutline {
        bool known = false;
        int keyType = kKeyTypeOther;
        int bits = 0;
        DataBuffer ecPoint;
        DataBuffer rsaModulus; // without leading zeros
    };
    const KeyOutline& keyOutline() const;
    static KeyOutline readKeyOutline(std::span<const std::uint8_t> der);

    bool getNameText(bool subject, bool withTags, XString& out, LogBase& log) const;
    bool getNamePart(bool subject, const char* attr, XString& out) const;
    bool getTime(bool notAfter, std::time_t* when, XString* text, LogBase& log) const;

    mutable std::once_flag m_parseOnce;
    mutable std::unique_ptr<X509, X509Free> m_x509; // set once, under m_parseOnce
    mutable std::once_flag m_keyOutlineOnce;
    mutable KeyOutline m_keyOutline; // set once, under m_keyOutlineOnce
    DataBuffer m_der;

    mutable std::mutex m_mutex; // guards the members below
    Pkcs11Link m_link;
    unsigned long m_pkcs11ObjectHandle = 0;
    DataBuffer m_ckaId;
    std::string m_pkcs11Label;
};

} // namespace p11client
