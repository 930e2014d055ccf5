#ifndef ZEMAIL_SUPPORT_MIME_RFC822_MSG_PARSER_H
#define ZEMAIL_SUPPORT_MIME_RFC822_MSG_PARSER_H

// Parses a message (RFC 5322 with MIME, RFC 2045/2046) into a tree of
// MimePart (support/mime/MimePart.h), the way the local IMAP server does:
//
//   - the header ends at its blank line, at a boundary line of an enclosing
//     multipart (the line end before it then belongs to the boundary), or at
//     the end of the input; a line without a colon is still a header line;
//   - a boundary line is "--" and an active boundary at the start of a line,
//     whatever follows; of several matching boundaries the longest wins, the
//     innermost among equally long ones; "--" after it ends the multipart;
//     a boundary of an outer multipart also ends the inner ones;
//   - a multipart/* without a boundary parameter has no parts; a part
//     without Content-Type is text/plain, or message/rfc822 inside a
//     multipart/digest; Content-* fields count only in MIME parts (with
//     MIME-Version or Content-Type, or inside a multipart);
//   - an unreadable Content-Type gives type and subtype "" and no parameters.
//
// Limits, those of the server: parts nest at most kMaxNesting levels deep
// (depths 0 to 99, the root being 0) and a message has at most kMaxParts
// parts. A multipart or message/rfc822 part that would open a deeper level
// becomes one opaque leaf (MimePart::overflow()), as does a message/rfc822
// part once kMaxParts parts exist; from then on no boundary is recognised
// either, so the part being read runs to the end of the message. A message
// nested 10,000 levels deep thus gives a tree 100 levels deep, built without
// recursion in time linear in its size.
//
// Input is untrusted and may be any bytes; nothing is read outside the
// given range, and the parser never fails: the worst input gives a single
// text part.
//
//   Rfc822MsgParser parser;
//   auto root = parser.parse(bytes.data(), bytes.size());
//   auto fromFile = parser.parseFile("/path/cur/1700000000.M1P1.host:2,S");
//
// A parser object holds no state between calls; it may be reused, and
// separate objects may run in parallel.

#include <cstddef>
#include <memory>
#include <string>

#include "support/Media.h"
#include "support/mime/MimePart.h"

namespace Corvane {

class Rfc822MsgParser {
public:
    static constexpr unsigned kMaxNesting = 100;
    static constexpr unsigned kMaxParts = 10000;
    // Boundaries are cut to this length before they are matched.
    static constexpr std::size_t kMaxBoundary = 80;

    // The tree of the message in [data, data + length).
    std::unique_ptr<MimePart> parse(const char* data, std::size_t length) const;
    std::unique_ptr<MimePart> parse(const std::string& bytes) const {
        return parse(bytes.data(), bytes.size());
    }
    // Reads the stream to its end first; a null handle reads as empty.
    std::unique_ptr<MimePart> parse(MediaIn& in) const;
    // The message in the file at path; nullptr when it cannot be read.
    std::unique_ptr<MimePart> parseFile(const std::string& path) const;
};

}  // namespace Corvane

#endif
