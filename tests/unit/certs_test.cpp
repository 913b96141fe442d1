// Certificates, public keys, EC points and big integers of base/.

#include "TestCertFactory.h"

#include "Certificate.h"
#include "CertificateHolder.h"
#include "ClsCert.h"
#include "DataBuffer.h"
#include "EcPointCanon.h"
#include "EccKey.h"
#include "ExtPtrArray.h"
#include "LogBase.h"
#include "MpInt.h"
#include "RsaKey.h"
#include "StringBuffer.h"
#include "SystemCerts.h"
#include "XString.h"
#include "ZelvanMp.h"
#include "_qxPublicKey.h"

#include <gtest/gtest.h>

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <string_view>

using namespace p11client;
using namespace p11test;

namespace {

std::vector<std::string> errorsOf(const _qxLogger& log)
{
    std::vector<std::string> out;
    for (const LogEntry& e : log.entries())
        if (e.kind == LogEntry::Kind::Error)
            out.push_back(e.text);
    return out;
}

std::string hexOf(std::span<const std::uint8_t> bytes)
{
    StringBuffer sb;
    DataBuffer(bytes.data(), bytes.size()).appendHex(sb, true);
    return sb.toStdString();
}

std::string hexOf(const DataBuffer& db) { return hexOf(db.bytes()); }

bool isUpperHex(std::string_view s, std::size_t length)
{
    return s.size() == length && s.find_first_not_of("0123456789ABCDEF") == std::string_view::npos;
}

// The text between <tag> and </tag>.
std::string_view elementText(std::string_view xml, std::string_view tag)
{
    const std::string open = "<" + std::string(tag) + ">";
    const std::size_t begin = xml.find(open);
    const std::size_t end = xml.find("</" + std::string(tag) + ">");
    if (begin == std::string_view::npos || end == std::string_view::npos || end < begin)
        return {};
    return xml.substr(begin + open.size(), end - begin - open.size());
}

// 2024-03-01T12:00:00Z
bool isIsoUtc(std::string_view s)
{
    const std::string_view shape = "dddd-dd-ddTdd:dd:ddZ";
    if (s.size() != shape.size())
        return false;
    for (std::size_t i = 0; i < s.size(); ++i)
        if (shape[i] == 'd' ? (s[i] < '0' || s[i] > '9') : s[i] != shape[i])
            return false;
    return true;
}

DataBuffer fromHex(const char* hex)
{
    DataBuffer db;
    EXPECT_TRUE(db.appendEncodedById(hex, DataBuffer::kHex));
    return db;
}

// The key's own public point, uncompressed, straight from OpenSSL.
DataBuffer pointOf(EVP_PKEY* key)
{
    unsigned char buf[200];
    std::size_t len = 0;
    EXPECT_EQ(EVP_PKEY_get_octet_string_param(key, OSSL_PKEY_PARAM_PUB_KEY, buf, sizeof buf, &len), 1);
    return DataBuffer(buf, len);
}

DataBuffer derOctetString(const DataBuffer& content)
{
    ASN1_OCTET_STRING* os = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(os, content.getData(), static_cast<int>(content.getSize()));
    unsigned char* der = nullptr;
    const int len = i2d_ASN1_OCTET_STRING(os, &der);
    DataBuffer out(der, static_cast<std::size_t>(len));
    OPENSSL_free(der);
    ASN1_OCTET_STRING_free(os);
    return out;
}

DataBuffer ecParamsOf(int curveNid)
{
    unsigned char* der = nullptr;
    const int len = i2d_ASN1_OBJECT(OBJ_nid2obj(curveNid), &der);
    DataBuffer out(der, static_cast<std::size_t>(len));
    OPENSSL_free(der);
    return out;
}

const std::vector<NameAttr> kCaName{{"C", "FR"}, {"O", "Test Authority"}, {"CN", "Test Root CA"}};

class CertsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_rsa = makeRsaKey(2048);
        s_p256 = makeEcKey("P-256");
        s_p384 = makeEcKey("P-384");
        s_p521 = makeEcKey("P-521");
    }
    static void TearDownTestSuite() { s_rsa = s_p256 = s_p384 = s_p521 = nullptr; }

    static CertSpec personSpec(TestKey key)
    {
        CertSpec spec;
        spec.key = std::move(key);
        spec.subject = {{"C", "FR"},
                        {"ST", "Ile-de-France"},
                        {"L", "Paris"},
                        {"street", "1 Rue de Rivoli"},
                        {"O", "Example Corp"},
                        {"OU", "Signing"},
                        {"title", "Engineer"},
                        {"GN", "Alice"},
                        {"SN", "Martin"},
                        {"CN", "Alice Martin"},
                        {"serialNumber", "PNOFR-123456"},
                        {"emailAddress", "alice@example.com"}};
        spec.issuerKey = s_rsa;
        spec.issuer = kCaName;
        return spec;
    }

    std::shared_ptr<Certificate> load(const CertSpec& spec)
    {
        const auto der = makeCertDer(spec);
        auto cert = Certificate::createFromDer(der, m_log);
        EXPECT_NE(cert, nullptr);
        return cert;
    }

    static inline TestKey s_rsa, s_p256, s_p384, s_p521;
    _qxLogger m_log;
};

