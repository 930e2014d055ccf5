// Header blocks (RFC 5322 section 2.2), read line by line in one pass.
//
//   field := name ":" body CRLF      body continues on lines starting with WSP
//
// Each line is looked at once and its bytes are appended to the field being
// built, so unfolding costs time linear in the input however many
// continuation lines a field has.

#include "support/mime/Header.h"

#include <algorithm>
#include <cstring>

#include "support/mime/Email.h"

namespace Corvane {

namespace {

bool sameName(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i];
        char y = b[i];
        if (x >= 'A' && x <= 'Z') {
            x = static_cast<char>(x - 'A' + 'a');
        }
        if (y >= 'A' && y <= 'Z') {
            y = static_cast<char>(y - 'A' + 'a');
        }
        if (x != y) {
            return false;
        }
    }
    return true;
}

bool isWsp(char c) {
    return c == ' ' || c == '\t';
}

// A field name is printable ASCII without the colon (RFC 5322 ftext); blanks
// between it and the colon are the obsolete syntax of RFC 5322 section 4.5.
bool validName(const char* p, std::size_t n) {
    if (n == 0) {
        return false;
    }
    for (std::size_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(p[i]);
        if (c < 33 || c > 126) {
            return false;
        }
    }
    return true;
}

}  // namespace

Header::Header(const std::string& name, const std::string& value)
    : m_name(name), m_value(value), m_raw(name + ": " + value + EmailLineBreak) {}

bool Header::is(const std::string& name) const {
    return sameName(m_name, name);
}

bool HeaderContainer::parse(const char* data, std::size_t length) {
    m_headers.clear();
    m_parsed = 0;
    if (data == nullptr) {
        return false;
    }

    // The field being built. After a malformed line nothing is open, so the
    // lines folded under it are skipped with it.
    bool open = false;
    std::string name;
    std::string value;
    std::string raw;
    auto close = [&]() {
        if (open) {
            std::size_t lead = 0;
            while (lead < value.size() && isWsp(value[lead])) {
                ++lead;
            }
            value.erase(0, lead);
            m_headers.emplace_back(std::move(name), std::move(value), std::move(raw));
            name.clear();
            value.clear();
            raw.clear();
            open = false;
        }
    };

    std::size_t p = 0;
    // An mbox "From " separator line at the very top is not a field.
    if (length >= 5 && std::memcmp(data, "From ", 5) == 0) {
        const void* nl = std::memchr(data, '\n', length);
        p = nl == nullptr ? length : static_cast<const char*>(nl) - data + 1;
    }

    while (p < length) {
        const void* nl = std::memchr(data + p, '\n', length - p);
        std::size_t line_end = nl == nullptr ? length : static_cast<const char*>(nl) - data;
        std::size_t next = nl == nullptr ? length : line_end + 1;
        std::size_t content_end = line_end;
        if (content_end > p && data[content_end - 1] == '\r') {
            --content_end;
        }
        const char* line = data + p;
        std::size_t line_len = content_end - p;

        if (line_len == 0) {
            p = next;  // the blank line ending the block
            break;
        }
        if (isWsp(line[0])) {
            // A folded continuation: the line break goes, the blank stays.
            if (open) {
                value.append(line, line_len);
                raw.append(line, next - p);
            }
        } else {
            close();
            const void* colon = std::memchr(line, ':', line_len);
            std::size_t name_len = colon == nullptr ? 0 : static_cast<const char*>(colon) - line;
            std::size_t trimmed = name_len;
            while (trimmed > 0 && isWsp(line[trimmed - 1])) {
                --trimmed;
            }
            if (colon != nullptr && validName(line, trimmed)) {
                open = true;
                name.assign(line, trimmed);
                value.assign(line + name_len + 1, line_len - name_len - 1);
                raw.assign(line, next - p);
            }
        }
        p = next;
    }
    close();
    m_parsed = p;
    return !m_headers.empty();
}

