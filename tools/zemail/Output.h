// What the zemail program prints: aligned tables for people and JSON for
// scripts.
#ifndef ZEMAIL_TOOLS_OUTPUT_H
#define ZEMAIL_TOOLS_OUTPUT_H

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

namespace zemail::tool {

// A JSON value: null, boolean, integer, string, array or object (keys keep
// the order in which they were set).
class Json {
public:
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string, Json>>;

    Json() = default;
    Json(bool value) : m_value(value) {}                                   // NOLINT
    Json(int value) : m_value(static_cast<long long>(value)) {}            // NOLINT
    Json(long value) : m_value(static_cast<long long>(value)) {}           // NOLINT
    Json(long long value) : m_value(value) {}                              // NOLINT
    Json(unsigned value) : m_value(static_cast<long long>(value)) {}       // NOLINT
    Json(unsigned long value) : m_value(static_cast<long long>(value)) {}  // NOLINT
    Json(const char* value) : m_value(std::string(value)) {}               // NOLINT
    Json(std::string value) : m_value(std::move(value)) {}                 // NOLINT
    Json(Array value) : m_value(std::move(value)) {}                       // NOLINT
    Json(Object value) : m_value(std::move(value)) {}                      // NOLINT

    static Json array() { return Json(Array{}); }
    static Json object() { return Json(Object{}); }

    // Object: sets key (replacing an earlier value). Array: appends.
    Json& set(const std::string& key, Json value);
    Json& push(Json value);

    // Compact JSON text. Strings are written as UTF-8; bytes that are not
    // valid UTF-8 become U+FFFD so that the output always parses.
    std::string dump() const;
    void dump(std::ostream& out) const;

private:
    std::variant<std::nullptr_t, bool, long long, std::string, Array, Object> m_value = nullptr;
};

// Writes s as a JSON string literal, quotes included.
void write_json_string(std::ostream& out, const std::string& s);

// A table printed with its columns aligned. Widths count characters, not
// bytes, so UTF-8 text lines up; columns marked numeric are right-aligned.
// Control characters in cells are shown as '?', so that a hostile subject
// cannot move the cursor or break the table's lines.
class Table {
public:
    explicit Table(std::vector<std::string> headers, std::vector<bool> numeric = {});
    void add(std::vector<std::string> row);
    std::size_t rows() const { return m_rows.size(); }
    // Cells wider than max_width are cut with "..." (0: no limit).
    void print(std::ostream& out, std::size_t max_width = 0) const;

private:
    std::vector<std::string> m_headers;
    std::vector<bool> m_numeric;
    std::vector<std::vector<std::string>> m_rows;
};

// Characters (UTF-8 code points; a stray byte counts as one) in s.
std::size_t display_width(const std::string& s);
// s made printable for a terminal: control bytes become '?'.
std::string printable(const std::string& s);

}  // namespace zemail::tool

#endif
