// Object queries: the search every reader of the token goes through, the
// private keys as JSON (FindAllKeys) and objects by a JSON template
// (FindObject).
#include "ClsPkcs11.h"

#include "AttributeJson.h"
#include "AttributeKinds.h"
#include "AttributeReader.h"
#include "CkNames.h"
#include "ClsJsonObject.h"
#include "ObjectSearch.h"
#include "ObjectTemplate.h"

#include <optional>
#include <string>

namespace p11client {

namespace {

constexpr CK_ATTRIBUTE_TYPE kKeyAttributes[] = {
    CKA_LABEL, CKA_ID, CKA_KEY_TYPE, CKA_MODULUS, CKA_EC_PARAMS, CKA_SIGN, CKA_SIGN_RECOVER, CKA_DECRYPT,
    CKA_UNWRAP, CKA_DERIVE, CKA_ALWAYS_AUTHENTICATE, CKA_SENSITIVE, CKA_EXTRACTABLE, CKA_PRIVATE};

struct UsageMember {
    CK_ATTRIBUTE_TYPE type;
    const char* path;
};

constexpr UsageMember kMembers[] = {
    {CKA_SIGN, "usage.sign"},
    {CKA_SIGN_RECOVER, "usage.signRecover"},
    {CKA_DECRYPT, "usage.decrypt"},
    {CKA_UNWRAP, "usage.unwrap"},
    {CKA_DERIVE, "usage.derive"},
    {CKA_ALWAYS_AUTHENTICATE, "alwaysAuthenticate"},
    {CKA_SENSITIVE, "sensitive"},
    {CKA_EXTRACTABLE, "extractable"},
    {CKA_PRIVATE, "private"},
};

// The key type a filter asks for: nullopt for all keys, or false when the
// filter is not understood.
bool parseKeyFilter(const XString& filter, std::optional<CK_ULONG>& keyType)
{
    StringBuffer f(filter.getUtf8Sb().view());
    f.trim2();
    if (f.isEmpty() || f.equalsIgnoreCase("all")) {
        keyType.reset();
        return true;
    }
    if (f.equalsIgnoreCase("ecdsa"))
        f.setString("ec");
    keyType = keyTypeByName(f.view());
    return keyType.has_value();
}

void putKeySize(ClsJsonObject& json, const std::string& at, const AttributeReader& attrs)
{
    const AttributeValue* modulus = attrs.find(CKA_MODULUS);
    const AttributeValue* params = attrs.find(CKA_EC_PARAMS);
    if (modulus->present) {
        json.updateInt((at + ".bits").c_str(), magnitudeBits(modulus->value));
    } else if (params->present) {
        std::string curve;
        const int bits = ecKeyBits(params->value, curve);
        if (bits != 0) {
            json.updateString((at + ".curve").c_str(), curve.c_str());
            json.updateInt((at + ".bits").c_str(), bits);
        }
    }
}

void putKey(ClsJsonObject& json, int index, unsigned long handle, const AttributeReader& attrs)
{
    const std::string at = "keys[" + std::to_string(index) + "]";
    json.updateUInt((at + ".handle").c_str(), handle);
    putAttributeJson(json, at + ".label", *attrs.find(CKA_LABEL));
    putAttributeJson(json, at + ".id", *attrs.find(CKA_ID));
    putAttributeJson(json, at + ".keyType", *attrs.find(CKA_KEY_TYPE));
    putKeySize(json, at, attrs);
    for (const UsageMember& m : kMembers)
        putAttributeJson(json, at + "." + m.path, *attrs.find(m.type));
}

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

// The search template is read from json as the caller filled it, and the
// result is added to it; no success or failure line is written.
bool ClsPkcs11::FindObject(ClsJsonObject& json)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindObject");
    return runGuarded(m_log, [&] { return findObject(json, m_log); });
}

bool ClsPkcs11::FindAllKeys(const XString& keyFilter, ClsJsonObject& json)
{
    CritSecExitor lock(this);
    LogContextExitor ctx(*this, "FindAllKeys");
    const bool ok = runGuarded(m_log, [&] {
        json.clear(m_log);
        return findAllKeys(keyFilter, json, m_log);
    });
    logSuccessFailure(ok);
    return ok;
}

bool ClsPkcs11::objectSearchReady(LogBase& log)
{
    using F = CK_FUNCTION_LIST;
    return callsWith<&F::C_FindObjectsInit>(false, log) && callsWith<&F::C_FindObjects>(false, log)
        && callsWith<&F::C_FindObjectsFinal>(false, log) && callsWith<&F::C_GetAttributeValue>(true, log);
}

bool ClsPkcs11::searchObjects(std::vector<CK_ATTRIBUTE>& tmpl, std::vector<unsigned long>& handles, LogBase& log)
{
    if (!objectSearchReady(log))
        return false;
    ObjectSearch search(m_dlHandle.functions(), m_hSession);
    return search.findAll(tmpl, handles, log);
}

bool ClsPkcs11::findAllKeys(const XString& keyFilter, ClsJsonObject& json, LogBase& log)
{
    LogContextExitor ctx(log, "findAllKeys");
    std::optional<CK_ULONG> keyType;
    if (!parseKeyFilter(keyFilter, keyType)) {
        log.LogError("Unknown key filter: use a key type such as \"rsa\" or \"ec\", or an empty filter for all keys.");
        log.LogDataX("keyFilter", keyFilter);
        return false;
    }
    CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE type = keyType.value_or(0);
    std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, &keyClass, sizeof keyClass}};
    if (keyType)
        tmpl.push_back({CKA_KEY_TYPE, &type, sizeof type});
    std::vector<unsigned long> handles;
    if (!searchObjects(tmpl, handles, log))
        return false;

    json.updateNewArray("keys");
    AttributeReader reader(kKeyAttributes);
    int index = 0;
    for (unsigned long handle : handles) {
        if (!reader.read(m_dlHandle.functions(), m_hSession, handle, log)) {
            reportCall("C_GetAttributeValue", reader.lastRv(), log, true);
            continue;
        }
        putKey(json, index++, handle, reader);
    }
    log.LogDataLong("numKeys", index);
    return true;
}

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
            reportCall("C_GetAttributeValue", reader.lastRv(), log, true);
            continue;
        }
        putObject(json, index++, handle, reader);
    }
    json.updateInt("count", index);
    log.LogDataLong("numObjects", index);
    return true;
}

} // namespace p11client
