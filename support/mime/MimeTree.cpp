#include "support/mime/MimeTree.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "foundation/TokenIterator.h"

namespace Corvane {

namespace {

// A multipart without parts is reported with this one empty part.
const char kEmptyPart[] =
    "(\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 0 0 NIL NIL NIL NIL)";

// Writes BODYSTRUCTURE the way the server's imap-bodystructure does. Recurses
// once per level of the tree, which the parser keeps below its nesting limit.
class BodyStructureWriter {
public:
    BodyStructureWriter(std::string& out, BodyStructureForm form)
        : m_out(out), m_wire(form == BodyStructureForm::WIRE) {}

    void part(const MimePart& part);

private:
    void _multipart(const MimePart& part);
    void _single(const MimePart& part);
    void _envelope(const MimeEnvelope& envelope);
    void _params(const std::vector<MimeParam>& params, bool default_charset);
    void _extension(const MimeFields& fields);

    // A string; with the wire form quoted when it can be, else a literal.
    void _string(const std::string& text);
    void _nstring(const std::optional<std::string>& text);
    // The same with CR and LF removed first.
    void _nstringNoLf(const std::optional<std::string>& text);
    // A subject: blanks and tabs collapsed to one blank, line ends removed,
    // blanks at the end dropped, zero bytes as 0x80.
    void _forHumans(const std::string& text);
    void _quoted(const std::string& text);
    void _literal(const std::string& text);

