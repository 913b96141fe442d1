#include "Pkcs11Uri.h"

#include "AttributeKinds.h"
#include "ClsJsonObject.h"
#include "Errors.h"
#include "Output.h"

#include <p11-kit/uri.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace p11cli {

namespace {

template <std::size_t N> bool isSet(const unsigned char (&field)[N])
{
    return field[0] != 0;
}

// A blank-padded field of the URI against a text of the report: an unset
// field matches any text.
template <std::size_t N> bool fieldMatches(const unsigned char (&field)[N], const std::string& text)
{
    if (!isSet(field))
        return true;
    const std::string_view padded(reinterpret_cast<const char*>(field), N);
    return padded.substr(0, padded.find_last_not_of(' ') + 1) == text;
}

} // namespace

void Pkcs11Uri::Free::operator()(P11KitUri* uri) const
{
    p11_kit_uri_free(uri);
}

Pkcs11Uri::Pkcs11Uri(std::string text, P11KitUri* uri) : m_text(std::move(text)), m_uri(uri)
{
}

Pkcs11Uri Pkcs11Uri::parse(const std::string& text)
{
    P11KitUri* raw = p11_kit_uri_new();
    if (raw == nullptr)
        throw OperationFailed("out of memory");
    Pkcs11Uri uri(text, raw);
    const int rc = p11_kit_uri_parse(text.c_str(), P11_KIT_URI_FOR_ANY, raw);
    if (rc != P11_KIT_URI_OK)
        throw UsageError("not a PKCS#11 URI: " + text + " (" + p11_kit_uri_message(rc) + ")");
    if (p11_kit_uri_any_unrecognized(raw) != 0)
        throw UsageError("the URI " + text + " has attributes this tool does not know");
    if (p11_kit_uri_get_pin_value(raw) != nullptr || p11_kit_uri_get_pin_source(raw) != nullptr)
        throw UsageError("a PIN in the URI is not taken: give it with --pin-file or P11CLIENT_PIN");
    return uri;
}

bool Pkcs11Uri::namesToken() const
{
    const CK_TOKEN_INFO* token = p11_kit_uri_get_token_info(m_uri.get());
    const CK_SLOT_INFO* slot = p11_kit_uri_get_slot_info(m_uri.get());
    return isSet(token->label) || isSet(token->manufacturerID) || isSet(token->model) || isSet(token->serialNumber)
        || isSet(slot->slotDescription) || isSet(slot->manufacturerID)
        || p11_kit_uri_get_slot_id(m_uri.get()) != static_cast<CK_SLOT_ID>(-1);
}

bool Pkcs11Uri::matches(const SlotRecord& slot) const
{
    const CK_SLOT_ID wantedId = p11_kit_uri_get_slot_id(m_uri.get());
    if (wantedId != static_cast<CK_SLOT_ID>(-1) && wantedId != slot.id)
        return false;
    const CK_SLOT_INFO* slotInfo = p11_kit_uri_get_slot_info(m_uri.get());
    const CK_TOKEN_INFO* token = p11_kit_uri_get_token_info(m_uri.get());
    return fieldMatches(slotInfo->slotDescription, slot.description)
        && fieldMatches(slotInfo->manufacturerID, slot.manufacturer) && fieldMatches(token->label, slot.label)
        && fieldMatches(token->manufacturerID, slot.tokenManufacturer) && fieldMatches(token->model, slot.model)
        && fieldMatches(token->serialNumber, slot.serialNumber);
}

bool Pkcs11Uri::namesObjectWith(const std::string& objectLabel, std::span<const std::uint8_t> objectId) const
{
    const auto wantedLabel = label();
    const auto wantedId = id();
    return (!wantedLabel || *wantedLabel == objectLabel) && (!wantedId || std::ranges::equal(*wantedId, objectId));
}

void Pkcs11Uri::putSearchTemplate(p11client::ClsJsonObject& search) const
{
    if (const auto cls = objectClass()) {
        const std::string name = p11client::objectClassName(*cls);
        if (!p11client::objectClassByName(name))
            throw UsageError("the URI's object type cannot be searched for: " + m_text);
        search.updateString("class", name.c_str());
    }
    if (const auto wantedLabel = label())
        search.updateString("label", wantedLabel->c_str());
    if (const auto wantedId = id())
        search.updateString("id", lowerHex(*wantedId).c_str());
}

std::optional<std::string> Pkcs11Uri::label() const
{
    const CK_ATTRIBUTE* attr = p11_kit_uri_get_attribute(m_uri.get(), CKA_LABEL);
    if (attr == nullptr)
        return std::nullopt;
    if (attr->pValue == nullptr || attr->ulValueLen == 0)
        return std::string();
    return std::string(static_cast<const char*>(attr->pValue), attr->ulValueLen);
}

std::optional<std::vector<std::uint8_t>> Pkcs11Uri::id() const
{
    const CK_ATTRIBUTE* attr = p11_kit_uri_get_attribute(m_uri.get(), CKA_ID);
    if (attr == nullptr)
        return std::nullopt;
    if (attr->pValue == nullptr || attr->ulValueLen == 0)
        return std::vector<std::uint8_t>();
    const auto* bytes = static_cast<const std::uint8_t*>(attr->pValue);
    return std::vector<std::uint8_t>(bytes, bytes + attr->ulValueLen);
}

std::optional<unsigned long> Pkcs11Uri::objectClass() const
{
    const CK_ATTRIBUTE* attr = p11_kit_uri_get_attribute(m_uri.get(), CKA_CLASS);
    if (attr == nullptr || attr->ulValueLen != sizeof(CK_OBJECT_CLASS))
        return std::nullopt;
    CK_OBJECT_CLASS cls = 0;
    std::memcpy(&cls, attr->pValue, sizeof cls);
    return cls;
}

std::string Pkcs11Uri::modulePath() const
{
    const char* path = p11_kit_uri_get_module_path(m_uri.get());
    return path != nullptr ? path : "";
}

} // namespace p11cli
