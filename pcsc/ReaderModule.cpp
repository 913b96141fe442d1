// The PKCS#11 module for the card in a reader.
#include "ClsCardReaders.h"
#include "ClsPkcs11.h"
#include "ReaderScan.h"
#include "XString.h"

namespace p11client {

namespace {

bool fail(const std::string& text, LogBase& log)
{
    log.LogError(text.c_str());
    return false;
}

// The reader when it holds a card that answered; null with the reason.
const ReaderState* withCard(const ReaderState& reader, LogBase& log)
{
    if (!reader.cardPresent)
        fail("No card in the reader " + reader.name + ".", log);
    else if (reader.atr.empty())
        fail("The card in the reader " + reader.name + " does not answer.", log);
    else
        return &reader;
    return nullptr;
}

// The reader named, or the only one holding a card; null with the reason.
const ReaderState* pickReader(const std::vector<ReaderState>& readers, const std::string& name, LogBase& log)
{
    std::vector<const ReaderState*> matches;
    std::string names;
    for (const ReaderState& reader : readers) {
        if (name.empty() ? reader.cardPresent : reader.name == name) {
            names += (matches.empty() ? "" : ", ") + reader.name;
            matches.push_back(&reader);
        }
    }
    if (readers.empty())
        fail("No card reader is connected.", log);
    else if (matches.empty())
        fail(name.empty() ? "No card in any reader." : "No reader named \"" + name + "\" is connected.", log);
    else if (matches.size() > 1)
        fail("Several readers hold a card (" + names + "): name one.", log);
    else
        return withCard(*matches.front(), log);
    return nullptr;
}

std::string joined(const ExtPtrArraySb& paths)
{
    std::string text;
    for (int i = 0; i < paths.getSize(); ++i)
        text += (i > 0 ? ", " : "") + std::string(paths.stringAt(i));
    return text.empty() ? "none known for Linux" : text;
}

bool chooseModule(ClsPkcs11& p11, const std::string& readerName, LogBase& log)
{
    std::vector<ReaderState> readers;
    if (!scanReaders(readers, log))
        return false;
    const ReaderState* reader = pickReader(readers, readerName, log);
    if (reader == nullptr)
        return false;
    log.LogDataSb("reader", StringBuffer(reader->name));
    log.LogDataSb("atr", StringBuffer(reader->atr));
    ReaderCard card;
    if (!lookUpCard(reader->atr, card, log))
        return fail("The card's ATR " + reader->atr + " is not in the card database.", log);
    log.LogDataSb("cardName", card.name);
    if (card.installed.empty())
        return fail("No driver for the card " + card.name.toStdString() + " is installed (tried "
                        + joined(card.driverPaths) + ").",
                    log);
    p11.put_SharedLibPath(XString(card.installed.front().c_str()));
    log.LogDataSb("sharedLibPath", StringBuffer(card.installed.front()));
    return true;
}

} // namespace

bool ClsCardReaders::moduleFromReader(ClsPkcs11& p11, const std::string& readerName, LogBase& log)
{
    LogContextExitor ctx(log, "moduleFromReader");
    return runGuarded(log, [&] { return chooseModule(p11, readerName, log); });
}

} // namespace p11client
