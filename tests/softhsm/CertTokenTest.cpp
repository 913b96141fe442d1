#include "CertTokenTest.h"

#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "DataBuffer.h"
#include "StringBuffer.h"
#include "XString.h"

#include <algorithm>

using namespace p11client;

namespace p11test {

namespace {

constexpr const char* kMessage = "p11client pairing proof";

// Signature bytes of a key: the modulus size, or r||s for EC.
int realSignatureSize(const TokenCert& c)
{
    const int bytes = (c.bits + 7) / 8;
    return c.ec ? 2 * bytes : bytes;
}

} // namespace

void CertTokenTest::SetUp()
{
    try {
        tokens = &CertTokens::get();
    } catch (const std::exception& e) {
        FAIL() << e.what();
    }
    newModuleObject();
}

void CertTokenTest::newModuleObject()
{
    p11.reset(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(SoftHsmToken::modulePath().c_str()));
}

::testing::AssertionResult CertTokenTest::openSession(const TestToken& token, bool login)
{
    if (!p11->Initialize() || !p11->OpenSession(token.slotNumber(), true))
        return ::testing::AssertionFailure() << "OpenSession on " << token.label << ":\n" << logText();
    if (login && !p11->Login(ClsPkcs11::kUserTypeUser, XString(SoftHsmToken::kUserPin)))
        return ::testing::AssertionFailure() << "Login on " << token.label << ":\n" << logText();
    return ::testing::AssertionSuccess();
}

std::vector<std::shared_ptr<Certificate>> CertTokenTest::cachedCerts()
{
    std::vector<std::shared_ptr<Certificate>> out;
    for (int i = 0; i < p11->get_NumCerts(); ++i) {
        ClsCert cert;
        if (p11->GetCert(i, cert))
            out.push_back(cert.getCertificate());
        else
            ADD_FAILURE() << "GetCert(" << i << "):\n" << logText();
    }
    return out;
}

::testing::AssertionResult CertTokenTest::keySignsFor(const TestToken& token, unsigned long keyHandle,
                                                      const TokenCert& expected)
{
    // The library's login on the token holds for every session of the process.
    TokenSession session(tokens->module().functions(), token.slot);
    const TokenSignature sig = signOnToken(session, keyHandle, expected.ec, kMessage);
    if (sig.rv != CKR_OK)
        return ::testing::AssertionFailure() << "signing with handle " << keyHandle << " failed: rv 0x" << std::hex
                                             << sig.rv;
    if (static_cast<int>(sig.raw.size()) != realSignatureSize(expected))
        return ::testing::AssertionFailure() << "signature of " << sig.raw.size() << " bytes";
    if (!verifiesWithCertificate(expected.der, kMessage, sig, expected.ec))
        return ::testing::AssertionFailure() << "the signature by handle " << keyHandle << " does not verify with "
                                             << expected.label;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult CertTokenTest::provesPairing(const TestToken& token, const Certificate& cert,
                                                        const TokenCert& expected)
{
    if (!cert.isLinkedToPkcs11() || cert.getLinkedPkcs11() != p11.get())
        return ::testing::AssertionFailure() << expected.label << " is not linked to this session";
    const int keyType = expected.ec ? Certificate::kKeyTypeEcdsa : Certificate::kKeyTypeRsa;
    if (cert.getLinkedKeyType() != keyType)
        return ::testing::AssertionFailure() << expected.label << " linked with key type " << cert.getLinkedKeyType();
    if (cert.getExpectedSignatureSize() != realSignatureSize(expected))
        return ::testing::AssertionFailure() << expected.label << ": expected signature size "
                                             << cert.getExpectedSignatureSize() << ", the key signs with "
                                             << realSignatureSize(expected);
    return keySignsFor(token, cert.getLinkedKeyHandle(), expected) << " (" << expected.label << ")";
}

std::string CertTokenTest::logText()
{
    XString text;
    p11->get_LogText(text);
    return text.getUtf8();
}

Bytes derOf(ClsCert& cert)
{
    DataBuffer der;
    if (!cert.ExportDer(der))
        return {};
    return Bytes(der.getData(), der.getData() + der.getSize());
}

std::string lowerHex(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (std::uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

bool logHas(const _qxLogger& log, LogEntry::Kind kind, const std::string& text)
{
    return std::any_of(log.entries().begin(), log.entries().end(),
                       [&](const LogEntry& e) { return e.kind == kind && e.text == text; });
}

std::string jsonText(ClsJsonObject& json, const std::string& path)
{
    StringBuffer sb;
    LogNull quiet;
    json.sbOfPathUtf8(path.c_str(), sb, quiet);
    return sb.toStdString();
}

} // namespace p11test
