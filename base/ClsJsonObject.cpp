#include "ClsJsonObject.h"

#include "DataBuffer.h"
#include "JsonPath.h"
#include "StringBuffer.h"
#include "XString.h"

#include <nlohmann/json.hpp>

#include <climits>
#include <cmath>
#include <cstdint>

namespace p11client {

using Json = nlohmann::ordered_json;

struct JsonDocument {
    Json root = Json::object();
    int indexI = 0;

    // A new public object holding a copy of node, or null.
    static ClsJsonObject* newObjectWith(const Json& node)
    {
        std::unique_ptr<ClsJsonObject> obj(ClsJsonObject::createNewCls());
        if (obj)
            obj->m_doc->root = node;
        return obj.release();
    }
};

namespace {

// Deeper documents are refused before parsing: nothing this library reads
// nests more than a few levels, and depth is how hostile input exhausts a stack.
constexpr int kMaxJsonDepth = 128;

// A number as a long long. A float or unsigned beyond its range has no
// conversion, so it is clamped rather than cast.
long long clampedInteger(const Json& node)
{
    if (node.is_number_unsigned()) {
        const auto value = node.get<std::uint64_t>();
        return value > static_cast<std::uint64_t>(LLONG_MAX) ? LLONG_MAX : static_cast<long long>(value);
    }
    if (node.is_number_integer())
        return node.get<long long>();
    const double value = node.get<double>();
    constexpr double kTwoPow63 = 9223372036854775808.0;
    if (std::isnan(value))
        return 0;
    if (value >= kTwoPow63)
        return LLONG_MAX;
    if (value < -kTwoPow63)
        return LLONG_MIN;
    return static_cast<long long>(value);
}

bool nestingWithinLimit(std::string_view text)
{
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            if (++depth > kMaxJsonDepth)
                return false;
        } else if (c == '}' || c == ']') {
            --depth;
        }
    }
    return true;
}

// J is Json or const Json.
template <class J>
J* findNode(J& root, const std::vector<JsonPathStep>& steps)
{
    J* node = &root;
    for (const JsonPathStep& step : steps) {
        if (const auto* name = std::get_if<std::string>(&step)) {
            if (!node->is_object())
                return nullptr;
            const auto it = node->find(*name);
            if (it == node->end())
                return nullptr;
            node = &*it;
        } else {
            const std::size_t index = std::get<std::size_t>(step);
            if (!node->is_array() || index >= node->size())
                return nullptr;
            node = &(*node)[index];
        }
    }
    return node;
}

// Walks to the node, creating objects and arrays on the way; null when the
// path crosses a value of another kind or skips array elements.
Json* makeNode(Json& root, const std::vector<JsonPathStep>& steps)
{
    Json* node = &root;
    for (std::size_t k = 0; k < steps.size(); ++k) {
        const bool nextIsIndex = k + 1 < steps.size() && std::holds_alternative<std::size_t>(steps[k + 1]);
        if (const auto* name = std::get_if<std::string>(&steps[k])) {
            if (node->is_null())
                *node = Json::object();
            if (!node->is_object())
                return nullptr;
            node = &(*node)[*name];
        } else {
            const std::size_t index = std::get<std::size_t>(steps[k]);
            if (node->is_null())
                *node = Json::array();
            if (!node->is_array() || index > node->size())
                return nullptr;
            if (index == node->size())
                node->push_back(nullptr);
            node = &(*node)[index];
        }
        if (node->is_null() && k + 1 < steps.size())
            *node = nextIsIndex ? Json::array() : Json::object();
    }
    return node;
}

std::string textOf(const Json& node)
{
    if (node.is_string())
        return node.get<std::string>();
    return node.dump(-1, ' ', false, Json::error_handler_t::replace);
}

int typeCodeOf(const Json* node)
{
    if (node == nullptr) return ClsJsonObject::kTypeMissing;
    if (node->is_string()) return ClsJsonObject::kTypeString;
    if (node->is_number()) return ClsJsonObject::kTypeNumber;
    if (node->is_object()) return ClsJsonObject::kTypeObject;
    if (node->is_array()) return ClsJsonObject::kTypeArray;
    if (node->is_boolean()) return ClsJsonObject::kTypeBool;
    return ClsJsonObject::kTypeNull;
}

// The node at a path, or null when the path is malformed or names nothing.
const Json* nodeAt(const JsonDocument& doc, const char* path)
{
    const auto steps = parseJsonPath(path != nullptr ? path : "", doc.indexI);
    return steps ? findNode(doc.root, *steps) : nullptr;
}

Json* makeNodeAt(JsonDocument& doc, const char* path)
{
    const auto steps = parseJsonPath(path != nullptr ? path : "", doc.indexI);
    return steps ? makeNode(doc.root, *steps) : nullptr;
}

// Runs f, turning anything the JSON library throws (allocation, type errors)
// into failValue: no exception leaves a public object.
template <class R, class F>
R guarded(R failValue, F&& f)
{
    try {
        return f();
    } catch (...) {
        return failValue;
    }
}

} // namespace

