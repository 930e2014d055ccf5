#ifndef ZEMAIL_SUPPORT_MIME_MIME_PART_H
#define ZEMAIL_SUPPORT_MIME_MIME_PART_H

// One part of a parsed message and the parts below it, as Rfc822MsgParser
// builds them from a message file (support/mime/Rfc822MsgParser.h).
//
// The tree is the one the local IMAP server (Dovecot) builds for the same
// bytes, so that a mailbox read from disk shows what the IMAP mailbox shows:
// the same parts and section numbers, the same sizes and line counts, the
// same content types, parameters and dispositions, and the same bytes for
// BODY[section] (support/mime/MimeTree.h).
//
//   Rfc822MsgParser parser;
//   std::unique_ptr<MimePart> root = parser.parseFile(path);
//   const MimePart* pdf = root->find("2");          // nullptr if there is none
//   pdf->fields().type, pdf->body().size, pdf->contentDisposition().utf8fileName()
//
// Three kinds of part:
//   MULTIPART  a multipart/* part; its children are the parts between its
//              boundaries, none when it has no usable boundary (the server
//              then reports one empty text/plain part in it);
//   MESSAGE    a message/rfc822 part (or a part without Content-Type inside a
//              multipart/digest); its one child is the attached message,
//              whose own header is the attached message's header;
//   LEAF       everything else, including a part cut short by the limits.
//
// Sizes are those of the server: a part's body size counts every line feed
// not preceded by a carriage return as two bytes (CR LF), its line count is
// the number of line feeds (a last line without one is not counted), and the
// line end before a boundary line belongs to the boundary, not to the part.
//
// A tree is immutable once built and may be read from several threads.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentEncoding.h"
#include "support/mime/ContentType.h"
#include "support/mime/Header.h"

namespace Corvane {

class MimePartBuilder;

// Where a part's header or body lies in the message, and its size as the
// IMAP server reports it.
struct MimeExtent {
    std::uint64_t offset = 0;  // first byte, counted from the start of the message
    std::uint64_t length = 0;  // bytes as stored
    std::uint64_t lines = 0;   // line feeds
    std::uint64_t size = 0;    // length, with each bare line feed counted as CR LF

    std::uint64_t end() const { return offset + length; }
};

// A Content-Type or Content-Disposition parameter as the server lists it:
// RFC 2231 continuations joined ("name*" then holds "utf-8''r%C3%A9.pdf"),
// nothing decoded, the name's case kept.
struct MimeParam {
    std::string name;
    std::string value;
};

// The Content-* fields of a part as the server reads them for BODYSTRUCTURE.
// Unset optional fields are NIL there. A part that is not MIME (no
// MIME-Version and no Content-Type, and not inside a multipart) has none.
struct MimeFields {
    bool has_type = false;  // a Content-Type field was read
    std::string type;       // as written; "" when the field is unreadable
    std::string subtype;    // as written; "" when there is none
    std::vector<MimeParam> params;
    std::optional<std::string> id;
    std::optional<std::string> description;
    std::optional<std::string> encoding;  // Content-Transfer-Encoding, when valid
    std::optional<std::string> md5;
    std::optional<std::string> disposition;  // its type word, as written
    std::vector<MimeParam> disposition_params;
    std::vector<std::string> languages;
    std::optional<std::string> location;
};

// The unstructured ENVELOPE fields of an attached message, as written (the
// last of each field wins, as with the server). Addresses are not kept.
struct MimeEnvelope {
    std::optional<std::string> date;
    std::optional<std::string> subject;
    std::optional<std::string> in_reply_to;
    std::optional<std::string> message_id;
};

class MimePart {
public:
    enum Kind { LEAF = 0, MULTIPART = 1, MESSAGE = 2 };

    MimePart() = default;
    MimePart(const MimePart&) = delete;
    MimePart& operator=(const MimePart&) = delete;

