// The message parser: one pass over the bytes with an explicit stack of open
// parts and of active boundaries, no recursion. The steps mirror the local
// IMAP server's own parser so that both give the same tree for the same
// bytes, odd input included:
//
//   HEADER         read header lines up to the blank line, a boundary line of
//                  an enclosing multipart, or the end;
//   BODY_TO_BOUNDARY  a body up to the [CR]LF before the next boundary line;
//   BOUNDARY_LINE  the rest of a boundary line, then a new part or the
//                  epilogue;
//   BODY_TO_EOF    a body that no boundary can end.
//
// Field values are read with the server's RFC 822 lexer rules (comments,
// quoted strings, MIME tokens, RFC 2231 parameter continuations), because
// they decide what BODYSTRUCTURE reports.

#include "support/mime/Rfc822MsgParser.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace Corvane {

namespace {

// ---- field values: the RFC 822 lexer ------------------------------------------

// RFC 5322 atext, and the part of it a MIME token may hold (RFC 2045: no
// tspecials, so not '/', '=' or '?'). Bytes above 127 count as both.
struct CharClasses {
    bool atext[256] = {};
    bool token[256] = {};
    CharClasses() {
        for (int c = 0; c < 256; ++c) {
            const bool alnum =
                (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
            token[c] = alnum || c >= 0x80 || std::strchr("!#$%&'*+-^_`{|}~", c) != nullptr;
            atext[c] = token[c] || c == '/' || c == '=' || c == '?';
        }
        token[0] = atext[0] = false;  // strchr finds the terminator
    }
};

const CharClasses kClasses;

bool isAtext(char c) {
    return kClasses.atext[static_cast<unsigned char>(c)];
}

bool isTokenChar(char c) {
    return kClasses.token[static_cast<unsigned char>(c)] || c == '.';
}

bool isLwsp(char c) {
    return c == ' ' || c == '\t';
}

// The server keeps field values as C strings: a zero byte ends them.
std::string cString(const char* p, std::size_t n) {
    const void* nul = std::memchr(p, '\0', n);
    return std::string(p, nul ? static_cast<const char*>(nul) - p : n);
}

std::string cString(const std::string& s) {
    return cString(s.data(), s.size());
}

// Results: -1 malformed, 0 at the end of the value, 1 more follows.
struct Lexer {
    const char* p;
    const char* end;

    explicit Lexer(const std::string& value) : p(value.data()), end(value.data() + value.size()) {}

    int skipComment() {
        int level = 1;
        for (++p; p < end; ++p) {
            switch (*p) {
                case '(':
                    ++level;
                    break;
                case ')':
                    if (--level == 0) {
                        ++p;
                        return p < end ? 1 : 0;
                    }
                    break;
                case '\\':
                    // An escaped line end or zero byte stays what it is.
                    if (++p >= end) {
                        return -1;
                    }
                    if (*p == '\r' || *p == '\n' || *p == '\0') {
                        --p;
                    }
                    break;
                default:
                    break;
            }
        }
        return -1;
    }

    int skipLwsp() {
        while (p < end) {
            if (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') {
                ++p;
            } else if (*p != '(') {
                break;
            } else if (skipComment() < 0) {
                return -1;
            }
        }
        return p < end ? 1 : 0;
    }

    int mimeToken(std::string& out) {
        const char* start = p;
        while (p < end && isTokenChar(*p)) {
            ++p;
        }
        out.append(start, p);
        return p < end ? skipLwsp() : 0;
    }

    int atom(std::string& out) {
        if (p >= end || !isAtext(*p)) {
            return -1;
        }
        const char* start = p;
        while (p < end && isAtext(*p)) {
            ++p;
        }
        out.append(start, p);
        return p < end ? skipLwsp() : 0;
    }

