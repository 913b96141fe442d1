#pragma once

#include "WipingAllocator.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace p11client {

class StringBuffer;

// An owned byte buffer; wiped when released, like StringBuffer.
class DataBuffer {
public:
    // Encoding ids understood by appendEncodedById and encodeDb.
    static constexpr int kBase64 = 1;
    static constexpr int kHex = 2;

    DataBuffer() = default;
    DataBuffer(const void* data, std::size_t size) { append(data, size); }

    void append(const void* data, std::size_t size);
    void append(const DataBuffer& other) { append(other.getData(), other.getSize()); }
    void appendByte(std::uint8_t b) { m_bytes.push_back(b); }
    // Decodes text (base64 for id 1, hex for id 2) and appends the bytes;
    // false, with nothing appended, when the text is not valid.
    bool appendEncodedById(const char* text, int encodingId);
    // Appends the bytes as text: base64 (id 1) or upper-case hex (id 2).
    bool encodeDb(int encodingId, StringBuffer& out) const;
    void appendHex(StringBuffer& out, bool upperCase) const;

    void clear();
    void resize(std::size_t size) { m_bytes.resize(size); }
    void shorten(std::size_t size);
    std::uint8_t* getData() { return m_bytes.data(); }
    const std::uint8_t* getData() const { return m_bytes.data(); }
    std::size_t getSize() const { return m_bytes.size(); }
    bool isEmpty() const { return m_bytes.empty(); }
    std::span<const std::uint8_t> bytes() const { return {m_bytes.data(), m_bytes.size()}; }
    bool equals(const DataBuffer& other) const { return m_bytes == other.m_bytes; }

private:
    std::vector<std::uint8_t, WipingAllocator<std::uint8_t>> m_bytes;
};

} // namespace p11client
