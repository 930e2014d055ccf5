#ifndef ZEMAIL_IMAP_ZE_IMAP_MIME_H
#define ZEMAIL_IMAP_ZE_IMAP_MIME_H

// The MIME tree of a message.
//
// Read side: ImapMimeParser turns the BODYSTRUCTURE text of one FETCH answer
// into a tree of ZeImapMime nodes, each with its content type, size, line
// count, disposition and IMAP section number ("" for the root, then "1",
// "2.1", ...), which is what BODY[section] later asks for.
//
//   ImapMimeParser parser(&feeder);      // or nullptr: no continuation lines
//   parser.parse(items);                 // items stands on the BODYSTRUCTURE list
//   ZeImapMimeRef tree = parser.root();
//   ZeImapMimeRef& pdf = tree.find("2"); // empty handle when there is no section 2
//
// Write side: the composer builds a tree of nodes, gives leaves their content
// (set_body_content, set_attach_file), numbers the tree (assign_section_id),
// names the boundaries (set_boundaries) and writes it out (create_email).
//
// Nodes are shared through ZeImapMimeRef handles; a tree is not thread-safe.

#include <cstdint>
#include <list>
#include <map>
#include <ostream>
#include <string>
#include <utility>

#include "imap/ZeImapMimeFwd.h"
#include "include2/VantroRefcounted"
#include "support/Buffer.h"
#include "support/Media.h"
#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentEncoding.h"
#include "support/mime/ContentType.h"

class TokenIterator;
class ZeImapFeeder;

// A part's content type and the parameters the library keeps of it.
struct ZeContentType {
    Corvane::ContentType::MediaType media = Corvane::ContentType::NONE;
    Corvane::ContentType::SubType subtype = Corvane::ContentType::UNKNOWN_SUBTYPE;
    Corvane::ContentEncoding encoding = Corvane::ENCODING_NONE;
    std::string name;  // the "name" parameter, as received
    std::string charset;
    std::string boundary;
    std::string content_id;   // body-id without its quotes
    std::string description;  // body-description token as received (quotes, NIL kept)
    std::string extra;        // written verbatim after a ";" in the header
    std::string method;       // the "method" parameter (calendar parts)
    // The subtype and type as received, lower-cased, so that subtypes the
    // enumeration does not know can still be shown and compared.
    std::string subtype_name;
    std::string type_name;

    // The header value: "type/subtype", the charset, name and boundary
    // parameters, the extra text, then the Content-Transfer-Encoding and
    // Content-ID header lines.
    std::string value() const;
    // value() when the media type is set, else "".
    std::string asString() const;
};

// A part's disposition: its type and the file name in UTF-8.
struct ZeContentDisposition {
    Corvane::ContentDisposition::Type type = Corvane::ContentDisposition::NONE;
    std::string filename;
    std::string extra;  // not filled by the parser

    // "Content-Disposition: <type>" with the file name parameter; "" for NONE.
    std::string asString() const;
};

// "" + 0 -> ""; "" + 3 -> "3"; "2" + 1 -> "2.1"; any parent + 0 -> the parent.
std::string sectionAsString(const std::string& parent, int n);

// A walk over a tree (ZeImapMime::visit); a non-zero answer stops it.
class ZeImapMimeVisitor {
public:
    virtual ~ZeImapMimeVisitor() = default;
    virtual int process(ZeImapMime* node) = 0;
};

// A part described by its own MIME header (what BODY[<section>.MIME] brings):
// a new node typed from its Content-Type (media type, subtype, charset, the
// UTF-8 name), Content-Transfer-Encoding (left ENCODING_NONE without one) and
// Content-Disposition (kind, UTF-8 file name). Nothing else is set: the
// node has no section, size or children. has_encoding, when given, tells
// whether the header had a Content-Transfer-Encoding field.
ZeImapMimeRef ze_mime_node_from_header(const char* data, std::size_t length,
                                       bool* has_encoding = nullptr);

// Names the boundary of every multipart node: the prefix for the root, the
// prefix, "-" and the section below it.
class ZeAssignBoundary : public ZeImapMimeVisitor {
public:
    explicit ZeAssignBoundary(std::string prefix) : m_prefix(std::move(prefix)) {}
    int process(ZeImapMime* node) override;

private:
    std::string m_prefix;
};

// One node of a MIME tree.
class ZeImapMime : public Corvane::RefImpl {
public:
    // How text parts count as printable: every text subtype, or plain text only.
    enum CONVERT_TEXT { CONVERT_NONE = 0, CONVERT_PLAIN_ONLY = 1 };

    ZeImapMime() = default;
    ZeImapMime(Corvane::ContentType::MediaType media, Corvane::ContentType::SubType subtype);
    ~ZeImapMime() override;

    // Writes the node's section, content type, size, lines and disposition
    // to the debug log.
    virtual void dump();

