#pragma once

#include "StringBuffer.h"

namespace p11client {

// What a certificate selection asks for: the part of the certificate to
// compare and its value, or, with no part, any certificate or the one whose
// private key is on the token.
struct _smartcardCertSpec {
    StringBuffer readerName; // not used by the PKCS#11 selection
    StringBuffer cardName;   // not used by the PKCS#11 selection
    StringBuffer certPart;
    StringBuffer certPartVal;
    bool mustHavePrivateKey = false;
};

} // namespace p11client
