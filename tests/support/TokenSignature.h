#pragma once

// Signatures made on the token beside the library, and OpenSSL's verdict on
// signatures: the proof that a key handle and a certificate belong together.

#include "SoftHsmObjects.h"

#include <string>

namespace p11test {

// What the token signs for a SHA-256 digest: the DigestInfo for RSA
// PKCS#1 v1.5 (CKM_RSA_PKCS), the bare digest for ECDSA.
Bytes signingInput(bool ec, const Bytes& sha256Digest);

// The digest of a message with the hash named ("sha256"...).
Bytes digestOf(const std::string& hash, const std::string& message);

// Signs SHA-256(message) on the token: RSA with CKM_RSA_PKCS over the
// DigestInfo, EC with CKM_ECDSA over the bare digest (r||s). Empty when the
// token refuses.
Bytes signOnToken(const TokenSession& session, CK_OBJECT_HANDLE key, bool ec, const std::string& message);

// OpenSSL's verdict on a signature (ECDSA as a DER ECDSA-Sig-Value) over a
// digest made with the hash named, by the certificate's key; RSA as PKCS#1
// v1.5, or PSS with MGF1 of the same hash and a salt of the digest's length.
bool verifiesDigest(const Bytes& certDer, const std::string& hash, const Bytes& digest, const Bytes& signature,
                    bool pss = false);

} // namespace p11test
