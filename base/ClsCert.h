#pragma once

#include "ClsBase.h"
#include "SystemCertsHolder.h"

#include <memory>

namespace p11client {

class Certificate;
class DataBuffer;
class XString;

// A certificate as the application sees it. It shares its Certificate with
// the module's cache (and with other ClsCerts), so it stays valid when the
// cache is emptied; what the cache's emptying does to the certificate (it
// unlinks it from the PKCS#11 session) is seen here too.
//
// Public methods hold the object's lock, log into LogText and never throw.
// Properties read on an empty object give "", 0 or false.
class ClsCert : public ClsBase, public SystemCertsHolder {
public:
    ClsCert();
    ~ClsCert() override;
    ClsCert(const ClsCert&) = delete;
    ClsCert& operator=(const ClsCert&) = delete;

    // A new empty object owned by the caller, or null.
    static ClsCert* createNewCls();

    // Loading (DER or PEM from a file; DER from bytes; PEM from text).
    // On failure the object keeps what it held.
    bool LoadFromFile(const XString& path);
    bool LoadFromDer(const DataBuffer& der);
    bool LoadPem(const XString& pem);

    // Text forms as documented in Certificate.h.
    void get_SubjectDN(XString& out);
    void get_IssuerDN(XString& out);
    void get_SubjectCN(XString& out);
    void get_IssuerCN(XString& out);
    void get_SerialNumber(XString& out);
    void get_Sha1Thumbprint(XString& out);
    void get_ValidFromStr(XString& out);
    void get_ValidToStr(XString& out);
    // "RSA", "ECDSA", "DSA", "EdDSA" or "other".
    void get_KeyType(XString& out);
    // Key size in bits.
    int get_KeySize();
    bool get_IsEmpty();
    // Whether the certificate is linked to a PKCS#11 session with its
    // private key, so that it can sign on the token.
    bool HasPrivateKey();
    // A subject attribute by name ("CN", "O", "E", "SERIALNUMBER" ...).
    bool GetSubjectPart(const XString& name, XString& out);
    bool ExportDer(DataBuffer& out);
    bool ExportPem(XString& out);

    // Library side. Makes this object present the certificate, sharing it.
    bool injectCert(std::shared_ptr<Certificate> cert, LogBase& log);
    // The same for a certificate given by pointer, which must be owned by a
    // std::shared_ptr (as every certificate of the module's cache is): the
    // object then shares that ownership. False for any other pointer.
    bool injectCert(Certificate* cert, LogBase& log);
    // The presented certificate (shared), or null.
    std::shared_ptr<Certificate> getCertificate();

private:
    bool loadBytes(const DataBuffer& bytes, bool pemOnly, LogBase& log);
    template <class Read>
    void readText(XString& out, Read&& read);

    std::shared_ptr<Certificate> m_cert;
};

} // namespace p11client
