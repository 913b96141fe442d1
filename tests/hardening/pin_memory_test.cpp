// No freed memory still holds a PIN. This program replaces the global
// operator new and delete: while armed, every block the C++ heap gets back
// is searched for the canary PINs before it is freed. The library keeps PINs
// in buffers that wipe themselves; a copy made anywhere else (a std::string,
// a log line, a temporary) would be found here. Blocks released with free()
// by C code (OpenSSL) are not seen; no PIN goes there.
#include "HardeningFixture.h"
#include "PinPaths.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

std::atomic<bool> g_armed{false};
std::atomic<int> g_blocksWithPin{0};

void inspect(void* p) noexcept
{
    if (p == nullptr || !g_armed.load(std::memory_order_relaxed))
        return;
    const std::size_t size = malloc_usable_size(p);
    for (const char* pin : {p11test::PinCanaries::kUser, p11test::PinCanaries::kSo, p11test::PinCanaries::kNew})
        if (memmem(p, size, pin, std::strlen(pin)) != nullptr)
            g_blocksWithPin.fetch_add(1, std::memory_order_relaxed);
}

void* allocate(std::size_t n)
{
    if (void* p = std::malloc(n != 0 ? n : 1))
        return p;
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t n) { return allocate(n); }
void* operator new[](std::size_t n) { return allocate(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return std::malloc(n != 0 ? n : 1); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return std::malloc(n != 0 ? n : 1); }
void operator delete(void* p) noexcept
{
    inspect(p);
    std::free(p);
}
void operator delete[](void* p) noexcept
{
    inspect(p);
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    inspect(p);
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept
{
    inspect(p);
    std::free(p);
}

using namespace p11client;
using namespace p11test;

namespace {

// Searches what is freed while it lives.
struct Armed {
    Armed() { g_armed = true; }
    ~Armed() { g_armed = false; }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
};

} // namespace

TEST(PinMemory, NoFreedBlockHoldsAPinAfterAnyPathOrTheObjectsEnd)
{
    mock::reset();
    putCanaryToken();
    auto p11 = std::unique_ptr<ClsPkcs11>(ClsPkcs11::createNewCls());
    p11->put_SharedLibPath(XString(mock::modulePath().c_str()));
    p11->put_VerboseLogging(true);
    for (const PinPath& path : pinPaths()) {
        Armed armed;
        EXPECT_TRUE(path.run(*p11)) << path.name;
        EXPECT_EQ(g_blocksWithPin.load(), 0) << "a block freed during " << path.name << " held a PIN";
    }
    Armed armed;
    p11.reset();
    EXPECT_EQ(g_blocksWithPin.load(), 0) << "a block freed with the object held a PIN";
}

// The search does find a PIN left in a block that is freed unwiped.
TEST(PinMemory, TheSearchFindsAnUnwipedCopy)
{
    const int before = g_blocksWithPin.load();
    {
        Armed armed;
        auto* copy = new std::string(std::string(PinCanaries::kUser) + " in a heap block of its own");
        delete copy;
    }
    EXPECT_GT(g_blocksWithPin.load(), before);
}
