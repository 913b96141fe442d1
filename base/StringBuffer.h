#pragma once

#include "WipingAllocator.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace p11client {

// An 8-bit byte string. Its storage is wiped whenever it is released, so it
// may carry secrets (XString keeps PINs in one).
class StringBuffer {
public:
    StringBuffer() = default;
    explicit StringBuffer(const char* s);
    explicit StringBuffer(std::string_view s);
    StringBuffer(const StringBuffer&) = default;
    StringBuffer(StringBuffer&&) noexcept = default;
    StringBuffer& operator=(const StringBuffer&) = default;
    StringBuffer& operator=(StringBuffer&&) noexcept = default;
    ~StringBuffer() = default;

    void append(const char* s);
    void append(std::string_view s);
    void append(const StringBuffer& other);
    void append3(const char* a, const char* b, const char* c);
    void appendChar(char c);
    void prepend(const char* s);
    void setString(const char* s);
    void setString(std::string_view s);
    // Empties the buffer and overwrites the bytes it held.
    void clear();

    const char* getString() const;
    std::size_t getSize() const { return m_bytes.empty() ? 0 : m_bytes.size() - 1; }
    bool isEmpty() const { return getSize() == 0; }
    std::string_view view() const { return {getString(), getSize()}; }
    std::string toStdString() const { return std::string(view()); }

    bool beginsWith(const char* s) const;
    bool endsWith(const char* s) const;
    bool containsSubstring(const char* s) const;
    bool equals(const char* s) const;
    bool equals(const StringBuffer& other) const { return view() == other.view(); }
    bool equalsIgnoreCase(const char* s) const;

    void toUpperCase();
    void toLowerCase();
    // Removes blanks, tabs, CR and LF at both ends.
    void trim2();
    // Keeps the text after the last '/' (or '\\').
    void stripDirectory();
    // Cuts the content to its first n bytes.
    void shorten(std::size_t n);

private:
    bool aliasesStorage(std::string_view s) const;

    // The text followed by one NUL; empty (no allocation) for the empty string.
    std::vector<char, WipingAllocator<char>> m_bytes;
};

bool equalsIgnoreAsciiCase(std::string_view a, std::string_view b);

} // namespace p11client
