#pragma once

namespace p11client {

class Certificate;
class DataBuffer;
struct HashAlgorithm;

// Whether the certificate's public key verifies, in OpenSSL, a signature the
// token made over the digest: RSA PKCS#1 v1.5 or RSA-PSS (MGF1 with the same
// hash, salt of the hash's length), or ECDSA as r||s.
bool certificateVerifiesSignature(const Certificate& cert, const HashAlgorithm& alg, bool pss,
                                  const DataBuffer& digest, const DataBuffer& signature);

} // namespace p11client
