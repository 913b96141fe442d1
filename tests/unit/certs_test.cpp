// Certificates, public keys, token EC points and big integers of base/.
#include "TestCertFactory.h"
#include "UnitHelpers.h"

#include "Certificate.h"
#include "CertificateHolder.h"
#include "ClsCert.h"
#include "EcPointCanon.h"
#include "EccKey.h"
#include "ExtPtrArray.h"
#include "MpInt.h"
#include "RsaKey.h"
#include "SystemCerts.h"
#include "XString.h"
#include "ZelvanMp.h"
#include "_qxPublicKey.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace unit;
using namespace p11test;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Getter = bool (Certificate::*)(XString&, LogBase&) const;

// The key's own public point, uncompressed, straight from OpenSSL.
DataBuffer pointOf(const TestKey& key)
{
    unsigned char buf[200];
    std::size_t len = 0;
    EXPECT_EQ(EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, buf, sizeof buf, &len), 1);
    return DataBuffer(buf, len);
}

// content as a DER OCTET STRING (content below 256 bytes).
DataBuffer wrapped(const DataBuffer& content)
{
    DataBuffer out = fromHex(content.getSize() < 0x80 ? "04" : "0481");
    out.appendByte(static_cast<std::uint8_t>(content.getSize()));
    out.append(content);
    return out;
}

const std::vector<NameAttr> kCaName{{"C", "FR"}, {"O", "Test Authority"}, {"CN", "Test Root CA"}};

class CertsTest : public ::testing::Test {
protected:
    static CertSpec person(TestKey key)
    {
        return {.key = std::move(key), .subject = {{"C", "FR"}, {"O", "Example Corp"}, {"CN", "Alice Martin"},
                {"emailAddress", "alice@example.com"}}, .issuerKey = s_rsa, .issuer = kCaName};
    }

    auto load(const CertSpec& desc) { return Certificate::createFromDer(makeCertDer(desc), m_log); }

    // The text a getter gives, or "<failed>".
    std::string get(const Certificate& cert, Getter getter)
    {
        XString s;
        return (cert.*getter)(s, m_log) ? std::string(s.getUtf8(), s.getSizeUtf8()) : "<failed>";
    }

    // prime239v1: a curve whose keys only OpenSSL's decoding reads.
    static inline const TestKey s_rsa = makeRsaKey(2048), s_p256 = makeEcKey("P-256"), s_p384 = makeEcKey("P-384"),
                                s_p521 = makeEcKey("P-521"), s_p239 = makeEcKey("prime239v1");
    _qxLogger m_log;
};

// ---- loading ----------------------------------------------------------------

// A token's certificate is parsed at first use; the value is only checked for
// the certificate's DER outline when the cache is filled. One whose body does
// not parse fails its getters then.
TEST_F(CertsTest, DeferredCertificateRefusesWhatEagerParsingRefusesAndFailsItsGettersLater)
{
    auto der = makeCertDer(person(s_p256));
    const std::pair<Bytes, const char*> bad[] = {
        {{}, "Certificate DER is empty or too large."},
        {{0x02, 0x01, 0x01}, "Invalid certificate DER."}, {{0x30, 0x03, 0x02, 0x01, 0x01}, "Invalid certificate DER."},
        {{0x30, 0x0a, 0x30, 0x03, 0x02, 0x01, 0x01, 0x30, 0x00, 0x03, 0x01, 0x00}, "Invalid certificate DER."},
        {Bytes(der.begin(), der.end() - 1), "Invalid certificate DER."},
        {[&] { auto v = der; v.push_back(0); return v; }(), "Certificate DER is followed by extra bytes."},
        {Bytes(Certificate::kMaxDerSize + 1, 0x30), "Certificate DER is empty or too large."}};
    for (const auto& [bytes, error] : bad) {
        _qxLogger eager, deferred;
        EXPECT_TRUE(!Certificate::createFromDer(bytes, eager) && !Certificate::createDeferred(bytes, deferred));
        EXPECT_EQ(std::pair(errorsOf(eager), errorsOf(deferred)), std::pair(Strings{error}, Strings{error}));
    }
    // notBefore as an OCTET STRING: the outline holds, the certificate does not parse.
    const auto at = std::ranges::search(der, Bytes{0x17, 0x0d}).begin();
    ASSERT_NE(at, der.end());
    *at = 0x04;
    EXPECT_EQ(Certificate::createFromDer(der, m_log), nullptr);
    const auto cert = Certificate::createDeferred(der, m_log);
    ASSERT_NE(cert, nullptr);
    m_log.clearLog();
    for (const Getter getter : {&Certificate::getSubjectDN, &Certificate::getSerialNumber, &Certificate::getValidToStr})
        EXPECT_EQ(get(*cert, getter), "<failed>");
    EXPECT_EQ(errorsOf(m_log), (Strings{"Invalid certificate DER.", "Unable to read the subject DN.",
                                        "Invalid certificate DER.", "Unable to read the serial number.",
                                        "Invalid certificate DER.", "Unable to read the end of validity."}));
    EXPECT_EQ(get(*cert, &Certificate::getSha1ThumbprintX).size(), 40u) << "the DER itself is still there";
}

