#include "foundation/TokenIterator.h"

#include <strings.h>

#include <cstring>
#include <limits>

#include "support/Buffer.h"

const char* const ParenthesisHelper::BEGIN = "([{";
const char* const ParenthesisHelper::END = ")]}";

namespace {

bool is_delimiter(char c) {
    return c == ' ' || c == '\r' || c == '\n';
}

}  // namespace

TokenIterator::TokenIterator(const char* text) {
    restart(text);
}
TokenIterator::TokenIterator(const std::string& text) {
    restart(text);
}
TokenIterator::TokenIterator(const Corvane::Buffer& text) {
    restart(text);
}

TokenIterator::~TokenIterator() {
    delete[] m_copy;
}

void TokenIterator::restart(const char* text) {
    _assign(text, text ? std::strlen(text) : 0);
}

void TokenIterator::restart(const std::string& text) {
    _assign(text.data(), text.size());
}

void TokenIterator::restart(const Corvane::Buffer& text) {
    _assign(text.data(), text.length());
}

void TokenIterator::_assign(const char* text, std::size_t length) {
    delete[] m_copy;
    m_copy = m_token = m_cursor = m_end = m_group_end = nullptr;
    m_is_group = false;
    m_kind = 0;
    m_open = m_close = 0;
    if (text == nullptr) {
        return;
    }
    m_copy = new char[length + 1];
    std::memcpy(m_copy, text, length);
    m_copy[length] = '\0';
    m_end = m_copy + length;
    m_cursor = m_token = m_copy;
    next();
}

char* TokenIterator::_skip_delimiters(char* p) const {
    while (p < m_end && is_delimiter(*p)) {
        ++p;
    }
    return p;
}

void TokenIterator::next() {
    m_group_end = nullptr;
    m_is_group = false;
    if (m_cursor == nullptr) {
        m_token = nullptr;
        return;
    }
    m_cursor = _skip_delimiters(m_cursor);
    if (m_cursor >= m_end || *m_cursor == '\0') {
        // End of the text: null from now on.
        m_token = nullptr;
        m_cursor = nullptr;
        return;
    }
    char c = *m_cursor;
    if (c == '"') {
        _read_quoted();
    } else if (c == '(' || c == '[' || c == '{') {
        _read_group(c);
    } else {
        _read_plain();
    }
}

void TokenIterator::_read_plain() {
    m_token = m_cursor;
    char* p = m_cursor;
    while (p < m_end && *p != '\0' && !is_delimiter(*p)) {
        ++p;
    }
    if (p < m_end && *p != '\0') {
        *p++ = '\0';
    }
    m_cursor = p;
}

// A quoted string keeps its quotes (strip() removes them); a backslash escapes
// the character after it. Text glued to the closing quote belongs to the token,
// which ends at the next delimiter.
void TokenIterator::_read_quoted() {
    m_token = m_cursor;
    char* p = m_cursor + 1;
    while (p < m_end && *p != '\0' && *p != '"') {
        p += (*p == '\\' && p + 1 < m_end && p[1] != '\0') ? 2 : 1;
    }
    while (p < m_end && *p != '\0' && !is_delimiter(*p)) {
        ++p;
    }
    if (p < m_end && *p != '\0') {
        *p++ = '\0';
    }
    m_cursor = _skip_delimiters(p);
}

// A bracketed group is one token: the text inside the brackets, nested groups
// and quoted strings intact. Only the group's own bracket kind is counted, and
// not inside quotes. A group the text ends in gives kind 2 and the rest.
void TokenIterator::_read_group(char open) {
    const char* at = std::strchr(ParenthesisHelper::BEGIN, open);
    m_kind = kPlain;
    m_open = open;
    m_close = ParenthesisHelper::END[at - ParenthesisHelper::BEGIN];

    char* p = m_cursor + 1;
    int depth = 1;
    bool in_quotes = false;
    while (p < m_end && *p != '\0') {
        if (*p == '\\') {
            p += (p + 1 < m_end && p[1] != '\0') ? 2 : 1;
            continue;
        }
        if (*p == '"') {
            in_quotes = !in_quotes;
        } else if (!in_quotes) {
            if (*p == m_open) {
                ++depth;
            } else if (*p == m_close && --depth == 0) {
                break;
            }
        }
        ++p;
    }
    m_token = m_cursor + 1;
    m_is_group = true;
    if (depth == 0) {
        m_kind = kGroup;
        *p++ = '\0';
        m_group_end = p;
    } else {
        m_kind = kOpenGroup;
    }
    m_cursor = _skip_delimiters(p);
}

