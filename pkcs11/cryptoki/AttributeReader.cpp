#include "AttributeReader.h"

#include "CkNames.h"
#include "LogBase.h"

#include <algorithm>
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
    case CKA_MODULUS: return 1024; // 8192 bits
    case CKA_SUBJECT:
    case CKA_ISSUER: return 520;
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

AttributeReader::AttributeReader(std::span<const CK_ATTRIBUTE_TYPE> types,
                                 std::span<const CK_ATTRIBUTE_TYPE> firstReadOnly)
{
    m_values.reserve(types.size());
    for (CK_ATTRIBUTE_TYPE type : types) {
        const bool once = std::find(firstReadOnly.begin(), firstReadOnly.end(), type) != firstReadOnly.end();
        m_values.push_back(AttributeValue{type, false, {}, once});
    }
}

const AttributeValue* AttributeReader::find(CK_ATTRIBUTE_TYPE type) const
{
    for (const AttributeValue& v : m_values)
        if (v.type == type)
            return &v;
    return nullptr;
}

namespace {

// The key type that alone carries the attribute: RSA for the modulus and
// the other RSA components, EC for the curve and the point.
std::optional<CK_KEY_TYPE> onlyKeyTypeOf(CK_ATTRIBUTE_TYPE type)
{
    switch (type) {
    case CKA_MODULUS:
    case CKA_MODULUS_BITS:
    case CKA_PUBLIC_EXPONENT:
    case CKA_PRIVATE_EXPONENT:
    case CKA_PRIME_1:
    case CKA_PRIME_2:
    case CKA_EXPONENT_1:
    case CKA_EXPONENT_2:
    case CKA_COEFFICIENT: return CKK_RSA;
    case CKA_EC_PARAMS:
    case CKA_EC_POINT: return CKK_EC;
    default: return std::nullopt;
    }
}

// Return values after which the module still reports every attribute of
// the template on its own.
bool perAttributeAnswer(CK_RV rv)
{
    return rv == CKR_OK || rv == CKR_ATTRIBUTE_SENSITIVE || rv == CKR_ATTRIBUTE_TYPE_INVALID
        || rv == CKR_BUFFER_TOO_SMALL;
}

} // namespace

bool AttributeReader::read(CK_FUNCTION_LIST* functions, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                           LogBase& log)
{
    std::vector<std::size_t> all;
    for (std::size_t i = 0; i < m_values.size(); ++i) {
        // A fresh zeroed buffer: no byte of the previous object can pass for this one's.
        m_values[i].present = false;
        m_values[i].value.clear();
        m_values[i].value.resize(typicalAttributeLength(m_values[i].type) + kUnwrittenMargin);
        all.push_back(i);
    }
    if (all.empty() || readPasses(functions, session, object, all, log))
        return true;
    // A failed call may have written anything anywhere: nothing of this object is kept.
    for (AttributeValue& v : m_values) {
        v.present = false;
        v.value.clear();
    }
    return false;
}

bool AttributeReader::readPasses(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o,
                                 const std::vector<std::size_t>& all, LogBase& log)
{
    if (!readValues(f, s, o, all, log))
        return false;
    // What did not come back was absent, sensitive, larger than its first
    // buffer or left unwritten: ask for the lengths of those alone, then read
    // the ones there.
    std::vector<std::size_t> missing;
    for (std::size_t i : all)
        if (!m_values[i].present && worthALengthPass(m_values[i]))
            missing.push_back(i);
    std::vector<std::size_t> sized;
    if (!missing.empty() && !readLengths(f, s, o, missing, sized, log))
        return false;
    return sized.empty() || readValues(f, s, o, sized, log);
}

// Whether an attribute the first read did not return may still be there,
// larger than its buffer. Not when the caller asked for one read only, nor
// for an RSA component of an EC key or an EC attribute of an RSA key (the
// key type read in the same template), which no such key has.
bool AttributeReader::worthALengthPass(const AttributeValue& v) const
{
    if (v.firstReadOnly)
        return false;
    const std::optional<CK_KEY_TYPE> only = onlyKeyTypeOf(v.type);
    const AttributeValue* keyType = only ? find(CKA_KEY_TYPE) : nullptr;
    const std::optional<CK_ULONG> type = keyType != nullptr ? keyType->asUlong() : std::nullopt;
    return !type || (*type != CKK_RSA && *type != CKK_EC) || *type == *only;
}

// One C_GetAttributeValue for the attributes at the slots, into buffers
// already sized; keeps what came back within its buffer.
bool AttributeReader::readValues(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o,
                                 const std::vector<std::size_t>& slots, LogBase& log)
{
    std::vector<CK_ATTRIBUTE> tmpl;
    for (std::size_t i : slots) {
        AttributeValue& v = m_values[i];
        tmpl.push_back(CK_ATTRIBUTE{v.type, v.value.getData(), v.value.getSize()});
    }
    m_lastRv = f->C_GetAttributeValue(s, o, tmpl.data(), tmpl.size());
    if (!perAttributeAnswer(m_lastRv))
        return false;
    takeValues(tmpl, slots, log);
    return true;
}

// Asks the lengths of the attributes at the slots; the ones the object has,
// within the bound, get a buffer of that size (and the margin) and go into
// sized. A length the module leaves as it was, unavailable, counts as absent.
bool AttributeReader::readLengths(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o,
                                  const std::vector<std::size_t>& slots, std::vector<std::size_t>& sized, LogBase& log)
{
    std::vector<CK_ATTRIBUTE> lengths;
    for (std::size_t i : slots)
        lengths.push_back(CK_ATTRIBUTE{m_values[i].type, nullptr, CK_UNAVAILABLE_INFORMATION});
    m_lastRv = f->C_GetAttributeValue(s, o, lengths.data(), lengths.size());
    if (!perAttributeAnswer(m_lastRv))
        return false;
    for (std::size_t k = 0; k < slots.size(); ++k) {
        AttributeValue& v = m_values[slots[k]];
        const CK_ULONG len = lengths[k].ulValueLen;
        v.value.clear();
        if (len == CK_UNAVAILABLE_INFORMATION)
            continue; // compared before any use of the value as a size
        if (len > kMaxAttributeLength) {
            log.LogInfo(("Ignoring " + ckaName(v.type) + ": the module reports an impossible length.").c_str());
            continue;
        }
        v.value.resize(len + kUnwrittenMargin);
        if (len == 0)
            v.present = true;
        else
            sized.push_back(slots[k]);
    }
    return true;
}

// Keeps each value the module filled within its buffer; anything else stays
// absent. Every buffer holds kUnwrittenMargin more than the value can need,
// so a length left at the buffer's size is one the module did not write.
void AttributeReader::takeValues(const std::vector<CK_ATTRIBUTE>& tmpl, const std::vector<std::size_t>& slots,
                                 LogBase& log)
{
    for (std::size_t k = 0; k < tmpl.size(); ++k) {
        AttributeValue& v = m_values[slots[k]];
        const CK_ULONG len = tmpl[k].ulValueLen;
        if (len == CK_UNAVAILABLE_INFORMATION || len >= v.value.getSize()) {
            if (len != CK_UNAVAILABLE_INFORMATION && len > v.value.getSize())
                log.LogInfo(("Ignoring " + ckaName(v.type) + ": the module reports more bytes than its buffer holds.").c_str());
            v.value.clear();
            continue;
        }
        v.value.shorten(len);
        v.present = true;
    }
}

} // namespace p11client
