// The shim core: its state, SoftHSM2 behind it, the one path every entry
// point takes (run), the entries with lies or state of their own, each
// image's function list, and the control API tests call.
#include "FunctionListEntries.h"
#include "ShimControl.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <tuple>

namespace shim {

namespace {

// --- state ---------------------------------------------------------------------

// How one call is answered: failed (isLie false; garbage: out-parameters filled too) or with a lie.
struct Verdict {
    bool isLie = false, garbage = false;
    Lie lie = Lie::doneButFailed;
    CK_ULONG value = 0, rv = CKR_OK;
};
struct Rule { Verdict verdict; int times, after; };
struct Action { std::function<void()> run; int times; };

struct ImageState {
    bool initialized = false, lastHadArgs = false;
    pid_t pid = 0;  // of the process that initialized it: in a child it is not
    int initializeCount = 0, finalizeCount = 0;
    CK_FLAGS lastFlags = 0;
    std::atomic<long> inside{0}, overlaps{0};  // calls inside now; entries while one was
    std::unique_ptr<std::thread> worker;
    std::atomic<bool> stopWorker{false};
    bool live() const { return initialized && pid == getpid(); }
};

struct State {
    std::mutex mutex;  // never held while SoftHSM2 works
    ImageState images[static_cast<int>(Image::count)];
    bool targetOwned = false;  // we initialized SoftHSM2, in process targetPid
    pid_t targetPid = 0;
    std::map<std::string, std::deque<Rule>> rules;
    std::map<std::string, std::deque<Action>> actions;
    std::map<std::string, int> forks;
    CK_FLAGS tokenSet = 0, tokenClear = 0, slotSet = 0, slotClear = 0;
    std::set<CK_SLOT_ID> removed;
    std::map<CK_SLOT_ID, CK_SLOT_ID> aliases;  // ours -> SoftHSM2's
    std::map<std::pair<CK_OBJECT_HANDLE, CK_ATTRIBUTE_TYPE>, std::optional<std::vector<uint8_t>>> overrides;
    std::vector<uint8_t> stream;
    size_t streamPos = 0;
    std::vector<Call> calls;
    std::map<CK_SESSION_HANDLE, std::pair<CK_SLOT_ID, Image>> sessions;
    std::set<CK_SESSION_HANDLE> finds;