bool HeaderContainer::parse(MediaIn& in) {
    std::string block;
    MediaInImpl* impl = in.get();
    if (impl != nullptr) {
        // Byte by byte, so that the stream stops right after the blank line
        // and the caller can go on reading the body from there.
        std::size_t line_start = 0;
        char c;
        while (block.size() < kMaxStreamBytes && impl->read(&c, 1) == 1) {
            block += c;
            if (c == '\n') {
                std::size_t line_len = block.size() - 1 - line_start;
                if (line_len == 0 || (line_len == 1 && block[line_start] == '\r')) {
                    break;
                }
                line_start = block.size();
            }
        }
    }
    return parse(block.data(), block.size());
}

namespace {

// True when [data, data + length) holds the blank line that ends a header
// block, looking from the line feed at or after from (or at the very start).
bool holds_header_end(const std::string& block, std::size_t from) {
    if (block.compare(0, 1, "\n") == 0 || block.compare(0, 2, "\r\n") == 0) {
        return true;
    }
    for (std::size_t at = block.find('\n', from); at != std::string::npos;
         at = block.find('\n', at + 1)) {
        if (block.compare(at + 1, 1, "\n") == 0 || block.compare(at + 1, 2, "\r\n") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool HeaderContainer::parseHead(MediaIn& in) {
    std::string block;
    MediaInImpl* impl = in.get();
    if (impl != nullptr) {
        char chunk[8192];
        while (block.size() < kMaxStreamBytes) {
            const long got = impl->read(chunk, sizeof chunk);
            if (got <= 0) {
                break;
            }
            // A blank line may straddle two chunks: look again from the last
            // line feed before the new bytes.
            const std::size_t from = block.size() < 2 ? 0 : block.size() - 2;
            block.append(chunk, static_cast<std::size_t>(got));
            if (holds_header_end(block, from)) {
                break;
            }
        }
    }
    if (block.size() > kMaxStreamBytes) {
        block.resize(kMaxStreamBytes);
    }
    return parse(block.data(), block.size());
}

const Header* HeaderContainer::find(const std::string& name) const {
    for (const Header& h : m_headers) {
        if (h.is(name)) {
            return &h;
        }
    }
    return nullptr;
}

std::string HeaderContainer::get(const std::string& name) const {
    const Header* h = find(name);
    return h != nullptr ? h->value() : std::string();
}

std::vector<std::string> HeaderContainer::getAll(const std::string& name) const {
    std::vector<std::string> values;
    for (const Header& h : m_headers) {
        if (h.is(name)) {
            values.push_back(h.value());
        }
    }
    return values;
}

void HeaderContainer::add(const std::string& name, const std::string& value) {
    m_headers.emplace_back(name, value);
}

void HeaderContainer::set(const std::string& name, const std::string& value) {
    auto first = std::find_if(m_headers.begin(), m_headers.end(),
                              [&](const Header& h) { return h.is(name); });
    if (first == m_headers.end()) {
        add(name, value);
        return;
    }
    *first = Header(name, value);
    m_headers.erase(
        std::remove_if(first + 1, m_headers.end(), [&](const Header& h) { return h.is(name); }),
        m_headers.end());
}

std::size_t HeaderContainer::remove(const std::string& name) {
    std::size_t before = m_headers.size();
    m_headers.erase(std::remove_if(m_headers.begin(), m_headers.end(),
                                   [&](const Header& h) { return h.is(name); }),
                    m_headers.end());
    return before - m_headers.size();
}

void HeaderContainer::clear() {
    m_headers.clear();
    m_parsed = 0;
}

std::string HeaderContainer::asString() const {
    std::string out;
    for (const Header& h : m_headers) {
        out += h.raw();
        if (h.raw().empty() || h.raw().back() != '\n') {
            out += EmailLineBreak;
        }
    }
    return out;
}

}  // namespace Corvane
