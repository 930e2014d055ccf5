#include "tools/zemail/Output.h"

#include <cstdio>
#include <sstream>

namespace zemail::tool {

namespace {

// Length of the valid UTF-8 sequence starting at s[i], or 0 when the bytes
// there are not one (overlong forms, surrogates and values past U+10FFFF
// included).
std::size_t utf8_sequence(const std::string& s, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length;
    unsigned long code;
    if ((lead & 0xE0) == 0xC0) {
        length = 2;
        code = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        code = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        code = lead & 0x07;
    } else {
        return 0;
    }
    if (i + length > s.size()) {
        return 0;
    }
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (byte(i + k) & 0x3F);
    }
    static const unsigned long kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return 0;
    }
    return length;
}

}  // namespace

Json& Json::set(const std::string& key, Json value) {
    if (std::holds_alternative<std::nullptr_t>(m_value)) {
        m_value = Object{};
    }
    auto& object = std::get<Object>(m_value);
    for (auto& entry : object) {
        if (entry.first == key) {
            entry.second = std::move(value);
            return *this;
        }
    }
    object.emplace_back(key, std::move(value));
    return *this;
}

Json& Json::push(Json value) {
    if (std::holds_alternative<std::nullptr_t>(m_value)) {
        m_value = Array{};
    }
    std::get<Array>(m_value).push_back(std::move(value));
    return *this;
}

std::string Json::dump() const {
    std::ostringstream out;
    dump(out);
    return out.str();
}

void Json::dump(std::ostream& out) const {
    if (std::holds_alternative<std::nullptr_t>(m_value)) {
        out << "null";
    } else if (const bool* b = std::get_if<bool>(&m_value)) {
        out << (*b ? "true" : "false");
    } else if (const long long* n = std::get_if<long long>(&m_value)) {
        out << *n;
    } else if (const std::string* s = std::get_if<std::string>(&m_value)) {
        write_json_string(out, *s);
    } else if (const Array* a = std::get_if<Array>(&m_value)) {
        out << '[';
        for (std::size_t i = 0; i < a->size(); ++i) {
            out << (i ? "," : "");
            (*a)[i].dump(out);
        }
        out << ']';
    } else {
        const Object& o = std::get<Object>(m_value);
        out << '{';
        for (std::size_t i = 0; i < o.size(); ++i) {
            out << (i ? "," : "");
            write_json_string(out, o[i].first);
            out << ':';
            o[i].second.dump(out);
        }
        out << '}';
    }
}

void write_json_string(std::ostream& out, const std::string& s) {
    out << '"';
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x80) {
            const std::size_t length = utf8_sequence(s, i);
            if (length == 0) {
                out << "\\ufffd";
                ++i;
            } else {
                out.write(s.data() + i, static_cast<std::streamsize>(length));
                i += length;
            }
            continue;
        }
        switch (c) {
            case '"':
                out << "\\\"";
                break;
            case '\\':
                out << "\\\\";
                break;
            case '\n':
                out << "\\n";
                break;
            case '\r':
                out << "\\r";
                break;
            case '\t':
                out << "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7F) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out << escaped;
                } else {
                    out << static_cast<char>(c);
                }
        }
        ++i;
    }
    out << '"';
}

std::size_t display_width(const std::string& s) {
    std::size_t width = 0;
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t length = utf8_sequence(s, i);
        i += length ? length : 1;
        ++width;
    }
    return width;
}

std::string printable(const std::string& s) {
    std::string out = s;
    for (char& c : out) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            c = '?';
        }
    }
    return out;
}

namespace {

// The first max characters of s, "..." replacing the tail when cut.
std::string cut(const std::string& s, std::size_t max) {
    if (max == 0 || display_width(s) <= max) {
        return s;
    }
    const std::size_t keep = max > 3 ? max - 3 : 0;
    std::size_t i = 0;
    for (std::size_t chars = 0; chars < keep && i < s.size(); ++chars) {
        const std::size_t length = utf8_sequence(s, i);
        i += length ? length : 1;
    }
    return s.substr(0, i) + std::string(max > 3 ? 3 : max, '.');
}

}  // namespace

Table::Table(std::vector<std::string> headers, std::vector<bool> numeric)
    : m_headers(std::move(headers)), m_numeric(std::move(numeric)) {
    m_numeric.resize(m_headers.size(), false);
}

void Table::add(std::vector<std::string> row) {
    row.resize(m_headers.size());
    for (std::string& cell : row) {
        cell = printable(cell);
    }
    m_rows.push_back(std::move(row));
}

void Table::print(std::ostream& out, std::size_t max_width) const {
    std::vector<std::size_t> widths(m_headers.size());
    const auto measure = [&](const std::vector<std::string>& row) {
        for (std::size_t c = 0; c < row.size(); ++c) {
            widths[c] = std::max(widths[c], display_width(cut(row[c], max_width)));
        }
    };
    measure(m_headers);
    for (const auto& row : m_rows) {
        measure(row);
    }
    const auto print_row = [&](const std::vector<std::string>& row) {
        std::string line;
        for (std::size_t c = 0; c < row.size(); ++c) {
            const std::string cell = cut(row[c], max_width);
            const std::string pad(widths[c] - display_width(cell), ' ');
            const bool last = c + 1 == row.size();
            line += m_numeric[c] ? pad + cell : (last ? cell : cell + pad);
            if (!last) {
                line += "  ";
            }
        }
        out << line << '\n';
    };
    print_row(m_headers);
    for (const auto& row : m_rows) {
        print_row(row);
    }
}

}  // namespace zemail::tool
