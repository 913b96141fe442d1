#pragma once

#include <cstdint>
#include <span>

namespace p11client {

class DataBuffer;

// The one form in which EC points are compared: the uncompressed point
// 04||X||Y, with X and Y padded to the curve's field size.
class EcPointCanon {
public:
    // Decodes an encoded point (uncompressed, compressed or hybrid) on the
    // named curve (an OpenSSL NID) and replaces out with its uncompressed
    // form. False when the bytes are not a point of that curve.
    static bool uncompressedOnCurve(int curveNid, std::span<const std::uint8_t> encoded, DataBuffer& out);

    // Canonical form of a token's CKA_EC_POINT value, which is either a DER
    // OCTET STRING wrapping the encoded point (as PKCS#11 prescribes) or the
    // bare encoded point (as some tokens store it).
    //
    // With ecParamsDer (the key's CKA_EC_PARAMS) naming a curve, the point is
    // decoded on that curve: compressed points are expanded and bytes that
    // are not a point of the curve are refused. Without it (empty, or
    // parameters that name no known curve), only uncompressed points of the
    // curves tokens sign with (P-192 to P-521, secp256k1, brainpool) are
    // accepted; for those sizes a value cannot read both as a bare point and
    // as a wrapped one, so neither is ever mistaken for the other.
    // On failure out is left as it was.
    static bool fromTokenValue(std::span<const std::uint8_t> value, std::span<const std::uint8_t> ecParamsDer,
                               DataBuffer& out);

    // The curve NID named by DER ECParameters (a namedCurve OID); NID_undef
    // (0) for anything else.
    static int curveOfEcParams(std::span<const std::uint8_t> ecParamsDer);
};

} // namespace p11client
