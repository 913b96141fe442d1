#include "ZelvanMp.h"

#include "DataBuffer.h"
#include "MpInt.h"

#include <algorithm>

namespace p11client {

namespace {

std::span<const std::uint8_t> withoutLeadingZeros(std::span<const std::uint8_t> bytes)
{
    std::size_t i = 0;
    while (i < bytes.size() && bytes[i] == 0)
        ++i;
    return bytes.subspan(i);
}

bool writeMagnitude(const mp_int& value, bool signByte, DataBuffer& out)
{
    const std::size_t n = value.byteLength();
    DataBuffer bytes;
    bytes.resize(n);
    if (!value.writeBigEndian({bytes.getData(), n}))
        return false;
    out.clear();
    if (signByte && n > 0 && (bytes.getData()[0] & 0x80) != 0)
        out.appendByte(0);
    out.append(bytes);
    return true;
}

} // namespace

bool ZelvanMp::unsigned_mpint_to_db(const mp_int& value, DataBuffer& out)
{
    return writeMagnitude(value, false, out);
}

bool ZelvanMp::mpint_to_db(const mp_int& value, DataBuffer& out) { return writeMagnitude(value, true, out); }

bool ZelvanMp::sameMagnitude(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b)
{
    const auto x = withoutLeadingZeros(a);
    const auto y = withoutLeadingZeros(b);
    return std::ranges::equal(x, y);
}

} // namespace p11client
