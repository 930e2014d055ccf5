#include "imap/ZeImapMime.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

#include "foundation/TokenIterator.h"
#include "imap/ZeImapClient.h"
#include "support/Debug.h"
#include "support/mime/Email.h"
#include "support/mime/Header.h"
#include "support/mime/Encoders.h"
#include "support/mime/Rfc2047.h"

using Corvane::ContentDisposition;
using Corvane::ContentType;

namespace {

const char* const kUnit = "ZeImapMime";

bool starts_with_ci(const std::string& text, const char* prefix) {
    return strncasecmp(text.c_str(), prefix, std::strlen(prefix)) == 0;
}

bool is_nil(const char* token) {
    return token != nullptr && strcasecmp(token, "NIL") == 0;
}

std::string lower(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// A number field: 0 for an absent token, anything strtol cannot read, or a
// negative value; LONG_MAX when it overflows.
std::uint64_t number(const char* token) {
    if (token == nullptr) {
        return 0;
    }
    long value = std::strtol(token, nullptr, 10);
    return value < 0 ? 0 : static_cast<std::uint64_t>(value);
}

// Undoes IMAP quoting inside a quoted string whose quotes are already gone.
std::string unescape(const char* text) {
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\\' && p[1] != '\0') {
            ++p;
        }
        out += *p;
    }
    return out;
}

// True when the current token is a complete bracketed group opened by open.
bool complete_group(const TokenIterator& it, char open) {
    return it.token() != nullptr && it.group() && it.kind() == TokenIterator::kGroup &&
           it.open_char() == open;
}

// The value the iterator stands on, and moves past it: the bytes of an IMAP
// literal, or the token with one pair of quotes or brackets stripped (and
// IMAP quoting undone for a quoted string). "" for an absent token.
std::string take_value(TokenIterator& it) {
    if (it.token() == nullptr) {
        return std::string();
    }
    if (complete_group(it, '{')) {
        Corvane::Buffer bytes;
        it.literal(bytes);  // leaves the iterator on the token after the literal
        return bytes.str();
    }
    const char* token = it.token();
    std::size_t length = std::strlen(token);
    bool quoted = length >= 2 && token[0] == '"' && token[length - 1] == '"';
    it.strip();
    std::string value = quoted ? unescape(it.token()) : it.asString();
    it++;
    return value;
}

// The token as received (a literal's bytes for a literal), and moves past it.
std::string take_raw(TokenIterator& it) {
    if (complete_group(it, '{')) {
        return take_value(it);
    }
    std::string value = it.asString();
    it++;
    return value;
}

// Content-type parameters. After each key the scan moves one token on, so
// the value of a key it does not know is itself looked at as a key.
void scan_type_params(const char* text, ZeContentType& type, bool charsetOnly) {
    TokenIterator params(text);
    while (params.token() != nullptr) {
        std::string key = take_value(params);
        if (starts_with_ci(key, "charset")) {
            type.charset = take_value(params);
        } else if (charsetOnly) {
            continue;
        } else if (starts_with_ci(key, "name")) {
            type.name = take_value(params);
        } else if (starts_with_ci(key, "method")) {
            type.method = take_value(params);
        }
    }
}

// A disposition parameter value for the header text handed to the
// content-disposition parser: always quoted, so blanks, ";" and 8-bit bytes
// survive.
std::string quote_param(const std::string& value) {
    std::string out = "\"";
    for (char c : value) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    out += '"';
    return out;
}

// A quoted-string token that is not a bracketed group: "mixed", not the
// text of a child part.
bool plain_quoted(const TokenIterator& it) {
    const char* token = it.token();
    if (token == nullptr || it.group() || token[0] != '"') {
        return false;
    }
    std::size_t length = std::strlen(token);
    if (length < 2 || token[length - 1] != '"') {
        return false;
    }
    for (std::size_t i = 1; i + 1 < length; ++i) {
        if (token[i] == '\\') {
            ++i;
        } else if (token[i] == '"') {
            return false;
        }
    }
    return true;
}

// The subtype named by a bare word. The content-type library also reads
// "type/subtype" texts; a multipart's extension data (a location URL, say)
// must not pass for its subtype that way.
ContentType::SubType subtype_word(const std::string& word) {
    if (word.find_first_of("/\" \t\r\n") != std::string::npos) {
        return ContentType::UNKNOWN_SUBTYPE;
    }
    return Corvane::stringAsSubType(word);
}