const char* TokenIterator::operator++() {
    next();
    return m_token;
}

const char* TokenIterator::operator++(int) {
    const char* was = m_token;
    next();
    return was;
}

bool TokenIterator::operator==(const char* text) const {
    if (m_token == nullptr || text == nullptr) {
        return m_token == nullptr && text == nullptr;
    }
    return strncasecmp(m_token, text, std::strlen(m_token)) == 0;
}

bool TokenIterator::operator==(const std::string& text) const {
    if (m_token == nullptr) {
        return false;
    }
    return strncasecmp(m_token, text.c_str(), text.size()) == 0;
}

bool TokenIterator::is_number() const {
    if (m_token == nullptr) {
        return false;
    }
    for (const char* p = m_token; *p; ++p) {
        if (*p < '0' || *p > '9') {
            return false;
        }
    }
    return true;
}

TokenIterator& TokenIterator::strip() {
    if (m_token == nullptr || *m_token == '\0') {
        return *this;
    }
    std::size_t length = std::strlen(m_token);
    char first = m_token[0];
    char last = m_token[length - 1];
    if ((first == '"' && last == '"') || (first == '(' && last == ')') ||
        (first == '[' && last == ']')) {
        // For a one-character token the start moves onto the terminator that
        // follows it, which leaves an empty token.
        m_token[length - 1] = '\0';
        ++m_token;
    }
    return *this;
}

std::size_t TokenIterator::literal(Corvane::Buffer& out) {
    if (m_token == nullptr || m_group_end == nullptr || m_kind != kGroup || m_open != '{') {
        return 0;
    }
    // The count; anything but digits counts as 0. Bounded by what the text
    // holds, so a hostile count never reads past the copy.
    std::size_t count = 0;
    const std::size_t limit = std::numeric_limits<std::size_t>::max() / 10;
    for (const char* p = m_token; *p >= '0' && *p <= '9'; ++p) {
        if (count > limit) {
            count = std::numeric_limits<std::size_t>::max();
            break;
        }
        count = count * 10 + static_cast<std::size_t>(*p - '0');
    }
    if (*m_token < '0' || *m_token > '9') {
        count = 0;
    }
    // The literal starts after the line end that follows the closing brace,
    // not after all delimiters: its own first bytes may be blanks or CRLFs.
    char* start = m_group_end;
    if (start < m_end && *start == '\r') {
        ++start;
    }
    if (start < m_end && *start == '\n') {
        ++start;
    }
    std::size_t available = static_cast<std::size_t>(m_end - start);
    if (count > available) {
        count = available;
    }
    out.append(start, count);
    m_cursor = start + count;
    m_group_end = nullptr;
    m_is_group = false;
    // The token after a literal is always read as a plain atom.
    m_cursor = _skip_delimiters(m_cursor);
    if (m_cursor >= m_end || *m_cursor == '\0') {
        m_token = nullptr;
        m_cursor = nullptr;
    } else {
        _read_plain();
    }
    return count;
}

int string2list(std::list<std::string>& out, const std::string& text, char separator,
                bool skipEmpty) {
    if (text.empty()) {
        return 0;
    }
    std::string::size_type from = 0;
    while (true) {
        std::string::size_type at = text.find(separator, from);
        std::string piece =
            text.substr(from, at == std::string::npos ? std::string::npos : at - from);
        if (!piece.empty() || !skipEmpty) {
            out.push_back(std::move(piece));
        }
        if (at == std::string::npos) {
            break;
        }
        from = at + 1;
    }
    return static_cast<int>(out.size());
}
