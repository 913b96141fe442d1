#pragma once

#include "Cryptoki.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace p11client {

// What the module said a moment ago about its slots and tokens, so that a
// program's Discover, then OpenSession and Login on the slot it chose, ask the
// module once. Each answer serves one later question, within a second: long
// enough for a program's next step, short enough that a reader plugged in or
// a PIN try used up meanwhile (a PIN typed at a prompt takes longer) is read
// afresh.
class RecentSlotAnswers {
public:
    void keepSlotsWithToken(const std::vector<CK_SLOT_ID>& ids)
    {
        m_slots = ids;
        m_slotsReadAt = Clock::now();
    }
    void keepTokenFlags(CK_SLOT_ID slot, CK_FLAGS flags) { m_flags[slot] = {flags, Clock::now()}; }

    // The slots with a token, when they were read recently and name the slot
    // of the caller's number (-1: any slot) unambiguously by its low 32 bits.
    bool takeSlotsWithToken(int slotNumber, std::vector<CK_SLOT_ID>& ids)
    {
        const bool fresh = m_slotsReadAt && Clock::now() - *m_slotsReadAt < kFresh;
        m_slotsReadAt.reset();
        const auto low = static_cast<std::uint32_t>(slotNumber);
        const auto named = [low](CK_SLOT_ID id) { return static_cast<std::uint32_t>(id) == low; };
        if (!fresh || (slotNumber == -1 ? m_slots.empty() : std::ranges::count_if(m_slots, named) != 1))
            return false;
        ids = std::move(m_slots);
        return true;
    }

    std::optional<CK_FLAGS> takeTokenFlags(CK_SLOT_ID slot)
    {
        const auto it = m_flags.find(slot);
        if (it == m_flags.end())
            return std::nullopt;
        const auto [flags, readAt] = it->second;
        m_flags.erase(it);
        return Clock::now() - readAt < kFresh ? std::optional<CK_FLAGS>(flags) : std::nullopt;
    }

    void clear()
    {
        m_slotsReadAt.reset();
        m_flags.clear();
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kFresh{1};
    std::vector<CK_SLOT_ID> m_slots;
    std::optional<Clock::time_point> m_slotsReadAt;
    std::map<CK_SLOT_ID, std::pair<CK_FLAGS, Clock::time_point>> m_flags;
};

} // namespace p11client