    // A quoted string: quoted pairs undone, folded line ends dropped.
    int quoted(std::string& out) {
        const char* start = ++p;
        for (; p < end; ++p) {
            switch (*p) {
                case '"':
                    out.append(start, p);
                    ++p;
                    return skipLwsp();
                case '\n': {
                    const char* stop = p;
                    if (stop > start && stop[-1] == '\r') {
                        --stop;
                    }
                    out.append(start, stop);
                    start = p + 1;
                    break;
                }
                case '\\':
                    if (++p >= end) {
                        return -1;
                    }
                    if (*p == '\r' || *p == '\n' || *p == '\0') {
                        --p;  // the backslash stays
                        break;
                    }
                    out.append(start, p - 1);
                    start = p;
                    break;
                default:
                    break;
            }
        }
        return -1;
    }

    // type "/" subtype, followed by the end or ";". On failure out keeps
    // what it had, except that a type without "/" and nothing after it
    // stays: "text" alone reads as type "text".
    int contentType(std::string& out) {
        const std::size_t mark = out.size();
        if (skipLwsp() <= 0) {
            return -1;
        }
        if (mimeToken(out) <= 0 || out.size() == mark) {
            return -1;
        }
        if (*p != '/') {
            out.resize(mark);
            return -1;
        }
        ++p;
        if (skipLwsp() <= 0) {
            out.resize(mark);
            return -1;
        }
        out += '/';
        const std::size_t subtype = out.size();
        const int ret = mimeToken(out);
        if (ret < 0 || out.size() == subtype || (p != end && *p != ';')) {
            out.resize(mark);
            return -1;
        }
        return ret;
    }