    ImageState& image(Image i) { return images[static_cast<int>(i)]; }
    bool anyLive() const { return std::any_of(std::begin(images), std::end(images), [](auto& i) { return i.live(); }); }
    bool tokenGone(CK_SLOT_ID slot) const { return removed.count(slot) > 0; }
    void forget(CK_SESSION_HANDLE session) { sessions.erase(session), finds.erase(session); }
};

// Never destroyed: entry points and the worker may run while the process exits.
State& state() {
    static State* s = new State;
    return *s;
}

template <class F>
auto locked(F&& f) {
    std::lock_guard lock(state().mutex);
    return f(state());
}

CK_FUNCTION_LIST& target() {
    static CK_FUNCTION_LIST* const list = [] {
        void* handle = dlopen(targetPath().c_str(), RTLD_NOW | RTLD_LOCAL);
        auto get = handle ? reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList")) : nullptr;
        CK_FUNCTION_LIST* found = nullptr;
        if (get != nullptr && get(&found) == CKR_OK && found != nullptr) return found;
        std::fprintf(stderr, "shim: cannot load %s: %s\n", targetPath().c_str(),
                     handle ? "no function list" : dlerror());
        std::abort();
    }();
    return *list;
}

// --- verdicts --------------------------------------------------------------------

constexpr const char* kLieNames[] = {
    "doneButFailed", "okWithoutDoing", "lengthZero", "lengthOne", "lengthJustUnder", "lengthJustOver", "length2Pow31",
    "length2Pow32Minus1", "lengthUnavailable", "okLengthOverBuffer", "garbageValue", "slotsGrow", "slotsShrink",
    "slotIdsUnknown", "moreObjectsThanAsked", "neverEnding", "unknownHandles", "textNotUtf8", "textNulPadded",
    "numbersGarbage", "nullList", "shortList", "noHandle", "unknownHandle", "wrongState", "initializedButSaysAlready"};

// The return values a hostile module picks from; a byte past the end picks a vendor code.
constexpr std::array kReturnValues = {
    CKR_CANCEL, CKR_HOST_MEMORY, CKR_SLOT_ID_INVALID, CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED, CKR_ARGUMENTS_BAD,
    CKR_NEED_TO_CREATE_THREADS, CKR_CANT_LOCK, CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID,
    CKR_ATTRIBUTE_VALUE_INVALID, CKR_DATA_LEN_RANGE, CKR_DEVICE_ERROR, CKR_DEVICE_MEMORY, CKR_DEVICE_REMOVED,
    CKR_FUNCTION_NOT_SUPPORTED, CKR_KEY_HANDLE_INVALID, CKR_MECHANISM_INVALID, CKR_OBJECT_HANDLE_INVALID,
    CKR_OPERATION_ACTIVE, CKR_OPERATION_NOT_INITIALIZED, CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE,
    CKR_PIN_EXPIRED, CKR_PIN_LOCKED, CKR_SESSION_CLOSED, CKR_SESSION_COUNT, CKR_SESSION_HANDLE_INVALID,
    CKR_SESSION_READ_ONLY, CKR_SESSION_EXISTS, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED,
    CKR_TOKEN_WRITE_PROTECTED, CKR_USER_ALREADY_LOGGED_IN, CKR_USER_NOT_LOGGED_IN, CKR_USER_PIN_NOT_INITIALIZED,
    CKR_USER_TYPE_INVALID, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_BUFFER_TOO_SMALL, CKR_CRYPTOKI_NOT_INITIALIZED,
    CKR_CRYPTOKI_ALREADY_INITIALIZED, CK_RV{0x1234}};

CK_RV returnValueOf(uint8_t b) { return b < kReturnValues.size() ? kReturnValues[b] : CKR_VENDOR_DEFINED + b; }

// One byte per call: 0 or 1 in its low bits honest, 2 a failure, 3 a lie (see setHostileStream).
std::optional<Verdict> fromStream(State& s, const std::string& function) {
    auto next = [&]() -> uint8_t { return s.streamPos < s.stream.size() ? s.stream[s.streamPos++] : 0; };
    const uint8_t b = next();
    if ((b & 3) < 2) return std::nullopt;
    const uint8_t chooser = next(), value = next();
    if ((b & 3) == 2) return Verdict{.garbage = (b & 4) != 0, .value = value, .rv = returnValueOf(chooser)};
    const std::vector<Lie> lies = liesFor(function);
    return Verdict{.isLie = true, .lie = lies[chooser % lies.size()], .value = value, .rv = returnValueOf(value)};
}

// The first queued rule of the function, else the stream.
std::optional<Verdict> takeVerdict(State& s, const std::string& function) {
    const auto it = s.rules.find(function);
    if (it == s.rules.end() || it->second.empty()) return fromStream(s, function);
    Rule& rule = it->second.front();
    if (rule.after > 0 && rule.after--) return std::nullopt;  // an honest pass
    const Verdict v = rule.verdict;
    if (rule.times > 0 && --rule.times == 0) it->second.pop_front();
    return v;
}

// --- what liars write ----------------------------------------------------------------

void fillGarbage(void* p, size_t size, CK_ULONG seed) {
    auto* bytes = static_cast<uint8_t*>(p);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(0xA5 ^ (i * 37 + seed * 11));
}

void padText(CK_UTF8CHAR* field, size_t width, const char* text) {
    std::memset(field, ' ', width);
    std::memcpy(field, text, std::min(width, std::strlen(text)));
}

// Lone continuation bytes, a cut sequence, overlong forms and bytes UTF-8 never
// uses; or a short text ended and padded with NULs.
template <class... Field>
void fillLyingTexts(Lie lie, Field&... fields) {
    const bool nul = lie == Lie::textNulPadded;
    ((padText(fields, sizeof fields, nul ? "NUL padded" : "\x80\xBF\xC3\x28\xE2\x82\xC0\xAF\xF8\xFF\xFE\xED\xA0\x80"),
      nul ? void(std::memset(fields + 10, 0, sizeof fields - 10)) : void()), ...);
}

// The length a length lie reports where the buffer holds `room` (in a length
// query: where the true length is `room`).
CK_ULONG lyingLength(Lie lie, CK_ULONG room) {
    using enum Lie;
    return lie == lengthZero ? 0 : lie == lengthOne ? 1 : lie == lengthJustUnder ? room - (room > 0)
           : lie == lengthJustOver || lie == okLengthOverBuffer ? room + 1 : lie == length2Pow31 ? CK_ULONG{1} << 31
           : lie == length2Pow32Minus1 ? 0xFFFFFFFF : lie == lengthUnavailable ? CK_UNAVAILABLE_INFORMATION : room;
}

// --- around every call ------------------------------------------------------------------

// A counted rule (-1: for ever): true when it applies to this call.
bool take(std::map<std::string, int>& counts, const std::string& function) {
    const auto it = counts.find(function);
    if (it == counts.end() || it->second == 0) return false;
    it->second -= it->second > 0;
    return true;
}

// The sessions and searches a successful plain call begins or ends.
void track(const Call& c) {
    locked([&](State& s) {
        if (c.function == "C_CloseSession") s.forget(c.session);
        if (c.function == "C_FindObjectsInit") s.finds.insert(c.session);
        if (c.function == "C_FindObjectsFinal") s.finds.erase(c.session);
        for (auto it = s.sessions.begin(); c.function == "C_CloseAllSessions" && it != s.sessions.end();)
            it = it->second.first == c.slot ? (s.finds.erase(it->first), s.sessions.erase(it)) : std::next(it);
    });
}

// An out-parameter that a failure with garbage fills: `size` bytes at `at`, if any.
struct Out { void* at; size_t size; };

// The liar of entries with no lies of their own.
constexpr auto noLies = [](const Verdict& v, auto&) { return v.rv; };

// Every entry's path: the verdict (after any fork the rules ask for), the
// answer, the record. `honest()` forwards; `liar(verdict, honest)` tells the
// entry's own lies (those beyond doneButFailed and okWithoutDoing).
template <class Honest, class Liar = decltype(noLies)>
CK_RV run(Call& call, const std::vector<Out>& outs, Honest&& honest, const Liar& liar = noLies) {
    ImageState& img = state().image(call.image);
    if (img.inside.fetch_add(1) > 0) img.overlaps.fetch_add(1);
    if (call.image == Image::cannotLock) std::this_thread::yield();  // lets other threads run into it
    const bool needsInit = call.function != "C_Initialize" && call.function != "C_GetFunctionList";
    auto checked = [&]() -> CK_RV {
        const bool ok = !needsInit || locked([&](State& s) { return s.image(call.image).live(); });
        return ok ? honest() : CKR_CRYPTOKI_NOT_INITIALIZED;
    };
    const auto [forking, v] = locked([&](State& s) {
        if (const auto it = s.sessions.find(call.session); call.slot == 0 && it != s.sessions.end())
            call.slot = it->second.first;
        return std::pair{take(s.forks, call.function), takeVerdict(s, call.function)};
    });
    if (const pid_t child = forking ? ::fork() : -1; child == 0)
        _exit(0);  // as a module that starts a helper daemon
    else if (child > 0)
        waitpid(child, nullptr, 0);
    CK_RV rv = v ? v->rv : checked();
    for (size_t k = 0; v && v->garbage && k < outs.size(); ++k)
        if (outs[k].at != nullptr) fillGarbage(outs[k].at, outs[k].size, v->value + k);
    if (v && v->isLie && v->lie == Lie::doneButFailed)
        checked();
    else if (v && v->isLie)
        rv = v->lie == Lie::okWithoutDoing ? CKR_OK : liar(*v, checked);
    img.inside.fetch_sub(1);
    std::vector<std::function<void()>> due;  // the afterCall actions, run after the record
    locked([&](State& s) {
        s.calls.push_back(call), s.calls.back().result = rv;
        auto& queue = s.actions[call.function];
        for (auto it = queue.begin(); it != queue.end();)
            due.push_back(it->run), it = it->times > 0 && --it->times == 0 ? queue.erase(it) : it + 1;
    });
    for (const auto& action : due) action();
    return rv;
}

// --- C_Initialize, C_Finalize --------------------------------------------------------
// Each image has its own life; SoftHSM2 starts with the first image and stops
// with the last, once per process (a child starts it again).

std::mutex lifeMutex;  // one image at a time starts or stops

CK_RV initialize(Image image, const CK_C_INITIALIZE_ARGS* args) {
    std::lock_guard life(lifeMutex);
    bool first = false, stale = false;
    const CK_RV refusal = locked([&](State& s) {
        ImageState& img = s.image(image);
        img.lastHadArgs = args != nullptr, img.lastFlags = args ? args->flags : 0;
        if (img.live()) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
        first = !s.anyLive(), stale = s.targetOwned && s.targetPid != getpid();  // started by the parent process
        const bool osLocksOnly = args && (args->flags & CKF_OS_LOCKING_OK) && args->CreateMutex == nullptr;
        return image == Image::cannotLock && osLocksOnly ? CKR_CANT_LOCK : CKR_OK;
    });
    if (refusal != CKR_OK) return refusal;
    CK_C_INITIALIZE_ARGS own{nullptr, nullptr, nullptr, nullptr, CKF_OS_LOCKING_OK, nullptr};  // any image, any thread
    if (first && stale) target().C_Finalize(nullptr);
    const CK_RV rv = first ? target().C_Initialize(&own) : CKR_OK;
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) return rv;
    return locked([&](State& s) {
        if (first) s.targetOwned = rv == CKR_OK, s.targetPid = getpid(), s.sessions.clear(), s.finds.clear();
        ImageState& img = s.image(image);
        if (img.pid != getpid()) (void)img.worker.release();  // the parent's thread is not in this process
        img.initialized = true, img.pid = getpid(), ++img.initializeCount, img.stopWorker = false;
        if (image == Image::workerThread)
            img.worker = std::make_unique<std::thread>([&img] {
                while (!img.stopWorker) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            });
        return CKR_OK;
    });
}

// The image's sessions close with it, and SoftHSM2 with the last image.
CK_RV finalize(Image image) {
    std::lock_guard life(lifeMutex);
    std::vector<CK_SESSION_HANDLE> own;
    std::unique_ptr<std::thread> worker;
    const bool last = locked([&](State& s) {
        ImageState& img = s.image(image);
        img.initialized = false, ++img.finalizeCount, img.stopWorker = true, worker = std::move(img.worker);
        for (const auto& [session, where] : s.sessions) if (where.second == image) own.push_back(session);
        for (CK_SESSION_HANDLE session : own) s.forget(session);
        return !s.anyLive() && s.targetOwned;
    });
    if (worker) worker->join();
    for (CK_SESSION_HANDLE session : own) if (!last) target().C_CloseSession(session);
    if (last) target().C_Finalize(nullptr), locked([](State& s) { s.targetOwned = false; });
    return CKR_OK;
}

// --- information ---------------------------------------------------------------------

constexpr CK_VERSION kBadVersion{0xFF, 0xFF};

void tellLie(CK_INFO& i, const Verdict& v) {
    if (v.lie != Lie::numbersGarbage) return fillLyingTexts(v.lie, i.manufacturerID, i.libraryDescription);
    i.cryptokiVersion = i.libraryVersion = kBadVersion, i.flags = ~CK_FLAGS{0};
}

void tellLie(CK_SLOT_INFO& i, const Verdict& v) {
    if (v.lie != Lie::numbersGarbage) return fillLyingTexts(v.lie, i.slotDescription, i.manufacturerID);
    i.hardwareVersion = i.firmwareVersion = kBadVersion, i.flags = ~CK_FLAGS{0};
}

void tellLie(CK_TOKEN_INFO& i, const Verdict& v) {
    if (v.lie != Lie::numbersGarbage)
        return fillLyingTexts(v.lie, i.label, i.manufacturerID, i.model, i.serialNumber, i.utcTime);
    i.hardwareVersion = i.firmwareVersion = kBadVersion, i.flags = ~CK_FLAGS{0};
    for (CK_ULONG* n : {&i.ulMaxSessionCount, &i.ulSessionCount, &i.ulMaxRwSessionCount, &i.ulRwSessionCount,
                        &i.ulMaxPinLen, &i.ulMinPinLen, &i.ulTotalPublicMemory, &i.ulFreePublicMemory,
                        &i.ulTotalPrivateMemory, &i.ulFreePrivateMemory})
        *n = (CK_ULONG{1} << (sizeof(CK_ULONG) * 8 - 1)) | v.value;
}

void tellLie(CK_SESSION_INFO& i, const Verdict&) { i.state = CKS_RW_SO_FUNCTIONS; }

// An entry that fills one structure: the honest answer, lied about.
template <class Info, class Honest>
CK_RV answerInfo(Call& c, Info* info, Honest&& honest) {
    return run(c, {{info, sizeof *info}}, honest, [info](const Verdict& v, auto& h) {
        const CK_RV rv = h();
        if (rv == CKR_OK) tellLie(*info, v);
        return rv;
    });
}

// --- objects ---------------------------------------------------------------------------

using Value = std::optional<std::vector<uint8_t>>;

// An answer about the attributes themselves, which lies and overrides may change.
bool aboutAttributes(CK_RV rv) {
    return rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID ||
           rv == CKR_BUFFER_TOO_SMALL;
}

CK_RV answerOverride(CK_ATTRIBUTE& a, const Value& value) {
    const CK_RV rv = !value ? CKR_ATTRIBUTE_TYPE_INVALID
                     : a.pValue && a.ulValueLen < value->size() ? CKR_BUFFER_TOO_SMALL : CKR_OK;
    if (rv == CKR_OK && a.pValue && !value->empty()) std::memcpy(a.pValue, value->data(), value->size());
    a.ulValueLen = rv == CKR_OK ? value->size() : CK_UNAVAILABLE_INFORMATION;
    return rv;
}

// SoftHSM2 answers the attributes no test overrode, the overrides the others.
CK_RV readAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR t, CK_ULONG count) {
    std::map<CK_ULONG, Value> overridden;
    std::vector<CK_ATTRIBUTE> rest;
    std::vector<CK_ULONG> where;
    locked([&](State& s) {
        for (CK_ULONG i = 0; t != nullptr && i < count; ++i)
            if (const auto it = s.overrides.find({object, t[i].type}); it != s.overrides.end())
                overridden[i] = it->second;
            else
                rest.push_back(t[where.emplace_back(i)]);
    });
    if (overridden.empty()) return target().C_GetAttributeValue(session, object, t, count);
    CK_RV rv = rest.empty() ? CKR_OK : target().C_GetAttributeValue(session, object, rest.data(), rest.size());
    for (size_t k = 0; k < rest.size(); ++k) t[where[k]] = rest[k];
    for (auto it = overridden.begin(); aboutAttributes(rv) && it != overridden.end(); ++it)
        if (const CK_RV own = answerOverride(t[it->first], it->second); rv == CKR_OK) rv = own;
    return rv;
}

