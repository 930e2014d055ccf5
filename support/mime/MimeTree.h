#ifndef ZEMAIL_SUPPORT_MIME_MIME_TREE_H
#define ZEMAIL_SUPPORT_MIME_MIME_TREE_H

// What the IMAP side needs from a message parsed on disk
// (support/mime/Rfc822MsgParser.h), so that file-backed mailboxes answer as
// the IMAP mailbox does:
//
//   bodyStructure(root)          the BODYSTRUCTURE text the server sends
//   toImapMime(root)             the ZeImapMime tree the IMAP mailbox builds
//   readSection(path, root, "2") the bytes of BODY[2]
//
//   Rfc822MsgParser parser;
//   auto root = parser.parseFile(path);
//   ZeImapMimeRef tree = toImapMime(*root);       // attached messages are leaves
//   std::string pdf;
//   readSection(path, *root, tree.find("2")->section(), pdf);
//
// The envelope of an attached message carries its date, subject,
// In-Reply-To and Message-ID; its six address fields are written as NIL
// (the IMAP side reads only the date and the subject).

#include <cstddef>
#include <string>

#include "imap/ZeImapMime.h"
#include "support/mime/MimePart.h"

namespace Corvane {

enum class BodyStructureForm {
    // As the server writes it: a string holding 8-bit bytes, a line end or
    // more than four quotes and backslashes goes out as a literal
    // "{n}\r\n<bytes>", every other one as a quoted string.
    WIRE,
    // Every string quoted (quote and backslash escaped, zero bytes dropped),
    // which is how ImapMimeParser gathers an answer that came with literals.
    QUOTED,
};

// The BODYSTRUCTURE value (the parenthesised list) for the message.
std::string bodyStructure(const MimePart& root, BodyStructureForm form = BodyStructureForm::WIRE);

enum class SectionForm {
    STORED,  // the bytes as stored
    IMAP,    // as the server sends them: bare LF as CR LF, zero bytes as 0x80
};

// Where BODY[section] lies: section is "" (the whole message), "HEADER",
// "TEXT", a part number ("2.1"), or a part number followed by ".MIME" (the
// part's own header), ".HEADER" or ".TEXT" (header and body of the message
// attached in a message/rfc822 part). Keywords in any case. False when the
// section names nothing (the server then answers with no bytes).
bool sectionExtent(const MimePart& root, const std::string& section, MimeExtent& extent);

// The bytes of BODY[section] of the message in [data, data + length) or in
// the file at path, whose tree is root. False, with out empty, when the
// section names nothing or the file cannot be read.
bool readSection(const char* data, std::size_t length, const MimePart& root,
                 const std::string& section, std::string& out,
                 SectionForm form = SectionForm::IMAP);
bool readSection(const std::string& path, const MimePart& root, const std::string& section,
                 std::string& out, SectionForm form = SectionForm::IMAP);

}  // namespace Corvane

// The IMAP side's tree for a parsed message: its BODYSTRUCTURE text read by
// ImapMimeParser, hence exactly the tree the IMAP mailbox builds for the same
// message (an attached message is one leaf named after its subject, a
// multipart without parts gets the server's empty text/plain part, and the
// parser's own limits apply). Null where the IMAP side makes no node either:
// a message whose single part has a type it does not know ("foo/bar", or a
// Content-Type it cannot read).
ZeImapMimeRef toImapMime(const Corvane::MimePart& root);

#endif
