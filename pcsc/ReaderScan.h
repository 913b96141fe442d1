#pragma once

#include "ExtPtrArray.h"
#include "StringBuffer.h"

#include <string>
#include <vector>

namespace p11client {

class LogBase;

// One reader as the PC/SC service sees it now.
struct ReaderState {
    std::string name;
    bool cardPresent = false;
    bool cardMute = false; // a card is in but gave no ATR
    std::string atr;       // upper-case hex, empty without a card
};

// A card as the card database knows it.
struct ReaderCard {
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb driverPaths;
    std::vector<std::string> installed; // the driver paths present on this machine
};

// The connected readers and their cards; readers that vanish while being
// asked are left out. False, with the reason logged, when the PC/SC service
// cannot be asked.
bool scanReaders(std::vector<ReaderState>& readers, LogBase& log);

// The card with the ATR from the card database; false when it is not there.
bool lookUpCard(const std::string& atr, ReaderCard& card, LogBase& log);

} // namespace p11client
