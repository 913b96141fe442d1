#include "CertificateView.h"

#include "Certificate.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "Output.h"
#include "XString.h"

namespace p11cli {

using p11client::ClsCert;
using p11client::XString;

namespace {

std::string textOf(ClsCert& cert, void (ClsCert::*getter)(XString&))
{
    XString out;
    (cert.*getter)(out);
    return out.getUtf8();
}

std::string member(const std::string& path, const char* name)
{
    return path.empty() ? name : path + "." + name;
}

} // namespace

CertificateView CertificateView::of(ClsCert& cert)
{
    CertificateView v;
    v.subject = textOf(cert, &ClsCert::get_SubjectDN);
    v.issuer = textOf(cert, &ClsCert::get_IssuerDN);
    v.serial = textOf(cert, &ClsCert::get_SerialNumber);
    v.thumbprint = textOf(cert, &ClsCert::get_Sha1Thumbprint);
    v.keyType = textOf(cert, &ClsCert::get_KeyType);
    v.keyBits = cert.get_KeySize();
    v.validFrom = textOf(cert, &ClsCert::get_ValidFromStr);
    v.validTo = textOf(cert, &ClsCert::get_ValidToStr);
    v.hasPrivateKey = cert.HasPrivateKey();
    if (const auto certificate = cert.getCertificate()) {
        p11client::DataBuffer id;
        certificate->getCkaId(id);
        v.id = lowerHex(id.bytes());
        v.objectHandle = certificate->getPkcs11ObjectHandle();
        const p11client::Pkcs11Link link = certificate->getPkcs11Link();
        v.keyHandle = v.hasPrivateKey ? link.keyHandle : 0;
        v.keyVerified = v.hasPrivateKey && link.keyVerified;
    }
    return v;
}

void CertificateView::addTo(FieldList& fields, bool loggedIn) const
{
    fields.add("subject", subject);
    fields.add("issuer", issuer);
    fields.add("serial", serial);
    fields.add("SHA-1", thumbprint);
    fields.add("key", keyType + " " + std::to_string(keyBits) + " bits");
    fields.add("valid", validFrom + " to " + validTo);
    fields.add("id", id.empty() ? "(none)" : id);
    std::string key = "found on the token (handle " + std::to_string(keyHandle) + ")"
        + (keyVerified ? "" : " (key not verified)");
    if (!hasPrivateKey)
        key = loggedIn ? "not found on the token" : "not found (not logged in: the token may hide it)";
    fields.add("private key", key);
}

void CertificateView::addTo(p11client::ClsJsonObject& json, const std::string& path) const
{
    json.updateString(member(path, "subject").c_str(), subject.c_str());
    json.updateString(member(path, "issuer").c_str(), issuer.c_str());
    json.updateString(member(path, "serial").c_str(), serial.c_str());
    json.updateString(member(path, "sha1Thumbprint").c_str(), thumbprint.c_str());
    json.updateString(member(path, "keyType").c_str(), keyType.c_str());
    json.updateInt(member(path, "keyBits").c_str(), keyBits);
    json.updateString(member(path, "validFrom").c_str(), validFrom.c_str());
    json.updateString(member(path, "validTo").c_str(), validTo.c_str());
    json.updateString(member(path, "id").c_str(), id.c_str());
    json.updateUInt(member(path, "handle").c_str(), objectHandle);
    json.updateBool(member(path, "hasPrivateKey").c_str(), hasPrivateKey);
    if (!hasPrivateKey)
        return;
    json.updateUInt(member(path, "keyHandle").c_str(), keyHandle);
    json.updateBool(member(path, "keyVerified").c_str(), keyVerified);
}

} // namespace p11cli