    // ---- fields ---------------------------------------------------------
    const std::string& section() const { return m_section; }
    void section(const std::string& parent, int n) { m_section = sectionAsString(parent, n); }
    void set_section(const std::string& section) { m_section = section; }

    ZeContentType& content_type() { return m_content_type; }
    const ZeContentType& content_type() const { return m_content_type; }
    Corvane::ContentType::MediaType media_type() const { return m_content_type.media; }
    Corvane::ContentType::SubType sub_type() const { return m_content_type.subtype; }

    std::uint64_t size() const { return m_size; }
    void size(std::uint64_t octets) { m_size = octets; }
    // For text parts the line count; for other parts whatever number the
    // server put after the size (0 in practice).
    std::uint64_t lines() const { return m_lines; }
    void lines(std::uint64_t count) { m_lines = count; }

    ZeContentDisposition& disposition() { return m_disposition; }
    const ZeContentDisposition& disposition() const { return m_disposition; }

    std::list<ZeImapMimeRef>& children() { return m_children; }
    const std::list<ZeImapMimeRef>& children() const { return m_children; }

    const Corvane::MediaIn& content() const { return m_content; }
    bool has_content() const { return m_has_content; }

    // ---- tree -----------------------------------------------------------
    // Appends child unless the handle is empty.
    void add_child(ZeImapMimeRef& child);
    // Places a parsed node by its section: an empty section replaces the
    // root; a section already in the tree replaces that node (and drops its
    // subtree); otherwise the node becomes the last child of its parent
    // section, or is dropped when the parent is not in the tree.
    static void add_section(ZeImapMimeRef& root, ZeImapMimeRef& node);
    // Renumbers the subtree: this node becomes sectionAsString(parent, n),
    // its children 1, 2, 3 ... below it.
    void assign_section_id(const std::string& parent, int n);

    // Calls visitor.process on this node, then on each child's subtree in
    // order; the first non-zero answer stops the walk and is returned.
    int visit(ZeImapMimeVisitor& visitor);

    // ---- composing ------------------------------------------------------
    // The content becomes the file at path (read when the tree is written).
    void set_attach_file(const std::string& path);
    // The content becomes a copy of text.
    void set_body_content(const std::string& text);
    void set_boundaries(const std::string& prefix);
    // The part's Content-Type (with its encoding and id lines) and
    // Content-Disposition header lines.
    void mime_header(std::ostream& out);
    // The body below the part's header: a line break, then either every
    // child framed by this node's boundary, or the content run through the
    // encoder of the part's transfer encoding.
    void create_email(std::ostream& out);

    // ---- choosing what to display -----------------------------------------
    // Whether this single part is shown as a body part: never an attachment,
    // nor a message part when skipMessages is set; text parts (all of them,
    // or plain text only); message/delivery-status; inline images that no
    // HTML part refers to (no content id).
    bool is_printable(bool skipMessages, CONVERT_TEXT convert) const;
    // True when this node or one below it is multipart/related.
    bool findRelatedPart() const;
    // True when a text part of the subtype (or a message/delivery-status) can
    // be reached from here through multipart and other text or message
    // nodes. With flag set, message nodes and inline parts below the root
    // are not entered.
    bool findPrintablePart(Corvane::ContentType::SubType subtype, bool flag) const;
    // True when the walk through text, multipart and message nodes meets a
    // text part of the subtype that is not an attachment, or a
    // message/delivery-status part.
    bool printable(Corvane::ContentType::SubType subtype) const;
    // Collects the parts to display, in display order: of a
    // multipart/alternative the first child that leads to the wanted subtype
    // (else the last child that shows anything); of any other multipart every
    // child; a leaf when it is a text part of the wanted subtype that is not
    // an attachment, or when is_printable(flag, convert) says so.
    void get_printable(Corvane::ContentType::SubType subtype, std::list<ZeImapMimeRef>& out,
                       bool flag, CONVERT_TEXT convert = CONVERT_NONE);
    void get_printable_children(Corvane::ContentType::SubType subtype,
                                std::list<ZeImapMimeRef>& out, bool flag,
                                CONVERT_TEXT convert = CONVERT_NONE);
    // Every text part of the subtype that is not an attachment, node before
    // children.
    void get_printable_text_by_type(Corvane::ContentType::SubType subtype,
                                    std::list<ZeImapMimeRef>& out);

private:
    std::string m_section;
    ZeContentType m_content_type;
    std::uint64_t m_size = 0;
    std::uint64_t m_lines = 0;
    ZeContentDisposition m_disposition;
    std::list<ZeImapMimeRef> m_children;
    Corvane::MediaIn m_content;
    bool m_has_content = false;
};

