// Looking up a card of the embedded database by its ATR.
#include "AtrRewriteRules.h"
#include "ClsBase.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "ExtPtrArray.h"
#include "StringBuffer.h"
#include "XString.h"

#include <memory>
#include <mutex>

namespace p11client {

namespace {

// Upper case, trimmed, and rewritten to its family's entry where a rule applies.
void normalizeAtr(const char* atr, StringBuffer& out)
{
    out.setString(atr != nullptr ? atr : "");
    out.toUpperCase();
    out.trim2();
    rewriteKnownAtrVariant(out);
}

// The first element of the array whose member equals value, ignoring case.
ClsJsonObject* findRecord(ClsJsonObject& db, const char* arrayPath, const char* member, const char* value)
{
    const XString path(arrayPath);
    const XString relPath(member);
    const XString wanted(value);
    return db.FindRecord(path, relPath, wanted, false);
}

bool lookupAtr(ClsJsonObject& db, const char* atr, StringBuffer& cardName, bool& readOnly,
               ExtPtrArraySb& driverPaths, LogBase& log)
{
    StringBuffer workingAtr;
    normalizeAtr(atr, workingAtr);

    ClsJsonObject* card = findRecord(db, "cards", "atr", workingAtr.getString());
    _clsBaseHolder cardHolder;
    cardHolder.setClsBasePtr(card);
    if (card == nullptr)
        return false;

    StringBuffer driverId;
    if (!card->sbOfPathUtf8("driver", driverId, log)) {
        log.LogError("Did not find driver member.");
        return false;
    }
    ClsJsonObject* driver = findRecord(db, "drivers", "id", driverId.getString());
    _clsBaseHolder driverHolder;
    driverHolder.setClsBasePtr(driver);
    if (driver == nullptr) {
        log.LogError("Did not find driver record.");
        return false;
    }
    if (!ClsPkcs11::getPkcs11DriverPaths(*driver, "linux", driverPaths, log)) {
        log.LogError("Failed to find driver paths.");
        return false;
    }

    const bool haveName = card->sbOfPathUtf8("name", cardName, log);
    LogNull quiet; // an absent "readOnly" means false and leaves no trace
    readOnly = card->boolOf("readOnly", quiet);
    return haveName;
}

// The embedded database, decoded at the first lookup that needs it and kept
// for the process: inflating and parsing it costs far more than a lookup.
// Lookups only read it.
ClsJsonObject* embeddedDatabase(LogBase& log)
{
    static std::mutex mutex;
    static std::unique_ptr<ClsJsonObject> database;
    std::lock_guard<std::mutex> lock(mutex);
    if (database == nullptr) {
        std::unique_ptr<ClsJsonObject> decoded(ClsJsonObject::createNewCls());
        if (decoded != nullptr && ClsPkcs11::GetCardDataJson(*decoded, log))
            database = std::move(decoded);
    }
    return database.get();
}

} // namespace

bool ClsPkcs11::CardDataLookupAtr(ClsJsonObject& db, const char* atr, StringBuffer& cardName, bool& readOnly,
                                  ExtPtrArraySb& driverPaths, LogBase& log)
{
    LogContextExitor ctx(log, "cardDataLookupAtr");
    cardName.clear();
    readOnly = false;
    driverPaths.removeAllSbs();
    return runGuarded(log, [&] { return lookupAtr(db, atr, cardName, readOnly, driverPaths, log); });
}

bool ClsPkcs11::CardDataLookupAtr2(const char* atr, StringBuffer& cardName, bool& readOnly,
                                   ExtPtrArraySb& driverPaths, LogBase& log)
{
    LogContextExitor ctx(log, "atrToPkcs11Info");
    return runGuarded(log, [&] {
        ClsJsonObject* db = embeddedDatabase(log);
        return db != nullptr && CardDataLookupAtr(*db, atr, cardName, readOnly, driverPaths, log);
    });
}

} // namespace p11client