// ---- loading ----------------------------------------------------------------

TEST_F(CertsTest, DerAndPemRoundTripKeepTheLoadedBytes)
{
    const auto der = makeCertDer(personSpec(s_p256));
    auto cert = Certificate::createFromDer(der, m_log);
    ASSERT_NE(cert, nullptr);
    DataBuffer out;
    cert->getDer(out);
    EXPECT_EQ(hexOf(out), hexOf(der));

    StringBuffer pem;
    ASSERT_TRUE(cert->getPem(pem, m_log));
    EXPECT_TRUE(pem.beginsWith("-----BEGIN CERTIFICATE-----\n"));
    const std::string padded = "\n  " + pem.toStdString();
    auto again = Certificate::createFromBytes(
        {reinterpret_cast<const std::uint8_t*>(padded.data()), padded.size()}, m_log);
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(again->sameDer(*cert));
}

TEST_F(CertsTest, InvalidDerIsRejectedWithAReason)
{
    auto der = makeCertDer(personSpec(s_p256));
    const std::vector<std::vector<std::uint8_t>> bad{
        {},
        {0x30, 0x03, 0x02, 0x01, 0x01},
        std::vector<std::uint8_t>(der.begin(), der.end() - 1),
        [&] { auto v = der; v.push_back(0); return v; }(),
        std::vector<std::uint8_t>(Certificate::kMaxDerSize + 1, 0x30),
    };
    for (const auto& bytes : bad) {
        _qxLogger log;
        EXPECT_EQ(Certificate::createFromDer(bytes, log), nullptr) << bytes.size();
        EXPECT_EQ(errorsOf(log).size(), 1u) << bytes.size();
    }
    _qxLogger log;
    EXPECT_EQ(Certificate::createFromPem("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", log),
              nullptr);
    EXPECT_FALSE(errorsOf(log).empty());
}

// A token's certificate is parsed at first use; the value is only checked for
// the certificate's DER outline when the cache is filled.
TEST_F(CertsTest, DeferredCertificateRefusesWhatEagerParsingRefusesWithTheSameErrors)
{
    const auto der = makeCertDer(personSpec(s_p256));
    const std::string pem = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
    const std::vector<std::vector<std::uint8_t>> bad{
        {},
        {0x30, 0x03, 0x02, 0x01, 0x01},
        {0x30, 0x0a, 0x30, 0x03, 0x02, 0x01, 0x01, 0x30, 0x00, 0x03, 0x01, 0x00}, // a TBS of a serial alone
        std::vector<std::uint8_t>(der.begin(), der.end() - 1),
        [&] { auto v = der; v.push_back(0); return v; }(),
        std::vector<std::uint8_t>(pem.begin(), pem.end()),
        std::vector<std::uint8_t>(Certificate::kMaxDerSize + 1, 0x30),
    };
    for (const auto& bytes : bad) {
        _qxLogger eager;
        _qxLogger deferred;
        EXPECT_EQ(Certificate::createFromDer(bytes, eager), nullptr) << bytes.size();
        EXPECT_EQ(Certificate::createDeferred(bytes, deferred), nullptr) << bytes.size();
        EXPECT_EQ(errorsOf(deferred), errorsOf(eager)) << bytes.size();
    }
}

TEST_F(CertsTest, DeferredCertificateAnswersAsAParsedOne)
{
    for (const TestKey& key : {s_rsa, s_p256, s_p384, s_p521}) {
        const auto der = makeCertDer(personSpec(key));
        const auto eager = Certificate::createFromDer(der, m_log);
        const auto deferred = Certificate::createDeferred(der, m_log);
        ASSERT_NE(eager, nullptr);
        ASSERT_NE(deferred, nullptr);
        // Key type, size and subject are read from the DER without OpenSSL's
        // decoding; they must be what OpenSSL makes of the parsed certificate.
        const EVP_PKEY* pkey = X509_get0_pubkey(eager->x509());
        int bits = 0;
        EXPECT_EQ(deferred->getCertKeyType(bits, m_log),
                  EVP_PKEY_get_base_id(pkey) == EVP_PKEY_EC ? Certificate::kKeyTypeEcdsa : Certificate::kKeyTypeRsa);
        EXPECT_EQ(bits, EVP_PKEY_get_bits(pkey));
        unsigned char* name = nullptr;
        const int nameLen = i2d_X509_NAME(X509_get_subject_name(eager->x509()), &name);
        ASSERT_GT(nameLen, 0);
        const std::string expectedSubject = hexOf(std::span<const std::uint8_t>(name, static_cast<std::size_t>(nameLen)));
        OPENSSL_free(name);
        DataBuffer subject;
        ASSERT_TRUE(deferred->getPartDer(Certificate::kPartSubject, subject, m_log));
        EXPECT_EQ(hexOf(subject), expectedSubject);
        XString eagerDn;
        XString deferredDn;
        ASSERT_TRUE(deferred->getSubjectDN(deferredDn, m_log));
        ASSERT_TRUE(eager->getSubjectDN(eagerDn, m_log));
        EXPECT_EQ(std::string(deferredDn.getUtf8()), eagerDn.getUtf8());
        EXPECT_NE(deferred->x509(), nullptr);
    }
    EXPECT_TRUE(errorsOf(m_log).empty());
}