// --- the function lists ------------------------------------------------------------------

constexpr std::string_view kNames[] = {
#define SHIM_NAME(f) #f,
    P11CLIENT_EACH_FUNCTION(SHIM_NAME)
};
constexpr size_t kFunctions = std::size(kNames);
constexpr size_t at(std::string_view name) { return size_t(std::find(kNames, std::end(kNames), name) - kNames); }

CK_FUNCTION_LIST lists[static_cast<int>(Image::count)], shortLists[std::size(lists)];

// The entries with lies or state of their own: entry::C_Name(call, the entry's arguments).
namespace entry {

CK_RV C_Initialize(Call& c, CK_VOID_PTR args) {
    return run(c, {}, [&] { return initialize(c.image, static_cast<const CK_C_INITIALIZE_ARGS*>(args)); },
               [](const Verdict& v, auto& h) {
                   return v.lie != Lie::initializedButSaysAlready ? v.rv : (h(), CKR_CRYPTOKI_ALREADY_INITIALIZED);
               });
}

CK_RV C_Finalize(Call& c, CK_VOID_PTR reserved) {
    return run(c, {}, [&] { return reserved != nullptr ? CKR_ARGUMENTS_BAD : finalize(c.image); });
}

// A short list is as a module built against an older, shorter list leaves it.
CK_RV C_GetFunctionList(Call& c, CK_FUNCTION_LIST_PTR_PTR pp) {
    const auto i = static_cast<size_t>(c.image);
    auto honest = [&] { return pp == nullptr ? CKR_ARGUMENTS_BAD : (*pp = &lists[i], CKR_OK); };
    return run(c, {{pp, sizeof *pp}}, honest, [&](const Verdict& v, auto&) -> CK_RV {
        if (pp == nullptr || (v.lie != Lie::nullList && v.lie != Lie::shortList)) return pp ? v.rv : CKR_ARGUMENTS_BAD;
        CK_FUNCTION_LIST& cut = shortLists[i] = lists[i];
        size_t n = 0;
#define SHIM_CUT(f) cut.f = n++ < v.value % kFunctions ? cut.f : nullptr;
        P11CLIENT_EACH_FUNCTION(SHIM_CUT)
        *pp = v.lie == Lie::nullList ? nullptr : &cut;
        return CKR_OK;
    });
}

CK_RV C_GetInfo(Call& c, CK_INFO_PTR info) {
    return answerInfo(c, info, [&] { return target().C_GetInfo(info); });
}

// SoftHSM2's slots (a token store of a test has a few) as a test rewrote them:
// without the removed tokens in the list of slots with a token, with the
// aliases after them.
CK_RV C_GetSlotList(Call& c, CK_BBOOL tokenPresent, CK_SLOT_ID_PTR list, CK_ULONG_PTR count) {
    const CK_ULONG room = count ? *count : 0;
    CK_ULONG truth = 0;
    auto honest = [&]() -> CK_RV {
        if (count == nullptr) return CKR_ARGUMENTS_BAD;
        std::vector<CK_SLOT_ID> ids(1024);
        CK_ULONG n = ids.size();
        if (const CK_RV rv = target().C_GetSlotList(tokenPresent, ids.data(), &n); rv != CKR_OK) return rv;
        ids.resize(n);
        locked([&](State& s) {
            std::erase_if(ids, [&](CK_SLOT_ID id) { return tokenPresent && s.removed.count(id) > 0; });
            for (const auto& [alias, slot] : s.aliases)
                if (std::ranges::count(ids, slot) > 0) ids.push_back(alias);
        });
        truth = *count = ids.size();
        return list == nullptr ? CKR_OK : room < truth ? CKR_BUFFER_TOO_SMALL : (std::ranges::copy(ids, list), CKR_OK);
    };
    // The lies, after the honest answer: `room` is what the caller's buffer
    // held, `truth` how many slots there are.
    return run(c, {{list, room * sizeof *list}, {count, sizeof *count}}, honest, [&](const Verdict& v, auto& h) {
        const CK_RV rv = h();
        if (count == nullptr || (rv != CKR_OK && rv != CKR_BUFFER_TOO_SMALL)) return rv;
        switch (v.lie) {
            case Lie::slotsGrow:  // by one more at every call
                *count = (list == nullptr ? truth : std::max(room, truth)) + 1;
                return list == nullptr ? rv : CKR_BUFFER_TOO_SMALL;
            case Lie::slotsShrink: return *count = truth - (truth > 0), rv;
            case Lie::slotIdsUnknown:
                for (CK_ULONG i = 0; list != nullptr && rv == CKR_OK && i < truth; ++i) list[i] = 0x7FFF0000 + i;
                return rv;
            default:  // a length lie
                return *count = lyingLength(v.lie, list ? room : truth), rv == CKR_BUFFER_TOO_SMALL ? CKR_OK : rv;
        }
    });
}

CK_RV C_GetSlotInfo(Call& c, CK_SLOT_ID slot, CK_SLOT_INFO_PTR info) {
    return answerInfo(c, info, [&]() -> CK_RV {
        const CK_RV rv = target().C_GetSlotInfo(slot, info);
        if (rv == CKR_OK) locked([&](State& s) {
            if (s.removed.count(slot) > 0) info->flags &= ~CKF_TOKEN_PRESENT;
            info->flags = (info->flags | s.slotSet) & ~s.slotClear;
        });
        return rv;
    });
}

CK_RV C_GetTokenInfo(Call& c, CK_SLOT_ID slot, CK_TOKEN_INFO_PTR info) {
    return answerInfo(c, info, [&]() -> CK_RV {
        if (locked([&](State& s) { return s.tokenGone(slot); })) return CKR_TOKEN_NOT_PRESENT;
        const CK_RV rv = target().C_GetTokenInfo(slot, info);
        if (rv == CKR_OK) locked([&](State& s) { info->flags = (info->flags | s.tokenSet) & ~s.tokenClear; });
        return rv;
    });
}

CK_RV C_OpenSession(Call& c, CK_SLOT_ID slot, CK_FLAGS flags, CK_VOID_PTR app, CK_NOTIFY notify,
                    CK_SESSION_HANDLE_PTR ph) {
    auto honest = [&]() -> CK_RV {
        const bool gone = locked([&](State& s) { return s.tokenGone(slot); });
        const CK_RV rv = gone ? CKR_TOKEN_NOT_PRESENT : target().C_OpenSession(slot, flags, app, notify, ph);
        if (rv == CKR_OK) locked([&](State& s) { s.sessions[c.session = *ph] = {slot, c.image}; });
        return rv;
    };
    return run(c, {{ph, sizeof *ph}}, honest, [&](const Verdict& v, auto& h) -> CK_RV {
        const CK_RV rv = ph == nullptr ? CKR_ARGUMENTS_BAD : h();
        if (rv != CKR_OK) return rv;
        if (target().C_CloseSession(*ph) == CKR_OK) locked([&](State& s) { s.forget(*ph); });  // none leaks
        *ph = v.lie == Lie::noHandle ? CK_INVALID_HANDLE : 0x7FFF0000 + (v.value & 0xFFFF);
        return CKR_OK;
    });
}

CK_RV C_GetSessionInfo(Call& c, CK_SESSION_HANDLE session, CK_SESSION_INFO_PTR info) {
    return answerInfo(c, info, [&] { return target().C_GetSessionInfo(session, info); });
}

// The lies apply to every attribute, or to the one at index `value`. The
// out-parameters are each value buffer (its size: the room given) and length.
CK_RV C_GetAttributeValue(Call& c, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_PTR t,
                          CK_ULONG count) {
    std::vector<Out> outs;
    for (CK_ULONG i = 0; t != nullptr && i < count; ++i)
        outs.insert(outs.end(), {{t[i].pValue, t[i].ulValueLen}, {&t[i].ulValueLen, sizeof(CK_ULONG)}});
    return run(c, outs, [&] { return readAttributes(session, object, t, count); }, [&](const Verdict& v, auto& h) {
        const CK_RV rv = h();
        const bool lied = t != nullptr && aboutAttributes(rv), one = v.value < count;
        for (CK_ULONG i = one ? v.value : 0; lied && i < (one ? v.value + 1 : count); ++i) {
            CK_ATTRIBUTE& a = t[i];
            const CK_ULONG room = outs[2 * i].size, len = a.ulValueLen == CK_UNAVAILABLE_INFORMATION ? 0 : a.ulValueLen;
            if (v.lie != Lie::garbageValue)
                a.ulValueLen = lyingLength(v.lie, a.pValue != nullptr ? room : len);
            else if (a.pValue != nullptr && a.ulValueLen <= room)
                fillGarbage(a.pValue, a.ulValueLen, i);
        }
        return lied && v.lie == Lie::okLengthOverBuffer ? CKR_OK : rv;
    });
}

// neverEnding: full batches for ever; unknownHandles: the batch's handles;
// both of objects no one has.
CK_RV C_FindObjects(Call& c, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE_PTR found, CK_ULONG max,
                    CK_ULONG_PTR count) {
    auto honest = [&] { return target().C_FindObjects(session, found, max, count); };
    return run(c, {{found, max * sizeof *found}, {count, sizeof *count}}, honest, [&](const Verdict& v, auto& h) {
        if (found == nullptr || count == nullptr) return CKR_ARGUMENTS_BAD;
        const CK_RV rv = v.lie == Lie::neverEnding ? (*count = max, CKR_OK) : h();
        if (rv == CKR_OK && v.lie == Lie::moreObjectsThanAsked) *count = max + 1 + (v.value & 0xFF);
        for (CK_ULONG i = 0; rv == CKR_OK && v.lie != Lie::moreObjectsThanAsked && i < *count; ++i)
            found[i] = 0x7FFF0000 + i;
        return rv;
    });
}

CK_RV C_Sign(Call& c, CK_SESSION_HANDLE session, CK_BYTE_PTR data, CK_ULONG len, CK_BYTE_PTR signature,
             CK_ULONG_PTR signatureLen) {
    const CK_ULONG room = signatureLen != nullptr ? *signatureLen : 0;
    auto honest = [&] { return target().C_Sign(session, data, len, signature, signatureLen); };
    return run(c, {{signature, room}, {signatureLen, sizeof *signatureLen}}, honest, [&](const Verdict& v, auto& h) {
        const CK_RV rv = h();
        if (signatureLen == nullptr || (rv != CKR_OK && rv != CKR_BUFFER_TOO_SMALL)) return rv;
        *signatureLen = lyingLength(v.lie, signature != nullptr ? room : *signatureLen);
        return v.lie == Lie::okLengthOverBuffer ? CKR_OK : rv;
    });
}

}  // namespace entry

