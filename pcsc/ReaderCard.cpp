// A reader's card looked up in the embedded card database.
#include "ClsPkcs11.h"
#include "FileSys.h"
#include "LogBase.h"
#include "ReaderScan.h"

namespace p11client {

bool lookUpCard(const std::string& atr, ReaderCard& card, LogBase& log)
{
    card.installed.clear();
    if (atr.empty() || !ClsPkcs11::CardDataLookupAtr2(atr.c_str(), card.name, card.readOnly, card.driverPaths, log))
        return false;
    for (int i = 0; i < card.driverPaths.getSize(); ++i) {
        const char* path = card.driverPaths.stringAt(i);
        if (FileSys::fileExistsUtf8(path, nullptr, nullptr))
            card.installed.emplace_back(path);
    }
    return true;
}

} // namespace p11client