TEST_F(CertsTest, EcPointOfTheCertificateIsTheKeysOwnPoint)
{
    for (const TestKey& key : {s_p256, s_p384, s_p521}) {
        const auto cert = Certificate::createDeferred(makeCertDer(personSpec(key)), m_log);
        ASSERT_NE(cert, nullptr);
        DataBuffer point;
        ASSERT_TRUE(cert->getEcPublicPoint(point, m_log));
        EXPECT_EQ(hexOf(point), hexOf(pointOf(key.get())));
    }
    DataBuffer none;
    _qxLogger log;
    EXPECT_FALSE(load(personSpec(s_rsa))->getEcPublicPoint(none, log)) << "an RSA certificate has no EC point";
}

TEST_F(CertsTest, DeferredCertificateWhoseBodyDoesNotParseFailsItsGetters)
{
    auto der = makeCertDer(personSpec(s_p256));
    // notBefore as an OCTET STRING: the outline holds, the certificate does not parse.
    const std::vector<std::uint8_t> utcTime{0x17, 0x0d};
    const auto at = std::search(der.begin(), der.end(), utcTime.begin(), utcTime.end());
    ASSERT_NE(at, der.end());
    *at = 0x04;
    _qxLogger eager;
    EXPECT_EQ(Certificate::createFromDer(der, eager), nullptr);
    const auto cert = Certificate::createDeferred(der, m_log);
    ASSERT_NE(cert, nullptr);
    XString text;
    _qxLogger log;
    EXPECT_FALSE(cert->getSubjectDN(text, log));
    EXPECT_FALSE(cert->getSerialNumber(text, log));
    EXPECT_FALSE(cert->getValidToStr(text, log));
    EXPECT_EQ(cert->x509(), nullptr);
    EXPECT_EQ(errorsOf(log).front(), "Invalid certificate DER.");
    EXPECT_TRUE(cert->getSha1ThumbprintX(text, log)) << "the DER itself is still there";
}

// ---- names --------------------------------------------------------------------

TEST_F(CertsTest, DistinguishedNamesMostSpecificFirst)
{
    auto cert = load(personSpec(s_p256));
    XString dn;
    ASSERT_TRUE(cert->getSubjectDN(dn, m_log));
    EXPECT_STREQ(dn.getUtf8(), "E=alice@example.com, SERIALNUMBER=PNOFR-123456, CN=Alice Martin, SN=Martin, "
                               "G=Alice, T=Engineer, OU=Signing, O=Example Corp, STREET=1 Rue de Rivoli, L=Paris, "
                               "ST=Ile-de-France, C=FR");
    ASSERT_TRUE(cert->getSubjectDN_noTags(dn, m_log));
    EXPECT_STREQ(dn.getUtf8(), "alice@example.com, PNOFR-123456, Alice Martin, Martin, Alice, Engineer, Signing, "
                               "Example Corp, 1 Rue de Rivoli, Paris, Ile-de-France, FR");
    ASSERT_TRUE(cert->getIssuerDN(dn, m_log));
    EXPECT_STREQ(dn.getUtf8(), "CN=Test Root CA, O=Test Authority, C=FR");
    ASSERT_TRUE(cert->getIssuerDN_noTags(dn, m_log));
    EXPECT_STREQ(dn.getUtf8(), "Test Root CA, Test Authority, FR");
}

TEST_F(CertsTest, SpecialCharactersAreEscapedOnlyWithTags)
{
    CertSpec spec;
    spec.key = s_p256;
    spec.subject = {{"DC", "com"},   {"DC", "example"}, {"O", " Smith, Jones + Co; <x> \"q\" #1\\ "},
                    {"CN", "#hash"}, {"UID", "u42", true}};
    auto cert = load(spec);
    XString dn;
    ASSERT_TRUE(cert->getSubjectDN(dn, m_log));
    EXPECT_STREQ(dn.getUtf8(),
                 "CN=\\#hash + UID=u42, O=\\ Smith\\, Jones \\+ Co\\; \\<x\\> \\\"q\\\" #1\\\\\\ , DC=example, DC=com");
    ASSERT_TRUE(cert->getSubjectDN_noTags(dn, m_log));
    EXPECT_STREQ(dn.getUtf8(), "#hash + u42,  Smith, Jones + Co; <x> \"q\" #1\\ , example, com");
}

