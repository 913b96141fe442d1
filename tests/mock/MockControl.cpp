// The control API: what tests call directly to set the module up and inspect it.
#include "MockState.h"

#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace mock {

namespace {

using Lock = std::lock_guard<std::mutex>;

Slot& slotOrThrow(State& s, CK_SLOT_ID id) {
    Slot* slot = s.findSlot(id);
    if (slot == nullptr) throw std::invalid_argument("mock: no slot " + std::to_string(id));
    return *slot;
}

Token& tokenOrThrow(State& s, CK_SLOT_ID id) {
    Slot& slot = slotOrThrow(s, id);
    if (!slot.token) throw std::invalid_argument("mock: no token in slot " + std::to_string(id));
    return *slot.token;
}

std::string directoryOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/') + 1);
}

}  // namespace

void reset() {
    State& s = state();
    Lock lock(s.mutex);
    s.initialized = false;
    s.library = LibrarySpec{};
    s.slots.clear();
    s.sessions.clear();
    s.faults.clear();
    s.afterCallActions.clear();
    s.calls.clear();
    s.lastInitializeFlags = 0;
    s.lastInitializeHadArgs = false;
    s.initializeCount = 0;
    s.finalizeCount = 0;
    s.lastSignature.reset();
    s.queuedVerdicts.clear();
    s.hostileStream.clear();
    s.hostilePos = 0;
    stopWorker(s);
    s.setBehaviour(imageBehaviour());
}

std::string modulePath() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&modulePath), &info) == 0 || info.dli_fname == nullptr) return {};
    char resolved[PATH_MAX];
    return realpath(info.dli_fname, resolved) ? std::string(resolved) : std::string(info.dli_fname);
}

std::string noFunctionListModulePath() {
    return directoryOf(modulePath()) + "libmockp11_nofunctionlist.so";
}

std::string nullFunctionListModulePath() {
    return directoryOf(modulePath()) + "libmockp11_nulllist.so";
}

std::string workerThreadModulePath() {
    return directoryOf(modulePath()) + "libmockp11_worker.so";
}

std::string noLockingModulePath() {
    return directoryOf(modulePath()) + "libmockp11_nolock.so";
}

void setLibraryInfo(const LibrarySpec& info) {
    Lock lock(state().mutex);
    state().library = info;
}

void addSlot(CK_SLOT_ID id, const SlotSpec& spec) {
    State& s = state();
    Lock lock(s.mutex);
    if (s.findSlot(id)) throw std::invalid_argument("mock: slot " + std::to_string(id) + " exists");
    Slot slot{.id = id, .spec = spec, .token = std::nullopt};
    if (spec.token) slot.token = Token{.spec = *spec.token, .loggedInAs = std::nullopt, .objects = {}};
    s.slots.push_back(std::move(slot));
}

void insertToken(CK_SLOT_ID slotId, const TokenSpec& token) {
    State& s = state();
    Lock lock(s.mutex);
    Slot& slot = slotOrThrow(s, slotId);
    s.closeSessionsOf(slotId);
    slot.token = Token{.spec = token, .loggedInAs = std::nullopt, .objects = {}};
}

void removeToken(CK_SLOT_ID slotId) {
    State& s = state();
    Lock lock(s.mutex);
    Slot& slot = slotOrThrow(s, slotId);
    s.closeSessionsOf(slotId);
    slot.token.reset();
}

CK_OBJECT_HANDLE addObject(CK_SLOT_ID slot, std::vector<Attribute> attributes,
                           std::vector<CK_ATTRIBUTE_TYPE> sensitive) {
    State& s = state();
    Lock lock(s.mutex);
    Token& token = tokenOrThrow(s, slot);
    Object object{.handle = s.nextObjectHandle++, .attributes = {}, .sensitive = {}};
    for (auto& [type, value] : attributes) object.attributes[type] = std::move(value);
    object.sensitive.insert(sensitive.begin(), sensitive.end());
    token.objects.push_back(std::move(object));
    return token.objects.back().handle;
}

void removeObject(CK_OBJECT_HANDLE handle) {
    State& s = state();
    Lock lock(s.mutex);
    for (Slot& slot : s.slots)
        if (slot.token)
            std::erase_if(slot.token->objects, [&](const Object& o) { return o.handle == handle; });
}

