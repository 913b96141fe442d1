#include "MockHostile.h"

#include <array>
#include <cstring>
#include <span>

namespace mock {

namespace {

constexpr Lie kAnyFunction[] = {Lie::doneButFailed, Lie::okWithoutDoing};

constexpr Lie kLengthLies[] = {Lie::lengthZero,   Lie::lengthOne,          Lie::lengthJustUnder,
                               Lie::lengthJustOver, Lie::length2Pow31, Lie::length2Pow32Minus1,
                               Lie::lengthUnavailable, Lie::okLengthOverBuffer};

struct FunctionLies {
    const char* function;
    std::vector<Lie> lies;
};

std::vector<Lie> with(std::initializer_list<Lie> own, std::span<const Lie> more = {}) {
    std::vector<Lie> lies;
    for (std::span<const Lie> part : {std::span<const Lie>(kAnyFunction), more, std::span<const Lie>(own)})
        for (Lie lie : part) lies.push_back(lie);
    return lies;
}

const std::vector<FunctionLies>& lieTable() {
    static const std::vector<FunctionLies> table = {
        {"C_GetAttributeValue", with({Lie::garbageValue}, kLengthLies)},
        {"C_Sign", with({}, kLengthLies)},
        {"C_GetSlotList", with({Lie::slotsGrow, Lie::slotsShrink, Lie::slotIdsUnknown, Lie::length2Pow31,
                                Lie::length2Pow32Minus1, Lie::lengthUnavailable})},
        {"C_FindObjects", with({Lie::moreObjectsThanAsked, Lie::neverEnding, Lie::unknownHandles})},
        {"C_GetInfo", with({Lie::textNotUtf8, Lie::textNulPadded, Lie::numbersGarbage})},
        {"C_GetSlotInfo", with({Lie::textNotUtf8, Lie::textNulPadded, Lie::numbersGarbage})},
        {"C_GetTokenInfo", with({Lie::textNotUtf8, Lie::textNulPadded, Lie::numbersGarbage})},
        {"C_GetFunctionList", with({Lie::nullList, Lie::shortList})},
        {"C_OpenSession", with({Lie::noHandle, Lie::unknownHandle})},
        {"C_GetSessionInfo", with({Lie::wrongState})},
        {"C_Initialize", with({Lie::initializedButSaysAlready})},
    };
    return table;
}

// The return values a hostile module picks from; a stream byte past the end
// of this list picks a vendor code.
constexpr std::array kReturnValues = {
    CKR_CANCEL, CKR_HOST_MEMORY, CKR_SLOT_ID_INVALID, CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED,
    CKR_ARGUMENTS_BAD, CKR_NEED_TO_CREATE_THREADS, CKR_CANT_LOCK, CKR_ATTRIBUTE_SENSITIVE,
    CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID, CKR_DATA_LEN_RANGE, CKR_DEVICE_ERROR,
    CKR_DEVICE_MEMORY, CKR_DEVICE_REMOVED, CKR_FUNCTION_NOT_SUPPORTED, CKR_KEY_HANDLE_INVALID,
    CKR_MECHANISM_INVALID, CKR_OBJECT_HANDLE_INVALID, CKR_OPERATION_ACTIVE, CKR_OPERATION_NOT_INITIALIZED,
    CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE, CKR_PIN_EXPIRED, CKR_PIN_LOCKED,
    CKR_SESSION_CLOSED, CKR_SESSION_COUNT, CKR_SESSION_HANDLE_INVALID, CKR_SESSION_READ_ONLY,
    CKR_SESSION_EXISTS, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED, CKR_TOKEN_WRITE_PROTECTED,
    CKR_USER_ALREADY_LOGGED_IN, CKR_USER_NOT_LOGGED_IN, CKR_USER_PIN_NOT_INITIALIZED,
    CKR_USER_TYPE_INVALID, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_BUFFER_TOO_SMALL,
    CKR_CRYPTOKI_NOT_INITIALIZED, CKR_CRYPTOKI_ALREADY_INITIALIZED, CK_RV{0x1234},
};

template <typename Entry>
std::optional<Entry> takeQueued(std::deque<Entry>& queue) {
    if (queue.empty()) return std::nullopt;
    Entry taken = queue.front();
    if (queue.front().remaining > 0 && --queue.front().remaining == 0) queue.pop_front();
    return taken;
}

std::optional<uint8_t> nextByte(State& s) {
    if (s.hostilePos >= s.hostileStream.size()) return std::nullopt;
    return s.hostileStream[s.hostilePos++];
}

CK_RV returnValueOf(uint8_t b) {
    return b < kReturnValues.size() ? kReturnValues[b] : CKR_VENDOR_DEFINED + b;
}

std::optional<Verdict> verdictFromStream(State& s, const std::string& function) {
    const std::optional<uint8_t> b = nextByte(s);
    if (!b || (*b & 3) < 2) return std::nullopt;
    const uint8_t chooser = nextByte(s).value_or(0);
    const uint8_t value = nextByte(s).value_or(0);
    Verdict v;
    if ((*b & 3) == 2) {
        v.rv = returnValueOf(chooser);
        v.garbage = (*b & 4) != 0;
        v.value = value;
        return v;
    }
    const std::vector<Lie> lies = liesFor(function);
    v.kind = Verdict::Kind::lie;
    v.lie = lies[chooser % lies.size()];
    v.value = value;
    v.rv = returnValueOf(value);
    return v;
}

}  // namespace

std::vector<Lie> liesFor(const std::string& function) {
    for (const FunctionLies& entry : lieTable())
        if (function == entry.function) return entry.lies;
    return with({});
}

std::vector<CK_RV> hostileReturnValues() { return {kReturnValues.begin(), kReturnValues.end()}; }

std::optional<Verdict> takeVerdict(State& s, const std::string& function) {
    auto it = s.queuedVerdicts.find(function);
    if (it != s.queuedVerdicts.end())
        if (std::optional<Verdict> queued = takeQueued(it->second)) return queued;
    return verdictFromStream(s, function);
}

void fillGarbage(void* p, size_t size, CK_ULONG seed) {
    auto* bytes = static_cast<uint8_t*>(p);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(0xA5 ^ (i * 37 + seed * 11));
}

void fillLyingText(CK_UTF8CHAR* field, size_t width, Lie lie) {
    if (lie == Lie::textNulPadded) {
        std::memset(field, 0, width);
        std::memcpy(field, "NUL padded", std::min<size_t>(width, 10));
        return;
    }
    // Lone continuation bytes, a cut sequence, overlong forms and bytes UTF-8 never uses.
    static constexpr uint8_t kNotUtf8[] = {0x80, 0xBF, 0xC3, 0x28, 0xE2, 0x82, 0xC0, 0xAF, 0xF8, 0xFF, 0xFE, 0xED, 0xA0, 0x80};
    std::memset(field, ' ', width);
    std::memcpy(field, kNotUtf8, std::min(width, sizeof kNotUtf8));
}

bool isLengthLie(Lie lie) {
    for (Lie l : kLengthLies)
        if (l == lie) return true;
    return false;
}

CK_ULONG lyingLength(Lie lie, CK_ULONG room) {
    switch (lie) {
        case Lie::lengthZero: return 0;
        case Lie::lengthOne: return 1;
        case Lie::lengthJustUnder: return room == 0 ? 0 : room - 1;
        case Lie::lengthJustOver:
        case Lie::okLengthOverBuffer: return room + 1;
        case Lie::length2Pow31: return CK_ULONG{1} << 31;
        case Lie::length2Pow32Minus1: return CK_ULONG{0xFFFFFFFF};
        case Lie::lengthUnavailable: return CK_UNAVAILABLE_INFORMATION;
        default: return room;
    }
}

const char* lieName(Lie lie) {
    switch (lie) {
        case Lie::doneButFailed: return "doneButFailed";
        case Lie::okWithoutDoing: return "okWithoutDoing";
        case Lie::lengthZero: return "lengthZero";
        case Lie::lengthOne: return "lengthOne";
        case Lie::lengthJustUnder: return "lengthJustUnder";
        case Lie::lengthJustOver: return "lengthJustOver";
        case Lie::length2Pow31: return "length2Pow31";
        case Lie::length2Pow32Minus1: return "length2Pow32Minus1";
        case Lie::lengthUnavailable: return "lengthUnavailable";
        case Lie::okLengthOverBuffer: return "okLengthOverBuffer";
        case Lie::garbageValue: return "garbageValue";
        case Lie::slotsGrow: return "slotsGrow";
        case Lie::slotsShrink: return "slotsShrink";
        case Lie::slotIdsUnknown: return "slotIdsUnknown";
        case Lie::moreObjectsThanAsked: return "moreObjectsThanAsked";
        case Lie::neverEnding: return "neverEnding";
        case Lie::unknownHandles: return "unknownHandles";
        case Lie::textNotUtf8: return "textNotUtf8";
        case Lie::textNulPadded: return "textNulPadded";
        case Lie::numbersGarbage: return "numbersGarbage";
        case Lie::nullList: return "nullList";
        case Lie::shortList: return "shortList";
        case Lie::noHandle: return "noHandle";
        case Lie::unknownHandle: return "unknownHandle";
        case Lie::wrongState: return "wrongState";
        case Lie::initializedButSaysAlready: return "initializedButSaysAlready";
    }
    return "?";
}

}  // namespace mock