    Kind kind() const { return m_kind; }
    bool isMultipart() const { return m_kind == MULTIPART; }
    bool isMessage() const { return m_kind == MESSAGE; }
    // True for a part declared multipart/* or message/rfc822 that the parser
    // took as one opaque leaf because it lies too deep or comes after too
    // many parts (Rfc822MsgParser::kMaxNesting, kMaxParts). The server then
    // reports it as application/octet-stream.
    bool overflow() const { return m_overflow; }
    // A MIME-Version or Content-Type field was seen, or the part is inside a
    // multipart; only then are its Content-* fields read.
    bool isMime() const { return m_mime; }

    // "" for the root; "1", "2.1" below it, as IMAP numbers parts, so that
    // root.find(part.section()) is the part. The attached message of a
    // message/rfc822 part numbered S is "S.1" when it is a single part (the
    // address of its body); a multipart attached message has no number of
    // its own: it carries S, and its parts are "S.1", "S.2", ... (A top-level
    // message/rfc822 counts as part "1" here.)
    const std::string& section() const { return m_section; }
    const MimePart* parent() const { return m_parent; }
    // 0 for the root.
    unsigned depth() const { return m_depth; }
    const std::vector<std::unique_ptr<MimePart>>& children() const { return m_children; }
    // The attached message of a MESSAGE part, else nullptr.
    const MimePart* message() const;

    // The header (up to and including the blank line that ends it, when there
    // is one) and the body. For a MESSAGE part the body is the whole attached
    // message; for a MULTIPART part it runs from the preamble to the epilogue.
    const MimeExtent& header() const { return m_header; }
    const MimeExtent& body() const { return m_body; }

    // The header fields, parsed by HeaderContainer from the header bytes.
    const HeaderContainer& headers() const { return m_headers; }
    // The fields the server reports, and for the attached message of a
    // MESSAGE part its envelope fields.
    const MimeFields& fields() const { return m_fields; }
    const MimeEnvelope& envelope() const { return m_envelope; }

    // The media type and subtype as the server reports them, defaults
    // applied: "message" "rfc822" for a MESSAGE part, "application"
    // "octet-stream" for an overflow part, "text" "plain" without a
    // Content-Type, "multipart" and the subtype as written for a MULTIPART
    // part, otherwise as written.
    std::string typeName() const;
    std::string subtypeName() const;
    ContentType::MediaType mediaType() const { return stringAsType(typeName()); }
    ContentType::SubType subType() const { return stringAsSubType(subtypeName()); }
    // The charset parameter, or "us-ascii" for a text part without one (""
    // for other parts without one).
    std::string charset() const;
    // The transfer encoding; 7bit when there is no valid field.
    ContentEncoding encoding() const;
    // The content type with its parameters decoded (RFC 2231 and RFC 2047),
    // and the disposition with its file name decoded.
    ContentType contentType() const;
    ContentDisposition contentDisposition() const;

    // The part IMAP BODY[section] addresses ("" is the whole message, "2.1"
    // the first part inside section 2, "1" the body of a single-part message),
    // or nullptr. Only numbers: no ".MIME", ".HEADER" or ".TEXT".
    const MimePart* find(const std::string& section) const;

    // Parts in this subtree, this one included.
    std::size_t count() const;

private:
    // The server counts the body's lines (and adds the default charset) for
    // these: a leaf whose type is text, or that has no type.
    bool _textual() const;

    friend class MimePartBuilder;  // Rfc822MsgParser's builder

    Kind m_kind = LEAF;
    bool m_overflow = false;
    bool m_mime = false;
    bool m_digest = false;  // multipart/digest: children default to message/rfc822
    unsigned m_depth = 0;
    std::string m_section;
    MimePart* m_parent = nullptr;
    std::vector<std::unique_ptr<MimePart>> m_children;
    MimeExtent m_header;
    MimeExtent m_body;
    HeaderContainer m_headers;
    MimeFields m_fields;
    MimeEnvelope m_envelope;
};

}  // namespace Corvane

#endif
