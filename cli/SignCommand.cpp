// sign: a signature made on the token with the private key of a certificate.
#include "CertSelection.h"
#include "ClsCert.h"
#include "CommandContext.h"
#include "Commands.h"
#include "Errors.h"
#include "Files.h"
#include "HashNames.h"
#include "Output.h"
#include "TokenSession.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <memory>

namespace p11cli {

using p11client::ClsCert;
using p11client::ClsJsonObject;
using p11client::ClsPkcs11;
using p11client::DataBuffer;
using p11client::XString;

namespace {

constexpr std::size_t kMaxInput = 256 * 1024 * 1024;

struct SignOptions {
    std::string input = "-";
    std::string output = "-";
    std::string hash = "sha256";
    bool pss = false;
    std::string format = "der";
    bool inputIsDigest = false;
    CertQuery query;
    std::string certUri;
    PinSource contextPin {"context-specific PIN", "P11CLIENT_CONTEXT_PIN"};
};

struct Signed {
    std::string subject;
    std::string keyType;
    std::string scheme;
    DataBuffer signature;
};

std::string keyTypeOf(ClsCert& cert)
{
    XString type;
    cert.get_KeyType(type);
    return type.getUtf8();
}

// Signs on the token; the signature as the token gave it.
Signed signOnToken(TokenSession& session, const SignOptions& o, const DataBuffer& input)
{
    ClsCert cert;
    selectCertificate(session, o.query, cert);
    linkPrivateKey(session, cert, false);
    Signed out;
    out.keyType = keyTypeOf(cert);
    if (out.keyType != "RSA" && out.keyType != "ECDSA")
        throw OperationFailed("the certificate's key is " + out.keyType + "; only RSA and ECDSA keys sign here");
    if (o.pss && out.keyType != "RSA")
        throw UsageError("--pss is for RSA keys; the certificate's key is an EC key");
    out.scheme = out.keyType == "ECDSA" ? "ECDSA" : o.pss ? "RSA-PSS" : "RSA PKCS#1 v1.5";
    XString subject;
    cert.get_SubjectDN(subject);
    out.subject = subject.getUtf8();

    ClsPkcs11& p11 = session.module();
    p11.put_UsePss(o.pss);
    XString contextPin; // a key that wants a login at each signature gets this PIN
    if (!o.contextPin.obtain(contextPin, PinSource::Prompt::Never))
        contextPin.copyFromX(session.userPin());
    p11.put_SigContextPin(contextPin);
    const XString hash(o.hash.c_str());
    const bool ok = o.inputIsDigest ? p11.SignHash(cert, hash, input, out.signature)
                                    : p11.SignData(cert, hash, input, out.signature);
    session.log().check(p11, ok, "signing on the token failed");
    return out;
}

void report(const CommandContext& context, const SignOptions& o, const Signed& s)
{
    if (context.options.json) {
        ClsJsonObject json;
        json.updateString("certificate", s.subject.c_str());
        json.updateString("keyType", s.keyType.c_str());
        json.updateString("scheme", s.scheme.c_str());
        json.updateString("hash", o.hash.c_str());
        if (s.keyType == "ECDSA")
            json.updateString("format", o.format.c_str());
        json.updateInt("signatureSize", static_cast<long long>(s.signature.getSize()));
        json.updateString("signature", lowerHex(s.signature.bytes()).c_str());
        if (o.output != "-")
            json.updateString("output", o.output.c_str());
        printJson(json);
    } else if (o.output != "-") {
        std::printf("Signed with the key of %s (%s, %s): %zu-byte signature written to %s\n", s.subject.c_str(),
                    s.scheme.c_str(), o.hash.c_str(), s.signature.getSize(), o.output.c_str());
    }
}

int runSign(CommandContext& context, const SignOptions& o)
{
    if (!context.options.json)
        checkBinaryOutput(o.output, "signature");
    TokenSession session(context);
    session.addUri(o.certUri);
    session.open(false);
    session.loginUser(TokenSession::UserLogin::Required);
    const DataBuffer input = readInput(o.input, kMaxInput, "input");
    if (o.inputIsDigest && input.getSize() != digestSizeOf(o.hash))
        throw UsageError("the input has " + std::to_string(input.getSize()) + " bytes; a " + o.hash + " digest has "
                         + std::to_string(digestSizeOf(o.hash)));
    Signed s = signOnToken(session, o, input);
    if (s.keyType == "ECDSA" && o.format == "der") {
        DataBuffer der;
        if (!ClsPkcs11::EcdsaSignatureToDer(s.signature, der))
            throw OperationFailed("the token's ECDSA signature is not r||s of two equal halves");
        s.signature = der;
    }
    if (!context.options.json || o.output != "-")
        writeOutput(o.output, s.signature, "signature");
    report(context, o, s);
    return kExitSuccess;
}

} // namespace

void addSignCommand(CLI::App& app, CommandContext& context)
{
    auto o = std::make_shared<SignOptions>();
    CLI::App* sign = app.add_subcommand("sign",
                                        "Sign a file (or stdin) on the token with a certificate's private "
                                        "key");
    sign->add_option("input", o->input, "the data to sign (default: stdin)")->type_name("FILE");
    sign->add_option("-o,--out", o->output, "where the signature goes (default: stdout)")->type_name("FILE");
    sign->add_option("--hash", o->hash, "sha1, sha256 (the default), sha384 or sha512")
        ->check(CLI::IsMember(hashNames(), CLI::ignore_case));
    sign->add_flag("--pss", o->pss,
                   "RSA-PSS (MGF1 with the same hash, salt of the hash's length) instead of "
                   "PKCS#1 v1.5");
    sign->add_option("--format", o->format, "ECDSA signature: der (ECDSA-Sig-Value, the default) or raw (r||s)")
        ->check(CLI::IsMember({"der", "raw"}, CLI::ignore_case));
    sign->add_flag("--digest", o->inputIsDigest, "the input already is the digest (of the --hash algorithm)");
    addCertQueryOptions(*sign, o->query, o->certUri);
    o->contextPin.addOptions(*sign, "context-pin",
                            "Context-specific PIN, for keys that want a login at each signature (default: the user "
                            "PIN)");
    context.addPinSource(&o->contextPin);
    context.addCommand(sign, [&context, o] { return runSign(context, *o); });
}

} // namespace p11cli