    // ";" key "=" value, the value a quoted string, a MIME token, or (for
    // unquoted RFC 2047 words) anything up to ";" or a blank.
    int param(std::string& key, std::string& value) {
        key.clear();
        value.clear();
        if (p >= end) {
            return 0;
        }
        if (*p != ';') {
            return -1;
        }
        ++p;
        if (skipLwsp() <= 0 || mimeToken(key) <= 0 || *p != '=') {
            return -1;
        }
        ++p;
        int ret = skipLwsp();
        if (ret <= 0) {
            // no value
        } else if (*p == '"') {
            ret = quoted(value);
        } else if (*p == '=') {
            while (p < end && *p != ';' && *p != ' ' && *p != '\t' && *p != '\r' && *p != '\n') {
                value += *p++;
            }
        } else {
            ret = mimeToken(value);
        }
        return ret < 0 ? -1 : 1;
    }
};

// RFC 2231 "name*N[*]" pieces, joined as the server joins them: sorted by
// name and number, a complete run 0..n becomes one "name" (or "name*" when
// any piece is encoded, its plain pieces then %-escaped); a run with a gap
// stays as separate "name*N[*]" parameters. The number of a "name*" without
// digits is the previous piece's, as with the server.
struct Rfc2231Piece {
    std::string key;
    std::string value;
    unsigned index = 0;
    bool extended = false;
};

void joinPieces(std::vector<Rfc2231Piece>& pieces, std::vector<MimeParam>& out) {
    std::stable_sort(pieces.begin(), pieces.end(),
                     [](const Rfc2231Piece& a, const Rfc2231Piece& b) {
                         const int order = std::strcmp(a.key.c_str(), b.key.c_str());
                         return order != 0 ? order < 0 : a.index < b.index;
                     });
    std::size_t next = 0;
    for (std::size_t i = 0; i < pieces.size(); i = next) {
        bool complete = true;
        bool any_extended = false;
        unsigned expected = 0;
        for (next = i; next < pieces.size(); ++next) {
            if (strcasecmp(pieces[i].key.c_str(), pieces[next].key.c_str()) != 0) {
                break;
            }
            complete = complete && pieces[next].index == expected;
            any_extended = any_extended || pieces[next].extended;
            ++expected;
        }
        if (!complete) {
            for (std::size_t j = i; j < next; ++j) {
                out.push_back({pieces[j].key + "*" + std::to_string(pieces[j].index) +
                                   (pieces[j].extended ? "*" : ""),
                               pieces[j].value});
            }
            continue;
        }
        std::string value = !pieces[i].extended && any_extended ? "''" : "";
        for (std::size_t j = i; j < next; ++j) {
            if (!pieces[j].extended && any_extended) {
                for (char c : pieces[j].value) {
                    value += c == '%' ? std::string("%25") : std::string(1, c);
                }
            } else {
                value += pieces[j].value;
            }
        }
        out.push_back({pieces[i].key + (any_extended ? "*" : ""), value});
    }
}

// The parameter list after a Content-Type or Content-Disposition value.
// Malformed bytes are stepped over one at a time until a parameter reads.
std::vector<MimeParam> readParams(Lexer& lexer) {
    std::vector<MimeParam> out;
    std::vector<Rfc2231Piece> pieces;
    Rfc2231Piece piece;  // keeps its number from one piece to the next
    std::string key;
    std::string value;
    int ret;
    while ((ret = lexer.param(key, value)) != 0) {
        if (ret < 0) {
            if (lexer.p >= lexer.end) {
                break;
            }
            ++lexer.p;
            continue;
        }
        key = cString(key);
        value = cString(value);
        const std::size_t star = key.find('*');
        bool plain = true;
        if (star != std::string::npos) {
            std::size_t q = star;
            if (q + 1 < key.size()) {
                ++q;
                piece.index = 0;
                while (q < key.size() && key[q] >= '0' && key[q] <= '9') {
                    piece.index = piece.index * 10 + static_cast<unsigned>(key[q] - '0');
                    ++q;
                }
            }
            piece.extended = q < key.size() && key[q] == '*';
            if (piece.extended) {
                ++q;
            }
            if (q == key.size()) {
                piece.key = key.substr(0, star);
                piece.value = value;
                pieces.push_back(piece);
                plain = false;
            }
        }
        if (plain) {
            out.push_back({key, value});
        }
    }
    joinPieces(pieces, out);
    return out;
}

// A Content-Type value: "type/subtype" as far as it reads, and the
// parameters when it reads completely.
struct TypeValue {
    std::string text;  // what was read: "type/subtype", "type", or ""
    std::string type;
    std::string subtype;
    bool valid = false;
    std::vector<MimeParam> params;
};

TypeValue readContentType(const std::string& value) {
    TypeValue result;
    Lexer lexer(value);
    lexer.skipLwsp();
    result.valid = lexer.contentType(result.text) >= 0;
    result.text = cString(result.text);
    const std::size_t slash = result.text.find('/');
    result.type = result.text.substr(0, slash);
    result.subtype = slash == std::string::npos ? std::string() : result.text.substr(slash + 1);
    if (result.valid) {
        result.params = readParams(lexer);
    }
    return result;
}

// A Content-Transfer-Encoding value: one token and nothing else.
std::optional<std::string> readEncoding(const std::string& value) {
    Lexer lexer(value);
    lexer.skipLwsp();
    std::string token;
    if (lexer.mimeToken(token) >= 0 && lexer.skipLwsp() == 0 && !token.empty()) {
        return cString(token);
    }
    return std::nullopt;
}

void readDisposition(const std::string& value, MimeFields& fields) {
    Lexer lexer(value);
    lexer.skipLwsp();
    std::string token;
    if (lexer.mimeToken(token) >= 0) {
        fields.disposition = cString(token);
        fields.disposition_params = readParams(lexer);
    }
}

// Content-Language: atoms separated by commas, up to the first that is not.
std::vector<std::string> readLanguages(const std::string& value) {
    std::vector<std::string> tags;
    Lexer lexer(value);
    lexer.skipLwsp();
    std::string tag;
    while (lexer.atom(tag) >= 0) {
        tags.push_back(cString(tag));
        tag.clear();
        if (lexer.p >= lexer.end || *lexer.p != ',') {
            break;
        }
        ++lexer.p;
        lexer.skipLwsp();
    }
    return tags;
}

bool startsNoCase(const std::string& text, const char* prefix) {
    return strncasecmp(text.c_str(), prefix, std::strlen(prefix)) == 0;
}

bool equalsNoCase(const std::string& text, const char* other) {
    return strcasecmp(text.c_str(), other) == 0;
}

// Reads the whole file; false when it cannot be read.
bool readFile(const std::string& path, std::string& out) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    if (ok) {
        out.resize(static_cast<std::size_t>(st.st_size));
        std::size_t got = 0;
        while (got < out.size()) {
            const ssize_t n = ::read(fd, &out[got], out.size() - got);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                break;
            }
            got += static_cast<std::size_t>(n);
        }
        out.resize(got);  // a file that shrank meanwhile gives what was there
    }
    ::close(fd);
    return ok;
}

}  // namespace