#define SHIM_EACH_OWN(X)                                                                                       \
    X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetFunctionList) X(C_GetSlotList) X(C_GetSlotInfo)          \
    X(C_GetTokenInfo) X(C_OpenSession) X(C_GetSessionInfo) X(C_GetAttributeValue) X(C_FindObjects) X(C_Sign)

// The image's C entry N: records the arguments a test asks about (never a
// PIN), then answers by the entry's own code (Own) or by forwarding. A first
// argument of type CK_ULONG is a slot (before C_InitPIN, and of the session
// functions that name one), else a session (but C_WaitForSlotEvent's flags).
template <int I, size_t N, auto M, class Fn = std::remove_reference_t<decltype(std::declval<CK_FUNCTION_LIST&>().*M)>>
struct Entry;
template <int I, size_t N, auto M, class... A>
struct Entry<I, N, M, CK_RV (*)(A...)> {
    static constexpr bool kUlongFirst =  // the int: a first element for every entry
        std::is_same_v<std::tuple_element_t<0, std::tuple<A..., int>>, CK_ULONG> && N + 1 < kFunctions;
    static constexpr bool kSlotFirst =
        kUlongFirst && (N < at("C_InitPIN") || N == at("C_OpenSession") || N == at("C_CloseAllSessions"));
    static Call record(A... a) {
        Call c{.function = std::string(kNames[N]), .image = static_cast<Image>(I)};
        const std::tuple<A..., int> t(a..., 0);
        if constexpr (kUlongFirst) (kSlotFirst ? c.slot : c.session) = std::get<0>(t);
        if constexpr (N == at("C_Login")) c.userType = std::get<1>(t);
        if constexpr (N == at("C_SignInit") || N == at("C_GetAttributeValue"))
            c.object = std::get<N == at("C_SignInit") ? 2 : 1>(t);
        if constexpr (N == at("C_GetAttributeValue"))
            for (CK_ULONG i = 0; std::get<2>(t) != nullptr && i < std::get<3>(t); ++i)
                c.attributeTypes.push_back(std::get<2>(t)[i].type);
        return c;
    }
    template <auto Own = nullptr>
    static CK_RV answer(A... a) {
        Call c = record(a...);
        std::tuple<A...> args(a...);  // an alias slot goes on as SoftHSM2's
        if constexpr (kSlotFirst)
            std::get<0>(args) = locked([&](State& s) { return s.aliases.contains(c.slot) ? s.aliases[c.slot] : c.slot; });
        return std::apply([&](A... b) {
            if constexpr (!std::is_null_pointer_v<decltype(Own)>)
                return Own(c, b...);
            else
                return run(c, {}, [&] { const CK_RV rv = (target().*M)(b...); return rv == CKR_OK ? (track(c), rv) : rv; });
        }, args);
    }
};

