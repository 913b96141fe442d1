// The readers and their cards as a JSON report.
#include "ClsCardReaders.h"

#include "ClsJsonObject.h"
#include "ReaderScan.h"

namespace p11client {

namespace {

void addStrings(ClsJsonObject& json, const std::string& arrayPath, const std::vector<std::string>& values)
{
    json.updateNewArray(arrayPath.c_str());
    for (std::size_t i = 0; i < values.size(); ++i)
        json.updateString((arrayPath + "[" + std::to_string(i) + "]").c_str(), values[i].c_str());
}

void addCard(ClsJsonObject& json, const std::string& path, const ReaderCard& card)
{
    json.updateString((path + ".name").c_str(), card.name.getString());
    json.updateBool((path + ".readOnly").c_str(), card.readOnly);
    std::vector<std::string> paths;
    for (int i = 0; i < card.driverPaths.getSize(); ++i)
        paths.emplace_back(card.driverPaths.stringAt(i));
    addStrings(json, path + ".driverPaths", paths);
    addStrings(json, path + ".installed", card.installed);
}

void addReader(ClsJsonObject& json, int index, const ReaderState& reader, LogBase& log)
{
    const std::string path = "readers[" + std::to_string(index) + "]";
    json.updateString((path + ".name").c_str(), reader.name.c_str());
    json.updateBool((path + ".cardPresent").c_str(), reader.cardPresent);
    if (!reader.cardPresent)
        return;
    json.updateString((path + ".atr").c_str(), reader.atr.c_str());
    ReaderCard card;
    if (lookUpCard(reader.atr, card, log))
        addCard(json, path + ".card", card);
}

bool listReaders(ClsJsonObject& json, LogBase& log)
{
    json.clear(log);
    std::vector<ReaderState> readers;
    if (!scanReaders(readers, log))
        return false;
    json.updateNewArray("readers");
    for (std::size_t i = 0; i < readers.size(); ++i)
        addReader(json, static_cast<int>(i), readers[i], log);
    return true;
}

} // namespace

bool ClsCardReaders::ListReaders(ClsJsonObject& json)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "ListReaders");
    const bool ok = runGuarded(m_log, [&] { return listReaders(json, m_log); });
    logSuccessFailure(ok);
    return ok;
}

} // namespace p11client
