#include "MockDispatch.h"

namespace mock {

namespace {

// Takes one use of the front entry of `queue`; entries with remaining -1 never run out.
template <typename Entry>
std::optional<Entry> takeOne(std::deque<Entry>& queue) {
    if (queue.empty()) return std::nullopt;
    Entry taken = queue.front();
    if (queue.front().remaining > 0 && --queue.front().remaining == 0) queue.pop_front();
    return taken;
}

}  // namespace

std::optional<CK_RV> takeFault(State& s, const std::string& function) {
    auto it = s.faults.find(function);
    if (it == s.faults.end()) return std::nullopt;
    std::optional<Fault> fault = takeOne(it->second);
    return fault ? std::optional<CK_RV>(fault->rv) : std::nullopt;
}

void runAfterCallActions(const std::string& function) {
    State& s = state();
    std::optional<AfterCallAction> due;
    {
        std::lock_guard lock(s.mutex);
        auto it = s.afterCallActions.find(function);
        if (it != s.afterCallActions.end()) due = takeOne(it->second);
    }
    if (due && due->action) due->action();
}

}  // namespace mock
