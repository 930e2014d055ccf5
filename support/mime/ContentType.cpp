// Content-Type values (RFC 2045 section 5.1) and MIME parameters (RFC 2231).
//
//   content := type "/" subtype *(";" parameter)
//   parameter := attribute "=" value        value := token / quoted-string
//
// Comments "( ... )" may stand between any two tokens. Real mail bends the
// grammar, and the parser bends with it: unquoted values holding blanks or
// tspecials ("boundary=----=_Part_1", "name=my file.pdf") run to the next
// ";", an unterminated quoted string or comment ends with the value, and
// RFC 2047 encoded words inside quoted values are decoded although RFC 2047
// section 5 forbids them there. Everything is one pass over the text.

#include "support/mime/ContentType.h"

#include <cstring>
#include <vector>

#include "support/mime/Rfc2047.h"

namespace Corvane {

namespace {

bool isWsp(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// RFC 2045 token characters; bytes above 127 are let through as mail holds
// them.
bool isTokenChar(char ch) {
    unsigned char c = static_cast<unsigned char>(ch);
    return c > 0x20 && c != 0x7F && std::strchr("()<>@,;:\\\"/[]?=", c) == nullptr;
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// Skips blanks and comments (nested, with quoted pairs); an unterminated
// comment runs to the end of the text.
std::size_t skipCfws(const std::string& text, std::size_t p) {
    while (p < text.size()) {
        if (isWsp(text[p])) {
            ++p;
        } else if (text[p] == '(') {
            int depth = 0;
            while (p < text.size()) {
                char c = text[p++];
                if (c == '\\') {
                    ++p;
                } else if (c == '(') {
                    ++depth;
                } else if (c == ')' && --depth == 0) {
                    break;
                }
            }
        } else {
            break;
        }
    }
    return p < text.size() ? p : text.size();
}

std::size_t readToken(const std::string& text, std::size_t p, std::string& token) {
    std::size_t b = p;
    while (p < text.size() && isTokenChar(text[p])) {
        ++p;
    }
    token.assign(text, b, p - b);
    return p;
}

// Position of the next ';' outside a quoted string, or the end.
std::size_t nextSemicolon(const std::string& text, std::size_t p) {
    bool quoted = false;
    for (; p < text.size(); ++p) {
        char c = text[p];
        if (quoted) {
            if (c == '\\') {
                ++p;
            } else if (c == '"') {
                quoted = false;
            }
        } else if (c == '"') {
            quoted = true;
        } else if (c == ';') {
            return p;
        }
    }
    return text.size();
}

// After a parameter's value, quotes no longer open anything: a stray one
// ("name=a\"b; x=1") must not swallow the parameters after it.
std::size_t nextPlainSemicolon(const std::string& text, std::size_t p) {
    std::size_t semi = text.find(';', p);
    return semi == std::string::npos ? text.size() : semi;
}

// An unquoted value runs to the next ';'. A comment at its end goes
// ("charset=us-ascii (Plain text)", the example of RFC 2045 section 5.1),
// but only one set off by a blank: "file(1).pdf" stays whole.
std::string trimUnquoted(const std::string& text, std::size_t b, std::size_t e) {
    for (;;) {
        while (e > b && isWsp(text[e - 1])) {
            --e;
        }
        if (e == b || text[e - 1] != ')') {
            break;
        }
        int depth = 0;
        std::size_t open = e;
        while (open > b) {
            --open;
            if (text[open] == ')') {
                ++depth;
            } else if (text[open] == '(' && --depth == 0) {
                break;
            }
        }
        if (depth != 0 || text[open] != '(' || open == b || !isWsp(text[open - 1])) {
            break;
        }
        e = open;
    }
    return text.substr(b, e - b);
}

std::string percentDecode(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto hex = [](char c) -> int {
            if (c >= '0' && c <= '9') {
                return c - '0';
            }
            c = static_cast<char>(c | 0x20);
            return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 &&
            hex(text[i + 2]) >= 0) {
            out += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

// Splits "charset'language'text"; without both quotes the whole value is
// text in no charset.
void splitExtended(const std::string& value, std::string& charset, std::string& rest) {
    std::size_t q1 = value.find('\'');
    std::size_t q2 = q1 == std::string::npos ? q1 : value.find('\'', q1 + 1);
    if (q2 == std::string::npos) {
        charset.clear();
        rest = value;
        return;
    }
    charset = value.substr(0, q1);
    rest = value.substr(q2 + 1);
}

// Bytes in charset to UTF-8; without a usable charset the bytes are kept as
// they are rather than lost.
std::string toUtf8(const std::string& charset, const std::string& bytes) {
    std::string out;
    if (!charset.empty() && convert_to_utf8(charset, bytes, out)) {
        return out;
    }
    return bytes;
}

struct Segment {
    bool encoded = false;
    std::string value;
};

// Longest continuation number taken as one; longer digit runs make an
// ordinary name.
constexpr std::size_t kMaxSegmentDigits = 5;

}  // namespace

void parseMimeParameters(const std::string& text, std::size_t pos,
                         std::map<std::string, std::string>& params) {
    std::map<std::string, std::string> plain;
    std::map<std::string, Segment> extended;                           // name*=
    std::map<std::string, std::map<unsigned, Segment>> continuations;  // name*N[*]=

    std::size_t p = nextSemicolon(text, pos);
    while (p < text.size()) {
        p = skipCfws(text, p + 1);
        std::size_t name_begin = p;
        while (p < text.size() && text[p] != '=' && text[p] != ';') {
            ++p;
        }
        if (p >= text.size() || text[p] == ';') {
            continue;  // a parameter without value
        }
        std::size_t name_end = p;
        while (name_end > name_begin && isWsp(text[name_end - 1])) {
            --name_end;
        }
        std::string name = lower(text.substr(name_begin, name_end - name_begin));
        p = skipCfws(text, p + 1);

        std::string value;
        if (p < text.size() && text[p] == '"') {
            ++p;
            while (p < text.size() && text[p] != '"') {
                if (text[p] == '\\' && p + 1 < text.size()) {
                    ++p;
                }
                value += text[p++];
            }
            p = nextPlainSemicolon(text, p < text.size() ? p + 1 : p);
        } else {
            std::size_t e = nextPlainSemicolon(text, p);
            value = trimUnquoted(text, p, e);
            p = e;
        }
        if (name.empty()) {
            continue;
        }

        bool encoded = name.back() == '*';
        std::string base = encoded ? name.substr(0, name.size() - 1) : name;
        std::size_t star = base.rfind('*');
        bool numbered = star != std::string::npos && star + 1 < base.size() &&
                        base.size() - star - 1 <= kMaxSegmentDigits &&
                        base.find_first_not_of("0123456789", star + 1) == std::string::npos;
        if (numbered && star > 0) {
            unsigned index = static_cast<unsigned>(std::stoul(base.substr(star + 1)));
            auto& segments = continuations[base.substr(0, star)];
            segments.emplace(index, Segment{encoded, value});
        } else if (encoded && !base.empty()) {
            extended.emplace(base, Segment{true, value});
        } else {
            plain.emplace(name, value);
        }
    }

    for (auto& entry : plain) {
        const std::string& name = entry.first;
        std::string& value = entry.second;
        if (name != "boundary" && value.find("=?") != std::string::npos) {
            value = vantro_decode_rfc2047(value);
        }
        params.emplace(name, value);
    }
    for (const auto& entry : continuations) {
        std::string charset;
        std::string bytes;
        for (const auto& segment : entry.second) {
            if (!segment.second.encoded) {
                bytes += segment.second.value;
            } else if (segment.first == 0) {
                std::string rest;
                splitExtended(segment.second.value, charset, rest);
                bytes += percentDecode(rest);
            } else {
                bytes += percentDecode(segment.second.value);
            }
        }
        params[entry.first] = toUtf8(charset, bytes);
    }
    for (const auto& entry : extended) {
        std::string charset;
        std::string rest;
        splitExtended(entry.second.value, charset, rest);
        params[entry.first] = toUtf8(charset, percentDecode(rest));
    }
}

void ContentType::parse(const std::string& value) {
    m_media = NONE;
    m_sub = UNKNOWN_SUBTYPE;
    m_type_name.clear();
    m_subtype_name.clear();
    m_params.clear();

    std::string type;
    std::string subtype;
    std::size_t p = readToken(value, skipCfws(value, 0), type);
    p = skipCfws(value, p);
    if (p < value.size() && value[p] == '/') {
        p = readToken(value, skipCfws(value, p + 1), subtype);
    }
    if (!type.empty() && !subtype.empty()) {
        m_type_name = lower(type);
        m_subtype_name = lower(subtype);
        m_media = stringAsType(m_type_name);
        m_sub = stringAsSubType(m_subtype_name);
    }
    parseMimeParameters(value, p, m_params);
}

std::string ContentType::param(const std::string& name) const {
    auto it = m_params.find(lower(name));
    return it == m_params.end() ? std::string() : it->second;
}

bool ContentType::hasParam(const std::string& name) const {
    return m_params.count(lower(name)) != 0;
}

std::string ContentType::utf8name() const {
    return param("name");
}

namespace {

const char* const kMediaTypeNames[] = {
    "", "text", "image", "audio", "video", "application", "multipart", "message",
};

struct SubTypeName {
    const char* name;
    ContentType::SubType value;
};

// The first name of each value is the one subTypeAsString gives; the others
// are spellings found in mail.
const SubTypeName kSubTypeNames[] = {
    {"delivery-status", ContentType::DELIVERY_STATUS},
    {"enriched", ContentType::ENRICHED},
    {"plain", ContentType::PLAIN},
    {"html", ContentType::HTML},
    {"rfc822", ContentType::RFC822},
    {"partial", ContentType::PARTIAL},
    {"external-body", ContentType::EXTERNAL_BODY},
    {"disposition-notification", ContentType::DISPOSITION_NOTIFICATION},
    {"richtext", ContentType::RICHTEXT},
    {"alternative", ContentType::ALTERNATIVE},
    {"mixed", ContentType::MIXED},
    {"digest", ContentType::DIGEST},
    {"parallel", ContentType::PARALLEL},
    {"report", ContentType::REPORT},
    {"encrypted", ContentType::ENCRYPTED},
    {"gif", ContentType::GIF},
    {"jpeg", ContentType::JPEG},
    {"jpg", ContentType::JPEG},
    {"pjpeg", ContentType::JPEG},
    {"png", ContentType::PNG},
    {"x-png", ContentType::PNG},
    {"bmp", ContentType::BMP},
    {"x-bmp", ContentType::BMP},
    {"x-ms-bmp", ContentType::BMP},
    {"tiff", ContentType::TIFF},
    {"octet-stream", ContentType::OCTET_STREAM},
    {"pdf", ContentType::PDF},
    {"x-pdf", ContentType::PDF},
    {"zip", ContentType::ZIP},
    {"x-zip", ContentType::ZIP},
    {"x-zip-compressed", ContentType::ZIP},
    {"msword", ContentType::MSWORD},
    {"postscript", ContentType::POSTSCRIPT},
    {"basic", ContentType::BASIC},
    {"mpeg", ContentType::MPEG},
    {"pgp-signature", ContentType::PGP_SIGNATURE},
    {"pgp-encrypted", ContentType::PGP_ENCRYPTED},
    {"related", ContentType::RELATED},
    {"signed", ContentType::SIGNED},
    {"pkcs7-signature", ContentType::PKCS7_SIGNATURE},
    {"pkcs7-mime", ContentType::PKCS7_MIME},
    {"x-pkcs7-signature", ContentType::X_PKCS7_SIGNATURE},
    {"x-pkcs7-mime", ContentType::X_PKCS7_MIME},
    {"pgp-keys", ContentType::PGP_KEYS},
    {"css", ContentType::CSS},
    {"xml", ContentType::XML},
    {"calendar", ContentType::CALENDAR},
    {"rfc822-headers", ContentType::RFC822_HEADERS},
    {"global", ContentType::GLOBAL},
    {"mp4", ContentType::MP4},
    {"wav", ContentType::WAV},
    {"x-wav", ContentType::WAV},
    {"wave", ContentType::WAV},
    {"quicktime", ContentType::QUICKTIME},
    {"vcard", ContentType::VCARD},
    {"x-vcard", ContentType::VCARD},
    {"javascript", ContentType::JAVASCRIPT},
    {"x-javascript", ContentType::JAVASCRIPT},
    {"json", ContentType::JSON},
    {"vnd.ms-tnef", ContentType::MS_TNEF},
    {"ms-tnef", ContentType::MS_TNEF},
    {"csv", ContentType::CSV},
    {"svg+xml", ContentType::SVG_XML},
    {"webp", ContentType::WEBP},
    {"ogg", ContentType::OGG},
    {"gzip", ContentType::GZIP},
    {"x-gzip", ContentType::GZIP},
    {"x-tar", ContentType::X_TAR},
    {"tar", ContentType::X_TAR},
    {"rtf", ContentType::RTF},
    {"x-pgp-keys", ContentType::PGP_KEYS_ALT},
};

// The word to look up: blanks and quotes around it dropped, and for a whole
// "type/subtype" the part on the requested side of the "/".
std::string keyOf(const std::string& text, bool subtype) {
    std::size_t b = 0;
    std::size_t e = text.size();
    while (b < e && (isWsp(text[b]) || text[b] == '"')) {
        ++b;
    }
    while (e > b && (isWsp(text[e - 1]) || text[e - 1] == '"')) {
        --e;
    }
    std::string key = lower(text.substr(b, e - b));
    std::size_t slash = key.find('/');
    if (slash != std::string::npos) {
        key = subtype ? key.substr(slash + 1) : key.substr(0, slash);
    }
    return key;
}

}  // namespace

ContentType::MediaType stringAsType(const std::string& text) {
    std::string key = keyOf(text, false);
    for (int i = 1; i < static_cast<int>(sizeof(kMediaTypeNames) / sizeof(kMediaTypeNames[0]));
         ++i) {
        if (key == kMediaTypeNames[i]) {
            return static_cast<ContentType::MediaType>(i);
        }
    }
    return ContentType::NONE;
}

ContentType::SubType stringAsSubType(const std::string& text) {
    std::string key = keyOf(text, true);
    for (const auto& entry : kSubTypeNames) {
        if (key == entry.name) {
            return entry.value;
        }
    }
    return ContentType::UNKNOWN_SUBTYPE;
}

std::string mediaTypeAsString(ContentType::MediaType type) {
    int i = static_cast<int>(type);
    if (i < 0 || i >= static_cast<int>(sizeof(kMediaTypeNames) / sizeof(kMediaTypeNames[0]))) {
        return std::string();
    }
    return kMediaTypeNames[i];
}

std::string subTypeAsString(ContentType::SubType subtype) {
    for (const auto& entry : kSubTypeNames) {
        if (entry.value == subtype) {
            return entry.name;
        }
    }
    return std::string();
}

bool subTypeIsEncrypted(ContentType::SubType subtype) {
    return subtype == ContentType::ENCRYPTED || subtype == ContentType::PGP_ENCRYPTED ||
           subtype == ContentType::PKCS7_MIME || subtype == ContentType::X_PKCS7_MIME;
}

bool subTypeIsSigned(ContentType::SubType subtype) {
    return subtype == ContentType::SIGNED || subtype == ContentType::PGP_SIGNATURE ||
           subtype == ContentType::PKCS7_SIGNATURE || subtype == ContentType::X_PKCS7_SIGNATURE;
}

}  // namespace Corvane
