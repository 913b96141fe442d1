#include "CertSelection.h"

#include "Certificate.h"
#include "DataBuffer.h"
#include "ClsCert.h"
#include "ClsJsonObject.h"
#include "Errors.h"
#include "Output.h"
#include "StringBuffer.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>
#include <p11-kit/pkcs11.h>


namespace p11cli {

using p11client::ClsCert;
using p11client::ClsJsonObject;
using p11client::XString;

namespace {

// Whether the cached certificate is the object the URI names (a key's URI
// names the certificate with the same label and id).
bool uriNames(const Pkcs11Uri& uri, const p11client::Certificate& certificate)
{
    p11client::DataBuffer id;
    certificate.getCkaId(id);
    return uri.namesObjectWith(certificate.getPkcs11Label(), id.bytes());
}

void selectByUri(TokenSession& session, const Pkcs11Uri& uri, ClsCert& cert)
{
    const auto cls = uri.objectClass();
    if (cls && *cls != CKO_CERTIFICATE && *cls != CKO_PRIVATE_KEY && *cls != CKO_PUBLIC_KEY)
        throw UsageError("the URI " + uri.text() + " names no certificate or key");
    auto& p11 = session.module();
    session.log().check(p11, p11.FindAllCerts(), "could not read the token's certificates");
    for (int i = 0; i < p11.get_NumCerts(); ++i) {
        session.log().check(p11, p11.GetCert(i, cert), "could not read certificate " + std::to_string(i));
        const auto certificate = cert.getCertificate();
        if (certificate && uriNames(uri, *certificate))
            return;
    }
    throw OperationFailed("no certificate on the token matches " + uri.text());
}

} // namespace

void addCertQueryOptions(CLI::App& command, CertQuery& query, std::string& uri)
{
    const std::string group = "Certificate selection (default: the one whose private key is on the token)";
    CLI::Option* part = command.add_option("--cert-part", query.part,
                                           "a part of the certificate, as find-cert takes it: privateKey, "
                                           "subjectDN, serial, thumbprint, CN, ...");
    command.add_option("--cert-value", query.value, "the value of that part")->group(group)->type_name("VALUE");
    part->group(group)->type_name("PART");
    command
        .add_option("--cert-uri", uri,
                    "a PKCS#11 URI naming the certificate (or its key): "
                    "pkcs11:object=LABEL;id=%01")
        ->group(group)
        ->type_name("URI")
        ->excludes(part);
}

bool namesPrivateKey(const CertQuery& query, const TokenSession& session)
{
    p11client::StringBuffer name(query.part);
    name.trim2();
    return name.equalsIgnoreCase("privateKey") || (name.isEmpty() && session.objectUri() == nullptr);
}

void selectCertificate(TokenSession& session, const CertQuery& query, ClsCert& cert)
{
    const Pkcs11Uri* uri = session.objectUri();
    if (query.part.empty() && uri != nullptr) {
        selectByUri(session, *uri, cert);
        return;
    }
    const bool byKey = namesPrivateKey(query, session);
    const std::string part = byKey ? "privateKey" : query.part;
    const std::string what = byKey ? std::string("no certificate with its private key on the token")
                                   : "no certificate whose " + query.part + " is " + query.value;
    auto& p11 = session.module();
    session.log().check(p11, p11.FindCert(XString(part.c_str()), XString(query.value.c_str()), cert), what);
}

bool linkPrivateKey(TokenSession& session, ClsCert& cert, bool quiet, bool oneOfAll)
{
    if (cert.HasPrivateKey())
        return true;
    const auto certificate = cert.getCertificate();
    p11client::_qxLogger log;
    log.m_verbose = session.log().verbose();
    const bool linked = certificate && session.module().linkCertToPkcs11Session(certificate.get(), !oneOfAll, log);
    if (quiet)
        session.log().show(log);
    else
        session.log().check(log, linked, "the certificate's private key is not on the token");
    return linked;
}

} // namespace p11cli