TEST_F(CertsTest, EveryPartNameFindsItsAttribute)
{
    auto cert = load(personSpec(s_p256));
    const std::vector<std::pair<const char*, const char*>> parts{
        {"CN", "Alice Martin"},   {"cn", "Alice Martin"},       {"2.5.4.3", "Alice Martin"},
        {"O", "Example Corp"},    {"ORGANIZATION", "Example Corp"}, {"OU", "Signing"},
        {"C", "FR"},              {"L", "Paris"},               {"ST", "Ile-de-France"},
        {"S", "Ile-de-France"},   {"E", "alice@example.com"},  {"EMAIL", "alice@example.com"},
        {"emailAddress", "alice@example.com"},                  {"SERIALNUMBER", "PNOFR-123456"},
        {"STREET", "1 Rue de Rivoli"}, {"T", "Engineer"},       {"TITLE", "Engineer"},
        {"G", "Alice"},           {"GIVENNAME", "Alice"},       {"GN", "Alice"},
        {"SN", "Martin"},         {"SURNAME", "Martin"}};
    for (const auto& [name, expected] : parts) {
        XString value;
        EXPECT_TRUE(cert->getSubjectPart(name, value, m_log)) << name;
        EXPECT_STREQ(value.getUtf8(), expected) << name;
    }
    XString value;
    EXPECT_TRUE(cert->getIssuerPart("CN", value, m_log));
    EXPECT_STREQ(value.getUtf8(), "Test Root CA");
    for (const char* absent : {"DC", "UID", "I", "PSEUDONYM", "NOSUCHTHING", "", "1.2.3.4"})
        EXPECT_FALSE(cert->getSubjectPart(absent, value, m_log)) << absent;
    EXPECT_FALSE(cert->getIssuerPart("OU", value, m_log));
    EXPECT_TRUE(errorsOf(m_log).empty()); // absence is not an error
}

TEST_F(CertsTest, RepeatedAttributeGivesTheMostSpecific)
{
    CertSpec spec;
    spec.key = s_p256;
    spec.subject = {{"DC", "com"}, {"DC", "example"}, {"UID", "jdoe"}, {"CN", "J"}};
    auto cert = load(spec);
    XString value;
    ASSERT_TRUE(cert->getSubjectPart("DC", value, m_log));
    EXPECT_STREQ(value.getUtf8(), "example");
    ASSERT_TRUE(cert->getSubjectPart("UID", value, m_log));
    EXPECT_STREQ(value.getUtf8(), "jdoe");
}

// ---- serial number and thumbprint ---------------------------------------------

TEST_F(CertsTest, SerialIsUpperHexOfTheMagnitude)
{
    const std::vector<std::pair<std::vector<std::uint8_t>, const char*>> cases{
        {{0x0A, 0x1B}, "0A1B"}, {{0x8F, 0x00, 0xC3}, "8F00C3"}, {{0x00, 0x00, 0x7E}, "7E"}, {{0x00}, "00"}};
    for (const auto& [bytes, expected] : cases) {
        CertSpec spec = personSpec(s_p256);
        spec.serial = bytes;
        XString serial;
        ASSERT_TRUE(load(spec)->getSerialNumber(serial, m_log));
        EXPECT_STREQ(serial.getUtf8(), expected);
    }
}

TEST_F(CertsTest, ThumbprintIsUpperHexSha1OfTheDer)
{
    const auto der = makeCertDer(personSpec(s_rsa));
    unsigned char md[20];
    ASSERT_EQ(EVP_Q_digest(nullptr, "SHA1", nullptr, der.data(), der.size(), md, nullptr), 1);
    XString thumb;
    ASSERT_TRUE(Certificate::createFromDer(der, m_log)->getSha1ThumbprintX(thumb, m_log));
    EXPECT_EQ(std::string(thumb.getUtf8()), hexOf(std::span<const std::uint8_t>(md, 20)));
    EXPECT_TRUE(isUpperHex(thumb.getUtf8(), 40));
}

// ---- extensions -------------------------------------------------------------------

TEST_F(CertsTest, KeyUsageFirstOctet)
{
    const std::vector<std::pair<const char*, int>> cases{{"critical,digitalSignature,nonRepudiation", 0xC0},
                                                         {"keyEncipherment", 0x20},
                                                         {"keyCertSign,cRLSign", 0x06},
                                                         {"keyAgreement,encipherOnly", 0x09},
                                                         {"", 0}};
    for (const auto& [usage, expected] : cases) {
        CertSpec spec = personSpec(s_p256);
        spec.keyUsage = usage;
        EXPECT_EQ(load(spec)->getIntendedKeyUsage(m_log), expected) << usage;
    }
}

