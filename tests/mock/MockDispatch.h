// The one path every entry point takes: lock, injected fault or
// not-initialized check, the function's own body, the call record, then any
// afterCall() actions outside the lock.
//
// A hostile mode (a module that lies about lengths, returns garbage) belongs
// here as another gate before the body; it is not built yet.
#pragma once

#include "MockState.h"

namespace mock {

enum class Needs { nothing, initialized };

// Pops the next injected fault for `function`, if any. Caller holds the lock.
std::optional<CK_RV> takeFault(State& s, const std::string& function);
// Runs and retires the afterCall() actions due for `function`. Caller must NOT hold the lock.
void runAfterCallActions(const std::string& function);

template <typename Body>
CK_RV dispatch(Call call, Needs needs, Body&& body) {
    State& s = state();
    const std::string function = call.function;
    CK_RV rv;
    {
        std::lock_guard lock(s.mutex);
        if (const Session* session = s.findSession(call.session); session && call.slot == 0)
            call.slot = session->slot;
        if (std::optional<CK_RV> fault = takeFault(s, function))
            rv = *fault;
        else if (needs == Needs::initialized && !s.initialized)
            rv = CKR_CRYPTOKI_NOT_INITIALIZED;
        else
            rv = body(s, call);
        call.result = rv;
        s.calls.push_back(std::move(call));
    }
    runAfterCallActions(function);
    return rv;
}

}  // namespace mock
