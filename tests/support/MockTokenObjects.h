#pragma once

#include "MockControl.h"
#include "TestCertFactory.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace p11test {

// Puts certificates and private keys made with OpenSSL on a mock token, in
// the forms real tokens use.
struct MockKeyOptions {
    enum class Point { None, Raw, DerWrapped };

    std::vector<std::uint8_t> id;          // CKA_ID; empty: none
    std::optional<bool> sign = true;       // CKA_SIGN; nullopt: absent
    bool modulusWithLeadingZero = false;   // RSA: store the signed form
    std::vector<std::uint8_t> subjectDer;  // CKA_SUBJECT; empty: none
    Point ecPoint = Point::None;

    MockKeyOptions& withId(std::vector<std::uint8_t> v) { id = std::move(v); return *this; }
    MockKeyOptions& withSign(std::optional<bool> v) { sign = v; return *this; }
    MockKeyOptions& withLeadingZero(bool v) { modulusWithLeadingZero = v; return *this; }
    MockKeyOptions& withSubject(std::vector<std::uint8_t> v) { subjectDer = std::move(v); return *this; }
    MockKeyOptions& withPoint(Point v) { ecPoint = v; return *this; }
};

CK_OBJECT_HANDLE addMockCert(CK_SLOT_ID slot, const std::vector<std::uint8_t>& der,
                             const std::vector<std::uint8_t>& id = {});
CK_OBJECT_HANDLE addMockPrivateKey(CK_SLOT_ID slot, const TestKey& key, const MockKeyOptions& options);

} // namespace p11test
