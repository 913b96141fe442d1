// The private-key caches: the token's RSA and EC keys with what pairing
// them with certificates compares.
#include "ClsPkcs11.h"

#include "AttributeReader.h"
#include "CkNames.h"
#include "EcPointCanon.h"
#include "ObjectSearch.h"
#include "Pkcs11_PrivateKey.h"

#include <memory>

namespace p11client {

namespace {

// Read once: a flag always fits its buffer, and no curve the library decodes
// has a point or a name (CKA_EC_PARAMS) larger than its first buffer. So an
// EC key costs one call whether or not the token keeps its point on it.
constexpr CK_ATTRIBUTE_TYPE kFirstReadOnly[] = {CKA_SIGN, CKA_EC_POINT, CKA_EC_PARAMS};

std::int32_t signStateOf(const AttributeValue* sign)
{
    const std::optional<bool> may = sign != nullptr ? sign->asBool() : std::nullopt;
    if (!may)
        return Pkcs11_PrivateKey::kSignUnknown;
    return *may ? Pkcs11_PrivateKey::kMaySign : Pkcs11_PrivateKey::kMayNotSign;
}

void copyIfPresent(const AttributeValue* attr, DataBuffer& to)
{
    if (attr != nullptr && attr->present)
        to.append(attr->value);
}

// A key record from what the token gave; fields it did not give stay empty.
std::unique_ptr<Pkcs11_PrivateKey> keyRecord(unsigned long handle, const AttributeReader& attrs)
{
    auto key = std::make_unique<Pkcs11_PrivateKey>();
    key->m_handle = handle;
    copyIfPresent(attrs.find(CKA_ID), key->m_id);
    copyIfPresent(attrs.find(CKA_SUBJECT), key->m_subjectDer);
    copyIfPresent(attrs.find(CKA_MODULUS), key->m_modulus);
    key->m_signState = signStateOf(attrs.find(CKA_SIGN));
    const AttributeValue* point = attrs.find(CKA_EC_POINT);
    const AttributeValue* params = attrs.find(CKA_EC_PARAMS);
    if (point != nullptr && point->present) {
        const std::span<const std::uint8_t> curve =
            params != nullptr && params->present ? params->value.bytes() : std::span<const std::uint8_t>();
        EcPointCanon::fromTokenValue(point->value.bytes(), curve, key->m_ecPoint);
    }
    return key;
}

} // namespace

bool ClsPkcs11::searchKeys(unsigned long keyType, std::vector<unsigned long>& handles, LogBase& log)
{
    CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
    CK_KEY_TYPE type = keyType;
    std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, &keyClass, sizeof keyClass}, {CKA_KEY_TYPE, &type, sizeof type}};
    return searchObjects(tmpl, handles, log);
}

// Replaces the cache with one record per private key of the type, each read
// in one template.
bool ClsPkcs11::fillKeyCache(unsigned long keyType, const std::vector<CK_ATTRIBUTE_TYPE>& types, ExtPtrArray& cache,
                             LogBase& log)
{
    std::vector<unsigned long> handles;
    if (!searchKeys(keyType, handles, log))
        return false;
    AttributeReader reader(types, kFirstReadOnly);
    cache.removeAllObjects();
    for (unsigned long handle : handles) {
        if (reader.read(m_dlHandle.functions(), m_hSession, handle, log))
            cache.appendObject(keyRecord(handle, reader));
        else
            reportCall("C_GetAttributeValue", reader.lastRv(), log, true);
    }
    return true;
}

// forceRefill reads the token again even when the cache is filled;
// withPublicMaterial also reads each key's subject and modulus, which the
// pairing by subject or modulus compares.
bool ClsPkcs11::cacheRsaPrivateKeys(bool forceRefill, bool withPublicMaterial, LogBase& log)
{
    LogContextExitor ctx(log, "cacheRsaPrivateKeys");
    const bool haveMaterial = m_rsaKeysHaveSubjectDer && m_rsaKeysHaveModulus;
    if (m_rsaKeysCached && !forceRefill && (!withPublicMaterial || haveMaterial))
        return true;
    std::vector<CK_ATTRIBUTE_TYPE> types{CKA_ID, CKA_SIGN};
    if (withPublicMaterial)
        types.insert(types.end(), {CKA_SUBJECT, CKA_MODULUS});
    if (!fillKeyCache(CKK_RSA, types, m_rsaKeys, log))
        return false;
    m_rsaKeysCached = true;
    m_rsaKeysHaveSubjectDer = withPublicMaterial;
    m_rsaKeysHaveModulus = withPublicMaterial;
    return true;
}

