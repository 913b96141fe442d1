#include "EccKey.h"

#include "EcPointCanon.h"
#include "LogBase.h"
#include "OpenSslPtr.h"

#include <openssl/core_names.h>

#include <array>

namespace p11client {

namespace {

bool readCurveName(const EVP_PKEY* pkey, std::string& name)
{
    std::array<char, 80> buf{};
    std::size_t len = 0;
    if (EVP_PKEY_get_utf8_string_param(pkey, OSSL_PKEY_PARAM_GROUP_NAME, buf.data(), buf.size(), &len) != 1)
        return false;
    name.assign(buf.data(), len);
    return true;
}

bool readEncodedPoint(const EVP_PKEY* pkey, DataBuffer& point)
{
    std::array<unsigned char, 160> buf{}; // an uncompressed P-521 point is 133 bytes
    std::size_t len = 0;
    if (EVP_PKEY_get_octet_string_param(pkey, OSSL_PKEY_PARAM_PUB_KEY, buf.data(), buf.size(), &len) != 1)
        return false;
    point.clear();
    point.append(buf.data(), len);
    return true;
}

std::string dottedOidOfNid(int nid)
{
    const ASN1_OBJECT* obj = OBJ_nid2obj(nid);
    std::array<char, 80> buf{};
    const int n = obj == nullptr ? 0 : OBJ_obj2txt(buf.data(), static_cast<int>(buf.size()), obj, 1);
    if (n <= 0 || static_cast<std::size_t>(n) >= buf.size())
        return {};
    return std::string(buf.data(), static_cast<std::size_t>(n));
}

int fieldBitsOf(int nid)
{
    EcGroupPtr group(EC_GROUP_new_by_curve_name(nid));
    return group ? EC_GROUP_get_degree(group.get()) : 0;
}

} // namespace

bool EccKey::loadFromPkey(const EVP_PKEY* pkey, LogBase& log)
{
    std::string name;
    DataBuffer encoded;
    if (pkey == nullptr || !readCurveName(pkey, name) || !readEncodedPoint(pkey, encoded)) {
        log.LogError("Unable to read the EC public key.");
        return false;
    }
    const int nid = OBJ_txt2nid(name.c_str());
    DataBuffer point;
    if (nid == NID_undef || !EcPointCanon::uncompressedOnCurve(nid, encoded.bytes(), point)) {
        log.LogError("EC public key is not a point of a known named curve.");
        log.LogData("curve", name.c_str());
        return false;
    }
    m_curveName = name;
    m_curveNid = nid;
    m_curveOid = dottedOidOfNid(nid);
    m_fieldBits = fieldBitsOf(nid);
    m_point = std::move(point);
    return true;
}

bool EccKey::exportEccPoint(DataBuffer& out, LogBase& log) const
{
    if (m_point.isEmpty()) {
        log.LogError("The EC key has no public point.");
        return false;
    }
    out.clear();
    out.append(m_point);
    return true;
}

} // namespace p11client
