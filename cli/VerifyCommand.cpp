// verify: a signature checked in OpenSSL against a certificate of the token
// or of a file.
#include "CertSelection.h"
#include "ClsCert.h"
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "HashNames.h"
#include "Output.h"
#include "SignatureCheck.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace p11cli {

using p11client::ClsCert;
using p11client::ClsJsonObject;
using p11client::DataBuffer;
using p11client::XString;

namespace {

constexpr std::size_t kMaxInput = 256 * 1024 * 1024;
constexpr std::size_t kMaxSignature = 64 * 1024;

struct VerifyOptions {
    std::string input = "-";
    std::string signatureFile;
    std::string certFile;
    std::string hash = "sha256";
    bool pss = false;
    std::string format = "auto";
    bool inputIsDigest = false;
    CertQuery query;
    std::string certUri;
};

struct CertificateToUse {
    DataBuffer der;
    std::string subject;
};

void takeCertificate(const LibraryLog& log, ClsCert& cert, CertificateToUse& out)
{
    log.check(cert, cert.ExportDer(out.der), "could not export the certificate");
    XString subject;
    cert.get_SubjectDN(subject);
    out.subject = subject.getUtf8();
}

CertificateToUse certificateFor(CommandContext& context, const VerifyOptions& o)
{
    CertificateToUse out;
    ClsCert cert;
    if (!o.certFile.empty()) {
        const LibraryLog log(context.options.verbose);
        log.check(cert, cert.LoadFromFile(XString(o.certFile.c_str())), "cannot load the certificate " + o.certFile);
        takeCertificate(log, cert, out);
        return out;
    }
    TokenSession session(context);
    session.addUri(o.certUri);
    session.open(false);
    const bool byKey = namesPrivateKey(o.query, session);
    session.loginUser(byKey ? TokenSession::UserLogin::Required : TokenSession::UserLogin::IfAvailable);
    selectCertificate(session, o.query, cert);
    takeCertificate(session.log(), cert, out);
    return out;
}

EcdsaFormat formatOf(const std::string& name)
{
    return name == "raw" ? EcdsaFormat::Raw : name == "der" ? EcdsaFormat::Der : EcdsaFormat::Auto;
}

void report(const CommandContext& context, const VerifyOptions& o, const CertificateToUse& cert,
            const VerifyResult& result)
{
    if (context.options.json) {
        ClsJsonObject json;
        json.updateBool("valid", result.valid);
        json.updateString("scheme", result.scheme.c_str());
        json.updateString("hash", o.hash.c_str());
        json.updateString("certificate", cert.subject.c_str());
        if (!result.reason.empty())
            json.updateString("reason", result.reason.c_str());
        printJson(json);
    } else if (result.valid) {
        std::printf("Signature OK (%s, %s), made with the key of %s\n", result.scheme.c_str(), o.hash.c_str(),
                    cert.subject.c_str());
    }
}

int runVerify(CommandContext& context, const VerifyOptions& o)
{
    const CertificateToUse cert = certificateFor(context, o);
    const DataBuffer signature = readInput(o.signatureFile, kMaxSignature, "signature");
    const DataBuffer input = readInput(o.input, kMaxInput, "input");
    if (o.inputIsDigest && input.getSize() != digestSizeOf(o.hash))
        throw UsageError("the input has " + std::to_string(input.getSize()) + " bytes; a " + o.hash + " digest has "
                         + std::to_string(digestSizeOf(o.hash)));
    VerifyRequest request;
    request.hash = o.hash;
    request.pss = o.pss;
    request.inputIsDigest = o.inputIsDigest;
    request.format = formatOf(o.format);
    const VerifyResult result = verifySignature(cert.der, request, input, signature);
    report(context, o, cert, result);
    if (result.valid)
        return kExitSuccess;
    std::string why = result.reason.empty() ? "" : " (" + result.reason + ")";
    throw OperationFailed("the signature does NOT verify with the key of " + cert.subject + why);
}

} // namespace

void addVerifyCommand(CLI::App& app, CommandContext& context)
{
    auto o = std::make_shared<VerifyOptions>();
    CLI::App* verify = app.add_subcommand("verify",
                                          "Check a signature with OpenSSL, against a certificate of the "
                                          "token or of a file");
    verify->add_option("input", o->input, "the signed data (default: stdin)")->type_name("FILE");
    verify->add_option("-s,--signature", o->signatureFile, "the signature")->type_name("FILE")->required();
    CLI::Option* certFile = verify
                                ->add_option("--cert", o->certFile,
                                             "a certificate file (PEM or DER) instead "
                                             "of one of the token")
                                ->type_name("FILE");
    verify->add_option("--hash", o->hash, "sha1, sha256 (the default), sha384 or sha512")
        ->check(CLI::IsMember(hashNames(), CLI::ignore_case));
    verify->add_flag("--pss", o->pss,
                     "RSA-PSS (MGF1 with the same hash, salt of the hash's length) instead of "
                     "PKCS#1 v1.5");
    verify->add_option("--format", o->format, "ECDSA signature: der, raw (r||s) or auto (the default)")
        ->check(CLI::IsMember({"auto", "der", "raw"}, CLI::ignore_case));
    verify->add_flag("--digest", o->inputIsDigest, "the input already is the digest (of the --hash algorithm)");
    addCertQueryOptions(*verify, o->query, o->certUri);
    for (const char* name : {"--cert-part", "--cert-value", "--cert-uri"})
        certFile->excludes(verify->get_option(name));
    context.addCommand(verify, [&context, o] { return runVerify(context, *o); });
}

} // namespace p11cli