// ---- the builder -----------------------------------------------------------------

class MimePartBuilder {
public:
    MimePartBuilder(const char* data, std::size_t size) : m_data(data), m_size(size) {}

    std::unique_ptr<MimePart> run();

private:
    enum class Step { HEADER, BODY_TO_BOUNDARY, BODY_TO_EOF, BOUNDARY_LINE, DONE };

    struct Boundary {
        MimePart* part;
        std::string text;
        bool epilogue = false;  // the last line found ended in "--"
    };

    // What the header of the current part has shown so far.
    struct HeaderState {
        bool eoh = false;        // the blank line was read
        bool continues = false;  // the next line continues the current field
        bool seen_type = false;  // the first Content-Type was read
        bool multipart = false;  // a boundary was pushed at the blank line
        bool has_boundary = false;
        bool rfc822 = false;  // declared message/rfc822
        bool multipart_type = false;
        bool digest = false;
        std::size_t newline = 0;  // bytes of the last line's line end
        std::string boundary;
        std::string name;  // the field being read
        std::string value;
    };

    void _startPart(MimePart* part, std::size_t offset);
    Step _header();
    void _headerLine();
    void _field();
    void _contentField(const std::string& name);
    void _contentType();
    void _envelopeField();
    Step _endOfHeader();
    Step _bodyToBoundary();
    Step _finish(std::size_t which, std::size_t at, bool firstLine);
    Step _boundaryLine();
    Step _body();
    int _boundaryAt(std::size_t pos);
    bool _atBlankLine() const;
    void _addBody(MimePart& part, std::size_t from, std::size_t to);
    void _closePart();
    void _number();

    const char* m_data;
    std::size_t m_size;
    std::size_t m_pos = 0;
    std::unique_ptr<MimePart> m_root;
    MimePart* m_part = nullptr;
    std::vector<Boundary> m_boundaries;  // innermost last
    unsigned m_parts = 1;
    HeaderState m_h;
};

std::unique_ptr<MimePart> MimePartBuilder::run() {
    m_root = std::make_unique<MimePart>();
    _startPart(m_root.get(), 0);
    Step step = Step::HEADER;
    while (step != Step::DONE) {
        switch (step) {
            case Step::HEADER:
                step = _header();
                break;
            case Step::BODY_TO_BOUNDARY:
                step = _bodyToBoundary();
                break;
            case Step::BOUNDARY_LINE:
                step = _boundaryLine();
                break;
            case Step::BODY_TO_EOF:
                _addBody(*m_part, m_pos, m_size);
                m_pos = m_size;
                step = Step::DONE;
                break;
            case Step::DONE:
                break;
        }
    }
    while (m_part != m_root.get()) {
        _closePart();
    }
    _number();
    return std::move(m_root);
}

// A part begins where its parent's body has got to. That is where reading
// goes on, except for an attached message whose part header gave its last
// line end to a boundary: the message begins before that line end, and its
// header is empty.
void MimePartBuilder::_startPart(MimePart* part, std::size_t offset) {
    m_part = part;
    part->m_header.offset = offset;
    m_h = HeaderState();
}

bool MimePartBuilder::_atBlankLine() const {
    return m_pos < m_size &&
           (m_data[m_pos] == '\n' ||
            (m_data[m_pos] == '\r' && m_pos + 1 < m_size && m_data[m_pos + 1] == '\n'));
}