// ---- keys ---------------------------------------------------------------------

// Key type, size, subject and EC point are read from the DER without OpenSSL's
// decoding where the key allows it; they must be what the parsed certificate gives.
TEST_F(CertsTest, KeysAndPartsOfEachKeyTypeAsTheDeferredCertificateGivesThem)
{
    const struct { TestKey key; int type; int bits; const char* curve; } cases[] = {
        {s_rsa, Certificate::kKeyTypeRsa, 2048, nullptr}, {s_p256, Certificate::kKeyTypeEcdsa, 256, "prime256v1"},
        {s_p239, Certificate::kKeyTypeEcdsa, 239, "prime239v1"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bits);
        const auto der = makeCertDer(person(c.key));
        const auto cert = Certificate::createDeferred(der, m_log);
        int bits = 0;
        EXPECT_EQ(cert->getCertKeyType(bits, m_log), c.type);
        EXPECT_EQ(bits, c.bits);
        // The parts the token stores beside the certificate, by number; there is no fifth.
        DataBuffer part[5], point, exported;
        for (int id = 0; id < 5; ++id)
            EXPECT_EQ(cert->getPartDer(id, part[id], m_log), id < 4) << id;
        EXPECT_EQ(hexOf(part[Certificate::kPartCertificate]) + hexOf(part[Certificate::kPartSubject]) +
                      hexOf(part[Certificate::kPartIssuer]),
                  hexOf(der) + hexOf(namesOf(der).subject) + hexOf(namesOf(der).issuer));
        _qxPublicKey fromSpki, pub;
        ASSERT_TRUE(fromSpki.loadFromSpkiDer(part[Certificate::kPartPublicKey].bytes(), m_log));
        EXPECT_EQ(EVP_PKEY_eq(fromSpki.evpPkey(), c.key.get()), 1);
        EXPECT_EQ(cert->getEcPublicPoint(point, m_log), c.curve != nullptr);
        ASSERT_TRUE(cert->getCertPublicKey(pub, m_log));
        if (const RsaKey* rsa = pub.getRsaKey(); c.curve == nullptr) {
            ASSERT_TRUE(rsa && ZelvanMp::unsigned_mpint_to_db(rsa->modulus(), point));
            EXPECT_EQ(hexOf(point) + "/" + std::to_string(rsa->bitLength()),
                      hexOf(keyNumber(c.key.get(), OSSL_PKEY_PARAM_RSA_N)) + "/2048");
            continue;
        }
        const EccKey* ecc = pub.getEccKey();
        ASSERT_TRUE(ecc && ecc->exportEccPoint(exported, m_log));
        EXPECT_EQ(ecc->curveName() + "/" + std::to_string(ecc->fieldSizeBits()) + "/" + hexOf(point) + hexOf(exported),
                  c.curve + ("/" + std::to_string(c.bits)) + "/" + hexOf(pointOf(c.key)) + hexOf(pointOf(c.key)));
    }
    EXPECT_EQ(errorsOf(m_log), Strings(std::size(cases), "Unknown certificate part."));
}

// ---- names, serial, thumbprint ---------------------------------------------------