ClsJsonObject::ClsJsonObject() : m_doc(std::make_unique<JsonDocument>()) {}
ClsJsonObject::~ClsJsonObject() = default;

ClsJsonObject* ClsJsonObject::createNewCls()
{
    try {
        return new ClsJsonObject();
    } catch (...) {
        return nullptr;
    }
}

bool ClsJsonObject::Load(const XString& jsonText)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "Load");
    const bool ok = loadJsonText(jsonText.getUtf8(), jsonText.getSizeUtf8(), m_log);
    logSuccessFailure(ok);
    return ok;
}

bool ClsJsonObject::loadJson(const DataBuffer& utf8Json, LogBase& log)
{
    return loadJsonText(reinterpret_cast<const char*>(utf8Json.getData()), utf8Json.getSize(), log);
}

bool ClsJsonObject::loadJsonText(const char* utf8Json, std::size_t size, LogBase& log)
{
    CritSecExitor lock(this);
    const std::string_view text(utf8Json != nullptr ? utf8Json : "", utf8Json != nullptr ? size : 0);
    if (!nestingWithinLimit(text)) {
        log.LogError("JSON nesting is too deep.");
        return false;
    }
    try {
        Json parsed = Json::parse(text);
        m_doc->root = std::move(parsed);
        return true;
    } catch (const std::exception& e) {
        log.LogError("Invalid JSON.");
        log.LogData("jsonError", e.what());
        return false;
    }
}

void ClsJsonObject::Clear()
{
    CritSecExitor lock(this);
    m_doc->root = Json::object();
}

void ClsJsonObject::clear(LogBase&) { Clear(); }

bool ClsJsonObject::Emit(XString& out)
{
    StringBuffer sb;
    emitSb(sb);
    out.setFromUtf8(sb.view());
    return true;
}

void ClsJsonObject::emitSb(StringBuffer& out)
{
    CritSecExitor lock(this);
    try {
        out.append(m_doc->root.dump(m_emitCompact ? -1 : 2, ' ', false, Json::error_handler_t::replace));
    } catch (...) {
        // Only allocation can fail here; the caller gets what was appended.
    }
}

bool ClsJsonObject::get_EmitCompact()
{
    CritSecExitor lock(this);
    return m_emitCompact;
}

void ClsJsonObject::put_EmitCompact(bool compact)
{
    CritSecExitor lock(this);
    m_emitCompact = compact;
}

int ClsJsonObject::get_I()
{
    CritSecExitor lock(this);
    return m_doc->indexI;
}

void ClsJsonObject::put_I(int i)
{
    CritSecExitor lock(this);
    m_doc->indexI = i;
}

int ClsJsonObject::JsonTypeOf(const XString& path) { return jsonTypeOf(path.getUtf8()); }

int ClsJsonObject::jsonTypeOf(const char* path)
{
    CritSecExitor lock(this);
    return guarded(kTypeMissing, [&] { return typeCodeOf(nodeAt(*m_doc, path)); });
}

bool ClsJsonObject::HasMember(const XString& path) { return jsonTypeOf(path.getUtf8()) != kTypeMissing; }

int ClsJsonObject::SizeOfArray(const XString& path)
{
    LogNull log;
    return sizeOfArray(path.getUtf8(), log);
}

int ClsJsonObject::sizeOfArray(const char* path, LogBase&)
{
    CritSecExitor lock(this);
    return guarded(-1, [&] {
        const Json* node = nodeAt(*m_doc, path);
        return node != nullptr && node->is_array() ? static_cast<int>(node->size()) : -1;
    });
}

int ClsJsonObject::SizeOfObject(const XString& path) { return sizeOfObject(path.getUtf8()); }

int ClsJsonObject::sizeOfObject(const char* path)
{
    CritSecExitor lock(this);
    return guarded(-1, [&] {
        const Json* node = nodeAt(*m_doc, path);
        return node != nullptr && node->is_object() ? static_cast<int>(node->size()) : -1;
    });
}

bool ClsJsonObject::NameAt(const XString& path, int index, XString& name)
{
    StringBuffer sb;
    const bool found = nameAt(path.getUtf8(), index, sb);
    name.setFromUtf8(sb.view());
    return found;
}

bool ClsJsonObject::nameAt(const char* path, int index, StringBuffer& name)
{
    CritSecExitor lock(this);
    return guarded(false, [&] {
        const Json* node = nodeAt(*m_doc, path);
        if (node == nullptr || !node->is_object() || index < 0 || index >= static_cast<int>(node->size()))
            return false;
        name.append(std::next(node->begin(), index).key());
        return true;
    });
}

bool ClsJsonObject::StringOf(const XString& path, XString& out)
{
    StringBuffer sb;
    LogNull log;
    const bool found = sbOfPathUtf8(path.getUtf8(), sb, log);
    out.setFromUtf8(sb.view());
    return found;
}