MimePartBuilder::Step MimePartBuilder::_header() {
    MimePart& part = *m_part;
    for (;;) {
        // At the blank line of a multipart header the boundary becomes active
        // already, so that a boundary line right after it is known to be ours.
        if (m_h.has_boundary && part.m_mime && _atBlankLine()) {
            if (part.m_depth + 1 >= Rfc822MsgParser::kMaxNesting) {
                m_h.multipart_type = false;
                part.m_overflow = true;
            } else {
                m_boundaries.push_back(Boundary{&part, m_h.boundary});
                m_h.multipart = true;
                m_h.has_boundary = false;
            }
        }
        // A boundary line of an enclosing multipart ends the header; the line
        // end before it belongs to the boundary.
        const int found = m_pos < m_size ? _boundaryAt(m_pos) : -1;
        if (found >= 0 && m_boundaries[static_cast<std::size_t>(found)].part != &part) {
            if (m_h.newline > 0) {
                part.m_header.length -= m_h.newline;
                part.m_header.size -= 2;
                part.m_header.lines -= 1;
                part.m_parent->m_body.length += m_h.newline;
                part.m_parent->m_body.size += 2;
                part.m_parent->m_body.lines += 1;
            }
            break;
        }
        if (m_h.eoh || m_pos >= m_size) {
            break;
        }
        _headerLine();
    }
    return _endOfHeader();
}

void MimePartBuilder::_headerLine() {
    MimeExtent& header = m_part->m_header;
    const std::size_t start = m_pos;
    const char* lf = static_cast<const char*>(std::memchr(m_data + start, '\n', m_size - start));
    std::size_t content_end = m_size;
    bool crlf = false;
    if (lf == nullptr) {
        header.length += m_size - start;
        header.size += m_size - start;
        m_pos = m_size;
    } else {
        const std::size_t at = static_cast<std::size_t>(lf - m_data);
        content_end = at;
        if (at > start && m_data[at - 1] == '\r') {
            content_end = at - 1;
            crlf = true;
        }
        m_pos = at + 1;
        header.length += m_pos - start;
        header.size += m_pos - start + (crlf ? 0 : 1);
        header.lines += 1;
    }
    m_h.newline = lf == nullptr ? 0 : (crlf ? 2 : 1);
    const bool continued = m_h.continues;
    m_h.continues = lf != nullptr && m_pos < m_size && isLwsp(m_data[m_pos]);
    const char* line = m_data + start;
    const std::size_t length = content_end - start;
    if (length == 0 && !continued) {
        m_h.eoh = true;
        m_h.continues = false;
        return;
    }
    if (continued) {
        m_h.value += '\n';
        m_h.value.append(line, length);
    } else {
        const char* colon = static_cast<const char*>(std::memchr(line, ':', length));
        if (colon == nullptr) {
            // A line without a colon is a field named by the whole line.
            m_h.name.assign(line, length);
            m_h.value.clear();
        } else {
            const char* name_end = colon;
            while (name_end > line && isLwsp(name_end[-1])) {
                --name_end;
            }
            m_h.name.assign(line, name_end);
            const char* v = colon + 1;
            const char* v_end = line + length;
            const char* q = v;
            while (q < v_end && isLwsp(*q)) {
                ++q;
            }
            if (q == v_end && v_end > v) {
                q = v + 1;  // a value of blanks only loses just the first one
            }
            m_h.value.assign(q, v_end);
        }
    }
    if (!m_h.continues) {
        _field();
    }
}

// A complete field (its last line read).
void MimePartBuilder::_field() {
    MimePart& part = *m_part;
    const std::string& name = m_h.name;
    if (equalsNoCase(name, "Mime-Version")) {
        part.m_mime = true;
    } else if (equalsNoCase(name, "Content-Type")) {
        part.m_mime = true;
    }
    if (startsNoCase(name, "Content-")) {
        _contentField(name);
    }
    if (part.m_parent != nullptr && part.m_parent->m_kind == MimePart::MESSAGE) {
        _envelopeField();
    }
}