TEST_F(CertsTest, PolicyXmlNamesEveryPolicyOidButNoQualifierOid)
{
    CertSpec spec = personSpec(s_rsa);
    spec.policies = {"1.2.3.4", "1.3.6.1.4.1.99999.1.2"};
    spec.cpsUri = "http://example.com/cps?a=1&b=<2>";
    spec.keyUsage = "digitalSignature,keyEncipherment";
    auto cert = load(spec);
    StringBuffer xml;
    ASSERT_TRUE(cert->getExtensionXml("2.5.29.32", xml, m_log));
    EXPECT_TRUE(xml.beginsWith("<extension oid=\"2.5.29.32\" critical=\"false\">"));
    EXPECT_TRUE(xml.containsSubstring("<oid>1.2.3.4</oid>"));
    EXPECT_TRUE(xml.containsSubstring("<oid>1.3.6.1.4.1.99999.1.2</oid>"));
    EXPECT_TRUE(xml.containsSubstring("<cps>http://example.com/cps?a=1&amp;b=&lt;2&gt;</cps>"));
    EXPECT_FALSE(xml.containsSubstring("<oid>1.3.6.1.5.5.7.2.1</oid>")); // the CPS qualifier id

    ASSERT_TRUE(cert->getExtensionXml("2.5.29.15", xml, m_log));
    EXPECT_STREQ(xml.getString(), "<extension oid=\"2.5.29.15\" critical=\"false\"><keyUsage><digitalSignature/>"
                                  "<keyEncipherment/></keyUsage></extension>");
    ASSERT_TRUE(cert->getExtensionXml("2.5.29.14", xml, m_log));
    EXPECT_TRUE(isUpperHex(elementText(xml.view(), "subjectKeyIdentifier"), 40));
    EXPECT_TRUE(errorsOf(m_log).empty());
}

TEST_F(CertsTest, MissingExtensionIsSilentBadOidIsAnError)
{
    auto cert = load(personSpec(s_p256));
    StringBuffer xml("unchanged");
    EXPECT_FALSE(cert->getExtensionXml("2.5.29.32", xml, m_log));
    EXPECT_TRUE(errorsOf(m_log).empty());
    EXPECT_STREQ(xml.getString(), "unchanged");
    EXPECT_FALSE(cert->getExtensionXml("certificatePolicies", xml, m_log));
    EXPECT_FALSE(cert->getExtensionXml(nullptr, xml, m_log));
    EXPECT_EQ(errorsOf(m_log).size(), 2u);
}

// ---- keys ---------------------------------------------------------------------------

TEST_F(CertsTest, KeyTypeAndSize)
{
    const std::vector<std::tuple<TestKey, int, int>> cases{{s_rsa, 1, 2048}, {s_p256, 3, 256},
                                                           {s_p384, 3, 384}, {s_p521, 3, 521}};
    for (const auto& [key, type, bits] : cases) {
        int got = -1;
        EXPECT_EQ(load(personSpec(key))->getCertKeyType(got, m_log), type);
        EXPECT_EQ(got, bits);
    }
}

TEST_F(CertsTest, RsaPublicKeyCarriesModulusAndExponent)
{
    _qxPublicKey pub;
    ASSERT_TRUE(load(personSpec(s_rsa))->getCertPublicKey(pub, m_log));
    ASSERT_NE(pub.getRsaKey(), nullptr);
    EXPECT_EQ(pub.getEccKey(), nullptr);
    BIGNUM* n = nullptr;
    ASSERT_EQ(EVP_PKEY_get_bn_param(s_rsa.get(), OSSL_PKEY_PARAM_RSA_N, &n), 1);
    mp_int expected;
    ASSERT_TRUE(expected.setFromBignum(n));
    BN_free(n);
    EXPECT_TRUE(pub.getRsaKey()->modulus().equals(expected));
    EXPECT_EQ(pub.getRsaKey()->bitLength(), 2048);
    DataBuffer e;
    ASSERT_TRUE(ZelvanMp::unsigned_mpint_to_db(pub.getRsaKey()->exponent(), e));
    EXPECT_EQ(hexOf(e), "010001");
}

TEST_F(CertsTest, EcPointIsExportedUncompressedForEachCurve)
{
    const std::vector<std::tuple<TestKey, const char*, int>> cases{
        {s_p256, "prime256v1", 256}, {s_p384, "secp384r1", 384}, {s_p521, "secp521r1", 521}};
    for (const auto& [key, curve, bits] : cases) {
        _qxPublicKey pub;
        ASSERT_TRUE(load(personSpec(key))->getCertPublicKey(pub, m_log));
        ASSERT_NE(pub.getEccKey(), nullptr);
        EXPECT_EQ(pub.getRsaKey(), nullptr);
        EXPECT_EQ(pub.getEccKey()->curveName(), curve);
        EXPECT_EQ(pub.getEccKey()->fieldSizeBits(), bits);
        DataBuffer point;
        ASSERT_TRUE(pub.getEccKey()->exportEccPoint(point, m_log));
        EXPECT_EQ(point.getSize(), 1u + 2u * static_cast<std::size_t>((bits + 7) / 8));
        EXPECT_EQ(hexOf(point), hexOf(pointOf(key.get())));
    }
}

// ---- token EC points ------------------------------------------------------------------

class EcPointFormTest : public CertsTest {};

