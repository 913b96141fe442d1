#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace p11client {
class ClsJsonObject;
}

namespace p11cli {

// Column-aligned rows for people, with a header line.
class Table {
public:
    explicit Table(std::vector<std::string> headers);
    void addRow(std::vector<std::string> cells);
    bool isEmpty() const { return m_rows.empty(); }
    void print(std::FILE* out) const;

private:
    std::vector<std::string> m_headers;
    std::vector<std::vector<std::string>> m_rows;
};

// A title and "name  value" lines under it, the names aligned.
class FieldList {
public:
    explicit FieldList(std::string title);
    void add(std::string name, std::string value);
    void print(std::FILE* out) const;

private:
    std::string m_title;
    std::vector<std::pair<std::string, std::string>> m_fields;
};

// The document, indented, on stdout.
void printJson(p11client::ClsJsonObject& json);

std::string lowerHex(std::span<const std::uint8_t> bytes);
const char* yesNo(bool value);

} // namespace p11cli