    std::string& m_out;
    bool m_wire;
};

void BodyStructureWriter::part(const MimePart& part) {
    if (part.isMultipart()) {
        _multipart(part);
    } else {
        _single(part);
    }
}

void BodyStructureWriter::_multipart(const MimePart& part) {
    if (part.children().empty()) {
        m_out += kEmptyPart;
    }
    for (const auto& child : part.children()) {
        m_out += '(';
        this->part(*child);
        m_out += ')';
    }
    m_out += ' ';
    _string(part.fields().subtype);
    m_out += ' ';
    _params(part.fields().params, false);
    _extension(part.fields());
}

void BodyStructureWriter::_single(const MimePart& part) {
    const MimeFields& fields = part.fields();
    bool text = false;
    if (part.isMessage()) {
        m_out += "\"message\" \"rfc822\"";
    } else if (part.overflow()) {
        m_out += "\"application\" \"octet-stream\"";
    } else if (!fields.has_type) {
        m_out += "\"text\" \"plain\"";
        text = true;
    } else {
        _string(fields.type);
        m_out += ' ';
        _string(fields.subtype);
        text = strcasecmp(fields.type.c_str(), "text") == 0;
    }
    m_out += ' ';
    _params(fields.params, text);
    m_out += ' ';
    _nstringNoLf(fields.id);
    m_out += ' ';
    _nstringNoLf(fields.description);
    m_out += ' ';
    if (fields.encoding) {
        _string(*fields.encoding);
    } else {
        m_out += "\"7bit\"";
    }
    m_out += ' ';
    m_out += std::to_string(part.body().size);
    if (text) {
        m_out += ' ';
        m_out += std::to_string(part.body().lines);
    } else if (const MimePart* message = part.message()) {
        m_out += " (";
        _envelope(message->envelope());
        m_out += ") (";
        this->part(*message);
        m_out += ") ";
        m_out += std::to_string(part.body().lines);
    }
    m_out += ' ';
    _nstringNoLf(fields.md5);
    _extension(fields);
}

void BodyStructureWriter::_envelope(const MimeEnvelope& envelope) {
    _nstringNoLf(envelope.date);
    m_out += ' ';
    if (envelope.subject) {
        _forHumans(*envelope.subject);
    } else {
        m_out += "NIL";
    }
    // from, sender, reply-to, to, cc, bcc
    m_out += " NIL NIL NIL NIL NIL NIL ";
    _nstringNoLf(envelope.in_reply_to);
    m_out += ' ';
    _nstringNoLf(envelope.message_id);
}

void BodyStructureWriter::_params(const std::vector<MimeParam>& params, bool default_charset) {
    if (params.empty() && !default_charset) {
        m_out += "NIL";
        return;
    }
    m_out += '(';
    bool charset = false;
    for (std::size_t i = 0; i < params.size(); ++i) {
        if (i > 0) {
            m_out += ' ';
        }
        charset = charset || strcasecmp(params[i].name.c_str(), "charset") == 0;
        _string(params[i].name);
        m_out += ' ';
        _string(params[i].value);
    }
    if (default_charset && !charset) {
        m_out += params.empty() ? "" : " ";
        m_out += "\"charset\" \"us-ascii\"";
    }
    m_out += ')';
}

// Disposition, language and location.
void BodyStructureWriter::_extension(const MimeFields& fields) {
    m_out += ' ';
    if (fields.disposition) {
        m_out += '(';
        _string(*fields.disposition);
        m_out += ' ';
        _params(fields.disposition_params, false);
        m_out += ')';
    } else {
        m_out += "NIL";
    }
    m_out += ' ';
    if (fields.languages.empty()) {
        m_out += "NIL";
    } else {
        m_out += '(';
        for (std::size_t i = 0; i < fields.languages.size(); ++i) {
            if (i > 0) {
                m_out += ' ';
            }
            _string(fields.languages[i]);
        }
        m_out += ')';
    }
    m_out += ' ';
    _nstringNoLf(fields.location);
}

void BodyStructureWriter::_string(const std::string& text) {
    if (!m_wire) {
        _quoted(text);
        return;
    }
    // Beyond four quotes and backslashes a literal is the shorter form.
    int escapes = 0;
    for (char c : text) {
        const bool special = c == '"' || c == '\\';
        if ((special && ++escapes > 4) || c == '\r' || c == '\n' ||
            static_cast<unsigned char>(c) >= 0x80) {
            _literal(text);
            return;
        }
    }
    _quoted(text);
}

void BodyStructureWriter::_nstring(const std::optional<std::string>& text) {
    if (text) {
        _string(*text);
    } else {
        m_out += "NIL";
    }
}

void BodyStructureWriter::_nstringNoLf(const std::optional<std::string>& text) {
    if (!text || text->find_first_of("\r\n") == std::string::npos) {
        _nstring(text);
        return;
    }
    std::string flat;
    for (char c : *text) {
        if (c != '\r' && c != '\n') {
            flat += c;
        }
    }
    _string(flat);
}

void BodyStructureWriter::_forHumans(const std::string& text) {
    bool modified = false;
    std::string clean;
    bool last_blank = true;  // drops blanks at the start
    for (char c : text) {
        switch (c) {
            case '\0':
                clean += static_cast<char>(0x80);
                last_blank = false;
                modified = true;
                break;
            case '\t':
            case ' ':
                modified = modified || c == '\t' || last_blank;
                if (!last_blank) {
                    clean += ' ';
                }
                last_blank = true;
                break;
            case '\r':
            case '\n':
                modified = true;
                break;
            default:
                modified =
                    modified || c == '"' || c == '\\' || static_cast<unsigned char>(c) >= 0x80;
                clean += c;
                last_blank = false;
                break;
        }
    }
    if (!clean.empty() && clean.back() == ' ') {
        clean.pop_back();
        modified = true;
    }
    if (!modified) {
        m_out += '"';
        m_out += text;
        m_out += '"';
    } else if (clean.empty() || !m_wire) {
        _quoted(clean);
    } else {
        _literal(clean);
    }
}

void BodyStructureWriter::_quoted(const std::string& text) {
    m_out += '"';
    for (char c : text) {
        if (c == '\0') {
            continue;
        }
        if (c == '"' || c == '\\') {
            m_out += '\\';
        }
        m_out += c;
    }
    m_out += '"';
}

void BodyStructureWriter::_literal(const std::string& text) {
    m_out += '{';
    m_out += std::to_string(text.size());
    m_out += "}\r\n";
    m_out += text;
}

// Splits "2.1.MIME" into the part numbers and the keyword.
void splitSection(const std::string& section, std::string& numbers, std::string& keyword) {
    static const char* const kKeywords[] = {"MIME", "HEADER", "TEXT"};
    numbers = section;
    keyword.clear();
    for (const char* word : kKeywords) {
        const std::size_t n = std::strlen(word);
        if (section.size() == n && strcasecmp(section.c_str(), word) == 0) {
            numbers.clear();
            keyword = word;
            return;
        }
        if (section.size() > n + 1 && section[section.size() - n - 1] == '.' &&
            strcasecmp(section.c_str() + section.size() - n, word) == 0) {
            numbers = section.substr(0, section.size() - n - 1);
            keyword = word;
            return;
        }
    }
}

// Bare LF as CR LF and zero bytes as 0x80, as BODY[] is sent.
void toImapForm(const char* data, std::size_t length, std::string& out) {
    out.reserve(length + length / 32);
    for (std::size_t i = 0; i < length; ++i) {
        const char c = data[i];
        if (c == '\n' && (i == 0 || data[i - 1] != '\r')) {
            out += '\r';
        }
        out += c == '\0' ? static_cast<char>(0x80) : c;
    }
}

// A message that is one plain 7-bit US-ASCII text part: the server keeps no
// structure text for it and later answers with its defaults, whatever case
// and spelling the fields had (only its very first answer, made while it
// parses the message, shows them as written).
bool plainSevenBit(const MimePart& root) {
    const MimeFields& f = root.fields();
    const bool text = !f.has_type || strcasecmp(f.type.c_str(), "text") == 0;
    const bool plain = !f.has_type || strcasecmp(f.subtype.c_str(), "plain") == 0;
    const bool ascii = f.params.empty() || (f.params.size() == 1 &&
                                            strcasecmp(f.params[0].name.c_str(), "charset") == 0 &&
                                            strcasecmp(f.params[0].value.c_str(), "us-ascii") == 0);
    return root.kind() == MimePart::LEAF && !root.overflow() && text && plain && ascii && !f.id &&
           !f.description && (!f.encoding || strcasecmp(f.encoding->c_str(), "7bit") == 0) &&
           !f.md5 && !f.disposition && f.languages.empty() && !f.location;
}

}  // namespace

std::string bodyStructure(const MimePart& root, BodyStructureForm form) {
    if (plainSevenBit(root)) {
        return "(\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" " +
               std::to_string(root.body().size) + " " + std::to_string(root.body().lines) +
               " NIL NIL NIL NIL)";
    }
    std::string out = "(";
    BodyStructureWriter(out, form).part(root);
    out += ')';
    return out;
}

bool sectionExtent(const MimePart& root, const std::string& section, MimeExtent& extent) {
    std::string numbers;
    std::string keyword;
    splitSection(section, numbers, keyword);
    const MimePart* part = root.find(numbers);
    if (part == nullptr || (numbers.empty() && keyword == "MIME")) {
        return false;
    }
    if (keyword.empty()) {
        if (numbers.empty()) {
            extent = root.header();
            extent.length += root.body().length;
            extent.lines += root.body().lines;
            extent.size += root.body().size;
        } else {
            extent = part->body();
        }
        return true;
    }
    if (keyword == "MIME") {
        extent = part->header();
        return true;
    }
    // HEADER and TEXT: of the message itself, or of the attached one.
    const MimePart* message = numbers.empty() ? &root : part->message();
    if (message == nullptr) {
        return false;
    }
    extent = keyword == "HEADER" ? message->header() : message->body();
    return true;
}

bool readSection(const char* data, std::size_t length, const MimePart& root,
                 const std::string& section, std::string& out, SectionForm form) {
    out.clear();
    MimeExtent extent;
    if (!sectionExtent(root, section, extent) || extent.end() > length) {
        return false;
    }
    const char* begin = data + extent.offset;
    if (form == SectionForm::IMAP) {
        toImapForm(begin, static_cast<std::size_t>(extent.length), out);
    } else {
        out.assign(begin, static_cast<std::size_t>(extent.length));
    }
    return true;
}

bool readSection(const std::string& path, const MimePart& root, const std::string& section,
                 std::string& out, SectionForm form) {
    out.clear();
    MimeExtent extent;
    if (!sectionExtent(root, section, extent)) {
        return false;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    std::string bytes(static_cast<std::size_t>(extent.length), '\0');
    std::size_t got = 0;
    while (got < bytes.size()) {
        const ssize_t n =
            ::pread(fd, &bytes[got], bytes.size() - got, static_cast<off_t>(extent.offset + got));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (got < bytes.size()) {
        return false;  // the file is shorter than when it was parsed
    }
    if (form == SectionForm::IMAP) {
        toImapForm(bytes.data(), bytes.size(), out);
    } else {
        out = std::move(bytes);
    }
    return true;
}

}  // namespace Corvane

ZeImapMimeRef toImapMime(const Corvane::MimePart& root) {
    const std::string text = bodyStructure(root, Corvane::BodyStructureForm::QUOTED);
    TokenIterator token(text);
    ImapMimeParser parser(nullptr);
    parser.parse(token);
    return parser.root();
}
