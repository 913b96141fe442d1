#pragma once

// A ClsPkcs11 on the test tokens of CertTokens, and the proof of a pairing:
// the token signs with the key handle, the certificate verifies.

#include "CertTokens.h"
#include "ClsPkcs11.h"
#include "LogBase.h"
#include "TokenSignature.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace p11client {
class Certificate;
class ClsCert;
class ClsJsonObject;
} // namespace p11client

namespace p11test {

class CertTokenTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { p11.reset(); }

    // Replaces p11 with a new object for the SoftHSM2 module (nothing loaded).
    void newModuleObject();
    // Loads the module and opens a read-write session on the token, with the
    // user logged in when asked.
    ::testing::AssertionResult openSession(const TestToken& token, bool login = true);
    // The cache's certificates, in cache order (FindAllCerts must have run).
    std::vector<std::shared_ptr<p11client::Certificate>> cachedCerts();

    // Signs on the token with the key the certificate is linked to, verifies
    // with the expected certificate, and checks the reported key type and
    // signature size against the real signature.
    ::testing::AssertionResult provesPairing(const TestToken& token, const p11client::Certificate& cert,
                                             const TokenCert& expected);
    // Whether a signature by this key handle verifies with the certificate.
    ::testing::AssertionResult keySignsFor(const TestToken& token, unsigned long keyHandle, const TokenCert& expected);

    // The log of the last public call, for failure messages.
    std::string logText();

    CertTokens* tokens = nullptr;
    std::unique_ptr<p11client::ClsPkcs11> p11;
};

Bytes derOf(p11client::ClsCert& cert);
std::string lowerHex(const Bytes& bytes);
// Whether the log holds an entry of this kind with this text.
bool logHas(const p11client::_qxLogger& log, p11client::LogEntry::Kind kind, const std::string& text);
// The text at a path of the JSON document ("" when absent).
std::string jsonText(p11client::ClsJsonObject& json, const std::string& path);

} // namespace p11test
