#include "DnText.h"

#include "DataBuffer.h"
#include "DnAttributeNames.h"
#include "OpenSslPtr.h"
#include "StringBuffer.h"

#include <vector>

namespace p11client {

namespace {

// RFC 4514: '#' followed by the hex of the value's DER.
bool hexFormOf(const ASN1_STRING* value, std::string& out)
{
    Asn1TypePtr any(ASN1_TYPE_new());
    if (!any || ASN1_TYPE_set1(any.get(), ASN1_STRING_type(value), value) != 1)
        return false;
    unsigned char* der = nullptr;
    const int len = i2d_ASN1_TYPE(any.get(), &der);
    if (len <= 0)
        return false;
    OpenSslBytesPtr owned(der);
    StringBuffer hex;
    DataBuffer(der, static_cast<std::size_t>(len)).appendHex(hex, true);
    out = "#" + hex.toStdString();
    return true;
}

struct AttributeValue {
    std::string text;
    bool hexForm = false; // '#' and hex: never escaped
};

bool valueOf(const X509_NAME_ENTRY* entry, AttributeValue& out)
{
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
    if (value == nullptr)
        return false;
    unsigned char* utf8 = nullptr;
    const int len = ASN1_STRING_to_UTF8(&utf8, value);
    if (len < 0) {
        out.hexForm = true;
        return hexFormOf(value, out.text);
    }
    OpenSslBytesPtr owned(utf8);
    out.text.assign(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(len));
    return true;
}

bool mustEscape(char c, std::size_t pos, std::size_t size)
{
    switch (c) {
    case '"': case '+': case ',': case ';': case '<': case '>': case '\\':
        return true;
    case '#':
        return pos == 0;
    case ' ':
        return pos == 0 || pos + 1 == size;
    default:
        return false;
    }
}

std::string escaped(const std::string& value)
{
    std::string out;
    for (std::size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (c == '\0') {
            out += "\\00";
            continue;
        }
        if (mustEscape(c, i, value.size()))
            out += '\\';
        out += c;
    }
    return out;
}

bool appendAttribute(const X509_NAME_ENTRY* entry, bool withTags, std::string& out)
{
    AttributeValue value;
    if (!valueOf(entry, value))
        return false;
    if (!withTags) {
        out += value.text;
        return true;
    }
    out += DnAttributeNames::tagOf(X509_NAME_ENTRY_get_object(entry));
    out += '=';
    out += value.hexForm ? value.text : escaped(value.text);
    return true;
}

// The entries of each RDN, RDNs in encoded order.
bool groupByRdn(const X509_NAME* name, std::vector<std::vector<const X509_NAME_ENTRY*>>& rdns)
{
    int previousSet = -1;
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        if (entry == nullptr)
            return false;
        const int set = X509_NAME_ENTRY_set(entry);
        if (rdns.empty() || set != previousSet)
            rdns.emplace_back();
        rdns.back().push_back(entry);
        previousSet = set;
    }
    return true;
}

} // namespace

bool DnText::render(const X509_NAME* name, bool withTags, std::string& out)
{
    out.clear();
    std::vector<std::vector<const X509_NAME_ENTRY*>> rdns;
    if (name == nullptr || !groupByRdn(name, rdns))
        return false;
    for (auto rdn = rdns.rbegin(); rdn != rdns.rend(); ++rdn) {
        if (rdn != rdns.rbegin())
            out += ", ";
        for (std::size_t k = 0; k < rdn->size(); ++k) {
            if (k > 0)
                out += " + ";
            if (!appendAttribute((*rdn)[k], withTags, out))
                return false;
        }
    }
    return true;
}

bool DnText::findPart(const X509_NAME* name, std::string_view attr, std::string& out)
{
    if (name == nullptr)
        return false;
    for (int i = X509_NAME_entry_count(name) - 1; i >= 0; --i) {
        const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
        if (entry == nullptr || !DnAttributeNames::nameMatches(X509_NAME_ENTRY_get_object(entry), attr))
            continue;
        AttributeValue value;
        if (!valueOf(entry, value))
            return false;
        out = std::move(value.text);
        return true;
    }
    return false;
}

} // namespace p11client