// Both caches from one search of every private key, each key read in one
// template with what either cache keeps. On common modules a search passes
// over every object of the token whatever its template asks, so one pass for
// both types costs less than a pass for each. CKA_MODULUS, absent from EC
// keys, is read once like the EC attributes are: its first buffer holds the
// modulus of any RSA key up to 8192 bits.
bool ClsPkcs11::fillBothKeyCaches(LogBase& log)
{
    static constexpr CK_ATTRIBUTE_TYPE kTypes[] = {CKA_KEY_TYPE, CKA_ID,       CKA_SIGN,     CKA_SUBJECT,
                                                   CKA_MODULUS,  CKA_EC_POINT, CKA_EC_PARAMS};
    static constexpr CK_ATTRIBUTE_TYPE kReadOnce[] = {CKA_SIGN, CKA_EC_POINT, CKA_EC_PARAMS, CKA_MODULUS};
    CK_OBJECT_CLASS keyClass = CKO_PRIVATE_KEY;
    std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, &keyClass, sizeof keyClass}};
    std::vector<unsigned long> handles;
    if (!searchObjects(tmpl, handles, log))
        return false;
    AttributeReader reader(kTypes, kReadOnce);
    m_rsaKeys.removeAllObjects();
    m_ecKeys.removeAllObjects();
    for (unsigned long handle : handles) {
        if (!reader.read(m_dlHandle.functions(), m_hSession, handle, log)) {
            reportCall("C_GetAttributeValue", reader.lastRv(), log, true);
            continue;
        }
        const std::optional<CK_ULONG> type = reader.find(CKA_KEY_TYPE)->asUlong();
        if (type == CKK_RSA || type == CKK_EC)
            (type == CKK_RSA ? m_rsaKeys : m_ecKeys).appendObject(keyRecord(handle, reader));
    }
    m_rsaKeysCached = m_rsaKeysHaveSubjectDer = m_rsaKeysHaveModulus = m_ecKeysCached = true;
    return true;
}

// Each key's EC point (and curve, to decode it) comes in the same template
// as its CKA_ID: one call per key either way, and a fallback must know the
// point to pass over a key that is another certificate's.
bool ClsPkcs11::cacheEcdsaPrivateKeys(LogBase& log)
{
    LogContextExitor ctx(log, "cacheEcdsaPrivateKeys");
    if (m_ecKeysCached)
        return true;
    if (!fillKeyCache(CKK_EC, {CKA_ID, CKA_SIGN, CKA_EC_POINT, CKA_EC_PARAMS}, m_ecKeys, log))
        return false;
    m_ecKeysCached = true;
    return true;
}

// A key that keeps no public material of its own may have a public-key
// object with its CKA_ID that does. Asked only for a fallback's choice, once
// per key and cache fill: one search by that ID and one read of the first
// object found. The token need not have such objects, so a failure here is
// not reported; the key's material just stays unknown.
void ClsPkcs11::readPublicKeyMaterial(Pkcs11_PrivateKey& key, unsigned long keyType)
{
    if (key.m_publicKeyRead || key.m_id.isEmpty())
        return;
    key.m_publicKeyRead = true;
    CK_OBJECT_CLASS keyClass = CKO_PUBLIC_KEY;
    CK_KEY_TYPE type = keyType;
    std::vector<CK_ATTRIBUTE> tmpl{{CKA_CLASS, &keyClass, sizeof keyClass},
                                   {CKA_KEY_TYPE, &type, sizeof type},
                                   {CKA_ID, key.m_id.getData(), key.m_id.getSize()}};
    std::vector<unsigned long> found;
    LogNull quiet;
    if (!searchObjects(tmpl, found, quiet) || found.empty())
        return;
    const bool ec = keyType == CKK_EC;
    AttributeReader reader(ec ? std::vector{CKA_EC_POINT, CKA_EC_PARAMS} : std::vector{CKA_MODULUS});
    if (!reader.read(m_dlHandle.functions(), m_hSession, found.front(), quiet))
        return;
    const std::unique_ptr<Pkcs11_PrivateKey> publicKey = keyRecord(found.front(), reader);
    (ec ? key.m_ecPoint : key.m_modulus).append(ec ? publicKey->m_ecPoint : publicKey->m_modulus);
}

void ClsPkcs11::clearPrivateKeyCaches()
{
    CritSecExitor lock(this);
    m_rsaKeys.removeAllObjects();
    m_rsaKeysCached = false;
    m_ecKeys.removeAllObjects();
    m_ecKeysCached = false;
    m_alwaysAuthenticate.clear();
}

void ClsPkcs11::clearTokenCaches(LogBase& log)
{
    if (m_certs.getSize() != 0 || m_certsCached)
        clearCertCache(log);
    clearPrivateKeyCaches();
}

} // namespace p11client
