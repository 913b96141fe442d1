#pragma once

#include <string>

namespace p11client {
class ClsCert;
class ClsJsonObject;
} // namespace p11client

namespace p11cli {

class FieldList;

// What the tool tells about a certificate of the token.
struct CertificateView {
    std::string subject;
    std::string issuer;
    std::string serial;
    std::string thumbprint;
    std::string keyType;
    int keyBits = 0;
    std::string validFrom;
    std::string validTo;
    std::string id; // CKA_ID in hex, empty when none
    unsigned long objectHandle = 0;
    bool hasPrivateKey = false;
    unsigned long keyHandle = 0;
    bool keyVerified = false; // the key was proven to be the certificate's

    static CertificateView of(p11client::ClsCert& cert);
    // The fields as lines; loggedIn tells how to read a key not found.
    void addTo(FieldList& fields, bool loggedIn) const;
    // The members under path ("certificates[0]", or "" for the root).
    void addTo(p11client::ClsJsonObject& json, const std::string& path) const;
};

} // namespace p11cli