void MimePartBuilder::_contentField(const std::string& name) {
    MimeFields& fields = m_part->m_fields;
    const std::string& value = m_h.value;
    const char* which = name.c_str() + 8;
    if (strcasecmp(which, "Type") == 0) {
        _contentType();
    } else if (strcasecmp(which, "Transfer-Encoding") == 0) {
        if (!fields.encoding) {
            fields.encoding = readEncoding(value);
        }
    } else if (strcasecmp(which, "Disposition") == 0) {
        // A later field still counts while no earlier one had parameters.
        if (fields.disposition_params.empty()) {
            readDisposition(value, fields);
        }
    } else if (strcasecmp(which, "Language") == 0) {
        if (fields.languages.empty()) {
            fields.languages = readLanguages(value);
        }
    } else {
        std::optional<std::string>* slot = nullptr;
        if (strcasecmp(which, "ID") == 0) {
            slot = &fields.id;
        } else if (strcasecmp(which, "MD5") == 0) {
            slot = &fields.md5;
        } else if (strcasecmp(which, "Description") == 0) {
            slot = &fields.description;
        } else if (strcasecmp(which, "Location") == 0) {
            slot = &fields.location;
        }
        if (slot != nullptr && !*slot) {
            *slot = cString(value);
        }
    }
}

// The first Content-Type decides both the structure and the fields.
void MimePartBuilder::_contentType() {
    if (m_h.seen_type) {
        return;
    }
    m_h.seen_type = true;
    TypeValue type = readContentType(m_h.value);
    if (equalsNoCase(type.text, "message/rfc822")) {
        m_h.rfc822 = true;
    } else if (startsNoCase(type.text, "multipart/")) {
        m_h.multipart_type = true;
        m_h.digest = equalsNoCase(type.subtype, "digest");
        for (const MimeParam& param : type.params) {
            if (equalsNoCase(param.name, "boundary")) {
                m_h.boundary = param.value.substr(0, Rfc822MsgParser::kMaxBoundary);
                m_h.has_boundary = true;
                break;
            }
        }
    }
    MimeFields& fields = m_part->m_fields;
    fields.has_type = true;
    fields.type = std::move(type.type);
    fields.subtype = std::move(type.subtype);
    fields.params = std::move(type.params);
}

// The envelope of an attached message: the last field of each name counts.
void MimePartBuilder::_envelopeField() {
    MimeEnvelope& envelope = m_part->m_envelope;
    const std::string& name = m_h.name;
    std::optional<std::string>* slot = nullptr;
    if (equalsNoCase(name, "Date")) {
        slot = &envelope.date;
    } else if (equalsNoCase(name, "Subject")) {
        slot = &envelope.subject;
    } else if (equalsNoCase(name, "In-Reply-To")) {
        slot = &envelope.in_reply_to;
    } else if (equalsNoCase(name, "Message-ID")) {
        slot = &envelope.message_id;
    }
    if (slot != nullptr) {
        *slot = cString(m_h.value);
    }
}

MimePartBuilder::Step MimePartBuilder::_endOfHeader() {
    MimePart& part = *m_part;
    part.m_headers.parse(m_data + part.m_header.offset, part.m_header.length);
    part.m_body.offset = part.m_header.end();
    if (!part.m_mime) {
        // Without MIME the Content-* fields do not count.
        m_h.rfc822 = m_h.multipart_type = m_h.digest = false;
        part.m_fields = MimeFields();
    }
    if ((!m_h.seen_type || !part.m_mime) && part.m_parent != nullptr && part.m_parent->m_digest) {
        m_h.rfc822 = true;  // a part of a digest is a message unless it says otherwise
    }
    part.m_digest = m_h.digest;
    if (m_h.multipart) {
        part.m_kind = MimePart::MULTIPART;
        return Step::BODY_TO_BOUNDARY;
    }
    if (m_h.rfc822) {
        if (part.m_depth + 1 < Rfc822MsgParser::kMaxNesting &&
            m_parts < Rfc822MsgParser::kMaxParts) {
            part.m_kind = MimePart::MESSAGE;
            auto child = std::make_unique<MimePart>();
            child->m_parent = &part;
            child->m_depth = part.m_depth + 1;
            MimePart* attached = child.get();
            part.m_children.push_back(std::move(child));
            ++m_parts;
            _startPart(attached, part.m_body.offset);
            return Step::HEADER;
        }
        part.m_overflow = true;
    } else if (m_h.multipart_type) {
        part.m_kind = MimePart::MULTIPART;  // no usable boundary: no parts
    }
    return _body();
}

