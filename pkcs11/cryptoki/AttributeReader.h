#pragma once

#include "Cryptoki.h"
#include "DataBuffer.h"

#include <optional>
#include <span>
#include <vector>

namespace p11client {

class LogBase;

// One attribute asked of an object, and what the token answered.
struct AttributeValue {
    CK_ATTRIBUTE_TYPE type = 0;
    bool present = false; // false: absent, sensitive, unavailable or over the bound
    DataBuffer value;
    bool firstReadOnly = false; // no length pass when the first read misses it

    std::optional<CK_ULONG> asUlong() const;
    std::optional<bool> asBool() const;
};

// Every attribute an object needs, read in one template. The first call goes
// with buffers already sized for typical values, so most objects cost one
// C_GetAttributeValue; the attributes that did not come back (absent,
// sensitive, or larger than their buffer) have their lengths asked in a
// second call and, where they exist, their values read in a third (except
// where the first read already settles it, see worthALengthPass). A length
// of CK_UNAVAILABLE_INFORMATION means absent, and every length is checked
// against a bound before anything is allocated for it. Only what the module
// wrote for this object counts: a length it left as it was asked means
// absent, each object starts from zeroed buffers, and a call that fails
// discards the whole object.
class AttributeReader {
public:
    // No attribute this library reads needs more; a certificate is a few KiB.
    static constexpr CK_ULONG kMaxAttributeLength = 128 * 1024;

    // firstReadOnly: attributes whose first buffer already holds any value
    // the caller can use (a flag, or an EC point of any curve the library
    // decodes); one that does not come back in the first read counts as
    // absent, without a length pass. A module that answers a template with
    // attributes the object lacks by CKR_ATTRIBUTE_TYPE_INVALID (and, like
    // SoftHSM2, gives no length for a buffer too small) then costs one call
    // per object instead of two.
    explicit AttributeReader(std::span<const CK_ATTRIBUTE_TYPE> types,
                             std::span<const CK_ATTRIBUTE_TYPE> firstReadOnly = {});

    // Reads the attributes of one object. False only when the module failed
    // the call for another reason than absent or sensitive attributes.
    bool read(CK_FUNCTION_LIST* functions, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object, LogBase& log);
    // The last call's return value, for the caller's message.
    CK_RV lastRv() const { return m_lastRv; }

    const AttributeValue* find(CK_ATTRIBUTE_TYPE type) const;
    std::span<const AttributeValue> values() const { return m_values; }

private:
    // Room left past the longest value expected: a length the module leaves
    // at the buffer's size was not written.
    static constexpr CK_ULONG kUnwrittenMargin = 1;

    bool worthALengthPass(const AttributeValue& v) const;
    bool readPasses(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o, const std::vector<std::size_t>& all,
                    LogBase& log);
    bool readValues(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o, const std::vector<std::size_t>& slots,
                    LogBase& log);
    bool readLengths(CK_FUNCTION_LIST* f, CK_SESSION_HANDLE s, CK_OBJECT_HANDLE o, const std::vector<std::size_t>& slots,
                     std::vector<std::size_t>& sized, LogBase& log);
    void takeValues(const std::vector<CK_ATTRIBUTE>& tmpl, const std::vector<std::size_t>& slots, LogBase& log);

    std::vector<AttributeValue> m_values;
    CK_RV m_lastRv = CKR_OK;
};

// A typical length of each attribute, used to size the first read.
CK_ULONG typicalAttributeLength(CK_ATTRIBUTE_TYPE type);

} // namespace p11client
