#include "Output.h"

#include "ClsJsonObject.h"
#include "XString.h"

#include <algorithm>

namespace p11cli {

namespace {

// Width on a terminal, counted in code points (UTF-8 continuation bytes
// take no column).
std::size_t widthOf(const std::string& text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

void printPadded(std::FILE* out, const std::string& text, std::size_t width)
{
    std::fputs(text.c_str(), out);
    for (std::size_t n = widthOf(text); n < width; ++n)
        std::fputc(' ', out);
}

void printRow(std::FILE* out, const std::vector<std::string>& cells, const std::vector<std::size_t>& widths)
{
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const bool last = i + 1 == cells.size();
        printPadded(out, cells[i], last ? 0 : widths[i] + 2);
    }
    std::fputc('\n', out);
}

} // namespace

Table::Table(std::vector<std::string> headers) : m_headers(std::move(headers))
{
}

void Table::addRow(std::vector<std::string> cells)
{
    cells.resize(m_headers.size());
    m_rows.push_back(std::move(cells));
}

void Table::print(std::FILE* out) const
{
    std::vector<std::size_t> widths(m_headers.size());
    for (std::size_t i = 0; i < m_headers.size(); ++i) {
        widths[i] = widthOf(m_headers[i]);
        for (const auto& row : m_rows)
            widths[i] = std::max(widths[i], widthOf(row[i]));
    }
    printRow(out, m_headers, widths);
    for (const auto& row : m_rows)
        printRow(out, row, widths);
}

FieldList::FieldList(std::string title) : m_title(std::move(title))
{
}

void FieldList::add(std::string name, std::string value)
{
    m_fields.emplace_back(std::move(name), std::move(value));
}

void FieldList::print(std::FILE* out) const
{
    std::size_t width = 0;
    for (const auto& field : m_fields)
        width = std::max(width, widthOf(field.first));
    std::fprintf(out, "%s\n", m_title.c_str());
    for (const auto& [name, value] : m_fields) {
        std::fputs("  ", out);
        printPadded(out, name, width + 2);
        std::fprintf(out, "%s\n", value.c_str());
    }
}

void printJson(p11client::ClsJsonObject& json)
{
    p11client::XString text;
    json.Emit(text);
    std::printf("%s\n", text.getUtf8());
}

std::string lowerHex(std::span<const std::uint8_t> bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (std::uint8_t b : bytes) {
        out += digits[b >> 4];
        out += digits[b & 0x0F];
    }
    return out;
}

const char* yesNo(bool value)
{
    return value ? "yes" : "no";
}

} // namespace p11cli
