// mockp11_control(): this image's control API as a table of its own functions.
#include "MockControl.h"

namespace mock {

namespace {

CK_OBJECT_HANDLE addObjectEntry(CK_SLOT_ID slot, std::vector<Attribute> attributes,
                                std::vector<CK_ATTRIBUTE_TYPE> sensitive) {
    return addObject(slot, std::move(attributes), std::move(sensitive));
}

int callCountEntry(const std::string& function) { return callCount(function); }

const ControlTable kTable = {
    .reset = reset,
    .addSlot = addSlot,
    .addObject = addObjectEntry,
    .setBehaviour = setBehaviour,
    .initialized = initialized,
    .initializeCount = initializeCount,
    .finalizeCount = finalizeCount,
    .openSessionCount = openSessionCount,
    .activeFindOperations = activeFindOperations,
    .overlappingCalls = overlappingCalls,
    .clearOverlappingCalls = clearOverlappingCalls,
    .workerRunning = workerRunning,
    .callCount = callCountEntry,
    .lastInitializeHadArgs = lastInitializeHadArgs,
    .lastInitializeFlags = lastInitializeFlags,
    .loggedIn = loggedIn,
    .afterCall = afterCall,
    .failCall = failCall,
};

}  // namespace

}  // namespace mock

extern "C" const mock::ControlTable* mockp11_control() { return &mock::kTable; }