// The handle of a node, with the tree look-ups.
class ZeImapMimeRef : public Corvane::Ref<ZeImapMime> {
public:
    using Corvane::Ref<ZeImapMime>::Ref;
    ZeImapMimeRef() = default;
    ZeImapMimeRef(const Corvane::Ref<ZeImapMime>& other)  // NOLINT: a plain handle converts
        : Corvane::Ref<ZeImapMime>(other) {}
    ZeImapMimeRef(Corvane::Ref<ZeImapMime>&& other) noexcept  // NOLINT
        : Corvane::Ref<ZeImapMime>(std::move(other)) {}

    // A new node of that type, everything else empty.
    static ZeImapMimeRef create(Corvane::ContentType::MediaType media,
                                Corvane::ContentType::SubType subtype);

    // Depth-first (node before children, children in order), exact byte
    // comparison. The answer is the handle inside the tree, so assigning to
    // it replaces that node; on a miss it is one shared empty handle, which
    // must not be assigned to.
    ZeImapMimeRef& find(const std::string& section);
    ZeImapMimeRef& findCid(const std::string& contentId);

    // Indents depth units on standard output, dumps the node to the debug
    // log, then the children at depth + 1.
    void dump(int depth = 0) const;
};

// The date and subject of an attached message, from its ENVELOPE.
class Rfc822MessageEnvelop {
public:
    explicit Rfc822MessageEnvelop(const char* envelope);

    const std::string& subject() const { return m_subject; }
    const std::string& date() const { return m_date; }
    const std::string& messageId() const { return m_messageId; }  // never filled

private:
    std::string m_subject;
    std::string m_date;
    std::string m_messageId;
};

// Builds a MIME tree from the BODYSTRUCTURE of one FETCH answer.
//
// The structure may span lines: a parameter with 8-bit bytes comes as an
// IMAP literal "{n}" at a line end, its bytes beginning the next line. The
// parser then reads on through the feeder (literal bytes exactly, then the
// rest of the line) until the structure's own group closes, and never reads
// a line past that. Without a feeder it parses what it was given.
//
// Bounded against a hostile server: the gathered text is capped at
// kMaxText bytes, nesting deeper than kMaxDepth levels is dropped, and no
// more than kMaxParts nodes are made. A malformed structure gives a partial
// tree, never an error.
class ImapMimeParser {
public:
    static constexpr std::size_t kMaxText = 16u << 20;
    static constexpr int kMaxDepth = 100;
    static constexpr int kMaxParts = 10000;

    explicit ImapMimeParser(ZeImapFeeder* feeder = nullptr) : m_feeder(feeder) {}

    // token stands on the BODYSTRUCTURE value (normally a "(" group, which
    // may be unterminated when the structure continues on further lines).
    // Builds the tree; returns 0.
    int parse(const TokenIterator& token);

    void parse_body(const char* text, const std::string& section, int partNo);
    int parse_mime_type(const char* text, const std::string& section, int& partNo);
    ZeImapMimeRef parse_text(const char* text, const std::string& section, int partNo);
    ZeImapMimeRef parse_image(const char* text, const std::string& section, int partNo);
    ZeImapMimeRef parse_audio(const char* text, const std::string& section, int partNo);
    ZeImapMimeRef parse_video(const char* text, const std::string& section, int partNo);
    ZeImapMimeRef parse_application(const char* text, const std::string& section, int partNo);
    ZeImapMimeRef parse_message(const char* text, const std::string& section, int partNo);
    // Reads type, subtype, parameters, body-id, description and encoding,
    // leaving the iterator on the size.
    void parse_contentType(TokenIterator& token, ZeContentType& type);
    void parse_disposition(const char* text, ZeContentDisposition& disposition);

    void add_section(ZeImapMimeRef& node);

    void dump();
    bool printable(Corvane::ContentType::SubType subtype);
    void get_printable(Corvane::ContentType::SubType subtype, std::list<ZeImapMimeRef>& out,
                       bool flag);

    // The tree built so far (empty before the first node).
    ZeImapMimeRef& root() { return m_root; }
    // The gathered structure text (literals rewritten as quoted strings).
    const Corvane::Buffer& text() const { return m_text; }
    // When the parser read continuation lines itself: what followed the
    // structure's closing bracket on the line where it closed (the rest of
    // the FETCH item list). "" otherwise.
    const std::string& trailing() const { return m_trailing; }

private:
    struct Scan;
    void _gather(const char* text, std::size_t length, Scan& scan, bool lineEnd);
    ZeImapMimeRef _leaf(Corvane::ContentType::MediaType media, const char* text,
                        const std::string& section, int partNo);
    bool _room();

    ZeImapMimeRef m_root;
    ZeImapFeeder* m_feeder = nullptr;
    Corvane::Buffer m_text;
    std::string m_trailing;
    int m_depth = 0;
    int m_parts = 0;
    // While parse() runs, where each section's handle sits in the tree, so
    // that placing a node costs a look-up instead of a walk of the tree.
    bool m_indexed = false;
    std::map<std::string, ZeImapMimeRef*> m_index;
};

#endif