ZeImapMimeRef& shared_empty() {
    // Reset on every use, so a caller that assigned to it cannot leak a node
    // into later look-ups.
    static thread_local ZeImapMimeRef empty;
    empty.release();
    return empty;
}

struct DepthGuard {
    explicit DepthGuard(int& depth) : m_depth(depth) { ++m_depth; }
    ~DepthGuard() { --m_depth; }
    int& m_depth;
};

}  // namespace

// ---- sections, content types, dispositions -------------------------------------

std::string sectionAsString(const std::string& parent, int n) {
    if (n == 0) {
        return parent;
    }
    if (parent.empty()) {
        return std::to_string(n);
    }
    return parent + "." + std::to_string(n);
}

std::string ZeContentType::value() const {
    std::string out = Corvane::mediaTypeAsString(media) + "/" + Corvane::subTypeAsString(subtype);
    if (!charset.empty()) {
        out += "; charset=" + charset;
    }
    if (!name.empty()) {
        out += ";\n\tname=\"" + vantro_encode_rfc2047(name, "utf-8") + "\"";
    }
    if (!boundary.empty()) {
        out += ";\n\tboundary=\"" + boundary + "\"";
    }
    if (!extra.empty()) {
        out += ";" + extra;
    }
    if (encoding != Corvane::ENCODING_NONE) {
        if (!out.empty()) {
            out += "\n";
        }
        out += "Content-Transfer-Encoding: " + Corvane::encodingAsString(encoding);
    }
    if (!content_id.empty()) {
        if (!out.empty()) {
            out += "\n";
        }
        out += "Content-ID: " + content_id;
    }
    return out;
}

std::string ZeContentType::asString() const {
    return media != ContentType::NONE ? value() : std::string();
}

std::string ZeContentDisposition::asString() const {
    if (type == ContentDisposition::NONE) {
        return std::string();
    }
    std::string out = "Content-Disposition: " + Corvane::dispositionAsString(type);
    if (!filename.empty()) {
        out += ";\n\tfilename=\"" + vantro_encode_rfc2047(filename, "utf-8") + "\"";
    }
    return out;
}

int ZeAssignBoundary::process(ZeImapMime* node) {
    if (node != nullptr && node->media_type() == ContentType::MULTIPART) {
        node->content_type().boundary =
            node->section().empty() ? m_prefix : m_prefix + "-" + node->section();
    }
    return 0;
}

// ---- nodes -------------------------------------------------------------------

ZeImapMime::ZeImapMime(ContentType::MediaType media, ContentType::SubType subtype) {
    m_content_type.media = media;
    m_content_type.subtype = subtype;
}

ZeImapMime::~ZeImapMime() = default;

void ZeImapMime::dump() {
    if (!basepp::dbg::enabled()) {
        return;
    }
    std::ostringstream text;
    text << "SECTION:[" << m_section << "]"
         << "\n\t" << m_content_type.asString() << "\n\tsize:\t" << m_size << "\n\tlines:\t"
         << m_lines << "\n\tdisposition:\t" << m_disposition.asString();
    basepp::dbg::debug(kUnit, __LINE__, "dump", "%s", text.str().c_str());
}

void ZeImapMime::add_child(ZeImapMimeRef& child) {
    if (child) {
        m_children.push_back(child);
    }
}

void ZeImapMime::add_section(ZeImapMimeRef& root, ZeImapMimeRef& node) {
    if (!node) {
        return;
    }
    if (!root) {
        root = ZeImapMimeRef::create(ContentType::NONE, ContentType::UNKNOWN_SUBTYPE);
    }
    const std::string section = node->section();
    if (section.empty()) {
        root = node;
        return;
    }
    ZeImapMimeRef& found = root.find(section);
    if (found) {
        found = node;
        return;
    }
    std::string::size_type dot = section.rfind('.');
    if (dot != std::string::npos) {
        ZeImapMimeRef& parent = root.find(section.substr(0, dot));
        if (parent) {
            parent->add_child(node);
        }
        return;
    }
    root->add_child(node);
}

void ZeImapMime::assign_section_id(const std::string& parent, int n) {
    section(parent, n);
    int child = 0;
    for (ZeImapMimeRef& c : m_children) {
        c->assign_section_id(m_section, ++child);
    }
}

int ZeImapMime::visit(ZeImapMimeVisitor& visitor) {
    int result = visitor.process(this);
    if (result != 0) {
        return result;
    }
    for (ZeImapMimeRef& c : m_children) {
        result = c->visit(visitor);
        if (result != 0) {
            return result;
        }
    }
    return result;
}

