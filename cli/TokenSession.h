#pragma once

#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "LibraryLog.h"
#include "Pkcs11Uri.h"
#include "SlotRecord.h"
#include "XString.h"

#include <memory>
#include <optional>
#include <vector>

namespace p11cli {

class CommandContext;
class PinSource;

// The module a command works with, its Discover report, the slot the
// command line chose and the session on it. Every library call goes
// through LibraryLog, so --verbose shows it and a failure ends the command.
class TokenSession {
public:
    enum class SlotNeed { InitializedToken, AnyToken, NamedToken };
    enum class UserLogin { Required, IfAvailable };

    explicit TokenSession(CommandContext& context);
    ~TokenSession();
    TokenSession(const TokenSession&) = delete;
    TokenSession& operator=(const TokenSession&) = delete;

    // A further URI the slot must match (a command's own --cert-uri).
    void addUri(const std::string& text);
    // The URI whose object part names the object, the command's own first.
    const Pkcs11Uri* objectUri() const;

    p11client::ClsPkcs11& module() { return *m_p11; }
    const LibraryLog& log() const { return m_log; }

    // Loads the module and reads its report (once).
    p11client::ClsJsonObject& discover();
    // The first slot matching --slot and every URI, as the need says:
    // NamedToken demands that --slot or a URI names it.
    const SlotRecord& chooseSlot(SlotNeed need);
    // A session on the chosen slot with an initialized token.
    void open(bool readWrite);
    // Logs the user in. IfAvailable logs in only when a PIN is at hand (or
    // the token has a PIN pad) and reports whether it did.
    bool loginUser(UserLogin need);
    void loginSecurityOfficer(const PinSource& soPin);

    const SlotRecord& slot() const { return *m_slot; }
    bool loggedIn() const { return m_loggedIn; }
    // The user PIN of the login (empty before one).
    const p11client::XString& userPin() const { return m_userPin; }

private:
    std::string selectionText() const;
    std::string chooseModule();

    CommandContext& m_context;
    LibraryLog m_log;
    std::unique_ptr<p11client::ClsPkcs11> m_p11;
    p11client::ClsJsonObject m_report;
    bool m_discovered = false;
    std::vector<SlotRecord> m_slots;
    std::vector<Pkcs11Uri> m_uris; // the global --uri first
    std::optional<SlotRecord> m_slot;
    bool m_loggedIn = false;
    p11client::XString m_userPin;
};

} // namespace p11cli