void failCall(const std::string& function, CK_RV rv, int times) {
    if (times == 0 || times < -1) throw std::invalid_argument("mock: times must be positive or -1");
    Lock lock(state().mutex);
    state().faults[function].push_back(Fault{.rv = rv, .remaining = times});
}

void afterCall(const std::string& function, std::function<void()> action, int times) {
    if (times == 0 || times < -1) throw std::invalid_argument("mock: times must be positive or -1");
    Lock lock(state().mutex);
    state().afterCallActions[function].push_back(AfterCallAction{.action = std::move(action), .remaining = times});
}

void lie(const std::string& function, Lie lie, CK_ULONG value, int times) {
    if (times == 0 || times < -1) throw std::invalid_argument("mock: times must be positive or -1");
    Verdict v{.kind = Verdict::Kind::lie, .rv = value, .garbage = false, .lie = lie, .value = value, .remaining = times};
    Lock lock(state().mutex);
    state().queuedVerdicts[function].push_back(v);
}

void failWithGarbage(const std::string& function, CK_RV rv, int times) {
    if (times == 0 || times < -1) throw std::invalid_argument("mock: times must be positive or -1");
    Verdict v{.kind = Verdict::Kind::fail, .rv = rv, .garbage = true, .lie = Lie::doneButFailed, .value = rv,
              .remaining = times};
    Lock lock(state().mutex);
    state().queuedVerdicts[function].push_back(v);
}

void setHostileStream(std::vector<uint8_t> bytes) {
    Lock lock(state().mutex);
    state().hostileStream = std::move(bytes);
    state().hostilePos = 0;
}

size_t hostileBytesLeft() {
    Lock lock(state().mutex);
    return state().hostileStream.size() - state().hostilePos;
}

std::vector<Call> calls() {
    Lock lock(state().mutex);
    return state().calls;
}

int callCount(const std::string& function) {
    Lock lock(state().mutex);
    const auto& all = state().calls;
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const Call& c) { return c.function == function; }));
}

void clearCalls() {
    Lock lock(state().mutex);
    state().calls.clear();
}

bool initialized() {
    Lock lock(state().mutex);
    return state().initialized;
}

CK_FLAGS lastInitializeFlags() {
    Lock lock(state().mutex);
    return state().lastInitializeFlags;
}

bool lastInitializeHadArgs() {
    Lock lock(state().mutex);
    return state().lastInitializeHadArgs;
}

int initializeCount() {
    Lock lock(state().mutex);
    return state().initializeCount;
}

int finalizeCount() {
    Lock lock(state().mutex);
    return state().finalizeCount;
}

size_t openSessionCount() {
    Lock lock(state().mutex);
    return state().sessions.size();
}

bool loggedIn(CK_SLOT_ID slot, CK_USER_TYPE userType) {
    Lock lock(state().mutex);
    return tokenOrThrow(state(), slot).loggedInAs == userType;
}

std::string tokenLabel(CK_SLOT_ID slot) {
    Lock lock(state().mutex);
    std::string label = tokenOrThrow(state(), slot).spec.label;
    return label.erase(label.find_last_not_of(' ') + 1);
}

std::string userPin(CK_SLOT_ID slot) {
    Lock lock(state().mutex);
    return tokenOrThrow(state(), slot).spec.userPin;
}

std::string soPin(CK_SLOT_ID slot) {
    Lock lock(state().mutex);
    return tokenOrThrow(state(), slot).spec.soPin;
}

CK_FLAGS tokenFlags(CK_SLOT_ID slot) {
    Lock lock(state().mutex);
    return tokenOrThrow(state(), slot).spec.flags;
}

size_t activeFindOperations() {
    Lock lock(state().mutex);
    const auto& sessions = state().sessions;
    return static_cast<size_t>(
        std::count_if(sessions.begin(), sessions.end(), [](const auto& entry) { return entry.second.find.has_value(); }));
}

std::optional<SignRecord> lastSignature() {
    Lock lock(state().mutex);
    return state().lastSignature;
}

long overlappingCalls() { return state().overlaps.load(); }

void clearOverlappingCalls() { state().overlaps = 0; }

bool workerRunning() {
    Lock lock(state().mutex);
    return state().worker != nullptr;
}

void setBehaviour(const Behaviour& behaviour) {
    Lock lock(state().mutex);
    state().setBehaviour(behaviour);
}

Behaviour behaviour() {
    Lock lock(state().mutex);
    return state().behaviour;
}

}  // namespace mock
