#ifndef ZEMAIL_MODEL_ZE_M_FILTERS_H
#define ZEMAIL_MODEL_ZE_M_FILTERS_H

// The filters of a search: text, status, header and attachment. Each is made
// by its create(), which answers a null handle for an argument that cannot be
// searched (see zem_search::searchable), and is combined with the others and
// a scope through ZeMScopeAndFilterImpl (andFilter, orFilter).
//
//   ZeMScopeAndFilterRef sf = ZeMScopeAndFilterRef::createScopeAndFilter();
//   sf->andFilter(FZeMHeader::create("Subject", "report"));
//   sf->orFilter(FZeMAttachment::create());
//   sf->andFilter(FZeMStatus::create(ZeMessageFlags(ZeMessageFlags::SEEN,
//                                                   ZeMessageFlags::ALL_UNSET)));
//   sf->imap_criteria();  // (OR (SUBJECT "report") (OR HEADER ...)) ((UNSEEN))
//
// Every filter answers one IMAP search key (a parenthesised list when it needs
// several), so it can stand as an operand of OR. Caller text only ever
// reaches the server inside a quoted string, with '"' and '\' escaped; text
// holding CR, LF or NUL, or bytes that are not UTF-8, is refused. 8-bit text
// goes out as UTF-8 inside the quoted string, without a CHARSET argument: the
// server reads search strings as UTF-8 (IMAP4rev2 does so by rule; the local
// Dovecot does so for IMAP4rev1 too). The key cannot carry a CHARSET of its
// own because the mailbox puts "UNDELETED" in front of it.
//
// Local matching (stores read from disk) follows the server where it can:
// substring search, ASCII letters compared without case, RFC 2047 words in
// header values decoded first. Where the two inevitably part, it is written
// at the filter.

#include <cstddef>
#include <string>
#include <utility>

#include "model/ZeMScopeAndFilter.h"
#include "model/ZeMessageFlags.h"
#include "support/mime/Header.h"

class ZeMDirectMessage;

namespace zem_search {

// The longest text a filter or scope accepts.
constexpr std::size_t kMaxTextBytes = 4096;
// A direct message is searched up to this many bytes.
constexpr std::size_t kMaxMessageBytes = 32u << 20;

// True when text can go to the server: at most kMaxTextBytes, well-formed
// UTF-8 (ASCII included), no CR, LF or NUL.
bool searchable(const std::string& text);
// True for a header field name: 1 to 255 printable ASCII bytes, no ':'.
bool header_name(const std::string& name);
// An IMAP quoted string: "a\"b\\c" for a"b\c. Only for searchable() text.
std::string quoted(const std::string& text);
// An IMAP astring: the text itself when it is a non-empty atom, else quoted.
std::string astring(const std::string& text);
// True when needle occurs in haystack, ASCII letters compared without case
// (bytes above 127 compare exactly). An empty needle occurs everywhere.
bool contains(const std::string& haystack, const std::string& needle);
// The header's value with its RFC 2047 words decoded to UTF-8.
std::string decoded_value(const std::string& value);

// True when a header field, as "Name: value" with the value's RFC 2047 words
// decoded, contains needle.
bool headers_contain(const Corvane::HeaderContainer& headers, const std::string& needle);
// A direct message's bytes, at most kMaxMessageBytes.
std::string read_message(ZeMDirectMessage& message);
// True when the message in bytes contains needle where the server looks for
// TEXT: in the header fields of the message and of every part (words
// decoded), and in the body of every text part, decoded from its transfer
// encoding and converted to UTF-8 from its charset, and of every message part
// kept whole (delivery-status, partial, rfc822-headers). Other bodies (images,
// signatures, application data) are not searched.
bool text_contains(const std::string& bytes, const std::string& needle);

}  // namespace zem_search

// Messages whose headers or body contain the text: "TEXT \"text\"".
// Locally a direct message is parsed into its parts and searched as
// zem_search::text_contains says, as the server does; other messages are
// matched on their headers only. The server folds case beyond ASCII (and
// treats a few decoding details its own way): locally a non-ASCII letter
// matches only itself.
class FZeMSearchText : public ZeMFilterImpl {
public:
    static ZeMFilterRef create(const std::string& text);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;

    const std::string& text() const { return m_text; }

private:
    explicit FZeMSearchText(std::string text) : m_text(std::move(text)) {}
    std::string m_text;
};

// Messages by their flags, with a search code of ZeMessageFlags (4 every
// given flag set, 5 every given flag unset, 6 one of the given keywords set):
// the key is ZeMessageFlags::asImapFilterString() in parentheses, "ALL" when
// no given bit has a search key. Locally the message's flags() are tested the
// same way; bits without a search key (the Maildir-only 0x2000) are ignored on
// both sides. Stores on disk keep no \Recent, so RECENT never matches there.
class FZeMStatus : public ZeMFilterImpl {
public:
    // A null handle unless flags.action is 4, 5 or 6.
    static ZeMFilterRef create(const ZeMessageFlags& flags);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;

    // The given bits that have a search key.
    unsigned long searched_bits() const;
    const ZeMessageFlags& flags() const { return m_flags; }

private:
    explicit FZeMStatus(const ZeMessageFlags& flags) : m_flags(flags) {}
    ZeMessageFlags m_flags;
};

// Messages with a header field of that name whose value contains the text;
// an empty text selects the messages that have the field at all. From, To,
// Cc, Bcc and Subject use their own keys ("FROM \"ann\""), any other name
// "HEADER <name> \"text\"". Locally every field of that name is tried, its
// value with RFC 2047 words decoded. The server reads address fields through
// its address parser (comments dropped, blanks normalised): text that spans
// such details may match on one side only.
class FZeMHeader : public ZeMFilterImpl {
public:
    // A null handle for a bad field name or text.
    static ZeMFilterRef create(const std::string& name, const std::string& text);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;

private:
    FZeMHeader(std::string name, std::string text)
        : m_name(std::move(name)), m_text(std::move(text)) {}
    std::string m_name;
    std::string m_text;
};

// Messages with an attachment. IMAP has no such key; the server is asked for
// the usual signs in the top header: "OR HEADER Content-Type
// \"multipart/mixed\" HEADER Content-Disposition \"attachment\"".
// Locally, when the message has a MIME tree, a message has an attachment when
// a part below the top is a message/rfc822 part or a leaf that is either
// disposed as attachment or carries a file name without being disposed
// inline; the top part counts when it is disposed as attachment. Without a
// tree the top header is read the way the server reads it. The two differ on
// a multipart/mixed message of text parts only (server yes, tree no) and on
// an attachment below another multipart type (server no, tree yes).
class FZeMAttachment : public ZeMFilterImpl {
public:
    static ZeMFilterRef create();

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;

    // The header test alone (what the server decides).
    static bool header_says_attachment(const Corvane::HeaderContainer& headers);

private:
    FZeMAttachment() = default;
};

#endif
