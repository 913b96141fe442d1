// Objects found by a JSON search template, with their readable attributes.
#include "ClsPkcs11.h"

#include "AttributeJson.h"
#include "AttributeKinds.h"
#include "AttributeReader.h"
#include "CkNames.h"
#include "ClsJsonObject.h"
#include "ObjectTemplate.h"

#include <string>

namespace p11client {

namespace {

constexpr CK_ATTRIBUTE_TYPE kClassOnly[] = {CKA_CLASS};

void putObject(ClsJsonObject& json, int index, unsigned long handle, const AttributeReader& attrs)
{
    const std::string at = "objects[" + std::to_string(index) + "]";
    json.updateUInt((at + ".handle").c_str(), handle);
    json.updateNewObject((at + ".attributes").c_str());
    for (const AttributeValue& attr : attrs.values())
        putAttributeJson(json, at + ".attributes." + ckaName(attr.type), attr);
}

} // namespace

// The class of the object: from the search when it names one, else read.
std::optional<CK_OBJECT_CLASS> ClsPkcs11::objectClassOf(unsigned long handle, std::optional<CK_OBJECT_CLASS> known,
                                                        LogBase& log)
{
    if (known)
        return known;
    AttributeReader reader(kClassOnly);
    if (!reader.read(m_dlHandle.functions(), m_hSession, handle, log))
        return std::nullopt;
    return reader.find(CKA_CLASS)->asUlong();
}

bool ClsPkcs11::findObject(ClsJsonObject& json, LogBase& log)
{
    LogContextExitor ctx(log, "findObject");
    ObjectTemplate search;
    if (!search.build(json, log))
        return false;
    std::vector<unsigned long> handles;
    if (!searchObjects(search.attributes(), handles, log))
        return false;

    json.updateNewArray("objects");
    int index = 0;
    for (unsigned long handle : handles) {
        const std::optional<CK_OBJECT_CLASS> objectClass = objectClassOf(handle, search.objectClass(), log);
        AttributeReader reader(reportedAttributes(objectClass.value_or(CKO_VENDOR_DEFINED)));
        if (!reader.read(m_dlHandle.functions(), m_hSession, handle, log)) {
            checkRv("C_GetAttributeValue", reader.lastRv(), log, true);
            continue;
        }
        putObject(json, index++, handle, reader);
    }
    json.updateInt("count", index);
    log.LogDataLong("numObjects", index);
    return true;
}

} // namespace p11client
