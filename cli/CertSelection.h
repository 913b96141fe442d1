#pragma once

#include <string>

namespace CLI {
class App;
}

namespace p11client {
class ClsCert;
}

namespace p11cli {

class TokenSession;

// A certificate named by one of FindCert's parts and a value; the part
// "privateKey" names the first certificate whose key is on the token.
struct CertQuery {
    std::string part; // empty: not given
    std::string value;
};

// Adds --cert-part, --cert-value and --cert-uri (the latter to uri) to a command.
void addCertQueryOptions(CLI::App& command, CertQuery& query, std::string& uri);

// Whether the certificate the command line names is "the one with a private
// key": the part privateKey, or neither part nor object URI.
bool namesPrivateKey(const CertQuery& query, const TokenSession& session);

// The certificate of the session's token that the command line names: by the
// query's part when given, else by the object part of a URI (object=, id=)
// when one names an object, else the one with a private key. Ends the
// command when there is none.
void selectCertificate(TokenSession& session, const CertQuery& query, p11client::ClsCert& cert);

// Pairs the certificate with its private key on the token (unless it
// already is) and tells whether it has one. quiet keeps a key not found
// from being an error; otherwise that ends the command. oneOfAll: the
// command pairs every certificate, so the library reads all the keys'
// pairing material at the first one.
bool linkPrivateKey(TokenSession& session, p11client::ClsCert& cert, bool quiet, bool oneOfAll = false);

} // namespace p11cli
