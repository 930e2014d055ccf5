#include "support/mime/ContentDisposition.h"

#include "support/mime/ContentType.h"

namespace Corvane {

namespace {

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

void ContentDisposition::parse(const std::string& value) {
    m_type = NONE;
    m_params.clear();

    std::size_t p = 0;
    while (p < value.size() && isBlank(value[p])) {
        ++p;
    }
    std::size_t word_begin = p;
    while (p < value.size() && !isBlank(value[p]) && value[p] != ';' && value[p] != '(' &&
           value[p] != '=') {
        ++p;
    }
    std::size_t word_end = p;
    while (p < value.size() && isBlank(value[p])) {
        ++p;
    }
    if (p < value.size() && value[p] == '=') {
        // No type at all, the value starts with a parameter
        // ("Content-Disposition: filename=a.pdf", written by some mailers).
        parseMimeParameters("; " + value, 0, m_params);
        return;
    }
    m_type = stringAsDisposition(value.substr(word_begin, word_end - word_begin));
    parseMimeParameters(value, word_end, m_params);
}

std::string ContentDisposition::param(const std::string& name) const {
    auto it = m_params.find(lower(name));
    return it == m_params.end() ? std::string() : it->second;
}

std::string dispositionAsString(ContentDisposition::Type type) {
    switch (type) {
        case ContentDisposition::ATTACHMENT:
            return "attachment";
        case ContentDisposition::INLINE:
            return "inline";
        default:
            return std::string();
    }
}

ContentDisposition::Type stringAsDisposition(const std::string& text) {
    std::size_t b = 0;
    std::size_t e = text.size();
    while (b < e && (isBlank(text[b]) || text[b] == '"')) {
        ++b;
    }
    while (e > b && (isBlank(text[e - 1]) || text[e - 1] == '"')) {
        --e;
    }
    std::string key = lower(text.substr(b, e - b));
    if (key == "attachment") {
        return ContentDisposition::ATTACHMENT;
    }
    if (key == "inline") {
        return ContentDisposition::INLINE;
    }
    return ContentDisposition::NONE;
}

}  // namespace Corvane
