#pragma once

#include <cstddef>
#include <new>

namespace p11client {

// Overwrites every block with zeros before it goes back to the heap, so text
// and bytes that once held a PIN or key material leave nothing behind when a
// buffer grows, shrinks or dies.
void wipeMemory(void* p, std::size_t n) noexcept;

template <class T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() noexcept = default;
    template <class U>
    WipingAllocator(const WipingAllocator<U>&) noexcept {}

    T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) noexcept
    {
        wipeMemory(p, n * sizeof(T));
        ::operator delete(p);
    }

    template <class U>
    bool operator==(const WipingAllocator<U>&) const noexcept { return true; }
};

} // namespace p11client
