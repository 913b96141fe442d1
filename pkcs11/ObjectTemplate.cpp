#include "ObjectTemplate.h"

#include "AttributeKinds.h"
#include "CkNames.h"
#include "ClsJsonObject.h"
#include "LogBase.h"
#include "StringBuffer.h"

#include <cstring>
#include <string>

namespace p11client {

namespace {

DataBuffer ulongBytes(CK_ULONG value) { return DataBuffer(&value, sizeof value); }

// The value of a string member for an attribute of this kind.
std::optional<DataBuffer> fromText(AttributeKind kind, const StringBuffer& text)
{
    std::optional<CK_ULONG> named;
    switch (kind) {
    case AttributeKind::Class: named = objectClassByName(text.view()); break;
    case AttributeKind::KeyType: named = keyTypeByName(text.view()); break;
    case AttributeKind::CertType: named = certificateTypeByName(text.view()); break;
    case AttributeKind::Text: return DataBuffer(text.getString(), text.getSize());
    case AttributeKind::Bytes: {
        DataBuffer bytes;
        if (!bytes.appendEncodedById(text.getString(), DataBuffer::kHex))
            return std::nullopt;
        return bytes;
    }
    default: return std::nullopt;
    }
    return named ? std::optional<DataBuffer>(ulongBytes(*named)) : std::nullopt;
}

bool isNumberKind(AttributeKind kind)
{
    return kind == AttributeKind::Ulong || kind == AttributeKind::Class || kind == AttributeKind::KeyType
        || kind == AttributeKind::CertType;
}

// A JSON number that is a whole, non-negative number, as written.
std::optional<CK_ULONG> wholeNumberAt(ClsJsonObject& search, const char* path)
{
    StringBuffer text;
    LogNull quiet;
    search.sbOfPathUtf8(path, text, quiet);
    const std::string_view digits = text.view();
    if (digits.empty() || digits.size() > 19 || digits.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return static_cast<CK_ULONG>(search.intOf(path));
}

// The member's value as the attribute takes it. A JSON type the attribute
// cannot hold has no value: sent as raw bytes, it would make the search
// match something other than what was asked for.
std::optional<DataBuffer> valueOf(ClsJsonObject& search, const char* path, AttributeKind kind)
{
    LogNull quiet;
    switch (search.jsonTypeOf(path)) {
    case ClsJsonObject::kTypeBool: {
        if (kind != AttributeKind::Bool)
            return std::nullopt;
        const CK_BBOOL b = search.boolOf(path, quiet) ? CK_TRUE : CK_FALSE;
        return DataBuffer(&b, sizeof b);
    }
    case ClsJsonObject::kTypeNumber: {
        const std::optional<CK_ULONG> number = isNumberKind(kind) ? wholeNumberAt(search, path) : std::nullopt;
        return number ? std::optional<DataBuffer>(ulongBytes(*number)) : std::nullopt;
    }
    case ClsJsonObject::kTypeString: {
        StringBuffer text;
        search.sbOfPathUtf8(path, text, quiet);
        return fromText(kind, text);
    }
    default: return std::nullopt;
    }
}

} // namespace

void ObjectTemplate::add(CK_ATTRIBUTE_TYPE type, DataBuffer value)
{
    m_types.push_back(type);
    m_values.push_back(std::move(value));
}

bool ObjectTemplate::addMember(ClsJsonObject& search, const char* path, CK_ATTRIBUTE_TYPE type, LogBase& log)
{
    std::optional<DataBuffer> value = valueOf(search, path, attributeKind(type));
    if (!value) {
        log.LogError("The search template has a value that does not fit its attribute.");
        log.LogData("member", path);
        return false;
    }
    if (type == CKA_CLASS && value->getSize() == sizeof(CK_ULONG)) {
        CK_ULONG c = 0;
        std::memcpy(&c, value->getData(), sizeof c);
        m_class = c;
    }
    add(type, std::move(*value));
    return true;
}

bool ObjectTemplate::build(ClsJsonObject& search, LogBase& log)
{
    m_values.clear();
    m_types.clear();
    m_template.clear();
    m_class.reset();
    const struct {
        const char* member;
        CK_ATTRIBUTE_TYPE type;
    } shortcuts[] = {{"class", CKA_CLASS}, {"keyType", CKA_KEY_TYPE}, {"label", CKA_LABEL}, {"id", CKA_ID}};
    for (const auto& s : shortcuts)
        if (search.jsonTypeOf(s.member) != ClsJsonObject::kTypeMissing && !addMember(search, s.member, s.type, log))
            return false;

    const int attributesType = search.jsonTypeOf("attributes");
    if (attributesType != ClsJsonObject::kTypeMissing && attributesType != ClsJsonObject::kTypeObject) {
        log.LogError("The search template's attributes member is not an object.");
        return false;
    }
    const int n = search.sizeOfObject("attributes");
    for (int i = 0; i < n; ++i) {
        StringBuffer name;
        search.nameAt("attributes", i, name);
        const std::optional<CK_ATTRIBUTE_TYPE> type = attributeTypeByName(name.view());
        if (!type) {
            log.LogError("The search template names an unknown attribute.");
            log.LogDataSb("attribute", name);
            return false;
        }
        const std::string path = "attributes." + name.toStdString();
        if (!addMember(search, path.c_str(), *type, log))
            return false;
    }
    for (std::size_t k = 0; k < m_values.size(); ++k)
        m_template.push_back(CK_ATTRIBUTE{m_types[k], m_values[k].getData(), m_values[k].getSize()});
    return true;
}

} // namespace p11client