// Names read last RDN first, values escaped only with the tags. A part is
// found by its tag in any case, an alias or the dotted OID; of repeats, the
// last. The serial is the upper-case hex of its magnitude, the thumbprint the
// SHA-1 of the DER.
TEST_F(CertsTest, NamesAndTheirPartsSerialAndThumbprint)
{
    CertSpec desc = person(s_p256);
    desc.subject = {{"DC", "com"}, {"DC", "example"}, {"2.5.4.41", "n"}, {"1.2.3.4", "x"}, {"ST", "Ile"},
        {"O", " Smith, Jones + Co; <x> \"q\" #1\\ "}, {"OU", std::string("a\0b", 3)}, {"emailAddress", "a@x"},
        {"CN", "#hash"}, {"UID", "u42", true}};
    desc.serial = {0x8F, 0x00, 0xC3};
    const auto der = makeCertDer(desc);
    const auto cert = Certificate::createFromDer(der, m_log);
    unsigned char md[20];
    ASSERT_EQ(EVP_Q_digest(nullptr, "SHA1", nullptr, der.data(), der.size(), md, nullptr), 1);
    const std::pair<Getter, std::string> cases[] = {
        {&Certificate::getSubjectDN, "CN=\\#hash + UID=u42, E=a@x, OU=a\\00b, O=\\ Smith\\, Jones \\+ Co\\; \\<x\\> "
                                     "\\\"q\\\" #1\\\\\\ , ST=Ile, 1.2.3.4=x, name=n, DC=example, DC=com"},
        {&Certificate::getSubjectDN_noTags, "#hash + u42, a@x, a" + std::string(1, '\0') +
                                                "b,  Smith, Jones + Co; <x> \"q\" #1\\ , Ile, x, n, example, com"},
        {&Certificate::getIssuerDN, "CN=Test Root CA, O=Test Authority, C=FR"},
        {&Certificate::getSerialNumber, "8F00C3"}, {&Certificate::getSha1ThumbprintX, hexOf(DataBuffer(md, 20))}};
    for (const auto& [getter, expected] : cases)
        EXPECT_EQ(get(*cert, getter), expected);
    desc.serial = {0x00};
    EXPECT_EQ(get(*load(desc), &Certificate::getSerialNumber), "00");
    XString value;
    for (const auto& [name, expected] : {std::pair{"cn", "#hash"}, {"S", "Ile"}, {"2.5.4.3", "#hash"},
             {"DC", "example"}, {"UID", "u42"}, {"1.2.3.4", "x"}, {"name", "n"}, {"L", "<none>"}})
        EXPECT_EQ(cert->getSubjectPart(name, value, m_log) ? value.getUtf8() : "<none>", std::string(expected)) << name;
    EXPECT_TRUE(cert->getIssuerPart("C", value, m_log));
    EXPECT_STREQ(value.getUtf8(), "FR");
    EXPECT_FALSE(cert->getIssuerPart("OU", value, m_log));
    EXPECT_TRUE(errorsOf(m_log).empty()); // absence is not an error
}

// ---- extensions -------------------------------------------------------------------

