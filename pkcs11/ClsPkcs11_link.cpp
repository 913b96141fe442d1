// Linking a certificate to the session with the handle of its private key.
#include "ClsPkcs11.h"

#include "Certificate.h"

namespace p11client {

bool ClsPkcs11::linkCertToPkcs11Session(Certificate* cert, bool minimalFirstPass, LogBase& log)
{
    LogContextExitor ctx(log, "linkCertToPkcs11Session");
    if (cert == nullptr)
        return false;
    int certKeyType = 0;
    int expectedSignatureSize = 0;
    const unsigned long handle = findPrivKeyHandle(*cert, minimalFirstPass, certKeyType, expectedSignatureSize, log);
    log.LogDataBool("hasPrivateKey", handle != 0);
    log.LogDataLong("expectedSignatureSize", expectedSignatureSize);
    if (handle == 0) {
        log.LogError("No matching private key found on the HSM.");
        return false;
    }
    cert->linkToPkcs11Session(this, certKeyType, expectedSignatureSize, handle, log);
    return true;
}

} // namespace p11client
