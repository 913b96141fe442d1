// The one path every entry point takes: the concurrency probe, lock, injected
// fault, queued lie or hostile-stream verdict, else the not-initialized check
// and the function's own body; then the call record, and any afterCall()
// actions outside the lock.
#pragma once

#include "MockHostile.h"
#include "MockState.h"

#include <thread>

namespace mock {

enum class Needs { nothing, initialized };

// Pops the next injected fault for `function`, if any. Caller holds the lock.
std::optional<CK_RV> takeFault(State& s, const std::string& function);
// Runs and retires the afterCall() actions due for `function`. Caller must NOT hold the lock.
void runAfterCallActions(const std::string& function);

// Counts the moments two calls are inside the module at once. A module that
// cannot lock gives other threads a chance to run into it while it works.
class InsideModule {
public:
    explicit InsideModule(State& s) : m_s(s)
    {
        if (m_s.callsInside.fetch_add(1) > 0) m_s.overlaps.fetch_add(1);
        if (m_s.yieldInside) std::this_thread::yield();
    }
    ~InsideModule() { m_s.callsInside.fetch_sub(1); }
    InsideModule(const InsideModule&) = delete;
    InsideModule& operator=(const InsideModule&) = delete;

private:
    State& m_s;
};

// The liar of functions that have nothing to lie about beyond the lies every
// function tells (answer() tells those), and no out-parameters to fill with
// garbage: it is only ever asked to fill them, and does nothing.
struct NoLiar {
    template <typename Honest>
    CK_RV operator()(const Verdict& v, Honest&&) const { return v.rv; }
};

// `liar(verdict, honest)` tells the function's own lies: for a failing
// verdict it fills the out-parameters with garbage (its result is not used);
// for a lie it answers, calling honest() where the lie needs the true answer.
template <typename Body, typename Liar = NoLiar>
CK_RV dispatch(Call call, Needs needs, Body&& body, Liar&& liar = {}) {
    State& s = state();
    InsideModule inside(s);
    const std::string function = call.function;
    CK_RV rv;
    {
        std::lock_guard lock(s.mutex);
        if (const Session* session = s.findSession(call.session); session && call.slot == 0)
            call.slot = session->slot;
        auto honest = [&] {
            if (needs == Needs::initialized && !s.initialized) return CKR_CRYPTOKI_NOT_INITIALIZED;
            return body(s, call);
        };
        if (std::optional<CK_RV> fault = takeFault(s, function))
            rv = *fault;
        else if (std::optional<Verdict> verdict = takeVerdict(s, function))
            rv = answer(*verdict, honest, [&](const Verdict& v) { return liar(v, honest); });
        else
            rv = honest();
        call.result = rv;
        s.calls.push_back(std::move(call));
    }
    runAfterCallActions(function);
    return rv;
}

}  // namespace mock
