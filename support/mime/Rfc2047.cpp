// Encoded words (RFC 2047) and charset conversion.
//
// Decoding scans the text once. Each "=?charset?X?text?=" that parses is
// decoded to bytes; a run of encoded words separated only by whitespace is
// gathered while the charset stays the same and converted as one piece, so a
// multibyte character that a sloppy writer split over two words comes out
// whole. A run whose charset iconv does not know is copied as written.

#include "support/mime/Rfc2047.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

std::string lower(const std::string& text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return out;
}

std::string trim(const std::string& text) {
    std::size_t b = 0;
    std::size_t e = text.size();
    while (b < e && (text[b] == ' ' || text[b] == '\t' || text[b] == '"')) {
        ++b;
    }
    while (e > b && (text[e - 1] == ' ' || text[e - 1] == '\t' || text[e - 1] == '"')) {
        --e;
    }
    return text.substr(b, e - b);
}

int hexValue(unsigned char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Length of the valid UTF-8 sequence at [p, end), 0 when it is not one
// (overlong forms, surrogates and code points above U+10FFFF included).
std::size_t utf8SequenceLength(const unsigned char* p, const unsigned char* end) {
    unsigned char c = p[0];
    if (c < 0x80) {
        return 1;
    }
    std::size_t len;
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) {
            lo = 0xA0;
        } else if (c == 0xED) {
            hi = 0x9F;
        }
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) {
            lo = 0x90;
        } else if (c == 0xF4) {
            hi = 0x8F;
        }
    } else {
        return 0;
    }
    if (static_cast<std::size_t>(end - p) < len) {
        return 0;
    }
    if (p[1] < lo || p[1] > hi) {
        return 0;
    }
    for (std::size_t i = 2; i < len; ++i) {
        if (p[i] < 0x80 || p[i] > 0xBF) {
            return 0;
        }
    }
    return len;
}

// Copies valid UTF-8 and puts U+FFFD in place of each invalid byte.
std::string sanitizeUtf8(const std::string& in) {
    std::string out;
    out.reserve(in.size());
    const unsigned char* p = reinterpret_cast<const unsigned char*>(in.data());
    const unsigned char* end = p + in.size();
    while (p < end) {
        std::size_t n = utf8SequenceLength(p, end);
        if (n == 0) {
            out += kReplacement;
            ++p;
        } else {
            out.append(reinterpret_cast<const char*>(p), n);
            p += n;
        }
    }
    return out;
}

// Names seen in mail that glibc's iconv spells differently, or that writers
// use for a superset (a message labelled gb2312 is decoded as GB18030, as
// every mail reader does).
std::string iconvName(const std::string& charset) {
    static const struct {
        const char* label;
        const char* iconv;
    } kAliases[] = {
        {"ks_c_5601-1987", "CP949"},
        {"ks_c_5601", "CP949"},
        {"gb2312", "GB18030"},
        {"x-gbk", "GBK"},
        {"x-sjis", "SHIFT_JIS"},
        {"unicode-1-1-utf-7", "UTF-7"},
        {"x-unicode-2-0-utf-7", "UTF-7"},
        {"x-mac-roman", "MACINTOSH"},
        {"cp-850", "CP850"},
    };
    for (const auto& alias : kAliases) {
        if (charset == alias.label) {
            return alias.iconv;
        }
    }
    return charset;
}

// Strict base64 is not what mail holds: bytes outside the alphabet are
// skipped and missing padding is tolerated.
std::string decodeBase64Lenient(const char* p, std::size_t n) {
    std::string out;
    unsigned int acc = 0;
    int bits = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const char* hit = std::strchr(kBase64Alphabet, p[i]);
        if (p[i] == '\0' || hit == nullptr) {
            continue;
        }
        acc = (acc << 6) | static_cast<unsigned int>(hit - kBase64Alphabet);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    return out;
}

std::string decodeQ(const char* p, std::size_t n) {
    std::string out;
    out.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        if (p[i] == '_') {
            out += ' ';
        } else if (p[i] == '=' && i + 2 < n && hexValue(p[i + 1]) >= 0 && hexValue(p[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(p[i + 1]) * 16 + hexValue(p[i + 2]));
            i += 2;
        } else {
            out += p[i];
        }
    }
    return out;
}

