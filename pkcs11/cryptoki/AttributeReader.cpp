#include "AttributeReader.h"

#include "CkNames.h"
#include "LogBase.h"

#include <cstring>

namespace p11client {

std::optional<CK_ULONG> AttributeValue::asUlong() const
{
    if (!present || value.getSize() != sizeof(CK_ULONG))
        return std::nullopt;
    CK_ULONG v = 0;
    std::memcpy(&v, value.getData(), sizeof v);
    return v;
}

std::optional<bool> AttributeValue::asBool() const
{
    if (!present || value.getSize() != sizeof(CK_BBOOL))
        return std::nullopt;
    return value.getData()[0] != CK_FALSE;
}

CK_ULONG typicalAttributeLength(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_VALUE: return 4096;
    case CKA_SUBJECT:
    case CKA_ISSUER:
    case CKA_MODULUS: return 520;
    case CKA_EC_POINT: return 160;
    case CKA_EC_PARAMS:
    case CKA_ID:
    case CKA_SERIAL_NUMBER:
    case CKA_PUBLIC_EXPONENT: return 64;
    case CKA_LABEL:
    case CKA_APPLICATION:
    case CKA_OBJECT_ID: return 128;
    default: return sizeof(CK_ULONG); // flags and numbers; a CK_BBOOL fits too
    }
}

AttributeReader::AttributeReader(std::span<const CK_ATTRIBUTE_TYPE> types)
{
    m_values.reserve(types.size());
    for (CK_ATTRIBUTE_TYPE type : types)
        m_values.push_back(AttributeValue{type, false, {}});
}

const AttributeValue* AttributeReader::find(CK_ATTRIBUTE_TYPE type) const
{
    for (const AttributeValue& v : m_values)
        if (v.type == type)
            return &v;
    return nullptr;
}

bool AttributeReader::read(CK_FUNCTION_LIST* functions, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                           LogBase& log)
{
    for (AttributeValue& v : m_values) {
        v.present = false;
        v.value.clear();
    }
    if (m_values.empty() || readPresized(functions, session, object))
        return true;
    // Some attribute was absent, sensitive or larger than its first buffer:
    // ask for the lengths, then read what is there.
    return readLengthsThenValues(functions, session, object, log);
}

bool AttributeReader::readPresized(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o)
{
    std::vector<CK_ATTRIBUTE> tmpl;
    std::vector<std::size_t> slots;
    tmpl.reserve(m_values.size());
    for (std::size_t i = 0; i < m_values.size(); ++i) {
        AttributeValue& v = m_values[i];
        v.value.resize(typicalAttributeLength(v.type));
        tmpl.push_back(CK_ATTRIBUTE{v.type, v.value.getData(), v.value.getSize()});
        slots.push_back(i);
    }
    m_lastRv = f->C_GetAttributeValue(s, o, tmpl.data(), tmpl.size());
    if (m_lastRv != CKR_OK) {
        for (AttributeValue& v : m_values)
            v.value.clear();
        return false;
    }
    LogNull quiet;
    return takeValues(tmpl, slots, quiet);
}

bool AttributeReader::readLengthsThenValues(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o,
                                            LogBase& log)
{
    std::vector<CK_ATTRIBUTE> lengths;
    for (const AttributeValue& v : m_values)
        lengths.push_back(CK_ATTRIBUTE{v.type, nullptr, 0});
    m_lastRv = f->C_GetAttributeValue(s, o, lengths.data(), lengths.size());
    if (m_lastRv != CKR_OK && m_lastRv != CKR_ATTRIBUTE_SENSITIVE && m_lastRv != CKR_ATTRIBUTE_TYPE_INVALID)
        return false;

    std::vector<CK_ATTRIBUTE> tmpl;
    std::vector<std::size_t> slots;
    for (std::size_t i = 0; i < m_values.size(); ++i) {
        const CK_ULONG len = lengths[i].ulValueLen;
        if (len == CK_UNAVAILABLE_INFORMATION)
            continue; // compared before any use of the value as a size
        if (len > kMaxAttributeLength) {
            log.LogInfo(("Ignoring " + ckaName(m_values[i].type) + ": the module reports an impossible length.").c_str());
            continue;
        }
        m_values[i].value.resize(len);
        if (len == 0) {
            m_values[i].present = true;
            continue;
        }
        tmpl.push_back(CK_ATTRIBUTE{m_values[i].type, m_values[i].value.getData(), len});
        slots.push_back(i);
    }
    if (tmpl.empty())
        return true;
    m_lastRv = f->C_GetAttributeValue(s, o, tmpl.data(), tmpl.size());
    if (m_lastRv != CKR_OK && m_lastRv != CKR_ATTRIBUTE_SENSITIVE && m_lastRv != CKR_ATTRIBUTE_TYPE_INVALID
        && m_lastRv != CKR_BUFFER_TOO_SMALL)
        return false;
    return takeValues(tmpl, slots, log);
}

// Keeps each value the module filled within its buffer; anything else stays absent.
bool AttributeReader::takeValues(const std::vector<CK_ATTRIBUTE>& tmpl, const std::vector<std::size_t>& slots,
                                 LogBase& log)
{
    for (std::size_t k = 0; k < tmpl.size(); ++k) {
        AttributeValue& v = m_values[slots[k]];
        const CK_ULONG len = tmpl[k].ulValueLen;
        if (len == CK_UNAVAILABLE_INFORMATION || len > v.value.getSize()) {
            if (len != CK_UNAVAILABLE_INFORMATION)
                log.LogInfo(("Ignoring " + ckaName(v.type) + ": the module reports more bytes than its buffer holds.").c_str());
            v.value.clear();
            continue;
        }
        v.value.shorten(len);
        v.present = true;
    }
    return true;
}

} // namespace p11client