MimePartBuilder::Step MimePartBuilder::_body() {
    return m_boundaries.empty() ? Step::BODY_TO_EOF : Step::BODY_TO_BOUNDARY;
}

// "--" and the longest active boundary the line begins with (the innermost
// of equally long ones); -1 when there is none. Marks whether "--" follows.
int MimePartBuilder::_boundaryAt(std::size_t pos) {
    if (m_boundaries.empty() || m_parts >= Rfc822MsgParser::kMaxParts || m_size - pos < 2 ||
        m_data[pos] != '-' || m_data[pos + 1] != '-') {
        return -1;
    }
    const char* text = m_data + pos + 2;
    const std::size_t available = m_size - pos - 2;
    const char* lf = static_cast<const char*>(std::memchr(text, '\n', available));
    std::size_t length = available;
    bool dashes = false;
    if (lf != nullptr) {
        length = static_cast<std::size_t>(lf - text);
        if (length > 0 && text[length - 1] == '\r') {
            --length;
        }
        dashes = length > 2 && text[length - 1] == '-' && text[length - 2] == '-';
    } else {
        length = std::min(length, Rfc822MsgParser::kMaxBoundary + 4);
    }
    int best = -1;
    std::size_t best_length = 0;
    for (std::size_t i = m_boundaries.size(); i-- > 0;) {
        const std::string& boundary = m_boundaries[i].text;
        const std::size_t n = boundary.size();
        if (n <= length && std::memcmp(boundary.data(), text, n) == 0 &&
            (best < 0 || best_length < n)) {
            best = static_cast<int>(i);
            best_length = n;
            // "foo--" may end boundary "foo" or continue boundary "foo--":
            // the inner one wins.
            if (n == length || (dashes && n + 2 == length)) {
                break;
            }
        }
    }
    if (best >= 0) {
        m_boundaries[static_cast<std::size_t>(best)].epilogue =
            available >= best_length + 2 && std::memcmp(text + best_length, "--", 2) == 0;
    }
    return best;
}

MimePartBuilder::Step MimePartBuilder::_bodyToBoundary() {
    const std::size_t start = m_pos;
    if (m_parts >= Rfc822MsgParser::kMaxParts) {
        // No boundary can be recognised any more.
        _addBody(*m_part, start, m_size);
        m_pos = m_size;
        return Step::DONE;
    }
    int found = _boundaryAt(start);
    if (found >= 0) {
        return _finish(static_cast<std::size_t>(found), start, true);
    }
    std::size_t p = start;
    for (;;) {
        const char* lf = static_cast<const char*>(std::memchr(m_data + p, '\n', m_size - p));
        if (lf == nullptr) {
            _addBody(*m_part, start, m_size);
            m_pos = m_size;
            return Step::DONE;
        }
        const std::size_t at = static_cast<std::size_t>(lf - m_data);
        const std::size_t line = at + 1;
        if (line < m_size && m_data[line] == '-' && (found = _boundaryAt(line)) >= 0) {
            const std::size_t before = at > start && m_data[at - 1] == '\r' ? at - 1 : at;
            _addBody(*m_part, start, before);
            return _finish(static_cast<std::size_t>(found), before, false);
        }
        p = line;
    }
}

// A boundary line was found at `at` (its [CR]LF, or the line itself when it
// is the first line of a body): close the parts inside the boundary's
// multipart and count the boundary line to that multipart.
MimePartBuilder::Step MimePartBuilder::_finish(std::size_t which, std::size_t at, bool firstLine) {
    const Boundary boundary = m_boundaries[which];
    while (m_part != boundary.part) {
        _closePart();
    }
    // An end boundary retires its multipart; any boundary retires the ones
    // opened inside it.
    m_boundaries.resize(boundary.epilogue ? which : which + 1);
    std::size_t line = firstLine ? 0 : (m_data[at] == '\r' ? 2 : 1);
    line += 2 + boundary.text.size() + (boundary.epilogue ? 2 : 0);
    _addBody(*m_part, at, at + line);
    m_pos = at + line;
    return Step::BOUNDARY_LINE;
}

