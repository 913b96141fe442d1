#include "MpInt.h"

#include <openssl/bn.h>

#include <limits>
#include <new>

namespace p11client {

void mp_int::BignumFree::operator()(BIGNUM* bn) const { BN_clear_free(bn); }

mp_int::mp_int(const mp_int& other)
{
    if (other.m_bn) {
        m_bn.reset(BN_dup(other.m_bn.get()));
        if (!m_bn)
            throw std::bad_alloc();
    }
}

mp_int& mp_int::operator=(const mp_int& other)
{
    if (this != &other) {
        mp_int copy(other);
        m_bn = std::move(copy.m_bn);
    }
    return *this;
}

bool mp_int::setFromBigEndian(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        return false;
    BIGNUM* bn = BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    if (bn == nullptr)
        return false;
    m_bn.reset(bn);
    return true;
}

bool mp_int::setFromBignum(const BIGNUM* bn)
{
    if (bn == nullptr || BN_is_negative(bn))
        return false;
    BIGNUM* copy = BN_dup(bn);
    if (copy == nullptr)
        return false;
    m_bn.reset(copy);
    return true;
}

bool mp_int::isZero() const { return !m_bn || BN_is_zero(m_bn.get()); }

int mp_int::bitLength() const { return m_bn ? BN_num_bits(m_bn.get()) : 0; }

std::size_t mp_int::byteLength() const
{
    return m_bn ? static_cast<std::size_t>(BN_num_bytes(m_bn.get())) : 0;
}

bool mp_int::writeBigEndian(std::span<std::uint8_t> out) const
{
    if (out.size() != byteLength())
        return false;
    if (!out.empty())
        BN_bn2bin(m_bn.get(), out.data());
    return true;
}

bool mp_int::equals(const mp_int& other) const
{
    if (isZero() || other.isZero())
        return isZero() && other.isZero();
    return BN_cmp(m_bn.get(), other.m_bn.get()) == 0;
}

} // namespace p11client
