#pragma once

#include <cstddef>

namespace p11client {

// Root of the library's heap objects: what an owning array holds and deletes.
class ZelvanObject {
public:
    ZelvanObject() = default;
    ZelvanObject(const ZelvanObject&) = default;
    ZelvanObject& operator=(const ZelvanObject&) = default;
    virtual ~ZelvanObject() = default;

    // Bytes this object holds on the heap beyond its own size; 0 unless a
    // derived class knows better.
    virtual std::size_t heapUsage() const { return 0; }
};

// A heap record owned by exactly one array and never shared.
class NonRefCountedObj : public ZelvanObject {
public:
    NonRefCountedObj() = default;
    ~NonRefCountedObj() override = default;
};

} // namespace p11client