MimePartBuilder::Step MimePartBuilder::_boundaryLine() {
    const char* lf = static_cast<const char*>(std::memchr(m_data + m_pos, '\n', m_size - m_pos));
    if (lf == nullptr) {
        _addBody(*m_part, m_pos, m_size);
        m_pos = m_size;
        return Step::DONE;
    }
    const std::size_t end = static_cast<std::size_t>(lf - m_data) + 1;
    _addBody(*m_part, m_pos, end);
    m_pos = end;
    if (m_boundaries.empty() || m_boundaries.back().part != m_part) {
        return _body();  // the epilogue
    }
    auto child = std::make_unique<MimePart>();
    child->m_parent = m_part;
    child->m_depth = m_part->m_depth + 1;
    child->m_mime = true;
    MimePart* next = child.get();
    m_part->m_children.push_back(std::move(child));
    ++m_parts;
    _startPart(next, m_pos);
    return Step::HEADER;
}

void MimePartBuilder::_addBody(MimePart& part, std::size_t from, std::size_t to) {
    if (to <= from) {
        return;
    }
    std::uint64_t lines = 0;
    std::uint64_t bare = 0;
    const char* p = m_data + from;
    const char* end = m_data + to;
    while ((p = static_cast<const char*>(
                std::memchr(p, '\n', static_cast<std::size_t>(end - p)))) != nullptr) {
        ++lines;
        if (p == m_data || p[-1] != '\r') {
            ++bare;
        }
        ++p;
    }
    part.m_body.length += to - from;
    part.m_body.lines += lines;
    part.m_body.size += (to - from) + bare;
}

// The current part is complete: its parent's body takes it in.
void MimePartBuilder::_closePart() {
    MimePart* part = m_part;
    MimeExtent& body = part->m_parent->m_body;
    body.length += part->m_header.length + part->m_body.length;
    body.lines += part->m_header.lines + part->m_body.lines;
    body.size += part->m_header.size + part->m_body.size;
    m_part = part->m_parent;
}

// Section numbers, top down (see MimePart::section()).
void MimePartBuilder::_number() {
    std::vector<MimePart*> pending{m_root.get()};
    while (!pending.empty()) {
        MimePart* part = pending.back();
        pending.pop_back();
        if (part->m_kind == MimePart::MULTIPART) {
            for (std::size_t i = 0; i < part->m_children.size(); ++i) {
                MimePart* child = part->m_children[i].get();
                const std::string number = std::to_string(i + 1);
                child->m_section =
                    part->m_section.empty() ? number : part->m_section + "." + number;
                pending.push_back(child);
            }
        } else if (part->m_kind == MimePart::MESSAGE) {
            MimePart* child = part->m_children.front().get();
            const std::string own = part->m_section.empty() ? "1" : part->m_section;
            child->m_section = child->m_kind == MimePart::MULTIPART ? own : own + ".1";
            pending.push_back(child);
        }
    }
}

// ---- Rfc822MsgParser ---------------------------------------------------------------

std::unique_ptr<MimePart> Rfc822MsgParser::parse(const char* data, std::size_t length) const {
    static const char kEmpty[1] = {'\0'};
    MimePartBuilder builder(data != nullptr ? data : kEmpty, data != nullptr ? length : 0);
    return builder.run();
}

std::unique_ptr<MimePart> Rfc822MsgParser::parse(MediaIn& in) const {
    return parse(in.readAll());
}

std::unique_ptr<MimePart> Rfc822MsgParser::parseFile(const std::string& path) const {
    std::string bytes;
    if (!readFile(path, bytes)) {
        return nullptr;
    }
    return parse(bytes);
}

}  // namespace Corvane
