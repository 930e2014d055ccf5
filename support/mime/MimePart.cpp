#include "support/mime/MimePart.h"

#include <strings.h>

namespace Corvane {

namespace {

bool equalsNoCase(const std::string& a, const char* b) {
    return strcasecmp(a.c_str(), b) == 0;
}

// A parameter value for a header text handed to the content-type and
// content-disposition parsers: always quoted, so that blanks, ";" and 8-bit
// bytes survive. RFC 2231 values ("name*") are read quoted as well.
void appendParam(std::string& out, const MimeParam& param) {
    out += "; ";
    out += param.name;
    out += "=\"";
    for (char c : param.value) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    out += '"';
}

}  // namespace

const MimePart* MimePart::message() const {
    return m_kind == MESSAGE && !m_children.empty() ? m_children.front().get() : nullptr;
}

std::string MimePart::typeName() const {
    if (m_kind == MESSAGE) {
        return "message";
    }
    if (m_overflow) {
        return "application";
    }
    if (m_kind == MULTIPART) {
        return "multipart";
    }
    return m_fields.has_type ? m_fields.type : "text";
}

std::string MimePart::subtypeName() const {
    if (m_kind == MESSAGE) {
        return "rfc822";
    }
    if (m_overflow) {
        return "octet-stream";
    }
    return m_fields.has_type ? m_fields.subtype : "plain";
}

bool MimePart::_textual() const {
    return m_kind == LEAF && !m_overflow &&
           (!m_fields.has_type || equalsNoCase(m_fields.type, "text"));
}

std::string MimePart::charset() const {
    for (const MimeParam& param : m_fields.params) {
        if (equalsNoCase(param.name, "charset")) {
            return param.value;
        }
    }
    return _textual() ? "us-ascii" : "";
}

ContentEncoding MimePart::encoding() const {
    return m_fields.encoding ? stringAsEncoding(*m_fields.encoding) : ENCODING_7BIT;
}

ContentType MimePart::contentType() const {
    std::string value = typeName() + "/" + subtypeName();
    bool has_charset = false;
    for (const MimeParam& param : m_fields.params) {
        appendParam(value, param);
        has_charset = has_charset || equalsNoCase(param.name, "charset");
    }
    if (!has_charset && _textual()) {
        appendParam(value, MimeParam{"charset", "us-ascii"});
    }
    return ContentType(value);
}

ContentDisposition MimePart::contentDisposition() const {
    if (!m_fields.disposition) {
        return ContentDisposition();
    }
    std::string value = *m_fields.disposition;
    for (const MimeParam& param : m_fields.disposition_params) {
        appendParam(value, param);
    }
    return ContentDisposition(value);
}

// The addressing of the server: a multipart's number picks a child; any other
// part answers to 1 (a single-part message's body is "1"), and only a
// message/rfc822 part has numbers below it, which go on inside the attached
// message.
const MimePart* MimePart::find(const std::string& section) const {
    const MimePart* part = this;
    std::size_t pos = 0;
    while (pos < section.size() && part != nullptr) {
        unsigned long number = 0;
        std::size_t digits = 0;
        while (pos < section.size() && section[pos] >= '0' && section[pos] <= '9') {
            if (number < 1000000) {
                number = number * 10 + static_cast<unsigned long>(section[pos] - '0');
            }
            ++pos;
            ++digits;
        }
        if (digits == 0 || number == 0 || (pos < section.size() && section[pos] != '.')) {
            return nullptr;
        }
        const bool more = pos < section.size();
        if (more) {
            ++pos;
            if (pos == section.size()) {
                return nullptr;  // "1." is no section
            }
        }
        if (part->m_kind == MULTIPART) {
            part = number <= part->m_children.size() ? part->m_children[number - 1].get() : nullptr;
        } else if (number != 1 || (more && part->m_kind != MESSAGE)) {
            part = nullptr;
        }
        if (part != nullptr && more && part->m_kind == MESSAGE) {
            part = part->message();
        }
    }
    return part;
}

std::size_t MimePart::count() const {
    // Iterative: the tree may be as deep as the parser's nesting limit.
    std::size_t total = 0;
    std::vector<const MimePart*> pending{this};
    while (!pending.empty()) {
        const MimePart* part = pending.back();
        pending.pop_back();
        ++total;
        for (const auto& child : part->m_children) {
            pending.push_back(child.get());
        }
    }
    return total;
}

}  // namespace Corvane
