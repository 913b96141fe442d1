#pragma once

#include <string>
#include <vector>

namespace p11client {
class ClsJsonObject;
}

namespace p11cli {

// A slot and its token as the library's Discover report describes them.
struct SlotRecord {
    unsigned long id = 0;
    std::string description;
    std::string manufacturer;
    bool tokenPresent = false;
    bool tokenInitialized = false;
    bool loginRequired = false;
    bool userPinInitialized = false;
    bool userPinLocked = false;
    bool protectedAuthenticationPath = false;
    std::string label;
    std::string tokenManufacturer;
    std::string model;
    std::string serialNumber;

    // The slot number the library's int parameters take (the same 32 bits).
    int libraryId() const;
};

// Every slot of a Discover report, in its order.
std::vector<SlotRecord> slotsOfReport(p11client::ClsJsonObject& report);

} // namespace p11cli
