// A PKCS#11 module that forwards every call to the module named by
// COUNTING_P11_MODULE and counts the calls per function. The counts are
// written at C_Finalize (and, for a caller that never finalizes, when the
// module is unloaded) to the file named by COUNTING_P11_OUT, one line per
// function that was called ("C_GetAttributeValue 4016") and a last line
// "total N". Without COUNTING_P11_OUT they go to stderr.
#include "FunctionListEntries.h"

#include <p11-kit/pkcs11.h>

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <type_traits>
#include <utility>

namespace {

enum Index : std::size_t {
#define COUNTING_P11_INDEX(name) k_##name,
    P11CLIENT_EACH_FUNCTION(COUNTING_P11_INDEX)
#undef COUNTING_P11_INDEX
        kFunctionCount
};

constexpr std::array<const char*, kFunctionCount> kNames{
#define COUNTING_P11_NAME(name) #name,
    P11CLIENT_EACH_FUNCTION(COUNTING_P11_NAME)
#undef COUNTING_P11_NAME
};

std::array<std::atomic<unsigned long>, kFunctionCount> g_counts{};
CK_FUNCTION_LIST* g_real = nullptr;
CK_FUNCTION_LIST g_ours{};
void* g_library = nullptr;

// Rewrites the file with the counts so far, so a second C_Finalize or the
// unload leaves the totals of the whole process.
void writeCounts()
{
    const char* path = std::getenv("COUNTING_P11_OUT");
    std::FILE* out = path != nullptr && *path != '\0' ? std::fopen(path, "w") : stderr;
    if (out == nullptr)
        return;
    unsigned long total = 0;
    for (std::size_t i = 0; i < kFunctionCount; ++i) {
        const unsigned long n = g_counts[i].load();
        total += n;
        if (n != 0)
            std::fprintf(out, "%s %lu\n", kNames[i], n);
    }
    std::fprintf(out, "total %lu\n", total);
    if (out != stderr)
        std::fclose(out);
}

// The forwarder of one entry: counts, then calls the real module's entry.
template <auto Entry, std::size_t I, class Fn = std::remove_cvref_t<decltype(std::declval<CK_FUNCTION_LIST&>().*Entry)>>
struct Forward;

template <auto Entry, std::size_t I, class... Args>
struct Forward<Entry, I, CK_RV (*)(Args...)> {
    static CK_RV call(Args... args)
    {
        g_counts[I].fetch_add(1, std::memory_order_relaxed);
        const CK_RV rv = (g_real->*Entry)(args...);
        if constexpr (I == k_C_Finalize) {
            if (rv == CKR_OK)
                writeCounts();
        }
        return rv;
    }
};

CK_RV ourGetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    g_counts[k_C_GetFunctionList].fetch_add(1, std::memory_order_relaxed);
    if (list == nullptr)
        return CKR_ARGUMENTS_BAD;
    *list = &g_ours;
    return CKR_OK;
}

bool loadReal()
{
    if (g_real != nullptr)
        return true;
    const char* path = std::getenv("COUNTING_P11_MODULE");
    if (path == nullptr || (g_library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL)) == nullptr) {
        std::fprintf(stderr, "countingp11: cannot load COUNTING_P11_MODULE (%s)\n", path != nullptr ? path : "unset");
        return false;
    }
    auto getList = reinterpret_cast<CK_C_GetFunctionList>(::dlsym(g_library, "C_GetFunctionList"));
    if (getList == nullptr || getList(&g_real) != CKR_OK || g_real == nullptr)
        return false;
    g_ours.version = g_real->version;
#define COUNTING_P11_FILL(name)                                                                                      \
    g_ours.name = g_real->name == nullptr ? nullptr : &Forward<&CK_FUNCTION_LIST::name, k_##name>::call;
    P11CLIENT_EACH_FUNCTION(COUNTING_P11_FILL)
#undef COUNTING_P11_FILL
    g_ours.C_GetFunctionList = &ourGetFunctionList;
    return true;
}

struct WriteAtUnload {
    ~WriteAtUnload()
    {
        if (g_real != nullptr)
            writeCounts();
    }
} g_writeAtUnload;

} // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list)
{
    if (!loadReal())
        return CKR_GENERAL_ERROR;
    return ourGetFunctionList(list);
}
