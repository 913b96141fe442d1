#include "DataBuffer.h"

#include "StringBuffer.h"

#include <openssl/evp.h>

#include <cstring>
#include <limits>
#include <memory>

namespace p11client {

namespace {

int hexDigitValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool decodeHex(std::string_view text, DataBuffer& out)
{
    if (text.size() % 2 != 0)
        return false;
    DataBuffer decoded;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int hi = hexDigitValue(text[i]);
        const int lo = hexDigitValue(text[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        decoded.appendByte(static_cast<std::uint8_t>(hi * 16 + lo));
    }
    out.append(decoded);
    return true;
}

// OpenSSL's streaming decoder skips line breaks and white space, so text cut
// into lines decodes as one stream.
bool decodeBase64(std::string_view text, DataBuffer& out)
{
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
        return false;
    std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> ctx(EVP_ENCODE_CTX_new(),
                                                                        EVP_ENCODE_CTX_free);
    if (!ctx)
        return false;
    DataBuffer decoded;
    decoded.resize(text.size() / 4 * 3 + 3);
    int written = 0;
    int tail = 0;
    EVP_DecodeInit(ctx.get());
    const auto* in = reinterpret_cast<const unsigned char*>(text.data());
    if (EVP_DecodeUpdate(ctx.get(), decoded.getData(), &written, in, static_cast<int>(text.size())) < 0)
        return false;
    if (EVP_DecodeFinal(ctx.get(), decoded.getData() + written, &tail) != 1)
        return false;
    decoded.shorten(static_cast<std::size_t>(written + tail));
    out.append(decoded);
    return true;
}

} // namespace

void DataBuffer::append(const void* data, std::size_t size)
{
    if (data == nullptr || size == 0)
        return;
    const auto* p = static_cast<const std::uint8_t*>(data);
    if (!m_bytes.empty() && p >= m_bytes.data() && p < m_bytes.data() + m_bytes.size()) {
        const DataBuffer copy(data, size);
        append(copy);
        return;
    }
    m_bytes.insert(m_bytes.end(), p, p + size);
}

bool DataBuffer::appendEncodedById(const char* text, int encodingId)
{
    const std::string_view v = text != nullptr ? std::string_view(text) : std::string_view();
    switch (encodingId) {
    case kBase64: return decodeBase64(v, *this);
    case kHex: return decodeHex(v, *this);
    default: return false;
    }
}

bool DataBuffer::encodeDb(int encodingId, StringBuffer& out) const
{
    if (encodingId == kHex) {
        appendHex(out, true);
        return true;
    }
    if (encodingId != kBase64 || m_bytes.size() > std::numeric_limits<int>::max() / 4 * 3 - 3)
        return false;
    std::vector<char, WipingAllocator<char>> text((m_bytes.size() + 2) / 3 * 4 + 1);
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), m_bytes.data(),
                                  static_cast<int>(m_bytes.size()));
    out.append(std::string_view(text.data(), static_cast<std::size_t>(n)));
    return true;
}

void DataBuffer::appendHex(StringBuffer& out, bool upperCase) const
{
    const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    for (std::uint8_t b : m_bytes) {
        out.appendChar(digits[b >> 4]);
        out.appendChar(digits[b & 0x0F]);
    }
}

void DataBuffer::clear()
{
    wipeMemory(m_bytes.data(), m_bytes.size());
    m_bytes.clear();
}

void DataBuffer::shorten(std::size_t size)
{
    if (size >= m_bytes.size())
        return;
    wipeMemory(m_bytes.data() + size, m_bytes.size() - size);
    m_bytes.resize(size);
}

} // namespace p11client
