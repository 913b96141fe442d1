// Loading the embedded card database into a JSON object.
#include "CardDataPieces.h"
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "DataBuffer.h"
#include "ClsBase.h"
#include "StringBuffer.h"
#include "ZelvanDeflate.h"

namespace p11client {

namespace {

bool loadCardData(ClsJsonObject& json, LogBase& log)
{
    StringBuffer encoded;
    for (std::size_t i = 0; i < kCardDataPieceCount; ++i)
        encoded.append(kCardDataPieces[i]);

    DataBuffer compressed;
    compressed.appendEncodedById(encoded.getString(), DataBuffer::kBase64);

    DataBuffer inflated;
    _qxIoParams ioParams(nullptr);
    if (!ZelvanDeflate::inflateDb(false, compressed, inflated, false, ioParams,
                                  static_cast<unsigned int>(kCardDataMaxInflatedSize), log))
        return false;
    return json.loadJson(inflated, log);
}

} // namespace

// Decoded afresh on every call (ATR lookups keep one decoded copy of their own).
bool ClsPkcs11::GetCardDataJson(ClsJsonObject& json, LogBase& log)
{
    return runGuarded(log, [&] { return loadCardData(json, log); });
}

} // namespace p11client
