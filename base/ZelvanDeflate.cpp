#include "ZelvanDeflate.h"

#include "DataBuffer.h"
#include "LogBase.h"

#include <zlib.h>

#include <array>
#include <climits>
#include <cstdint>

namespace p11client {

namespace {

constexpr int kRawWindowBits = -15;
constexpr int kZlibWindowBits = 15;
constexpr std::size_t kChunkSize = 16 * 1024;

// An inflate stream that is ended whatever way the caller leaves.
class InflateStream {
public:
    explicit InflateStream(int windowBits) { m_ok = inflateInit2(&m_zs, windowBits) == Z_OK; }
    ~InflateStream()
    {
        if (m_ok)
            inflateEnd(&m_zs);
    }
    InflateStream(const InflateStream&) = delete;
    InflateStream& operator=(const InflateStream&) = delete;

    bool ok() const { return m_ok; }
    z_stream& zs() { return m_zs; }

private:
    z_stream m_zs{};
    bool m_ok = false;
};

// Runs the stream to its end, appending at most maxOutput bytes to out.
bool inflateInto(z_stream& zs, DataBuffer& out, std::size_t maxOutput, LogBase& log)
{
    std::array<std::uint8_t, kChunkSize> chunk{};
    std::size_t produced = 0;
    for (;;) {
        zs.next_out = chunk.data();
        zs.avail_out = static_cast<uInt>(chunk.size());
        const int rc = inflate(&zs, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END) {
            log.LogError(rc == Z_BUF_ERROR ? "Compressed data is truncated." : "Compressed data is not valid.");
            return false;
        }
        const std::size_t got = chunk.size() - zs.avail_out;
        if (got > maxOutput - produced) {
            log.LogError("Inflated data exceeds the size limit.");
            return false;
        }
        out.append(chunk.data(), got);
        produced += got;
        if (rc == Z_STREAM_END)
            return true;
    }
}

} // namespace

bool ZelvanDeflate::inflateDb(bool zlibWrapped, const DataBuffer& in, DataBuffer& out, bool appendToOut,
                              _qxIoParams& /*ioParams*/, unsigned int maxOutputSize, LogBase& log)
{
    if (!appendToOut)
        out.clear();
    if (in.getSize() > UINT_MAX) {
        log.LogError("Compressed data is too large.");
        return false;
    }
    InflateStream stream(zlibWrapped ? kZlibWindowBits : kRawWindowBits);
    if (!stream.ok()) {
        log.LogError("Failed to initialize inflate.");
        return false;
    }
    z_stream& zs = stream.zs();
    zs.next_in = const_cast<Bytef*>(in.getData());
    zs.avail_in = static_cast<uInt>(in.getSize());
    const std::size_t startSize = out.getSize();
    if (!inflateInto(zs, out, maxOutputSize, log)) {
        out.shorten(startSize);
        return false;
    }
    return true;
}

} // namespace p11client