TEST_F(CertsTest, ExtensionsAsXmlAndKeyUsageFirstOctet)
{
    CertSpec desc = person(s_rsa);
    desc.policies = {"1.2.3.4", "1.3.6.1.4.1.99999.1.2"};
    desc.cpsUri = "http://example.com/cps?a=1&b=<2> '\"";
    desc.keyUsage = "digitalSignature,keyEncipherment,decipherOnly";
    desc.extensions = {{"basicConstraints", "critical,CA:TRUE,pathlen:2"},
                       {"extendedKeyUsage", "clientAuth,emailProtection"}, {"subjectAltName", "email:a@example.com"}};
    auto cert = load(desc);
    const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(const_cast<X509*>(cert->x509()));
    const std::pair<const char*, std::string> cases[] = {
        {"2.5.29.32", "<policy><oid>1.2.3.4</oid><cps>http://example.com/cps?a=1&amp;b=&lt;2&gt; &apos;&quot;</cps>"
                      "</policy><policy><oid>1.3.6.1.4.1.99999.1.2</oid></policy>"},
        {"2.5.29.15", "<keyUsage><digitalSignature/><keyEncipherment/><decipherOnly/></keyUsage>"},
        {"2.5.29.19", "<basicConstraints><ca>true</ca><pathLen>2</pathLen></basicConstraints>"},
        {"2.5.29.37", "<extKeyUsage><oid>1.3.6.1.5.5.7.3.2</oid><oid>1.3.6.1.5.5.7.3.4</oid></extKeyUsage>"},
        {"2.5.29.17", "<text>email:a@example.com</text>"},
        {"2.5.29.14",
         "<subjectKeyIdentifier>" + hexOf(DataBuffer(ASN1_STRING_get0_data(ski), 20)) + "</subjectKeyIdentifier>"}};
    for (const auto& [oid, content] : cases) {
        StringBuffer xml;
        ASSERT_TRUE(cert->getExtensionXml(oid, xml, m_log)) << oid;
        const char* critical = std::string_view(oid) == "2.5.29.19" ? "true" : "false";
        EXPECT_EQ(xml.toStdString(), std::string("<extension oid=\"") + oid + "\" critical=\"" + critical + "\">" +
                                         content + "</extension>");
    }
    StringBuffer xml("unchanged");
    EXPECT_FALSE(cert->getExtensionXml("2.5.29.31", xml, m_log)); // absent: silent
    EXPECT_EQ(xml.toStdString(), "unchanged");
    EXPECT_TRUE(errorsOf(m_log).empty());
    EXPECT_FALSE(cert->getExtensionXml(nullptr, xml, m_log));
    EXPECT_EQ(errorsOf(m_log), Strings{"Not an OID in dotted form."});
    EXPECT_EQ(cert->getIntendedKeyUsage(m_log), 0xA0);
    for (const auto& [usage, first] : {std::pair{"keyCertSign", 0x04}, {"", 0}}) {
        desc.keyUsage = usage;
        EXPECT_EQ(load(desc)->getIntendedKeyUsage(m_log), first) << usage;
    }
}

// ---- token EC points and big integers ----------------------------------------------------

TEST_F(CertsTest, TokenEcPointsAreCanonicalUncompressedOrRefused)
{
    const DataBuffer p256 = pointOf(s_p256), p384 = pointOf(s_p384), p521 = pointOf(s_p521), none;
    const DataBuffer params256 = fromHex("06082A8648CE3D030107"), params384 = fromHex("06052B81040022"); // curve OIDs
    // A 65-byte bare point whose X begins 3F 04: also a DER OCTET STRING of 63 bytes that begins with 04.
    DataBuffer ambiguous = fromHex("043F04");
    for (std::uint8_t i = 1; i <= 62; ++i)
        ambiguous.appendByte(i);
    DataBuffer compressed = fromHex(p256.getData()[64] % 2 == 0 ? "02" : "03");
    compressed.append(p256.getData() + 1, 32);
    DataBuffer notUncompressed = p256, longForm = fromHex("048141");
    notUncompressed.getData()[0] = 0x06;
    longForm.append(p256);
    const struct { DataBuffer value; const DataBuffer& params; const DataBuffer* expected; } cases[] = {
        {p384, params384, &p384}, {wrapped(p384), params384, &p384}, {compressed, params256, &p256},
        {p256, params384, nullptr}, {p384, none, &p384}, {wrapped(p521), none, &p521},
        {ambiguous, none, &ambiguous}, {wrapped(ambiguous), none, &ambiguous}, {wrapped(compressed), none, nullptr},
        {longForm, none, nullptr}, {notUncompressed, none, nullptr}};
    for (const auto& c : cases) {
        DataBuffer out = fromHex("AA");
        EXPECT_EQ(EcPointCanon::fromTokenValue(c.value.bytes(), c.params.bytes(), out), c.expected != nullptr)
            << hexOf(c.value);
        EXPECT_EQ(hexOf(out), c.expected ? hexOf(*c.expected) : "AA") << hexOf(c.value); // refusals leave it
    }
    for (const char* params : {"0603550403", "06082A8648CE3D03010700"}) // not a curve; a curve and more
        EXPECT_EQ(EcPointCanon::curveOfEcParams(fromHex(params).bytes()), NID_undef) << params;
}