TEST_F(EcPointFormTest, WrappedAndRawPointsGiveTheSameForm)
{
    const DataBuffer point = pointOf(s_p384.get());
    const DataBuffer params = ecParamsOf(NID_secp384r1);
    for (const DataBuffer& stored : {point, derOctetString(point)}) {
        DataBuffer withCurve, withoutCurve;
        ASSERT_TRUE(EcPointCanon::fromTokenValue(stored.bytes(), params.bytes(), withCurve));
        ASSERT_TRUE(EcPointCanon::fromTokenValue(stored.bytes(), {}, withoutCurve));
        EXPECT_TRUE(withCurve.equals(point));
        EXPECT_TRUE(withoutCurve.equals(point));
    }
}

TEST_F(EcPointFormTest, BarePointThatReadsAsAnOctetStringStaysWhole)
{
    // A 65-byte P-256-sized point whose X begins 3F 04: also a DER OCTET
    // STRING of 63 bytes that begins with 04.
    DataBuffer bare = fromHex("043F04");
    for (int i = 0; i < 62; ++i)
        bare.appendByte(static_cast<std::uint8_t>(i + 1));
    for (const DataBuffer& stored : {bare, derOctetString(bare)}) {
        DataBuffer out;
        ASSERT_TRUE(EcPointCanon::fromTokenValue(stored.bytes(), {}, out));
        EXPECT_TRUE(out.equals(bare));
    }
}

TEST_F(EcPointFormTest, CompressedPointIsExpandedOnlyWhenTheCurveIsKnown)
{
    const DataBuffer point = pointOf(s_p256.get());
    EC_GROUP* group = EC_GROUP_new_by_curve_name(NID_X9_62_prime256v1);
    EC_POINT* p = EC_POINT_new(group);
    ASSERT_EQ(EC_POINT_oct2point(group, p, point.getData(), point.getSize(), nullptr), 1);
    unsigned char compressed[33];
    ASSERT_EQ(EC_POINT_point2oct(group, p, POINT_CONVERSION_COMPRESSED, compressed, 33, nullptr), 33u);
    EC_POINT_free(p);
    EC_GROUP_free(group);
    const DataBuffer wrapped = derOctetString(DataBuffer(compressed, 33));

    DataBuffer out;
    ASSERT_TRUE(EcPointCanon::fromTokenValue(wrapped.bytes(), ecParamsOf(NID_X9_62_prime256v1).bytes(), out));
    EXPECT_TRUE(out.equals(point));
    EXPECT_FALSE(EcPointCanon::fromTokenValue(wrapped.bytes(), {}, out));
}

TEST_F(EcPointFormTest, ForeignOrBrokenValuesAreRefused)
{
    const DataBuffer point = pointOf(s_p256.get());
    DataBuffer out = fromHex("AA");
    EXPECT_FALSE(EcPointCanon::fromTokenValue(point.bytes(), ecParamsOf(NID_secp384r1).bytes(), out));
    DataBuffer offCurve = point;
    offCurve.getData()[64] ^= 0x01;
    EXPECT_FALSE(EcPointCanon::fromTokenValue(offCurve.bytes(), ecParamsOf(NID_X9_62_prime256v1).bytes(), out));
    for (const char* hex : {"", "04", "0401", "0441AABB", "020304"})
        EXPECT_FALSE(EcPointCanon::fromTokenValue(fromHex(hex).bytes(), {}, out)) << hex;
    EXPECT_EQ(hexOf(out), "AA"); // untouched by every refusal
    EXPECT_EQ(EcPointCanon::curveOfEcParams(fromHex("0603550403").bytes()), NID_undef); // an OID, not a curve
}

// ---- big integers -----------------------------------------------------------------------

TEST(ZelvanMpTest, UnsignedAndSignedForms)
{
    const std::vector<std::tuple<const char*, const char*, const char*>> cases{
        {"8001", "8001", "008001"}, {"7F01", "7F01", "7F01"}, {"000012", "12", "12"},
        {"00FF", "FF", "00FF"},     {"", "", ""},             {"0000", "", ""}};
    for (const auto& [in, unsignedHex, signedHex] : cases) {
        mp_int v;
        ASSERT_TRUE(v.setFromBigEndian(fromHex(in).bytes()));
        DataBuffer u = fromHex("EE");
        DataBuffer s = fromHex("EE");
        ASSERT_TRUE(ZelvanMp::unsigned_mpint_to_db(v, u));
        ASSERT_TRUE(ZelvanMp::mpint_to_db(v, s));
        EXPECT_EQ(hexOf(u), unsignedHex) << in;
        EXPECT_EQ(hexOf(s), signedHex) << in;
    }
}

TEST(ZelvanMpTest, MagnitudesCompareWhateverTheLeadingZeros)
{
    EXPECT_TRUE(ZelvanMp::sameMagnitude(fromHex("00C0FFEE").bytes(), fromHex("C0FFEE").bytes()));
    EXPECT_TRUE(ZelvanMp::sameMagnitude(fromHex("C0FFEE").bytes(), fromHex("0000C0FFEE").bytes()));
    EXPECT_FALSE(ZelvanMp::sameMagnitude(fromHex("C0FFEE").bytes(), fromHex("C0FFEF").bytes()));
    EXPECT_FALSE(ZelvanMp::sameMagnitude(fromHex("C0FFEE").bytes(), fromHex("C0FFEE00").bytes()));
}

