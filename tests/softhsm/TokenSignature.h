#pragma once

// Proof that a key handle and a certificate belong together: the token signs
// a SHA-256 digest with the key, OpenSSL verifies it with the certificate.

#include "SoftHsmObjects.h"

#include <string>

namespace p11test {

struct TokenSignature {
    CK_RV rv = CKR_OK; // of the first Cryptoki call that failed
    Bytes raw;         // RSA PKCS#1 v1.5 signature, or ECDSA r||s
};

// What the token signs for a SHA-256 digest: the DigestInfo for RSA
// PKCS#1 v1.5 (CKM_RSA_PKCS), the bare digest for ECDSA.
Bytes signingInput(bool ec, const Bytes& sha256Digest);

// Signs SHA-256(message) on the token: RSA with CKM_RSA_PKCS over the
// DigestInfo, EC with CKM_ECDSA over the bare digest.
TokenSignature signOnToken(const TokenSession& session, CK_OBJECT_HANDLE key, bool ec, const std::string& message);

// Whether the certificate's public key verifies a signature signOnToken made.
bool verifiesWithCertificate(const Bytes& certDer, const std::string& message, const TokenSignature& signature,
                             bool ec);

} // namespace p11test