void ZeImapMime::set_attach_file(const std::string& path) {
    m_content = Corvane::MediaIn::fromFile(path);
    m_has_content = true;
}

void ZeImapMime::set_body_content(const std::string& text) {
    m_content = Corvane::MediaIn::fromString(text);
    m_has_content = true;
}

void ZeImapMime::set_boundaries(const std::string& prefix) {
    ZeAssignBoundary assign(prefix);
    visit(assign);
}

void ZeImapMime::mime_header(std::ostream& out) {
    if (m_content_type.media != ContentType::NONE &&
        m_content_type.subtype != ContentType::UNKNOWN_SUBTYPE) {
        out << "Content-Type: " << m_content_type.asString() << Corvane::EmailLineBreak;
    }
    if (m_disposition.type != ContentDisposition::NONE) {
        out << m_disposition.asString() << Corvane::EmailLineBreak;
    }
}

void ZeImapMime::create_email(std::ostream& out) {
    out << Corvane::EmailLineBreak;
    if (!m_children.empty()) {
        const std::string& boundary = m_content_type.boundary;
        for (ZeImapMimeRef& c : m_children) {
            out << "--" << boundary << Corvane::EmailLineBreak;
            c->mime_header(out);
            c->create_email(out);
        }
        out << "--" << boundary << "--" << Corvane::EmailLineBreak;
        return;
    }
    if (!m_has_content) {
        return;
    }
    Corvane::MediaOut sink = Corvane::MediaOut::adopt(new Corvane::FileMediaOut(out));
    Corvane::MediaOut encoder = Corvane::get_encoder(m_content_type.encoding, sink);
    Corvane::MediaInImpl* in = m_content.get();
    if (encoder && in != nullptr) {
        char chunk[8192];
        long n;
        while ((n = in->read(chunk, sizeof(chunk))) > 0) {
            encoder->write(chunk, static_cast<std::size_t>(n));
        }
        encoder->end();
    }
    out << Corvane::EmailLineBreak;
}

// ---- display selection ----------------------------------------------------

bool ZeImapMime::is_printable(bool skipMessages, CONVERT_TEXT convert) const {
    const ContentType::MediaType media = m_content_type.media;
    const ContentType::SubType sub = m_content_type.subtype;
    if (media == ContentType::MESSAGE && skipMessages) {
        return false;
    }
    if (m_disposition.type == ContentDisposition::ATTACHMENT) {
        return false;
    }
    if (media == ContentType::TEXT) {
        return convert == CONVERT_NONE ||
               (convert == CONVERT_PLAIN_ONLY && sub == ContentType::PLAIN);
    }
    if (media == ContentType::MESSAGE && sub == ContentType::DELIVERY_STATUS) {
        return true;
    }
    if (media == ContentType::IMAGE && m_disposition.type == ContentDisposition::INLINE) {
        const std::string& id = m_content_type.content_id;
        return id.empty() || id == "NIL";
    }
    return false;
}

bool ZeImapMime::findRelatedPart() const {
    if (m_content_type.media == ContentType::MULTIPART &&
        m_content_type.subtype == ContentType::RELATED) {
        return true;
    }
    for (const ZeImapMimeRef& c : m_children) {
        if (c->findRelatedPart()) {
            return true;
        }
    }
    return false;
}

bool ZeImapMime::findPrintablePart(ContentType::SubType subtype, bool flag) const {
    const ContentType::MediaType media = m_content_type.media;
    const ContentType::SubType sub = m_content_type.subtype;
    if (media == ContentType::TEXT && sub == subtype) {
        return true;
    }
    if (media == ContentType::MESSAGE && sub == ContentType::DELIVERY_STATUS) {
        return true;
    }
    switch (media) {
        case ContentType::NONE:
        case ContentType::IMAGE:
        case ContentType::AUDIO:
        case ContentType::VIDEO:
        case ContentType::APPLICATION:
            return false;
        default:
            break;
    }
    if (flag) {
        if (media == ContentType::MESSAGE) {
            return false;
        }
        if (m_disposition.type == ContentDisposition::INLINE && !m_section.empty()) {
            return false;
        }
    }
    for (const ZeImapMimeRef& c : m_children) {
        if (c->findPrintablePart(subtype, flag)) {
            return true;
        }
    }
    return false;
}

