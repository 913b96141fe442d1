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

} // namespace

void ObjectTemplate::add(CK_ATTRIBUTE_TYPE type, DataBuffer value)
{
    m_types.push_back(type);
    m_values.push_back(std::move(value));
}

bool ObjectTemplate::addMember(ClsJsonObject& search, const char* path, CK_ATTRIBUTE_TYPE type, LogBase& log)
{
    LogNull quiet;
    std::optional<DataBuffer> value;
    const AttributeKind kind = attributeKind(type);
    const int jsonType = search.jsonTypeOf(path);
    if (jsonType == ClsJsonObject::kTypeBool) {
        const CK_BBOOL b = search.boolOf(path, quiet) ? CK_TRUE : CK_FALSE;
        value = DataBuffer(&b, sizeof b);
    } else if (jsonType == ClsJsonObject::kTypeNumber && search.intOf(path) >= 0) {
        value = ulongBytes(static_cast<CK_ULONG>(search.intOf(path)));
    } else if (jsonType == ClsJsonObject::kTypeString) {
        StringBuffer text;
        search.sbOfPathUtf8(path, text, quiet);
        value = fromText(kind, text);
    }
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
