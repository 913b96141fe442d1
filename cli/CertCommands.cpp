// certs: every certificate of the token with the pairing result;
// find-cert: one certificate, shown or exported.
#include "CertSelection.h"
#include "CertificateView.h"
#include "ClsCert.h"
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "Output.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace p11cli {

using p11client::ClsCert;
using p11client::ClsJsonObject;

namespace {

void printTokenHeading(const TokenSession& session)
{
    std::printf("Token \"%s\" in slot %lu%s\n\n", session.slot().label.c_str(), session.slot().id,
                session.loggedIn() ? "" : " (not logged in)");
}

int runCerts(CommandContext& context)
{
    TokenSession session(context);
    session.open(false);
    const bool loggedIn = session.loginUser(TokenSession::UserLogin::IfAvailable);
    auto& p11 = session.module();
    session.log().check(p11, p11.FindAllCerts(), "could not read the token's certificates");
    const int count = p11.get_NumCerts();
    ClsJsonObject json;
    json.updateBool("loggedIn", loggedIn);
    json.updateNewArray("certificates");
    if (!context.options.json)
        printTokenHeading(session);
    for (int i = 0; i < count; ++i) {
        ClsCert cert;
        session.log().check(p11, p11.GetCert(i, cert), "could not read certificate " + std::to_string(i));
        linkPrivateKey(session, cert, true, true);
        const CertificateView view = CertificateView::of(cert);
        view.addTo(json, "certificates[" + std::to_string(i) + "]");
        if (context.options.json)
            continue;
        FieldList fields("Certificate " + std::to_string(i + 1) + " of " + std::to_string(count));
        view.addTo(fields, loggedIn);
        fields.print(stdout);
        std::printf("\n");
    }
    json.updateInt("count", count);
    if (context.options.json)
        printJson(json);
    else if (count == 0)
        std::printf("No certificate on the token.\n");
    return kExitSuccess;
}

struct FindCertOptions {
    CertQuery query;
    bool pem = false;
    std::string derFile;
};

void exportCert(TokenSession& session, ClsCert& cert, const FindCertOptions& o)
{
    if (!o.derFile.empty()) {
        p11client::DataBuffer der;
        session.log().check(cert, cert.ExportDer(der), "could not export the certificate");
        writeOutput(o.derFile, der, "certificate");
    }
    if (o.pem) {
        p11client::XString pem;
        session.log().check(cert, cert.ExportPem(pem), "could not export the certificate");
        std::fputs(pem.getUtf8(), stdout);
    }
}

int runFindCert(CommandContext& context, const FindCertOptions& o)
{
    TokenSession session(context);
    if (o.query.part.empty() && (session.objectUri() == nullptr))
        throw UsageError("give a PART (privateKey, subjectDN, serial, thumbprint, CN, ...) or a URI naming an object");
    session.open(false);
    const bool byKey = namesPrivateKey(o.query, session);
    session.loginUser(byKey ? TokenSession::UserLogin::Required : TokenSession::UserLogin::IfAvailable);
    ClsCert cert;
    selectCertificate(session, o.query, cert);
    linkPrivateKey(session, cert, true);
    exportCert(session, cert, o);
    if (o.pem || o.derFile == "-")
        return kExitSuccess;
    const CertificateView view = CertificateView::of(cert);
    if (context.options.json) {
        ClsJsonObject json;
        view.addTo(json, "");
        printJson(json);
    } else {
        FieldList fields("Certificate");
        view.addTo(fields, session.loggedIn());
        fields.print(stdout);
    }
    return kExitSuccess;
}

constexpr const char* kPartHelp
    = "what to compare: privateKey (the certificate whose private key is on the token; VALUE not needed), "
      "subjectDN, subjectDN_withTags, issuerCN (SERIAL:ISSUER CN), serial, thumbprint (SHA-1), policyOid, keyUsage "
      "(digitalSignature, nonRepudiation, ...), or a subject attribute: CN, O, OU, E, C, L, ST, SERIALNUMBER, ...";

} // namespace

void addCertCommands(CLI::App& app, CommandContext& context)
{
    CLI::App* certs = app.add_subcommand("certs",
                                         "List the token's certificates and whether each has its private "
                                         "key on the token");
    context.addCommand(certs, [&context] { return runCerts(context); });

    auto o = std::make_shared<FindCertOptions>();
    CLI::App* find = app.add_subcommand("find-cert",
                                        "Find one certificate of the token by a part of it, or by "
                                        "the object in --uri");
    find->add_option("part", o->query.part, kPartHelp)->type_name("PART");
    find->add_option("value", o->query.value, "the value the part must have")->type_name("VALUE");
    find->add_flag("--pem", o->pem, "print the certificate as PEM instead of its description");
    find->add_option("--der", o->derFile, "write the certificate's DER to FILE (- for stdout)")->type_name("FILE");
    context.addCommand(find, [&context, o] { return runFindCert(context, *o); });
}

} // namespace p11cli
