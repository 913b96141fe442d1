#pragma once

#include "ClsBase.h"

#include <string>

namespace p11client {

class ClsJsonObject;
class ClsPkcs11;

// The machine's smart card readers, through its PC/SC service: which hold a
// card, the card's ATR and, from the embedded card database, the card's name
// and the PKCS#11 drivers that serve it. Every PC/SC wait is bounded; no
// call blocks on a reader.
class ClsCardReaders : public ClsBase {
public:
    // The readers as JSON:
    // {"readers":[{"name":..,"cardPresent":true,"atr":"3B..","card":{"name":..,
    //   "readOnly":false,"driverPaths":[..],"installed":[..]}}]}
    // "card" is there only for a card the database knows. No reader gives an
    // empty list; false when the PC/SC service cannot be asked.
    bool ListReaders(ClsJsonObject& json);

    // Points p11's SharedLibPath at the installed driver of the card in the
    // reader named, or (readerName empty) in the only reader holding a card.
    // False otherwise, the reason the last error line of the log.
    static bool moduleFromReader(ClsPkcs11& p11, const std::string& readerName, LogBase& log);
};

} // namespace p11client
