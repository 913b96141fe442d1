#include "AttributeJson.h"

#include "AttributeKinds.h"
#include "ClsJsonObject.h"
#include "EcPointCanon.h"
#include "StringBuffer.h"
#include "Utf8.h"

#include <openssl/ec.h>
#include <openssl/objects.h>

namespace p11client {

void putAttributeJson(ClsJsonObject& json, const std::string& path, const AttributeValue& attr)
{
    if (!attr.present)
        return;
    const char* at = path.c_str();
    const AttributeKind kind = attributeKind(attr.type);
    const std::optional<CK_ULONG> number = attr.asUlong();
    if (kind == AttributeKind::Bool && attr.asBool()) {
        json.updateBool(at, *attr.asBool());
    } else if (kind == AttributeKind::Ulong && number) {
        json.updateUInt(at, *number);
    } else if (kind == AttributeKind::Class && number) {
        json.updateString(at, objectClassName(*number).c_str());
    } else if (kind == AttributeKind::KeyType && number) {
        json.updateString(at, keyTypeName(*number).c_str());
    } else if (kind == AttributeKind::CertType && number) {
        json.updateString(at, certificateTypeName(*number).c_str());
    } else if (kind == AttributeKind::Text) {
        const std::string_view raw(reinterpret_cast<const char*>(attr.value.getData()), attr.value.getSize());
        json.updateString(at, toValidUtf8(raw).c_str());
    } else {
        StringBuffer hex;
        attr.value.appendHex(hex, false);
        json.updateString(at, hex.getString());
    }
}

int ecKeyBits(const DataBuffer& ecParams, std::string& curveName)
{
    const int nid = EcPointCanon::curveOfEcParams(ecParams.bytes());
    curveName.clear();
    if (nid == NID_undef)
        return 0;
    EC_GROUP* group = EC_GROUP_new_by_curve_name(nid);
    if (group == nullptr)
        return 0;
    const int bits = EC_GROUP_order_bits(group);
    EC_GROUP_free(group);
    curveName = OBJ_nid2sn(nid);
    return bits;
}

int magnitudeBits(const DataBuffer& bytes)
{
    std::size_t i = 0;
    while (i < bytes.getSize() && bytes.getData()[i] == 0)
        ++i;
    if (i == bytes.getSize())
        return 0;
    int topBits = 0;
    for (unsigned top = bytes.getData()[i]; top != 0; top >>= 1)
        ++topBits;
    return static_cast<int>((bytes.getSize() - i - 1) * 8) + topBits;
}

} // namespace p11client
