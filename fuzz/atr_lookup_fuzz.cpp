// Fuzz target: any bytes as the ATR of a card-database lookup. The lookup
// must neither crash nor leak, and a success must come with a card name and
// at least one library path.
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "ExtPtrArray.h"
#include "LogBase.h"
#include "StringBuffer.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

using namespace p11client;

// Loaded once: the embedded document does not change between inputs.
static ClsJsonObject& database() {
    static const std::unique_ptr<ClsJsonObject> db = [] {
        std::unique_ptr<ClsJsonObject> json(ClsJsonObject::createNewCls());
        LogNull log;
        if (!json || !ClsPkcs11::GetCardDataJson(*json, log)) std::abort();
        return json;
    }();
    return *db;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string atr(reinterpret_cast<const char*>(data), size);
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb paths;
    _qxLogger log;
    const bool found = ClsPkcs11::CardDataLookupAtr(database(), atr.c_str(), name, readOnly, paths, log);
    if (found ? name.isEmpty() || paths.getSize() == 0 : !name.isEmpty()) std::abort();
    if (log.depth() != 0) std::abort();
    return 0;
}