TEST(ZelvanMpTest, UnsignedAndSignedFormsAndMagnitudes)
{
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"8001", "8001", "008001"}, {"7F01", "7F01", "7F01"}, {"", "", ""}};
    for (const auto& [in, unsignedHex, signedHex] : cases) {
        mp_int v;
        ASSERT_TRUE(v.setFromBigEndian(fromHex(in).bytes()));
        DataBuffer u = fromHex("EE"), s = fromHex("EE");
        ASSERT_TRUE(ZelvanMp::unsigned_mpint_to_db(v, u) && ZelvanMp::mpint_to_db(v, s));
        EXPECT_EQ(hexOf(u) + "/" + hexOf(s), std::string(unsignedHex) + "/" + signedHex) << in;
    }
    for (const auto& [a, b, same] : {std::tuple{"00C0FFEE", "0000C0FFEE", true}, {"C0FFEE", "C0FFEF", false}})
        EXPECT_EQ(ZelvanMp::sameMagnitude(fromHex(a).bytes(), fromHex(b).bytes()), same) << a << " " << b;
}

// ---- token link, lifetime, system certificates ---------------------------------------------

TEST_F(CertsTest, ClsCertOutlivesTheCacheAndSeesTheLinkAndUnlink)
{
    auto* module = reinterpret_cast<ClsPkcs11*>(0x1000); // only compared, never used
    ClsCert held;
    {
        ExtPtrArray cache; // the module's certificate cache, the only other owner
        auto cert = load(person(s_rsa));
        cert->setPkcs11ObjectHandle(42);
        cert->setCkaId(fromHex("A1B2").bytes());
        cache.appendObject(new CertificateHolder(std::move(cert)));
        Certificate* inCache = static_cast<CertificateHolder*>(cache.elementAt(0))->getCertPtr(m_log);
        ASSERT_TRUE(held.injectCert(inCache, m_log));
        EXPECT_FALSE(inCache->linkToPkcs11Session(nullptr, 1, 256, 7, m_log, true) ||
                     inCache->linkToPkcs11Session(module, 1, 256, 0, m_log, true) || held.HasPrivateKey());
        ASSERT_TRUE(inCache->linkToPkcs11Session(module, 1, 256, 9, m_log, true));
        EXPECT_TRUE(held.HasPrivateKey());
        EXPECT_EQ(std::tuple(inCache->getLinkedPkcs11(), inCache->getLinkedKeyHandle(), inCache->getLinkedKeyType(),
                             inCache->getExpectedSignatureSize()), std::tuple(module, 9ul, 1, 256));
        inCache->unlinkFromPkcs11Session(); // what emptying the cache does before deleting the holders
    }
    EXPECT_FALSE(held.HasPrivateKey());
    auto cert = held.getCertificate();
    ASSERT_NE(cert, nullptr);
    EXPECT_EQ(std::tuple(cert->getLinkedPkcs11(), cert->getLinkedKeyHandle(), cert->getPkcs11ObjectHandle()),
              std::tuple(static_cast<ClsPkcs11*>(nullptr), 0ul, 42ul));
    DataBuffer id;
    cert->getCkaId(id);
    EXPECT_EQ(hexOf(id), "A1B2");
    EXPECT_FALSE(held.injectCert(static_cast<Certificate*>(nullptr), m_log));
    EXPECT_EQ(held.getCertificate(), cert); // a failed injection keeps what was there
}

TEST_F(CertsTest, SystemCertsAreSharedAndMergedWithoutDuplicates)
{
    ClsCert module, user;
    EXPECT_NE(module.getSystemCertsPtr(), user.getSystemCertsPtr());
    auto ca = load({.key = s_rsa, .subject = kCaName});
    auto leaf = load(person(s_p256));
    ASSERT_TRUE(module.getSystemCertsPtr()->addCertificate(ca, m_log));
    ASSERT_TRUE(user.getSystemCertsPtr()->addCertificate(leaf, m_log));
    ASSERT_TRUE(user.mergeSysCerts(module, m_log) && user.mergeSysCerts(module, m_log));
    EXPECT_EQ(user.getSystemCertsPtr()->numCerts(), 2);
    EXPECT_EQ(module.getSystemCertsPtr()->numCerts(), 1);
    DataBuffer issuerDer;
    leaf->getPartDer(Certificate::kPartIssuer, issuerDer, m_log);
    EXPECT_EQ(user.getSystemCertsPtr()->findBySubjectDer(issuerDer, m_log), ca);
    ASSERT_TRUE(user.setSystemCerts(module.getSystemCertsPtr()));
    EXPECT_FALSE(user.setSystemCerts(static_cast<SystemCerts*>(nullptr)));
    EXPECT_EQ(user.getSystemCertsPtr(), module.getSystemCertsPtr());
}