bool ZeImapMime::printable(ContentType::SubType subtype) const {
    const ContentType::MediaType media = m_content_type.media;
    const ContentType::SubType sub = m_content_type.subtype;
    const bool attachment = m_disposition.type == ContentDisposition::ATTACHMENT;
    if (media == ContentType::TEXT) {
        return sub == subtype && !attachment;
    }
    if (media == ContentType::MESSAGE && sub == ContentType::DELIVERY_STATUS) {
        return !attachment;
    }
    if (media != ContentType::MULTIPART && media != ContentType::MESSAGE) {
        return false;
    }
    for (const ZeImapMimeRef& c : m_children) {
        if (c->printable(subtype)) {
            return true;
        }
    }
    return false;
}

void ZeImapMime::get_printable(ContentType::SubType subtype, std::list<ZeImapMimeRef>& out,
                               bool flag, CONVERT_TEXT convert) {
    const ContentType::MediaType media = m_content_type.media;
    if (media == ContentType::MULTIPART) {
        if (m_content_type.subtype != ContentType::ALTERNATIVE) {
            get_printable_children(subtype, out, flag, convert);
            return;
        }
        // Alternatives: the first one that leads to the wanted subtype, else
        // the last one that shows anything (the richest, by convention).
        for (ZeImapMimeRef& c : m_children) {
            if (c->findPrintablePart(subtype, flag)) {
                c->get_printable(subtype, out, flag, convert);
                return;
            }
        }
        for (auto it = m_children.rbegin(); it != m_children.rend(); ++it) {
            std::list<ZeImapMimeRef> shown;
            (*it)->get_printable(subtype, shown, flag, convert);
            if (!shown.empty()) {
                out.splice(out.end(), shown);
                return;
            }
        }
        return;
    }
    if (!m_children.empty()) {
        // Only composed trees have parts below a non-multipart node.
        if (!(flag && media == ContentType::MESSAGE)) {
            get_printable_children(subtype, out, flag, convert);
        }
        return;
    }
    const bool wanted_text = media == ContentType::TEXT && m_content_type.subtype == subtype &&
                             m_disposition.type != ContentDisposition::ATTACHMENT;
    if (wanted_text || is_printable(flag, convert)) {
        out.push_back(ZeImapMimeRef(this));
    }
}

void ZeImapMime::get_printable_children(ContentType::SubType subtype, std::list<ZeImapMimeRef>& out,
                                        bool flag, CONVERT_TEXT convert) {
    for (ZeImapMimeRef& c : m_children) {
        c->get_printable(subtype, out, flag, convert);
    }
}

void ZeImapMime::get_printable_text_by_type(ContentType::SubType subtype,
                                            std::list<ZeImapMimeRef>& out) {
    if (m_content_type.media == ContentType::TEXT && m_content_type.subtype == subtype &&
        m_disposition.type != ContentDisposition::ATTACHMENT) {
        out.push_back(ZeImapMimeRef(this));
    }
    for (ZeImapMimeRef& c : m_children) {
        c->get_printable_text_by_type(subtype, out);
    }
}

// ---- handles -------------------------------------------------------------------

ZeImapMimeRef ZeImapMimeRef::create(ContentType::MediaType media, ContentType::SubType subtype) {
    return ZeImapMimeRef(Corvane::Ref<ZeImapMime>::adopt(new ZeImapMime(media, subtype)));
}

ZeImapMimeRef& ZeImapMimeRef::find(const std::string& section) {
    ZeImapMime* node = get();
    if (node == nullptr) {
        return shared_empty();
    }
    if (node->section() == section) {
        return *this;
    }
    for (ZeImapMimeRef& c : node->children()) {
        ZeImapMimeRef& hit = c.find(section);
        if (hit) {
            return hit;
        }
    }
    return shared_empty();
}

ZeImapMimeRef& ZeImapMimeRef::findCid(const std::string& contentId) {
    ZeImapMime* node = get();
    if (node == nullptr) {
        return shared_empty();
    }
    if (node->content_type().content_id == contentId) {
        return *this;
    }
    for (ZeImapMimeRef& c : node->children()) {
        ZeImapMimeRef& hit = c.findCid(contentId);
        if (hit) {
            return hit;
        }
    }
    return shared_empty();
}

void ZeImapMimeRef::dump(int depth) const {
    ZeImapMime* node = get();
    if (node == nullptr) {
        return;
    }
    for (int i = 0; i < depth; ++i) {
        std::cout << "  ";
    }
    node->dump();
    for (const ZeImapMimeRef& c : node->children()) {
        c.dump(depth + 1);
    }
}

// ---- envelope ------------------------------------------------------------------

