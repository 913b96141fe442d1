#pragma once

#include "Cryptoki.h"
#include "ForkSafeMutex.h"
#include "FunctionListEntries.h"

#include <array>
#include <cstddef>
#include <mutex>
#include <type_traits>
#include <utility>

#include <unistd.h>

namespace p11client {

// A module that cannot use the operating system's locks is called from one
// thread at a time. Its callers get a function list of our own whose every
// entry takes the module's mutex and forwards to the module's own entry; an
// entry the module lacks stays NULL. Each such module holds one of a fixed
// number of slots, as a plain C entry point carries no context of its own.
// Once the module is released, its list answers CKR_CRYPTOKI_NOT_INITIALIZED;
// a slot goes back to the same module list when it is initialized again, and
// to another only when no slot of its own is free.
//
// The caller (ModuleInitRegistry) serializes acquire and release.
class SerializedFunctionList {
public:
    static constexpr std::size_t kSlots = 16;

    // A list that forwards to target under a mutex of its own; null when
    // every slot is taken.
    static CK_FUNCTION_LIST* acquire(CK_FUNCTION_LIST* target);
    static void release(CK_FUNCTION_LIST* list);
    // Around fork(): no module call may be half done in the child.
    static void holdAllForFork();
    static void releaseAllAfterFork();

private:
    struct Slot {
        ForkSafeMutex mutex;
        bool active = false;                // false: free
        pid_t owner = 0;                    // a slot of the parent process is free in a child
        CK_FUNCTION_LIST* target = nullptr; // the module's own list
        CK_FUNCTION_LIST list{};
    };
    static bool isFree(const Slot& slot) { return !slot.active || slot.owner != getpid(); }
    static std::array<Slot, kSlots>& slots()
    {
        static std::array<Slot, kSlots> all;
        return all;
    }

    template <std::size_t Index, auto Entry,
              class Fn = std::remove_reference_t<decltype(std::declval<CK_FUNCTION_LIST&>().*Entry)>>
    struct Forwarder;

    template <std::size_t Index, auto Entry, class... Args>
    struct Forwarder<Index, Entry, CK_RV (*)(Args...)> {
        static CK_RV call(Args... args)
        {
            Slot& slot = slots()[Index];
            std::lock_guard<ForkSafeMutex> lock(slot.mutex);
            if (!slot.active)
                return CKR_CRYPTOKI_NOT_INITIALIZED;
            // The module's list is its own memory: an entry there when the
            // list was made may be gone now.
            const auto entry = slot.target->*Entry;
            return entry != nullptr ? entry(args...) : CKR_FUNCTION_NOT_SUPPORTED;
        }
    };

    template <std::size_t Index>
    static CK_FUNCTION_LIST forwardingList(const CK_FUNCTION_LIST& target);

    using ListBuilder = CK_FUNCTION_LIST (*)(const CK_FUNCTION_LIST&);
    template <std::size_t... Index>
    static constexpr std::array<ListBuilder, sizeof...(Index)> builders(std::index_sequence<Index...>)
    {
        return {&forwardingList<Index>...};
    }
};

template <std::size_t Index>
CK_FUNCTION_LIST SerializedFunctionList::forwardingList(const CK_FUNCTION_LIST& target)
{
    CK_FUNCTION_LIST list{};
    list.version = target.version;
#define P11CLIENT_FORWARD(name)                                                                                    \
    list.name = target.name != nullptr ? &Forwarder<Index, &CK_FUNCTION_LIST::name>::call : nullptr;
    P11CLIENT_EACH_FUNCTION(P11CLIENT_FORWARD)
#undef P11CLIENT_FORWARD
    return list;
}

inline CK_FUNCTION_LIST* SerializedFunctionList::acquire(CK_FUNCTION_LIST* target)
{
    static constexpr std::array<ListBuilder, kSlots> build = builders(std::make_index_sequence<kSlots>());
    for (bool ownSlotOnly : {true, false}) {
        for (std::size_t i = 0; i < kSlots; ++i) {
            Slot& slot = slots()[i];
            // A slot with a call in progress is in use. Not waiting for it
            // also keeps a module that forks inside that call from
            // deadlocking with this thread, which holds the registry.
            std::unique_lock<ForkSafeMutex> lock(slot.mutex, std::try_to_lock);
            if (!lock.owns_lock() || !isFree(slot) || (ownSlotOnly && slot.target != target))
                continue;
            slot.active = true;
            slot.owner = getpid();
            slot.target = target;
            slot.list = build[i](*target);
            return &slot.list;
        }
    }
    return nullptr;
}

inline void SerializedFunctionList::release(CK_FUNCTION_LIST* list)
{
    for (Slot& slot : slots()) {
        if (&slot.list != list)
            continue;
        std::lock_guard<ForkSafeMutex> lock(slot.mutex);
        slot.active = false;
    }
}

inline void SerializedFunctionList::holdAllForFork()
{
    for (Slot& slot : slots())
        slot.mutex.holdForFork();
}

inline void SerializedFunctionList::releaseAllAfterFork()
{
    for (Slot& slot : slots())
        slot.mutex.releaseAfterFork();
}

} // namespace p11client