bool isCharsetChar(unsigned char c) {
    // RFC 2047 token: no blanks, controls or especials; '*' introduces the
    // RFC 2231 language suffix. The especial '.' is let through: locale
    // names such as "ANSI_X3.4-1968" turn up as charsets.
    return c > 0x20 && c < 0x7F && std::strchr("()<>@,;:\"/[]?=", c) == nullptr;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// One encoded word found in the text.
struct Word {
    std::size_t begin = 0;  // position of "=?"
    std::size_t end = 0;    // position after "?="
    std::string charset;    // lower case, language suffix removed
    std::string bytes;      // decoded bytes, still in charset
};

// Finds the first "?=" at or after from, remembering the last answer: the
// scan positions only grow, so the whole decode stays linear even for text
// made of many "=?" and no "?=".
class CloseFinder {
public:
    explicit CloseFinder(const std::string& text) : m_text(text) {}
    std::size_t find(std::size_t from) {
        if (m_known && (m_pos == std::string::npos || m_pos >= from)) {
            return m_pos;
        }
        m_pos = m_text.find("?=", from);
        m_known = true;
        return m_pos;
    }

private:
    const std::string& m_text;
    std::size_t m_pos = 0;
    bool m_known = false;
};

// Reads an encoded word starting at pos (text[pos..] begins with "=?").
bool readWord(const std::string& text, std::size_t pos, CloseFinder& closer, Word& word) {
    static const std::size_t kMaxCharsetLength = 64;
    std::size_t p = pos + 2;
    std::size_t cs_begin = p;
    while (p < text.size() && p - cs_begin <= kMaxCharsetLength &&
           isCharsetChar(static_cast<unsigned char>(text[p]))) {
        ++p;
    }
    if (p == cs_begin || p - cs_begin > kMaxCharsetLength || p + 3 > text.size() ||
        text[p] != '?') {
        return false;
    }
    std::string charset = lower(text.substr(cs_begin, p - cs_begin));
    std::size_t star = charset.find('*');
    if (star != std::string::npos) {
        charset.resize(star);
    }
    if (charset.empty()) {
        return false;
    }
    char enc = text[p + 1];
    if (text[p + 2] != '?') {
        return false;
    }
    std::size_t data_begin = p + 3;
    std::size_t close = closer.find(data_begin);
    if (close == std::string::npos) {
        return false;
    }
    const char* data = text.data() + data_begin;
    std::size_t data_len = close - data_begin;
    if (enc == 'B' || enc == 'b') {
        word.bytes = decodeBase64Lenient(data, data_len);
    } else if (enc == 'Q' || enc == 'q') {
        word.bytes = decodeQ(data, data_len);
    } else {
        return false;
    }
    word.begin = pos;
    word.end = close + 2;
    word.charset = charset;
    return true;
}

}  // namespace

namespace Corvane {

bool convert_to_utf8(const std::string& charset, const std::string& in, std::string& out) {
    out.clear();
    std::string name = lower(trim(charset));
    if (name.empty()) {
        return false;
    }
    // Text labelled ASCII often holds 8-bit bytes anyway, mostly UTF-8: valid
    // UTF-8 is kept and anything else replaced.
    if (name == "utf-8" || name == "utf8" || name == "us-ascii" || name == "ascii") {
        out = sanitizeUtf8(in);
        return true;
    }
    iconv_t cd = iconv_open("UTF-8", iconvName(name).c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return false;
    }
    std::string result;
    result.reserve(in.size() + in.size() / 2 + 16);
    char chunk[4096];
    char* src = const_cast<char*>(in.data());
    std::size_t src_left = in.size();
    for (;;) {
        char* dst = chunk;
        std::size_t dst_left = sizeof(chunk);
        bool final = src_left == 0;
        std::size_t rc = final ? iconv(cd, nullptr, nullptr, &dst, &dst_left)  // reset sequence
                               : iconv(cd, &src, &src_left, &dst, &dst_left);
        int err = rc == static_cast<std::size_t>(-1) ? errno : 0;
        result.append(chunk, static_cast<std::size_t>(dst - chunk));
        if (err == E2BIG) {
            continue;
        }
        if (final) {
            break;
        }
        if (err == EILSEQ) {
            result += kReplacement;
            ++src;
            --src_left;
        } else if (err == EINVAL) {
            // An incomplete sequence at the very end.
            result += kReplacement;
            src_left = 0;
        } else if (err != 0) {
            break;
        }
    }
    iconv_close(cd);
    out.swap(result);
    return true;
}

}  // namespace Corvane