template <int I>
CK_FUNCTION_LIST makeList() {
    CK_FUNCTION_LIST list{};
    list.version = {2, 40};
#define SHIM_PLAIN(f) list.f = &Entry<I, at(#f), &CK_FUNCTION_LIST::f>::template answer<>;
#define SHIM_OWN(f) list.f = &Entry<I, at(#f), &CK_FUNCTION_LIST::f>::template answer<&entry::f>;
    P11CLIENT_EACH_FUNCTION(SHIM_PLAIN)
    SHIM_EACH_OWN(SHIM_OWN)
    return list;
}

// Made as the core loads, before an image can ask for its list.
[[maybe_unused]] const bool listsMade =
    (lists[0] = makeList<0>(), lists[1] = makeList<1>(), lists[2] = makeList<2>(), lists[3] = makeList<3>(), true);

// --- control -----------------------------------------------------------------------------

constexpr const char* kFiles[] = {"libp11shim.so", "libp11shim_nolock.so", "libp11shim_worker.so",
                                  "libkeyfactorpkcs11_shim.so"};

int counted(int times) { return times > 0 || times == -1 ? times : throw std::invalid_argument("shim: bad times"); }

void queue(const std::string& function, Verdict v, int times, int after) {
    locked([&](State& s) { s.rules[function].push_back({v, counted(times), after}); });
}

