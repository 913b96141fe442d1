// Cost of an ATR lookup that loads the card database itself, the way the
// rest of the library calls it, with the number of heap allocations a call
// makes. Loading and the lookup alone are measured too, to show the split.
#include "ClsJsonObject.h"
#include "ClsPkcs11.h"
#include "ExtPtrArray.h"
#include "LogBase.h"
#include "StringBuffer.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

std::atomic<long> g_allocations{0};

} // namespace

// Every allocation of the program passes through here and is counted. The
// operators are kept out of line so that the compiler never pairs an inlined
// free() with operator new.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* p) noexcept
{
    std::free(p);
}

[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

namespace {

using namespace p11client;

// A card whose driver lists three Linux paths.
constexpr const char* kAtr = "3B8980014A434F5032343252324A";

// Reports the allocations made per iteration next to the time.
class AllocationCounter {
public:
    explicit AllocationCounter(benchmark::State& state) : m_state(state), m_start(g_allocations.load()) {}
    ~AllocationCounter()
    {
        const double total = static_cast<double>(g_allocations.load() - m_start);
        m_state.counters["allocs_per_call"] = benchmark::Counter(total, benchmark::Counter::kAvgIterations);
    }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

private:
    benchmark::State& m_state;
    long m_start;
};

void BM_CardDataLookupAtr2(benchmark::State& state)
{
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb paths;
    LogNull log;
    AllocationCounter counter(state);
    for (auto _ : state) {
        if (!ClsPkcs11::CardDataLookupAtr2(kAtr, name, readOnly, paths, log))
            state.SkipWithError("lookup failed");
        benchmark::DoNotOptimize(paths.getSize());
    }
}

void BM_GetCardDataJson(benchmark::State& state)
{
    LogNull log;
    AllocationCounter counter(state);
    for (auto _ : state) {
        std::unique_ptr<ClsJsonObject> db(ClsJsonObject::createNewCls());
        if (!ClsPkcs11::GetCardDataJson(*db, log))
            state.SkipWithError("load failed");
    }
}

void BM_CardDataLookupAtrLoaded(benchmark::State& state)
{
    std::unique_ptr<ClsJsonObject> db(ClsJsonObject::createNewCls());
    LogNull log;
    if (!ClsPkcs11::GetCardDataJson(*db, log)) {
        state.SkipWithError("load failed");
        return;
    }
    StringBuffer name;
    bool readOnly = false;
    ExtPtrArraySb paths;
    AllocationCounter counter(state);
    for (auto _ : state) {
        if (!ClsPkcs11::CardDataLookupAtr(*db, kAtr, name, readOnly, paths, log))
            state.SkipWithError("lookup failed");
        benchmark::DoNotOptimize(paths.getSize());
    }
}

} // namespace

// Medians over repetitions are the figures to read.
BENCHMARK(BM_CardDataLookupAtr2)->Unit(benchmark::kMicrosecond)->Repetitions(10)->ReportAggregatesOnly(true);
BENCHMARK(BM_GetCardDataJson)->Unit(benchmark::kMicrosecond)->Repetitions(10)->ReportAggregatesOnly(true);
BENCHMARK(BM_CardDataLookupAtrLoaded)->Unit(benchmark::kMicrosecond)->Repetitions(10)->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
