#pragma once

namespace p11client {

class DataBuffer;
class LogBase;
class ProgressMonitor;

// The progress and abort parameters of one I/O operation.
class _qxIoParams {
public:
    explicit _qxIoParams(ProgressMonitor* monitor) : m_monitor(monitor) {}
    _qxIoParams(const _qxIoParams&) = delete;
    _qxIoParams& operator=(const _qxIoParams&) = delete;
    ~_qxIoParams() = default;

    ProgressMonitor* progressMonitor() const { return m_monitor; }

private:
    ProgressMonitor* m_monitor;
};

// DEFLATE decompression over zlib.
class ZelvanDeflate {
public:
    // Inflates the stream in `in` into `out`. The stream is raw DEFLATE, or
    // zlib-wrapped when zlibWrapped is true. With appendToOut false, `out` is
    // emptied first. No more than maxOutputSize bytes are ever written: a
    // stream that inflates to more fails. On failure the bytes written by this
    // call are removed from `out` again and an error is logged.
    static bool inflateDb(bool zlibWrapped, const DataBuffer& in, DataBuffer& out, bool appendToOut,
                          _qxIoParams& ioParams, unsigned int maxOutputSize, LogBase& log);
};

} // namespace p11client
