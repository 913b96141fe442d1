#include "TokenSession.h"

#include "ClsCardReaders.h"
#include "CommandContext.h"
#include "Errors.h"

#include <cstdint>
#include <cstdio>

namespace p11cli {

using p11client::ClsPkcs11;
using p11client::XString;

TokenSession::TokenSession(CommandContext& context)
    : m_context(context), m_log(context.options.verbose), m_p11(ClsPkcs11::createNewCls())
{
    if (!m_p11)
        throw OperationFailed("out of memory");
    if (!context.options.uri.empty())
        m_uris.push_back(Pkcs11Uri::parse(context.options.uri));
}

// The library logs out and closes the session when the object goes.
TokenSession::~TokenSession() = default;

void TokenSession::addUri(const std::string& text)
{
    if (!text.empty())
        m_uris.push_back(Pkcs11Uri::parse(text));
}

const Pkcs11Uri* TokenSession::objectUri() const
{
    for (auto it = m_uris.rbegin(); it != m_uris.rend(); ++it)
        if (it->namesObject())
            return &*it;
    return nullptr;
}

p11client::ClsJsonObject& TokenSession::discover()
{
    if (m_discovered)
        return m_report;
    const std::string path = chooseModule();
    m_p11->put_SharedLibPath(XString(path.c_str()));
    m_p11->put_VerboseLogging(m_context.options.verbose);
    m_log.check(*m_p11, m_p11->Discover(true, m_report), "could not load or query the module " + path);
    m_slots = slotsOfReport(m_report);
    m_discovered = true;
    return m_report;
}

// The module given, or the driver of the card in the reader.
std::string TokenSession::chooseModule()
{
    const GlobalOptions& o = m_context.options;
    if (!o.moduleFromCard()) {
        std::vector<std::string> uriModules;
        for (const Pkcs11Uri& uri : m_uris)
            uriModules.push_back(uri.modulePath());
        return chooseModulePath(o.modulePath, uriModules);
    }
    p11client::_qxLogger log;
    log.m_verbose = o.verbose;
    const bool ok = p11client::ClsCardReaders::moduleFromReader(*m_p11, o.readerName, log);
    m_log.show(log);
    if (!ok)
        throw OperationFailed(LibraryLog::problemOf(log.entries()));
    XString path;
    m_p11->get_SharedLibPath(path);
    return path.getUtf8();
}

const SlotRecord& TokenSession::chooseSlot(SlotNeed need)
{
    discover();
    const GlobalOptions& o = m_context.options;
    bool named = o.hasSlot();
    for (const Pkcs11Uri& uri : m_uris)
        named = named || uri.namesToken();
    if (need == SlotNeed::NamedToken && !named)
        throw UsageError("name the slot with --slot ID or the token with --uri pkcs11:token=LABEL");
    for (const SlotRecord& slot : m_slots) {
        if (!slot.tokenPresent || (need == SlotNeed::InitializedToken && !slot.tokenInitialized))
            continue;
        if (o.hasSlot() && static_cast<std::uint32_t>(slot.id) != static_cast<std::uint32_t>(o.slotId))
            continue;
        bool matches = true;
        for (const Pkcs11Uri& uri : m_uris)
            matches = matches && uri.matches(slot);
        if (matches) {
            m_slot = slot;
            return *m_slot;
        }
    }
    const char* what = need == SlotNeed::InitializedToken ? "no initialized token" : "no token";
    throw OperationFailed(std::string(what) + selectionText());
}

std::string TokenSession::selectionText() const
{
    std::string text;
    if (m_context.options.hasSlot())
        text += " in slot " + std::to_string(m_context.options.slotId);
    for (const Pkcs11Uri& uri : m_uris)
        if (uri.namesToken())
            text += " matching " + uri.text();
    return text.empty() ? " in any slot" : text;
}

void TokenSession::open(bool readWrite)
{
    const SlotRecord& slot = chooseSlot(SlotNeed::InitializedToken);
    m_log.check(*m_p11, m_p11->OpenSession(slot.libraryId(), readWrite),
                "could not open a session on slot " + std::to_string(slot.id));
}

bool TokenSession::loginUser(UserLogin need)
{
    const bool ask = need == UserLogin::Required || m_slot->loginRequired;
    XString pin;
    const bool given = m_context.userPin.obtain(pin, ask ? PinSource::Prompt::Ask : PinSource::Prompt::Never);
    if (!given && m_slot->protectedAuthenticationPath) {
        std::fprintf(stderr, "Enter the PIN on the reader's PIN pad.\n");
    } else if (!given || pin.isEmpty()) {
        if (need == UserLogin::IfAvailable)
            return false;
        throw UsageError("this command needs the user PIN: give --pin-file FILE, set P11CLIENT_PIN, or run it on "
                         "a terminal to be asked");
    }
    m_log.check(*m_p11, m_p11->Login(ClsPkcs11::kUserTypeUser, pin), "login as the user failed");
    m_loggedIn = true;
    m_userPin.copyFromX(pin);
    return true;
}

void TokenSession::loginSecurityOfficer(const PinSource& soPin)
{
    XString pin;
    if (!soPin.obtain(pin, PinSource::Prompt::Ask))
        throw UsageError("this command needs the security officer's PIN: give --so-pin-file FILE, set "
                         + soPin.envName() + ", or run it on a terminal to be asked");
    m_log.check(*m_p11, m_p11->Login(ClsPkcs11::kUserTypeSecurityOfficer, pin), "login as the security officer failed");
    m_loggedIn = true;
}

} // namespace p11cli
