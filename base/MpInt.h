#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

typedef struct bignum_st BIGNUM;

namespace p11client {

// A non-negative big integer (an RSA modulus or exponent) held in an OpenSSL
// BIGNUM. A default-constructed or moved-from value is zero.
class mp_int {
public:
    mp_int() = default;
    mp_int(const mp_int& other);
    mp_int& operator=(const mp_int& other);
    mp_int(mp_int&&) noexcept = default;
    mp_int& operator=(mp_int&&) noexcept = default;
    ~mp_int() = default;

    // Reads a big-endian magnitude; leading zero bytes are allowed.
    bool setFromBigEndian(std::span<const std::uint8_t> bytes);
    // Copies a BIGNUM; false (value unchanged) if it is null or negative.
    bool setFromBignum(const BIGNUM* bn);
    void setZero() { m_bn.reset(); }

    bool isZero() const;
    int bitLength() const;
    // Length of the big-endian magnitude: no leading zero byte, 0 for zero.
    std::size_t byteLength() const;
    // Writes the magnitude into exactly byteLength() bytes.
    bool writeBigEndian(std::span<std::uint8_t> out) const;
    bool equals(const mp_int& other) const;

    // The value, or null for zero.
    const BIGNUM* bignum() const { return m_bn.get(); }

private:
    struct BignumFree {
        void operator()(BIGNUM* bn) const;
    };
    std::unique_ptr<BIGNUM, BignumFree> m_bn;
};

} // namespace p11client