std::string vantro_encode_rfc2047(const std::string& text, const std::string& charset) {
    bool plain = true;
    for (unsigned char c : text) {
        if (c < 0x20 || c > 0x7E || c == '"' || c == '\\') {
            plain = false;
            break;
        }
    }
    if (plain && text.find("=?") == std::string::npos && text.find("?=") == std::string::npos) {
        return text;
    }
    const std::string prefix = "=?" + charset + "?B?";
    const std::string suffix = "?=";
    // An encoded word is at most 75 characters (RFC 2047 section 2); base64
    // gives 4 characters per 3 bytes. A charset name too long for that still
    // gets at least one character per word.
    std::size_t room = 75 > prefix.size() + suffix.size() ? 75 - prefix.size() - suffix.size() : 0;
    std::size_t max_bytes = room / 4 * 3;
    if (max_bytes == 0) {
        max_bytes = 1;
    }
    bool utf8 = lower(charset) == "utf-8" || lower(charset) == "utf8";

    std::string out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t n = std::min(max_bytes, text.size() - pos);
        // Never split a UTF-8 character between words: step back over
        // continuation bytes, unless the chunk would become empty.
        if (utf8 && pos + n < text.size()) {
            std::size_t cut = n;
            while (cut > 0 && (static_cast<unsigned char>(text[pos + cut]) & 0xC0) == 0x80) {
                --cut;
            }
            if (cut > 0) {
                n = cut;
            }
        }
        if (!out.empty()) {
            out += ' ';
        }
        out += prefix;
        const unsigned char* s = reinterpret_cast<const unsigned char*>(text.data() + pos);
        for (std::size_t i = 0; i < n; i += 3) {
            unsigned int v = static_cast<unsigned int>(s[i]) << 16;
            if (i + 1 < n) {
                v |= static_cast<unsigned int>(s[i + 1]) << 8;
            }
            if (i + 2 < n) {
                v |= s[i + 2];
            }
            out += kBase64Alphabet[(v >> 18) & 63];
            out += kBase64Alphabet[(v >> 12) & 63];
            out += i + 1 < n ? kBase64Alphabet[(v >> 6) & 63] : '=';
            out += i + 2 < n ? kBase64Alphabet[v & 63] : '=';
        }
        out += suffix;
        pos += n;
    }
    return out;
}

std::string vantro_decode_rfc2047(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    CloseFinder closer(text);

    // The run of adjacent encoded words being gathered.
    bool in_run = false;
    std::size_t run_begin = 0;
    std::size_t run_end = 0;
    std::string run_charset;
    std::string run_bytes;

    // Returns false when the run stayed as written (unknown charset).
    auto flushRun = [&]() {
        if (!in_run) {
            return true;
        }
        std::string converted;
        bool ok = Corvane::convert_to_utf8(run_charset, run_bytes, converted);
        if (ok) {
            out += converted;
        } else {
            out.append(text, run_begin, run_end - run_begin);
        }
        in_run = false;
        run_bytes.clear();
        return ok;
    };

    std::size_t pos = 0;  // everything before pos is in out or in the run
    while (pos < text.size()) {
        std::size_t start = text.find("=?", pos);
        if (start == std::string::npos) {
            break;
        }
        Word word;
        if (!readWord(text, start, closer, word)) {
            // Not a word: copy up to and including the "=" and go on from the
            // "?", which may begin nothing but is never the start of "=?".
            flushRun();
            out.append(text, pos, start + 1 - pos);
            pos = start + 1;
            continue;
        }
        bool only_blanks = true;
        for (std::size_t i = pos; i < start; ++i) {
            if (!isBlank(text[i])) {
                only_blanks = false;
                break;
            }
        }
        if (in_run && only_blanks && word.charset == run_charset) {
            run_bytes += word.bytes;
            run_end = word.end;
        } else {
            bool adjacent = in_run && only_blanks;
            bool decoded = flushRun();
            // Whitespace between two encoded words is dropped (RFC 2047
            // section 6.2), even when their charsets differ; it stays after a
            // word left as written.
            if (!adjacent || !decoded) {
                out.append(text, pos, start - pos);
            }
            in_run = true;
            run_begin = start;
            run_end = word.end;
            run_charset = word.charset;
            run_bytes = word.bytes;
        }
        pos = word.end;
    }
    flushRun();
    if (pos < text.size()) {
        out.append(text, pos, std::string::npos);
    }
    return out;
}