Rfc822MessageEnvelop::Rfc822MessageEnvelop(const char* envelope) {
    if (envelope == nullptr) {
        return;
    }
    TokenIterator it(envelope);
    m_date = take_value(it);
    m_subject = take_value(it);
}

// ---- parser: gathering the text ---------------------------------------------------

// Where the scan of the structure text stands: the bracket depth below the
// structure's own opening bracket (which the caller's tokenizer consumed),
// and whether it is inside a quoted string or just after a backslash. The
// rules are those of the tokenizer's group scan, plus literals.
struct ImapMimeParser::Scan {
    int depth = 1;
    bool quoted = false;
    bool escaped = false;
    bool closed = false;  // the structure's group has closed
    bool stop = false;    // nothing more may be read
    long literal = -1;    // a literal announced at the end of the text
};

namespace {

// Reads "{digits}" at p (before end); the count (capped) and the position
// after the "}" on success.
bool literal_marker(const char* p, const char* end, long& count, const char*& after) {
    if (p >= end || *p != '{') {
        return false;
    }
    const char* q = p + 1;
    long n = 0;
    const long cap = static_cast<long>(ImapMimeParser::kMaxText) + 1;
    while (q < end && *q >= '0' && *q <= '9') {
        if (n < cap) {
            n = n * 10 + (*q - '0');
        }
        ++q;
    }
    if (q == p + 1 || q >= end || *q != '}') {
        return false;
    }
    count = n > cap ? cap : n;
    after = q + 1;
    return true;
}

// A literal's bytes as a quoted string, so that brackets, quotes and line
// ends inside it cannot upset the tokenizer's group scan. Zero bytes are
// dropped: the text is handled as C strings.
void append_quoted(Corvane::Buffer& out, const char* bytes, std::size_t length) {
    out.append('"');
    for (std::size_t i = 0; i < length; ++i) {
        char c = bytes[i];
        if (c == '\0') {
            continue;
        }
        if (c == '"' || c == '\\') {
            out.append('\\');
        }
        out.append(c);
    }
    out.append('"');
}

}  // namespace

// Appends text (one line, or the caller's token) to the gathered buffer.
// Returns with scan.closed when the structure's group closed (the rest of the
// text goes to the trailing text), with scan.literal >= 0 when lineEnd says
// the text ends where its line ends and it ends in a literal marker, whose
// bytes then follow on the input, or otherwise at the end of the text.
void ImapMimeParser::_gather(const char* text, std::size_t length, Scan& scan, bool lineEnd) {
    const char* p = text;
    const char* end = text + length;
    // A line end left on the text does not belong to it.
    while (end > p && (end[-1] == '\r' || end[-1] == '\n')) {
        --end;
    }
    scan.literal = -1;
    while (p < end) {
        if (m_text.length() >= kMaxText) {
            scan.stop = true;
            return;
        }
        char c = *p;
        if (c == '\0') {
            ++p;
            continue;
        }
        if (scan.escaped) {
            scan.escaped = false;
        } else if (c == '\\') {
            scan.escaped = true;
        } else if (scan.quoted) {
            if (c == '"') {
                scan.quoted = false;
            }
        } else if (c == '"') {
            scan.quoted = true;
        } else if (c == '(') {
            ++scan.depth;
        } else if (c == ')') {
            if (--scan.depth == 0) {
                scan.closed = true;
                m_trailing.assign(p + 1, end);
                return;
            }
        } else if (c == '{') {
            long count = 0;
            const char* after = nullptr;
            if (literal_marker(p, end, count, after)) {
                if (after == end && lineEnd) {
                    // Its bytes begin the next line of the input.
                    scan.literal = count;
                    return;
                }
                if (after < end && (*after == '\r' || *after == '\n')) {
                    // A literal already inside the text (a caller that
                    // gathered lines itself).
                    if (*after == '\r') {
                        ++after;
                    }
                    if (after < end && *after == '\n') {
                        ++after;
                    }
                    std::size_t available = static_cast<std::size_t>(end - after);
                    std::size_t take =
                        static_cast<std::size_t>(count) < available ? count : available;
                    append_quoted(m_text, after, take);
                    p = after + take;
                    if (take < static_cast<std::size_t>(count)) {
                        scan.stop = true;
                        return;
                    }
                    continue;
                }
            }
        }
        m_text.append(c);
        ++p;
    }
}