template <class T>
T ofImage(Image image, T ImageState::*member) {
    return locked([&](State& s) { return s.image(image).*member; });
}

}  // namespace

std::string modulePath(Image image) { return std::string(SHIM_DIR "/") + kFiles[static_cast<int>(image)]; }
std::string noFunctionListModulePath() { return SHIM_DIR "/libp11shim_nofunctionlist.so"; }
std::string targetPath() {
    const char* path = std::getenv("P11SHIM_TARGET");
    return path != nullptr && *path != '\0' ? path : SHIM_TARGET;
}

const char* lieName(Lie lie) { return kLieNames[static_cast<int>(lie)]; }

// Each entry's own lies are a range of the enum (C_GetSlotList's is not quite one).
std::vector<Lie> liesFor(const std::string& function) {
    using enum Lie;
    static const std::map<std::string, std::pair<Lie, Lie>> own = {
        {"C_GetAttributeValue", {lengthZero, garbageValue}}, {"C_Sign", {lengthZero, okLengthOverBuffer}},
        {"C_GetSlotList", {slotsGrow, slotIdsUnknown}}, {"C_FindObjects", {moreObjectsThanAsked, unknownHandles}},
        {"C_GetInfo", {textNotUtf8, numbersGarbage}}, {"C_GetSlotInfo", {textNotUtf8, numbersGarbage}},
        {"C_GetTokenInfo", {textNotUtf8, numbersGarbage}}, {"C_GetFunctionList", {nullList, shortList}},
        {"C_OpenSession", {noHandle, unknownHandle}}, {"C_GetSessionInfo", {wrongState, wrongState}},
        {"C_Initialize", {initializedButSaysAlready, initializedButSaysAlready}}};
    std::vector<Lie> lies = {doneButFailed, okWithoutDoing};
    if (const auto it = own.find(function); it != own.end())
        for (auto l = static_cast<int>(it->second.first); l <= static_cast<int>(it->second.second); ++l)
            lies.push_back(static_cast<Lie>(l));
    if (function == "C_GetSlotList") lies.insert(lies.end(), {length2Pow31, length2Pow32Minus1, lengthUnavailable});
    return lies;
}

