#include "StringBuffer.h"

#include <algorithm>

namespace p11client {

namespace {

char asciiUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }
char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
bool isTrimmed(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }
std::string_view viewOf(const char* s) { return s != nullptr ? std::string_view(s) : std::string_view(); }

} // namespace

bool equalsIgnoreAsciiCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size()
        && std::equal(a.begin(), a.end(), b.begin(),
                      [](char x, char y) { return asciiUpper(x) == asciiUpper(y); });
}

StringBuffer::StringBuffer(const char* s) { append(s); }
StringBuffer::StringBuffer(std::string_view s) { append(s); }

void StringBuffer::append(const char* s) { append(viewOf(s)); }

void StringBuffer::append(std::string_view s)
{
    if (s.empty())
        return;
    if (aliasesStorage(s)) {
        const StringBuffer copy(s);
        append(copy.view());
        return;
    }
    if (m_bytes.empty())
        m_bytes.push_back('\0');
    m_bytes.insert(m_bytes.end() - 1, s.begin(), s.end());
}

void StringBuffer::append(const StringBuffer& other) { append(other.view()); }

void StringBuffer::append3(const char* a, const char* b, const char* c)
{
    append(a);
    append(b);
    append(c);
}

void StringBuffer::appendChar(char c) { append(std::string_view(&c, 1)); }

void StringBuffer::prepend(const char* s)
{
    StringBuffer joined(s);
    joined.append(view());
    std::swap(m_bytes, joined.m_bytes);
}

void StringBuffer::setString(const char* s) { setString(viewOf(s)); }

void StringBuffer::setString(std::string_view s)
{
    StringBuffer fresh(s);
    std::swap(m_bytes, fresh.m_bytes);
}

void StringBuffer::clear()
{
    wipeMemory(m_bytes.data(), m_bytes.size());
    m_bytes.clear();
}

bool StringBuffer::aliasesStorage(std::string_view s) const
{
    const char* first = m_bytes.data();
    return !m_bytes.empty() && s.data() >= first && s.data() < first + m_bytes.size();
}

const char* StringBuffer::getString() const { return m_bytes.empty() ? "" : m_bytes.data(); }

bool StringBuffer::beginsWith(const char* s) const { return view().starts_with(viewOf(s)); }
bool StringBuffer::endsWith(const char* s) const { return view().ends_with(viewOf(s)); }
bool StringBuffer::containsSubstring(const char* s) const
{
    return view().find(viewOf(s)) != std::string_view::npos;
}
bool StringBuffer::equals(const char* s) const { return view() == viewOf(s); }
bool StringBuffer::equalsIgnoreCase(const char* s) const { return equalsIgnoreAsciiCase(view(), viewOf(s)); }

void StringBuffer::toUpperCase()
{
    std::transform(m_bytes.begin(), m_bytes.end(), m_bytes.begin(), asciiUpper);
}

void StringBuffer::toLowerCase()
{
    std::transform(m_bytes.begin(), m_bytes.end(), m_bytes.begin(), asciiLower);
}

void StringBuffer::trim2()
{
    const std::string_view v = view();
    std::size_t begin = 0;
    std::size_t end = v.size();
    while (begin < end && isTrimmed(v[begin]))
        ++begin;
    while (end > begin && isTrimmed(v[end - 1]))
        --end;
    if (begin == 0 && end == v.size())
        return;
    setString(v.substr(begin, end - begin));
}

void StringBuffer::stripDirectory()
{
    const std::size_t slash = view().find_last_of("/\\");
    if (slash != std::string_view::npos)
        setString(view().substr(slash + 1));
}

void StringBuffer::shorten(std::size_t n)
{
    if (n < getSize())
        setString(view().substr(0, n));
}

} // namespace p11client
