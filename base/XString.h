#pragma once

#include "StringBuffer.h"

namespace p11client {

// Unicode text held as UTF-8. Its bytes are wiped when cleared, replaced or
// destroyed, which is why PINs travel in XStrings.
class XString {
public:
    XString() = default;
    explicit XString(const char* utf8) { m_sb.append(utf8); }
    XString(const XString&) = default;
    XString(XString&&) noexcept = default;
    XString& operator=(const XString&) = default;
    XString& operator=(XString&&) noexcept = default;
    ~XString() = default;

    void appendUtf8(const char* utf8) { m_sb.append(utf8); }
    void setFromUtf8(const char* utf8) { m_sb.setString(utf8); }
    void setFromUtf8(std::string_view utf8) { m_sb.setString(utf8); }
    void copyFromX(const XString& other) { m_sb.setString(other.m_sb.view()); }
    void clear() { m_sb.clear(); }
    bool isEmpty() const { return m_sb.isEmpty(); }

    const char* getUtf8() const { return m_sb.getString(); }
    std::size_t getSizeUtf8() const { return m_sb.getSize(); }
    const StringBuffer& getUtf8Sb() const { return m_sb; }
    StringBuffer& getUtf8Sb_rw() { return m_sb; }

    bool equalsUtf8(const char* utf8) const { return m_sb.equals(utf8); }
    bool equalsX(const XString& other) const { return m_sb.equals(other.m_sb); }
    bool equalsIgnoreCaseUtf8(const char* utf8) const { return m_sb.equalsIgnoreCase(utf8); }
    bool containsSubstringUtf8(const char* utf8) const { return m_sb.containsSubstring(utf8); }

private:
    StringBuffer m_sb;
};

} // namespace p11client
