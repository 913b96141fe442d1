// Fuzz target: a JSON document of any bytes (deep nesting included), then
// path queries, FindRecord, ObjectOf and writers with paths of any bytes. No
// call may crash or throw, a document that loaded must write itself out
// again as one that loads, and so must every record FindRecord hands out.
#include "ClsJsonObject.h"
#include "XString.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

using namespace p11client;

// Short enough that no path nests a written document past the 128 levels Load takes.
constexpr std::size_t kMaxPath = 120;
constexpr std::size_t kMaxDocument = 64 * 1024;

static XString text(FuzzedDataProvider& in) { return XString(in.ConsumeRandomLengthString(kMaxPath).c_str()); }

// Written out and loaded again, the document stays loadable.
static void roundTrip(ClsJsonObject& json, bool compact) {
    json.put_EmitCompact(compact);
    XString out;
    if (ClsJsonObject again; !json.Emit(out) || !again.Load(out)) std::abort();
}

static void own(ClsJsonObject* copy) {
    if (std::unique_ptr<ClsJsonObject> held(copy); held) roundTrip(*held, true);
}

static void query(ClsJsonObject& json, FuzzedDataProvider& in) {
    XString out;
    switch (in.ConsumeIntegralInRange(0, 16)) {
    case 0: json.StringOf(text(in), out); break;
    case 1: json.IntOf(text(in)); break;
    case 2: json.BoolOf(text(in)); break;
    case 3: json.JsonTypeOf(text(in)); break;
    case 4: json.SizeOfArray(text(in)); break;
    case 5: json.SizeOfObject(text(in)); break;
    case 6: json.NameAt(text(in), in.ConsumeIntegral<int>(), out); break;
    case 7: {
        const XString array = text(in), member = text(in), value = text(in);
        own(json.FindRecord(array, member, value, in.ConsumeBool()));
        break;
    }
    case 8: own(json.ObjectOf(text(in))); break;
    case 9: json.UpdateString(text(in), text(in)); break;
    case 10: json.UpdateInt(text(in), in.ConsumeIntegral<long long>()); break;
    case 11: json.UpdateBool(text(in), in.ConsumeBool()); break;
    case 12: json.UpdateNull(text(in)); break;
    case 13: json.UpdateNewObject(text(in)); break;
    case 14: json.UpdateNewArray(text(in)); break;
    case 15: json.Delete(text(in)); break;
    default: json.put_I(in.ConsumeIntegral<int>()); break;
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    ClsJsonObject json;
    if (json.Load(XString(in.ConsumeRandomLengthString(kMaxDocument).c_str()))) roundTrip(json, false);
    while (in.remaining_bytes() > 0) query(json, in);
    roundTrip(json, in.ConsumeBool());
    if (json.m_log.depth() != 0) std::abort();
    return 0;
}