TEST_F(CertsTest, RsaModulusFormsDifferByTheSignByte)
{
    _qxPublicKey pub;
    ASSERT_TRUE(load(personSpec(s_rsa))->getCertPublicKey(pub, m_log));
    DataBuffer u, s;
    ZelvanMp::unsigned_mpint_to_db(pub.getRsaKey()->modulus(), u);
    ZelvanMp::mpint_to_db(pub.getRsaKey()->modulus(), s);
    ASSERT_EQ(u.getSize(), 256u); // a 2048-bit modulus has its top bit set
    ASSERT_EQ(s.getSize(), 257u);
    EXPECT_EQ(s.getData()[0], 0);
    EXPECT_TRUE(ZelvanMp::sameMagnitude(u.bytes(), s.bytes()));
}

// ---- token data, link and lifetime ---------------------------------------------------------

TEST_F(CertsTest, LinkNeedsModuleAndKeyAndUnlinkClearsBoth)
{
    auto cert = load(personSpec(s_rsa));
    auto* module = reinterpret_cast<ClsPkcs11*>(0x1000); // only compared, never used
    EXPECT_FALSE(cert->linkToPkcs11Session(nullptr, 1, 256, 7, m_log));
    EXPECT_FALSE(cert->linkToPkcs11Session(module, 1, 256, 0, m_log));
    EXPECT_FALSE(cert->hasPrivateKey(false, m_log));
    ASSERT_TRUE(cert->linkToPkcs11Session(module, 1, 256, 7, m_log));
    EXPECT_TRUE(cert->hasPrivateKey(false, m_log));
    EXPECT_EQ(cert->getLinkedPkcs11(), module);
    EXPECT_EQ(cert->getLinkedKeyHandle(), 7u);
    EXPECT_EQ(cert->getLinkedKeyType(), 1);
    EXPECT_EQ(cert->getExpectedSignatureSize(), 256);
    cert->unlinkFromPkcs11Session();
    EXPECT_FALSE(cert->isLinkedToPkcs11());
    EXPECT_EQ(cert->getLinkedPkcs11(), nullptr);
    EXPECT_EQ(cert->getLinkedKeyHandle(), 0u);
}

TEST_F(CertsTest, SubjectDerIsThePartTheTokenStores)
{
    auto cert = load(personSpec(s_p256));
    DataBuffer subject, issuer;
    ASSERT_TRUE(cert->getPartDer(Certificate::kPartSubject, subject, m_log));
    ASSERT_TRUE(cert->getPartDer(Certificate::kPartIssuer, issuer, m_log));
    const unsigned char* p = subject.getData();
    X509_NAME* name = d2i_X509_NAME(nullptr, &p, static_cast<long>(subject.getSize()));
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(X509_NAME_cmp(name, X509_get_subject_name(cert->x509())), 0);
    X509_NAME_free(name);
    EXPECT_FALSE(subject.equals(issuer));
    EXPECT_FALSE(cert->getPartDer(9, subject, m_log));
}

TEST_F(CertsTest, ClsCertOutlivesTheCacheAndSeesTheUnlink)
{
    ClsCert held;
    {
        ExtPtrArray cache;
        auto cert = load(personSpec(s_rsa));
        cert->setPkcs11ObjectHandle(42);
        cert->setCkaId(fromHex("A1B2").bytes());
        cache.appendObject(new CertificateHolder(std::move(cert)));
        Certificate* inCache = static_cast<CertificateHolder*>(cache.elementAt(0))->getCertPtr(m_log);
        ASSERT_TRUE(held.injectCert(inCache, m_log));
        inCache->linkToPkcs11Session(reinterpret_cast<ClsPkcs11*>(0x1000), 1, 256, 9, m_log);
        EXPECT_TRUE(held.HasPrivateKey());
        // What emptying the module's cache does: unlink each, then delete the holders.
        inCache->unlinkFromPkcs11Session();
        cache.removeAllObjects();
    }
    EXPECT_FALSE(held.HasPrivateKey());
    XString cn;
    held.get_SubjectCN(cn);
    EXPECT_STREQ(cn.getUtf8(), "Alice Martin");
    auto cert = held.getCertificate();
    ASSERT_NE(cert, nullptr);
    EXPECT_EQ(cert->getPkcs11ObjectHandle(), 42u);
    DataBuffer id;
    cert->getCkaId(id);
    EXPECT_EQ(hexOf(id), "A1B2");
    EXPECT_FALSE(held.injectCert(static_cast<Certificate*>(nullptr), m_log));
    EXPECT_EQ(held.getCertificate(), cert); // a failed injection keeps what was there
}