void failCall(const std::string& f, CK_RV rv, int times, int after) { queue(f, {.rv = rv}, times, after); }
void failWithGarbage(const std::string& function, CK_RV rv, int times, int after) {
    queue(function, {.garbage = true, .value = rv, .rv = rv}, times, after);
}
void lie(const std::string& function, Lie lie, CK_ULONG value, int times, int after) {
    queue(function, {.isLie = true, .lie = lie, .value = value, .rv = value}, times, after);
}
void afterCall(const std::string& function, std::function<void()> action, int times) {
    locked([&](State& s) { s.actions[function].push_back({std::move(action), counted(times)}); });
}
void forkInside(const std::string& f, int times) { locked([&](State& s) { s.forks[f] = counted(times); }); }

void rewriteTokenFlags(CK_FLAGS on, CK_FLAGS off) { locked([&](State& s) { s.tokenSet = on, s.tokenClear = off; }); }
void rewriteSlotFlags(CK_FLAGS on, CK_FLAGS off) { locked([&](State& s) { s.slotSet = on, s.slotClear = off; }); }
void removeToken(CK_SLOT_ID slot) { locked([&](State& s) { s.removed.insert(slot); }); }
void aliasSlot(CK_SLOT_ID alias, CK_SLOT_ID slot) { locked([&](State& s) { s.aliases[alias] = slot; }); }
void overrideAttribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, std::optional<std::vector<uint8_t>> value) {
    locked([&](State& s) { s.overrides[{object, type}] = std::move(value); });
}
void setHostileStream(std::vector<uint8_t> v) { locked([&](State& s) { s.stream = std::move(v), s.streamPos = 0; }); }

