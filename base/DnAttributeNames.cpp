#include "DnAttributeNames.h"

#include "StringBuffer.h"

#include <openssl/objects.h>

#include <array>
#include <initializer_list>

namespace p11client {

namespace {

struct AttributeName {
    int nid;
    const char* tag;
    std::initializer_list<const char*> aliases;
};

// Tags as customary in X.500 and LDAP texts; aliases are accepted when asking.
const std::array<AttributeName, 23> kNames{{
    {NID_commonName, "CN", {"COMMONNAME"}},
    {NID_surname, "SN", {"SURNAME"}},
    {NID_serialNumber, "SERIALNUMBER", {}},
    {NID_countryName, "C", {"COUNTRY", "COUNTRYNAME"}},
    {NID_localityName, "L", {"LOCALITY", "LOCALITYNAME"}},
    {NID_stateOrProvinceName, "ST", {"S", "STATE", "STATEORPROVINCENAME"}},
    {NID_streetAddress, "STREET", {"STREETADDRESS"}},
    {NID_organizationName, "O", {"ORGANIZATION", "ORGANIZATIONNAME"}},
    {NID_organizationalUnitName, "OU", {"ORGANIZATIONALUNIT", "ORGANIZATIONALUNITNAME"}},
    {NID_title, "T", {"TITLE"}},
    {NID_description, "DESCRIPTION", {}},
    {NID_postalCode, "POSTALCODE", {}},
    {NID_givenName, "G", {"GN", "GIVENNAME"}},
    {NID_initials, "I", {"INITIALS"}},
    {NID_generationQualifier, "GENERATIONQUALIFIER", {}},
    {NID_dnQualifier, "DNQUALIFIER", {}},
    {NID_pseudonym, "PSEUDONYM", {}},
    {NID_organizationIdentifier, "ORGANIZATIONIDENTIFIER", {}},
    {NID_businessCategory, "BUSINESSCATEGORY", {}},
    {NID_jurisdictionCountryName, "JURISDICTIONC", {"JURISDICTIONCOUNTRYNAME"}},
    {NID_pkcs9_emailAddress, "E", {"EMAIL", "EMAILADDRESS"}},
    {NID_domainComponent, "DC", {"DOMAINCOMPONENT"}},
    {NID_userId, "UID", {"USERID"}},
}};

const AttributeName* findByNid(int nid)
{
    if (nid == NID_undef)
        return nullptr;
    for (const AttributeName& n : kNames)
        if (n.nid == nid)
            return &n;
    return nullptr;
}

std::string dottedOid(const ASN1_OBJECT* type)
{
    char buf[128];
    const int n = OBJ_obj2txt(buf, sizeof buf, type, 1);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof buf)
        return {};
    return std::string(buf, static_cast<std::size_t>(n));
}

bool equalsText(const char* known, std::string_view name)
{
    return known != nullptr && equalsIgnoreAsciiCase(known, name);
}

} // namespace

std::string DnAttributeNames::tagOf(const ASN1_OBJECT* type)
{
    const int nid = OBJ_obj2nid(type);
    if (const AttributeName* n = findByNid(nid))
        return n->tag;
    if (nid != NID_undef && OBJ_nid2sn(nid) != nullptr)
        return OBJ_nid2sn(nid);
    return dottedOid(type);
}

bool DnAttributeNames::nameMatches(const ASN1_OBJECT* type, std::string_view name)
{
    if (name.empty())
        return false;
    const int nid = OBJ_obj2nid(type);
    if (const AttributeName* n = findByNid(nid)) {
        if (equalsText(n->tag, name))
            return true;
        for (const char* alias : n->aliases)
            if (equalsText(alias, name))
                return true;
    }
    if (nid != NID_undef && (equalsText(OBJ_nid2sn(nid), name) || equalsText(OBJ_nid2ln(nid), name)))
        return true;
    return dottedOid(type) == name;
}

} // namespace p11client
