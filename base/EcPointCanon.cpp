#include "EcPointCanon.h"

#include "DataBuffer.h"
#include "OpenSslPtr.h"

#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <mutex>

namespace p11client {

namespace {

constexpr std::size_t kMaxPointSize = 1024; // P-521 uncompressed is 133 bytes

bool fitsLong(std::span<const std::uint8_t> bytes)
{
    return !bytes.empty() && bytes.size() <= static_cast<std::size_t>(std::numeric_limits<long>::max());
}

// Field sizes, in bytes, of the curves tokens sign with: P-192, P-224,
// P-256 (and secp256k1, brainpoolP256r1), brainpoolP320r1, P-384,
// brainpoolP512r1, P-521. No two differ by one, which is what lets a bare
// point be told from a wrapped one without knowing the curve.
constexpr std::array<std::size_t, 7> kKnownFieldBytes{24, 28, 32, 40, 48, 64, 66};

// A named curve's group costs more to make than a point costs to check on
// it, so each curve's group is made once and shared: OpenSSL only reads it.
// Never destroyed, as threads may still check points while the process exits.
const EC_GROUP* curveGroup(int curveNid)
{
    static std::mutex mutex;
    static auto* groups = new std::map<int, EcGroupPtr>;
    if (curveNid == NID_undef)
        return nullptr;
    const std::lock_guard lock(mutex);
    EcGroupPtr& group = (*groups)[curveNid];
    if (!group)
        group.reset(EC_GROUP_new_by_curve_name(curveNid));
    return group.get();
}

std::size_t derHeaderSize(std::size_t contentSize)
{
    if (contentSize < 0x80)
        return 2;
    return contentSize < 0x100 ? 3 : 4; // content is bounded by kMaxPointSize
}

// The content of a primitive DER OCTET STRING whose minimal encoding spans
// all of value.
bool octetStringContent(std::span<const std::uint8_t> value, DataBuffer& content)
{
    if (!fitsLong(value) || value[0] != V_ASN1_OCTET_STRING)
        return false;
    const unsigned char* p = value.data();
    Asn1OctetStringPtr os(d2i_ASN1_OCTET_STRING(nullptr, &p, static_cast<long>(value.size())));
    if (!os || p != value.data() + value.size())
        return false;
    const auto size = static_cast<std::size_t>(ASN1_STRING_length(os.get()));
    if (value.size() != derHeaderSize(size) + size)
        return false;
    content.clear();
    content.append(ASN1_STRING_get0_data(os.get()), size);
    return true;
}

bool plausibleUncompressed(std::span<const std::uint8_t> point)
{
    if (point.size() < 3 || point.size() % 2 == 0 || point[0] != 0x04)
        return false;
    return std::ranges::find(kKnownFieldBytes, (point.size() - 1) / 2) != kKnownFieldBytes.end();
}

// Without the curve: the wrapped reading first, then the bare one; for the
// field sizes above at most one of them can fit.
bool heuristicForm(std::span<const std::uint8_t> value, DataBuffer& out)
{
    DataBuffer content;
    std::span<const std::uint8_t> point;
    if (octetStringContent(value, content) && plausibleUncompressed(content.bytes()))
        point = content.bytes();
    else if (plausibleUncompressed(value))
        point = value;
    else
        return false;
    DataBuffer form(point.data(), point.size());
    out.clear();
    out.append(form);
    return true;
}

} // namespace

bool EcPointCanon::uncompressedOnCurve(int curveNid, std::span<const std::uint8_t> encoded, DataBuffer& out)
{
    if (encoded.empty() || encoded.size() > kMaxPointSize)
        return false;
    const EC_GROUP* group = curveGroup(curveNid);
    if (group == nullptr)
        return false;
    EcPointPtr point(EC_POINT_new(group));
    if (!point || EC_POINT_oct2point(group, point.get(), encoded.data(), encoded.size(), nullptr) != 1)
        return false;
    const std::size_t len = EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED, nullptr, 0, nullptr);
    if (len == 0 || len > kMaxPointSize)
        return false; // includes the point at infinity, which has no key
    DataBuffer form;
    form.resize(len);
    if (EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED, form.getData(), len, nullptr) != len)
        return false;
    out.clear();
    out.append(form);
    return true;
}

bool EcPointCanon::fromTokenValue(std::span<const std::uint8_t> value, std::span<const std::uint8_t> ecParamsDer,
                                  DataBuffer& out)
{
    if (value.size() > kMaxPointSize)
        return false;
    const int curve = curveOfEcParams(ecParamsDer);
    if (curve == NID_undef)
        return heuristicForm(value, out);
    DataBuffer content;
    if (octetStringContent(value, content) && uncompressedOnCurve(curve, content.bytes(), out))
        return true;
    return uncompressedOnCurve(curve, value, out);
}

int EcPointCanon::curveOfEcParams(std::span<const std::uint8_t> ecParamsDer)
{
    if (!fitsLong(ecParamsDer))
        return NID_undef;
    const unsigned char* p = ecParamsDer.data();
    Asn1ObjectPtr oid(d2i_ASN1_OBJECT(nullptr, &p, static_cast<long>(ecParamsDer.size())));
    if (!oid || p != ecParamsDer.data() + ecParamsDer.size())
        return NID_undef;
    const int nid = OBJ_obj2nid(oid.get());
    return curveGroup(nid) != nullptr ? nid : NID_undef;
}

} // namespace p11client