int ImapMimeParser::parse(const TokenIterator& token) {
    m_root.release();
    m_index.clear();
    m_indexed = false;
    m_text.clear();
    m_trailing.clear();
    m_depth = 0;
    m_parts = 0;
    const char* text = token.token();
    if (text == nullptr) {
        return 0;
    }
    // Only an unterminated group continues on the input: its text runs to
    // the end of the current line.
    const bool open =
        token.group() && token.kind() == TokenIterator::kOpenGroup && token.open_char() == '(';
    Scan scan;
    _gather(text, std::strlen(text), scan, open);
    while (open && m_feeder != nullptr && !scan.closed && !scan.stop && scan.literal >= 0) {
        const long count = scan.literal;
        if (m_text.length() >= kMaxText ||
            static_cast<std::size_t>(count) > kMaxText - m_text.length()) {
            break;
        }
        Corvane::Buffer bytes;
        long got = m_feeder->readliteral_all(bytes, count);
        append_quoted(m_text, bytes.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
        if (got < count || m_feeder->nextline() < 0) {
            break;
        }
        const Corvane::Buffer& line = m_feeder->curline();
        _gather(line.data(), line.length(), scan, true);
    }
    if (basepp::dbg::enabled()) {
        basepp::dbg::debug(kUnit, __LINE__, "parse", "BODYSTRUCTURE (%zu bytes%s): %.*s",
                           m_text.length(), scan.closed || !open ? "" : ", unfinished",
                           static_cast<int>(m_text.length() < 4096 ? m_text.length() : 4096),
                           m_text.data());
    }
    const char* start = m_text.c_str();
    while (*start == ' ' || *start == '\r' || *start == '\n') {
        ++start;
    }
    m_indexed = true;
    try {
        parse_body(start, "", 0);
    } catch (...) {
        m_indexed = false;
        m_index.clear();
        throw;
    }
    m_indexed = false;
    m_index.clear();
    return 0;
}

// ---- parser: the structure ---------------------------------------------------------

bool ImapMimeParser::_room() {
    if (m_parts >= kMaxParts) {
        return false;
    }
    ++m_parts;
    return true;
}

void ImapMimeParser::parse_body(const char* text, const std::string& section, int partNo) {
    if (text == nullptr || m_depth >= kMaxDepth) {
        return;
    }
    DepthGuard guard(m_depth);
    if (text[0] != '(') {
        parse_mime_type(text, section, partNo);
        return;
    }

    // First pass: the multipart node, from the token that names a subtype.
    bool made = false;
    std::string first_quoted;
    TokenIterator it(text);
    while (it.token() != nullptr) {
        if (first_quoted.empty() && plain_quoted(it)) {
            first_quoted = it.token();
        }
        // A bracketed group is a part or a parameter list, never the subtype.
        const bool group = it.group();
        it.strip();
        const std::string stripped = it.asString();
        const ContentType::SubType subtype =
            group ? ContentType::UNKNOWN_SUBTYPE : subtype_word(stripped);
        if (subtype != ContentType::UNKNOWN_SUBTYPE && _room()) {
            ZeImapMimeRef node = ZeImapMimeRef::create(ContentType::MULTIPART, subtype);
            node->set_section(section);
            node->content_type().type_name = "multipart";
            node->content_type().subtype_name = lower(stripped);
            if (subtype == ContentType::MIXED) {
                it++;
                if (complete_group(it, '(')) {
                    scan_type_params(it.token(), node->content_type(), true);
                }
            }
            add_section(node);
            made = true;
        }
        it++;
    }
    if (!made && first_quoted.size() > 2 && _room()) {
        // A subtype the enumeration does not know: keep the node, so that
        // its parts still have a parent.
        ZeImapMimeRef node =
            ZeImapMimeRef::create(ContentType::MULTIPART, ContentType::UNKNOWN_SUBTYPE);
        node->set_section(section);
        node->content_type().type_name = "multipart";
        node->content_type().subtype_name =
            lower(unescape(first_quoted.substr(1, first_quoted.size() - 2).c_str()));
        add_section(node);
    }

    // Second pass: the parts, numbered in order. Tokens after the parts (the
    // subtype, parameters, extension data) take numbers too, but make no
    // node unless they look like a part.
    int part = partNo;
    TokenIterator children(text);
    while (children.token() != nullptr) {
        const char* child = children.token();
        ++part;
        if (child[0] == '(') {
            parse_body(child, sectionAsString(section, part), 0);
        } else {
            parse_mime_type(child, section, part);
        }
        children++;
    }
}

int ImapMimeParser::parse_mime_type(const char* text, const std::string& section, int& partNo) {
    if (text == nullptr) {
        return partNo;
    }
    ZeImapMimeRef node;
    if (strncasecmp(text, "\"text\"", 6) == 0) {
        node = parse_text(text, section, partNo);
    } else if (strncasecmp(text, "\"image\"", 7) == 0) {
        node = parse_image(text, section, partNo);
    } else if (strncasecmp(text, "\"audio\"", 7) == 0) {
        node = parse_audio(text, section, partNo);
    } else if (strncasecmp(text, "\"video\"", 7) == 0) {
        node = parse_video(text, section, partNo);
    } else if (strncasecmp(text, "\"application\"", 13) == 0) {
        node = parse_application(text, section, partNo);
    } else if (strncasecmp(text, "\"message\"", 9) == 0) {
        node = parse_message(text, section, partNo);
    } else if (std::strstr(text, "(\"filename\"") != nullptr) {
        node = parse_application(text, section, partNo);
    }
    add_section(node);
    return partNo;
}

ZeImapMimeRef ImapMimeParser::_leaf(ContentType::MediaType media, const char* text,
                                    const std::string& section, int partNo) {
    if (text == nullptr || !_room()) {
        return ZeImapMimeRef();
    }
    ZeImapMimeRef node = ZeImapMimeRef::create(media, ContentType::UNKNOWN_SUBTYPE);
    node->section(section, partNo);
    TokenIterator it(text);
    parse_contentType(it, node->content_type());
    if (media == ContentType::TEXT) {
        node->size(number(it++));
        node->lines(number(it++));
        it++;  // MD5
        if (it.token() != nullptr && !is_nil(it.token())) {
            parse_disposition(it.token(), node->disposition());
        }
    } else {
        node->size(number(it++));
        node->lines(number(it++));  // the MD5 field: 0 unless it holds a number
        parse_disposition(it.token(), node->disposition());
    }
    return node;
}

ZeImapMimeRef ImapMimeParser::parse_text(const char* text, const std::string& section, int partNo) {
    return _leaf(ContentType::TEXT, text, section, partNo);
}

ZeImapMimeRef ImapMimeParser::parse_image(const char* text, const std::string& section,
                                          int partNo) {
    return _leaf(ContentType::IMAGE, text, section, partNo);
}

ZeImapMimeRef ImapMimeParser::parse_audio(const char* text, const std::string& section,
                                          int partNo) {
    return _leaf(ContentType::AUDIO, text, section, partNo);
}

ZeImapMimeRef ImapMimeParser::parse_video(const char* text, const std::string& section,
                                          int partNo) {
    return _leaf(ContentType::VIDEO, text, section, partNo);
}

ZeImapMimeRef ImapMimeParser::parse_application(const char* text, const std::string& section,
                                                int partNo) {
    return _leaf(ContentType::APPLICATION, text, section, partNo);
}

// An attached message becomes one leaf: its embedded body is placed under the
// message's own section first, and the message node then takes that place.
ZeImapMimeRef ImapMimeParser::parse_message(const char* text, const std::string& section,
                                            int partNo) {
    if (text == nullptr || !_room()) {
        return ZeImapMimeRef();
    }
    ZeImapMimeRef node = ZeImapMimeRef::create(ContentType::MESSAGE, ContentType::UNKNOWN_SUBTYPE);
    node->section(section, partNo);
    TokenIterator it(text);
    parse_contentType(it, node->content_type());
    node->size(number(it.token()));
    if (node->sub_type() != ContentType::RFC822) {
        return node;
    }
    it++;
    ZeContentDisposition& disposition = node->disposition();
    const std::string name = Rfc822MessageEnvelop(it.token()).subject() + ".eml";
    if (disposition.filename.empty()) {
        disposition.filename = name;
    }
    it++;
    parse_body(it.token(), node->section(), 0);
    it++;
    if (it.token() != nullptr) {
        node->lines(number(it++));
        it++;  // MD5
        if (it.token() != nullptr && !is_nil(it.token())) {
            parse_disposition(it.token(), disposition);
        }
    }
    // A disposition without a file name keeps the name from the subject.
    if (disposition.filename.empty()) {
        disposition.filename = name;
    }
    return node;
}

void ImapMimeParser::parse_contentType(TokenIterator& it, ZeContentType& type) {
    if (it.token() == nullptr) {
        return;
    }
    const std::string media = take_value(it);
    type.media = Corvane::stringAsType(media);
    type.type_name = lower(media);
    const std::string subtype = take_value(it);
    type.subtype = Corvane::stringAsSubType(subtype);
    type.subtype_name = lower(subtype);
    if (it.token() != nullptr) {
        scan_type_params(it.token(), type, false);
        it++;
    }
    type.content_id = take_value(it);
    type.description = take_raw(it);
    type.encoding = Corvane::stringAsEncoding(take_value(it));
}

void ImapMimeParser::parse_disposition(const char* text, ZeContentDisposition& disposition) {
    int type = ContentDisposition::NONE;
    std::string params;
    TokenIterator it(text);
    while (it.token() != nullptr) {
        if (complete_group(it, '(')) {
            TokenIterator pairs(it.token());
            while (pairs.token() != nullptr) {
                const std::string key = take_value(pairs);
                const std::string value = take_value(pairs);
                params += " " + key + "=" + quote_param(value) + ";\n";
            }
        } else {
            it.strip();
            if (it == "inline") {
                type = ContentDisposition::INLINE;
            } else if (it == "attachment") {
                type = ContentDisposition::ATTACHMENT;
            }
        }
        it++;
    }
    disposition.type = static_cast<ContentDisposition::Type>(type);
    ContentDisposition parsed(Corvane::dispositionAsString(disposition.type) + ";\n" + params);
    disposition.filename = parsed.utf8fileName();
}

// Inside parse() the tree is the parser's alone and every node is placed here,
// so an index of the handles by section gives the same answer as
// ZeImapMime::add_section: a node below section S always has a section
// beginning with S and ".", sections are unique, and a replaced node takes
// its subtree's entries with it.
void ImapMimeParser::add_section(ZeImapMimeRef& node) {
    if (!m_indexed) {
        ZeImapMime::add_section(m_root, node);
        return;
    }
    if (!node) {
        return;
    }
    const std::string section = node->section();
    if (!m_root || section.empty()) {
        m_root = section.empty()
                     ? node
                     : ZeImapMimeRef::create(ContentType::NONE, ContentType::UNKNOWN_SUBTYPE);
        m_index.clear();
        m_index[""] = &m_root;
        if (section.empty()) {
            return;
        }
    }
    auto found = m_index.find(section);
    if (found != m_index.end()) {
        *found->second = node;
        m_index.erase(m_index.lower_bound(section + "."), m_index.lower_bound(section + "/"));
        return;
    }
    std::string::size_type dot = section.rfind('.');
    auto parent = m_index.find(dot == std::string::npos ? std::string() : section.substr(0, dot));
    if (parent == m_index.end()) {
        return;
    }
    ZeImapMime* holder = parent->second->get();
    holder->add_child(node);
    m_index[section] = &holder->children().back();
}

void ImapMimeParser::dump() {
    m_root.dump(0);
}

bool ImapMimeParser::printable(ContentType::SubType subtype) {
    return m_root && m_root->printable(subtype);
}

void ImapMimeParser::get_printable(ContentType::SubType subtype, std::list<ZeImapMimeRef>& out,
                                   bool flag) {
    if (m_root) {
        m_root->get_printable(subtype, out, flag);
    }
}

ZeImapMimeRef ze_mime_node_from_header(const char* data, std::size_t length, bool* has_encoding) {
    Corvane::HeaderContainer headers;
    headers.parse(data, length);
    ZeImapMimeRef made =
        ZeImapMimeRef::create(Corvane::ContentType::NONE, Corvane::ContentType::UNKNOWN_SUBTYPE);
    ZeImapMime& node = *made;
    const Corvane::Header* encoding = headers.find("Content-Transfer-Encoding");
    if (encoding != nullptr) {
        node.content_type().encoding = Corvane::stringAsEncoding(encoding->value());
    }
    if (has_encoding != nullptr) {
        *has_encoding = encoding != nullptr;
    }
    if (const Corvane::Header* h = headers.find("Content-Type")) {
        const Corvane::ContentType type(h->value());
        ZeContentType& ct = node.content_type();
        ct.media = type.mediaType();
        ct.subtype = type.subType();
        ct.charset = type.charset();
        ct.name = type.utf8name();
        ct.type_name = type.typeName();
        ct.subtype_name = type.subTypeName();
    }
    if (const Corvane::Header* h = headers.find("Content-Disposition")) {
        const Corvane::ContentDisposition disposition(h->value());
        node.disposition().type = disposition.type();
        node.disposition().filename = disposition.utf8fileName();
    }
    return made;
}