// ---- the public certificate object -----------------------------------------------------------

TEST_F(CertsTest, ClsCertLoadsGivesItsPropertiesExportsAndKeepsItsCertificateOnFailures)
{
    CertSpec desc = person(s_p384);
    desc.validDays = 10;
    const auto der = makeCertDer(desc);
    StringBuffer pem;
    ASSERT_TRUE(Certificate::createFromDer(der, m_log)->getPem(pem, m_log));
    const auto dir = std::filesystem::temp_directory_path() / ("certs_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream((dir / "c.pem").string()) << "\n  " << pem.getString(); // blanks before the PEM
    std::ofstream((dir / "junk").string()) << "not a certificate";
    std::ofstream((dir / "empty").string()).flush();
    ClsCert cert;
    XString text("x");
    cert.get_SubjectDN(text);
    EXPECT_TRUE(text.isEmpty() && cert.get_IsEmpty() && cert.get_KeySize() == 0);
    DataBuffer out;
    EXPECT_FALSE(cert.ExportDer(out) || cert.HasPrivateKey() || cert.GetSubjectPart(XString("CN"), text));
    cert.get_LogText(text);
    EXPECT_TRUE(text.containsSubstringUtf8("Error: No certificate.")) << text.getUtf8();
    ASSERT_TRUE(cert.LoadFromFile(XString((dir / "c.pem").c_str())));
    for (const auto& [name, error] : {std::pair{"junk", "Invalid certificate DER."},
                                      {"missing", "Unable to open the file."},
                                      {"empty", "The file is empty or too large to be a certificate."}}) {
        EXPECT_FALSE(cert.LoadFromFile(XString((dir / name).c_str()))) << name;
        cert.get_LogText(text);
        EXPECT_TRUE(text.containsSubstringUtf8((std::string("Error: ") + error).c_str())) << text.getUtf8();
    }
    std::filesystem::remove_all(dir);
    // The certificate loaded first is still there.
    std::time_t from = 0, to = 0;
    ASSERT_TRUE(cert.getCertificate()->getValidFrom(from, m_log) && cert.getCertificate()->getValidTo(to, m_log));
    EXPECT_EQ(to - from, 10 * 24 * 3600);
    const auto iso = [](std::time_t t) {
        char buf[32];
        return std::string(buf, std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&t)));
    };
    const std::pair<void (ClsCert::*)(XString&), std::string> props[] = {
        {&ClsCert::get_SubjectCN, "Alice Martin"}, {&ClsCert::get_IssuerCN, "Test Root CA"},
        {&ClsCert::get_IssuerDN, "CN=Test Root CA, O=Test Authority, C=FR"}, {&ClsCert::get_SerialNumber, "0A1B"},
        {&ClsCert::get_KeyType, "ECDSA"}, {&ClsCert::get_ValidFromStr, iso(from)}, {&ClsCert::get_ValidToStr, iso(to)}};
    for (const auto& [getter, expected] : props) {
        (cert.*getter)(text);
        EXPECT_EQ(text.getUtf8(), expected);
    }
    EXPECT_EQ(cert.get_KeySize(), 384);
    ASSERT_TRUE(cert.GetSubjectPart(XString("e"), text));
    EXPECT_STREQ(text.getUtf8(), "alice@example.com");
    ASSERT_TRUE(cert.ExportPem(text));
    ClsCert again;
    ASSERT_TRUE(again.LoadPem(text) && again.ExportDer(out));
    EXPECT_EQ(hexOf(out), hexOf(der));
}

} // namespace
