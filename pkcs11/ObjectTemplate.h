#pragma once

#include "Cryptoki.h"
#include "DataBuffer.h"

#include <optional>
#include <vector>

namespace p11client {

class ClsJsonObject;
class LogBase;

// A Cryptoki search template built from a JSON search: "class", "keyType",
// "label", "id" (hex) and "attributes" (any attribute by its CKA_ name).
class ObjectTemplate {
public:
    // False, with the offending member named in the log, when the JSON asks
    // for something that cannot be put in a template.
    bool build(ClsJsonObject& search, LogBase& log);

    // The template; valid while this object lives and is not rebuilt.
    std::vector<CK_ATTRIBUTE>& attributes() { return m_template; }
    // The object class the search asks for, if it names one.
    std::optional<CK_OBJECT_CLASS> objectClass() const { return m_class; }

private:
    bool addMember(ClsJsonObject& search, const char* path, CK_ATTRIBUTE_TYPE type, LogBase& log);
    void add(CK_ATTRIBUTE_TYPE type, DataBuffer value);

    std::vector<DataBuffer> m_values;
    std::vector<CK_ATTRIBUTE_TYPE> m_types;
    std::vector<CK_ATTRIBUTE> m_template;
    std::optional<CK_OBJECT_CLASS> m_class;
};

} // namespace p11client