std::vector<Call> calls() { return locked([](State& s) { return s.calls; }); }
int callCount(const std::string& f) {
    return locked([&](State& s) { return static_cast<int>(std::ranges::count(s.calls, f, &Call::function)); });
}
void clearCalls() { locked([](State& s) { s.calls.clear(); }); }

bool initialized(Image image) { return locked([&](State& s) { return s.image(image).live(); }); }
int initializeCount(Image image) { return ofImage(image, &ImageState::initializeCount); }
int finalizeCount(Image image) { return ofImage(image, &ImageState::finalizeCount); }
bool lastInitializeHadArgs(Image image) { return ofImage(image, &ImageState::lastHadArgs); }
CK_FLAGS lastInitializeFlags(Image image) { return ofImage(image, &ImageState::lastFlags); }
size_t openSessionCount() { return locked([](State& s) { return s.sessions.size(); }); }
size_t activeFindOperations() { return locked([](State& s) { return s.finds.size(); }); }
long overlappingCalls(Image image) { return state().image(image).overlaps; }

void reset() {
    locked([](State& s) {
        s.rules.clear(), s.actions.clear(), s.forks.clear(), s.calls.clear();
        s.tokenSet = s.tokenClear = s.slotSet = s.slotClear = 0;
        s.removed.clear(), s.aliases.clear(), s.overrides.clear();
        s.stream.clear(), s.streamPos = 0;
        for (ImageState& img : s.images) img.initializeCount = img.finalizeCount = 0, img.overlaps = 0;
    });
}

}  // namespace shim

extern "C" SHIM_API CK_RV p11shim_get_function_list(int image, CK_FUNCTION_LIST_PTR_PTR pp) {
    return shim::lists[image].C_GetFunctionList(pp);
}

// Called as an image is unloaded: a thread still running in a module that goes
// away would crash the process, so the shim stops it here, loudly.
extern "C" SHIM_API void p11shim_image_unloaded(int image) {
    shim::ImageState& img = shim::state().image(static_cast<shim::Image>(image));
    if (img.worker && img.pid == getpid()) {
        std::fputs("shim: a module is unloaded while the thread its C_Initialize started still runs\n", stderr);
        std::abort();
    }
}
