#pragma once

#include "DataBuffer.h"

#include <string>

namespace p11cli {

// How an ECDSA signature is written: r||s as tokens return it, or DER
// (ECDSA-Sig-Value) as standard verifiers take it.
enum class EcdsaFormat { Auto, Raw, Der };

struct VerifyRequest {
    std::string hash = "sha256";
    bool pss = false; // RSA-PSS (MGF1 with the same hash, salt of the hash's length)
    bool inputIsDigest = false; // the input already is the digest
    EcdsaFormat format = EcdsaFormat::Auto;
};

struct VerifyResult {
    bool valid = false;
    std::string scheme; // "RSA PKCS#1 v1.5", "RSA-PSS", "ECDSA (DER)", "ECDSA (r||s)"
    std::string reason; // why it is not valid, when OpenSSL says more than "no"
};

// Checks the signature with the certificate's public key in OpenSSL. A
// certificate or key OpenSSL cannot use ends the command (OperationFailed).
VerifyResult verifySignature(const p11client::DataBuffer& certDer, const VerifyRequest& request,
                             const p11client::DataBuffer& input, const p11client::DataBuffer& signature);

} // namespace p11cli