bool ClsJsonObject::sbOfPathUtf8(const char* path, StringBuffer& out, LogBase&)
{
    CritSecExitor lock(this);
    return guarded(false, [&] {
        const Json* node = nodeAt(*m_doc, path);
        if (node == nullptr)
            return false;
        out.append(textOf(*node));
        return true;
    });
}

long long ClsJsonObject::IntOf(const XString& path) { return intOf(path.getUtf8()); }

long long ClsJsonObject::intOf(const char* path)
{
    CritSecExitor lock(this);
    return guarded(0LL, [&] {
        const Json* node = nodeAt(*m_doc, path);
        return node != nullptr && node->is_number() ? clampedInteger(*node) : 0LL;
    });
}

bool ClsJsonObject::BoolOf(const XString& path)
{
    LogNull log;
    return boolOf(path.getUtf8(), log);
}

bool ClsJsonObject::boolOf(const char* path, LogBase&)
{
    CritSecExitor lock(this);
    return guarded(false, [&] {
        const Json* node = nodeAt(*m_doc, path);
        return node != nullptr && node->is_boolean() && node->get<bool>();
    });
}

ClsJsonObject* ClsJsonObject::FindRecord(const XString& arrayPath, const XString& relPath, const XString& value,
                                         bool caseSensitive)
{
    CritSecExitor lock(this);
    return guarded<ClsJsonObject*>(nullptr, [&]() -> ClsJsonObject* {
        const Json* array = nodeAt(*m_doc, arrayPath.getUtf8());
        const auto relSteps = parseJsonPath(relPath.getUtf8(), m_doc->indexI);
        if (array == nullptr || !array->is_array() || !relSteps)
            return nullptr;
        const std::string_view wanted = value.getUtf8Sb().view();
        for (const Json& element : *array) {
            const Json* member = element.is_object() ? findNode(element, *relSteps) : nullptr;
            if (member == nullptr || member->is_object() || member->is_array())
                continue;
            const std::string text = textOf(*member);
            if (caseSensitive ? text == wanted : equalsIgnoreAsciiCase(text, wanted))
                return JsonDocument::newObjectWith(element);
        }
        return nullptr;
    });
}

ClsJsonObject* ClsJsonObject::ObjectOf(const XString& path)
{
    CritSecExitor lock(this);
    return guarded<ClsJsonObject*>(nullptr, [&]() -> ClsJsonObject* {
        const Json* node = nodeAt(*m_doc, path.getUtf8());
        return node != nullptr && (node->is_object() || node->is_array()) ? JsonDocument::newObjectWith(*node) : nullptr;
    });
}

namespace {

template <class Value>
bool writeAt(JsonDocument& doc, const char* path, Value&& value)
{
    return guarded(false, [&] {
        Json* node = makeNodeAt(doc, path);
        if (node == nullptr)
            return false;
        *node = std::forward<Value>(value);
        return true;
    });
}

} // namespace

bool ClsJsonObject::UpdateString(const XString& path, const XString& value)
{
    return updateString(path.getUtf8(), value.getUtf8());
}

bool ClsJsonObject::updateString(const char* path, const char* value)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path, std::string(value != nullptr ? value : ""));
}

bool ClsJsonObject::UpdateInt(const XString& path, long long value) { return updateInt(path.getUtf8(), value); }

bool ClsJsonObject::updateInt(const char* path, long long value)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path, value);
}

bool ClsJsonObject::updateUInt(const char* path, unsigned long long value)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path, value);
}

bool ClsJsonObject::UpdateBool(const XString& path, bool value) { return updateBool(path.getUtf8(), value); }

bool ClsJsonObject::updateBool(const char* path, bool value)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path, value);
}

bool ClsJsonObject::UpdateNull(const XString& path)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path.getUtf8(), nullptr);
}

bool ClsJsonObject::UpdateNewObject(const XString& path) { return updateNewObject(path.getUtf8()); }

bool ClsJsonObject::updateNewObject(const char* path)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path, Json::object());
}

bool ClsJsonObject::UpdateNewArray(const XString& path) { return updateNewArray(path.getUtf8()); }

bool ClsJsonObject::updateNewArray(const char* path)
{
    CritSecExitor lock(this);
    return writeAt(*m_doc, path, Json::array());
}

bool ClsJsonObject::Delete(const XString& path)
{
    CritSecExitor lock(this);
    return guarded(false, [&] {
        auto steps = parseJsonPath(path.getUtf8(), m_doc->indexI);
        if (!steps || steps->empty())
            return false;
        const JsonPathStep last = steps->back();
        steps->pop_back();
        Json* parent = findNode(m_doc->root, *steps);
        if (parent == nullptr)
            return false;
        if (const auto* name = std::get_if<std::string>(&last))
            return parent->is_object() && parent->erase(*name) > 0;
        const std::size_t index = std::get<std::size_t>(last);
        if (!parent->is_array() || index >= parent->size())
            return false;
        parent->erase(index);
        return true;
    });
}

} // namespace p11client
