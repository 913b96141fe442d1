#include "SlotRecord.h"

#include "ClsJsonObject.h"
#include "StringBuffer.h"

#include <cstdint>

namespace p11cli {

using p11client::ClsJsonObject;
using p11client::LogNull;
using p11client::StringBuffer;

namespace {

std::string textOf(ClsJsonObject& report, const std::string& path)
{
    StringBuffer out;
    LogNull log;
    if (report.jsonTypeOf(path.c_str()) != ClsJsonObject::kTypeString || !report.sbOfPathUtf8(path.c_str(), out, log))
        return {};
    return out.toStdString();
}

bool flagOf(ClsJsonObject& report, const std::string& path)
{
    LogNull log;
    return report.jsonTypeOf(path.c_str()) == ClsJsonObject::kTypeBool && report.boolOf(path.c_str(), log);
}

SlotRecord slotAt(ClsJsonObject& report, int index)
{
    const std::string slot = "slots[" + std::to_string(index) + "]";
    const std::string token = slot + ".token";
    SlotRecord r;
    r.id = static_cast<unsigned long>(report.intOf((slot + ".id").c_str()));
    r.description = textOf(report, slot + ".description");
    r.manufacturer = textOf(report, slot + ".manufacturer");
    r.tokenPresent
        = flagOf(report, slot + ".tokenPresent") && report.jsonTypeOf(token.c_str()) == ClsJsonObject::kTypeObject;
    r.tokenInitialized = flagOf(report, token + ".flags.tokenInitialized");
    r.loginRequired = flagOf(report, token + ".flags.loginRequired");
    r.userPinInitialized = flagOf(report, token + ".flags.userPinInitialized");
    r.userPinLocked = flagOf(report, token + ".flags.userPinLocked");
    r.protectedAuthenticationPath = flagOf(report, token + ".flags.protectedAuthenticationPath");
    r.label = textOf(report, token + ".label");
    r.tokenManufacturer = textOf(report, token + ".manufacturer");
    r.model = textOf(report, token + ".model");
    r.serialNumber = textOf(report, token + ".serialNumber");
    return r;
}

} // namespace

int SlotRecord::libraryId() const
{
    return static_cast<int>(static_cast<std::uint32_t>(id));
}

std::vector<SlotRecord> slotsOfReport(ClsJsonObject& report)
{
    LogNull log;
    std::vector<SlotRecord> slots;
    const int count = report.sizeOfArray("slots", log);
    for (int i = 0; i < count; ++i)
        slots.push_back(slotAt(report, i));
    return slots;
}

} // namespace p11cli
