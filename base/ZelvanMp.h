#pragma once

#include <cstdint>
#include <span>

namespace p11client {

class DataBuffer;
class mp_int;

// Byte forms of big integers, as tokens and wire formats carry them.
class ZelvanMp {
public:
    // Replaces out with the big-endian magnitude: no leading zero byte
    // (a zero value gives an empty buffer).
    static bool unsigned_mpint_to_db(const mp_int& value, DataBuffer& out);
    // Replaces out with the signed (two's complement) big-endian form of a
    // non-negative value: the magnitude, with one leading 0x00 byte when its
    // top bit is set. Zero gives an empty buffer.
    static bool mpint_to_db(const mp_int& value, DataBuffer& out);
    // Whether two big-endian magnitudes are the same number, whatever leading
    // zero bytes either carries (a token's CKA_MODULUS may have one).
    static bool sameMagnitude(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b);
};

} // namespace p11client