// ---- system certificates ----------------------------------------------------------------------

TEST_F(CertsTest, SystemCertsAreSharedAndMergedWithoutDuplicates)
{
    ClsCert module, user;
    EXPECT_NE(module.getSystemCertsPtr(), user.getSystemCertsPtr());
    auto ca = load([] {
        CertSpec spec;
        spec.key = s_rsa;
        spec.subject = kCaName;
        return spec;
    }());
    auto leaf = load(personSpec(s_p256));
    ASSERT_TRUE(module.getSystemCertsPtr()->addCertificate(ca, m_log));
    ASSERT_TRUE(user.getSystemCertsPtr()->addCertificate(leaf, m_log));

    ASSERT_TRUE(user.mergeSysCerts(module, m_log));
    ASSERT_TRUE(user.mergeSysCerts(module, m_log));
    EXPECT_EQ(user.getSystemCertsPtr()->numCerts(), 2);
    EXPECT_EQ(module.getSystemCertsPtr()->numCerts(), 1);

    DataBuffer issuerDer;
    leaf->getPartDer(Certificate::kPartIssuer, issuerDer, m_log);
    EXPECT_EQ(user.getSystemCertsPtr()->findBySubjectDer(issuerDer, m_log), ca);

    ASSERT_TRUE(user.setSystemCerts(module.getSystemCertsPtr()));
    EXPECT_EQ(user.getSystemCertsPtr(), module.getSystemCertsPtr());
    EXPECT_FALSE(user.setSystemCerts(static_cast<SystemCerts*>(nullptr)));
    EXPECT_EQ(user.getSystemCertsPtr(), module.getSystemCertsPtr());
}

// ---- the public certificate object -----------------------------------------------------------

TEST_F(CertsTest, ClsCertPropertiesAndExports)
{
    CertSpec spec = personSpec(s_p384);
    spec.validDays = 10;
    const auto der = makeCertDer(spec);
    ClsCert cert;
    ASSERT_TRUE(cert.LoadFromDer(DataBuffer(der.data(), der.size())));
    XString text;
    cert.get_IssuerCN(text);
    EXPECT_STREQ(text.getUtf8(), "Test Root CA");
    cert.get_SerialNumber(text);
    EXPECT_STREQ(text.getUtf8(), "0A1B");
    cert.get_KeyType(text);
    EXPECT_STREQ(text.getUtf8(), "ECDSA");
    EXPECT_EQ(cert.get_KeySize(), 384);
    cert.get_ValidFromStr(text);
    EXPECT_TRUE(isIsoUtc(text.getUtf8())) << text.getUtf8();
    std::time_t from = 0, to = 0;
    ASSERT_TRUE(cert.getCertificate()->getValidFrom(from, m_log));
    ASSERT_TRUE(cert.getCertificate()->getValidTo(to, m_log));
    EXPECT_EQ(to - from, 10 * 24 * 3600);
    EXPECT_LE(std::abs(std::time(nullptr) - from), 120);
    ASSERT_TRUE(cert.GetSubjectPart(XString("e"), text));
    EXPECT_STREQ(text.getUtf8(), "alice@example.com");

    DataBuffer out;
    ASSERT_TRUE(cert.ExportDer(out));
    EXPECT_EQ(hexOf(out), hexOf(der));
    ASSERT_TRUE(cert.ExportPem(text));
    ClsCert again;
    ASSERT_TRUE(again.LoadPem(text));
    XString a, b;
    cert.get_Sha1Thumbprint(a);
    again.get_Sha1Thumbprint(b);
    EXPECT_TRUE(a.equalsX(b));
}

TEST_F(CertsTest, ClsCertFilesAndFailures)
{
    const auto der = makeCertDer(personSpec(s_rsa));
    const auto dir = std::filesystem::temp_directory_path() / ("certs_test_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream((dir / "c.der").string(), std::ios::binary)
        .write(reinterpret_cast<const char*>(der.data()), static_cast<std::streamsize>(der.size()));
    std::ofstream((dir / "junk").string()) << "not a certificate";

    ClsCert cert;
    XString text;
    cert.get_SubjectDN(text);
    EXPECT_TRUE(text.isEmpty());
    EXPECT_TRUE(cert.get_IsEmpty());
    DataBuffer out;
    EXPECT_FALSE(cert.ExportDer(out));
    EXPECT_FALSE(cert.HasPrivateKey());

    ASSERT_TRUE(cert.LoadFromFile(XString((dir / "c.der").c_str())));
    EXPECT_FALSE(cert.LoadFromFile(XString((dir / "junk").c_str())));
    EXPECT_FALSE(cert.LoadFromFile(XString((dir / "missing").c_str())));
    cert.get_LogText(text);
    EXPECT_TRUE(text.containsSubstringUtf8("Unable to open the file."));
    cert.get_SubjectCN(text);
    EXPECT_STREQ(text.getUtf8(), "Alice Martin"); // failures kept the loaded certificate
    std::filesystem::remove_all(dir);
}

} // namespace
