#include "model/ZeMFilters.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <memory>
#include <vector>

#include "model/ZeMailBox.h"
#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentEncoding.h"
#include "support/mime/ContentType.h"
#include "support/mime/Encoders.h"
#include "support/mime/MimePart.h"
#include "support/mime/Rfc822MsgParser.h"
#include "support/mime/Rfc2047.h"

namespace zem_search {

namespace {

// Length of the UTF-8 sequence that starts with lead, 0 when lead cannot
// start one (continuation bytes, overlong two-byte leads, leads above U+10FFFF).
std::size_t sequence_length(unsigned char lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        return 4;
    }
    return 0;
}

// True when the continuation bytes of the sequence at text[i] are well-formed,
// rejecting overlong forms, surrogates and code points above U+10FFFF.
bool continuation_ok(const std::string& text, std::size_t i, std::size_t length) {
    if (i + length > text.size()) {
        return false;
    }
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(k) & 0xC0) != 0x80) {
            return false;
        }
    }
    const unsigned char lead = byte(0);
    if (length == 3) {
        return !(lead == 0xE0 && byte(1) < 0xA0) && !(lead == 0xED && byte(1) >= 0xA0);
    }
    if (length == 4) {
        return !(lead == 0xF0 && byte(1) < 0x90) && !(lead == 0xF4 && byte(1) >= 0x90);
    }
    return true;
}

bool utf8(const std::string& text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = sequence_length(static_cast<unsigned char>(text[i]));
        if (length == 0 || !continuation_ok(text, i, length)) {
            return false;
        }
        i += length;
    }
    return true;
}

// ATOM-CHAR of RFC 3501: printable ASCII except "(){ %*\"\\]".
bool atom_char(unsigned char c) {
    return c > 0x20 && c < 0x7F &&
           std::string("(){%*\"\\]").find(static_cast<char>(c)) == std::string::npos;
}

unsigned char fold(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c - 'A' + 'a') : c;
}

}  // namespace

bool searchable(const std::string& text) {
    if (text.size() > kMaxTextBytes) {
        return false;
    }
    if (text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
        return false;
    }
    return utf8(text);
}

bool header_name(const std::string& name) {
    if (name.empty() || name.size() > 255) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char ch) {
        const auto c = static_cast<unsigned char>(ch);
        return c > 0x20 && c < 0x7F && c != ':';
    });
}

std::string quoted(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 2);
    out += '"';
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
        }
        out += c;
    }
    out += '"';
    return out;
}

std::string astring(const std::string& text) {
    const bool atom = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return atom_char(static_cast<unsigned char>(c));
    });
    return atom ? text : quoted(text);
}

bool contains(const std::string& haystack, const std::string& needle) {
    const auto it = std::search(
        haystack.begin(), haystack.end(), needle.begin(), needle.end(), [](char a, char b) {
            return fold(static_cast<unsigned char>(a)) == fold(static_cast<unsigned char>(b));
        });
    return it != haystack.end() || needle.empty();
}

std::string decoded_value(const std::string& value) {
    return vantro_decode_rfc2047(value);
}

bool headers_contain(const Corvane::HeaderContainer& headers, const std::string& needle) {
    for (const Corvane::Header& header : headers.headers()) {
        if (contains(header.name() + ": " + decoded_value(header.value()), needle)) {
            return true;
        }
    }
    return false;
}

std::string read_message(ZeMDirectMessage& message) {
    Corvane::MediaIn in = message.media();
    std::string bytes;
    if (in.isNull()) {
        return bytes;
    }
    char chunk[65536];
    while (bytes.size() < kMaxMessageBytes) {
        const long got = in->read(chunk, std::min(sizeof chunk, kMaxMessageBytes - bytes.size()));
        if (got <= 0) {
            break;
        }
        bytes.append(chunk, static_cast<std::size_t>(got));
    }
    return bytes;
}

std::string part_text(const std::string& bytes, const Corvane::MimePart& part) {
    const Corvane::MimeExtent& body = part.body();
    if (body.offset >= bytes.size()) {
        return std::string();
    }
    const std::string stored = bytes.substr(body.offset, body.length);  // length is clamped
    std::string decoded = Corvane::decode_string(part.encoding(), stored);
    std::string converted;
    if (Corvane::convert_to_utf8(part.charset(), decoded, converted)) {
        return converted;
    }
    return decoded;
}

bool text_contains(const std::string& bytes, const std::string& needle) {
    const std::unique_ptr<Corvane::MimePart> root =
        Corvane::Rfc822MsgParser().parse(bytes.data(), bytes.size());
    std::vector<const Corvane::MimePart*> pending{root.get()};
    while (!pending.empty()) {
        const Corvane::MimePart* part = pending.back();
        pending.pop_back();
        if (part == nullptr) {
            continue;
        }
        if (headers_contain(part->headers(), needle)) {
            return true;
        }
        if (part->kind() == Corvane::MimePart::LEAF && !part->overflow() &&
            (part->mediaType() == Corvane::ContentType::TEXT ||
             part->mediaType() == Corvane::ContentType::MESSAGE) &&
            contains(part_text(bytes, *part), needle)) {
            return true;
        }
        for (const auto& child : part->children()) {
            pending.push_back(child.get());
        }
    }
    return false;
}

}  // namespace zem_search

namespace {

ZeMFilterRef adopt(ZeMFilterImpl* filter) {
    return ZeMFilterRef(Corvane::Ref<ZeMFilterImpl>::adopt(filter));
}

}  // namespace

// ---- FZeMSearchText --------------------------------------------------------

ZeMFilterRef FZeMSearchText::create(const std::string& text) {
    if (!zem_search::searchable(text)) {
        return ZeMFilterRef();
    }
    return adopt(new FZeMSearchText(text));
}

std::string FZeMSearchText::imap_criteria() const {
    return "TEXT " + zem_search::quoted(m_text);
}

bool FZeMSearchText::match(ZeMessageEnv& /*envelope*/) {
    return true;  // needs the headers and the body
}

bool FZeMSearchText::match(ZeMessageBase& message) {
    auto* direct = dynamic_cast<ZeMDirectMessage*>(&message);
    if (direct == nullptr) {
        return zem_search::headers_contain(message.headers(), m_text);
    }
    return zem_search::text_contains(zem_search::read_message(*direct), m_text);
}

// ---- FZeMStatus ------------------------------------------------------------

ZeMFilterRef FZeMStatus::create(const ZeMessageFlags& flags) {
    if (flags.action < ZeMessageFlags::ALL_SET || flags.action > ZeMessageFlags::ANY_KEYWORD) {
        return ZeMFilterRef();
    }
    return adopt(new FZeMStatus(flags));
}

unsigned long FZeMStatus::searched_bits() const {
    unsigned long bits = 0;
    for (const auto& entry : ZeMessageFlags::m_imapActionFlags) {
        bits |= entry.first;  // every named bit has a key (system or KEYWORD)
    }
    bits &= m_flags.flags;
    if (m_flags.action == ZeMessageFlags::ANY_KEYWORD) {
        bits &= ~ZeMessageFlags::SYSTEM_MASK;
    }
    return bits;
}

std::string FZeMStatus::imap_criteria() const {
    const std::string keys = m_flags.asImapFilterString();
    return keys.empty() ? std::string("ALL") : "(" + keys + ")";
}

bool FZeMStatus::match(ZeMessageEnv& /*envelope*/) {
    return true;  // decided on the message's own flags
}

bool FZeMStatus::match(ZeMessageBase& message) {
    const unsigned long wanted = searched_bits();
    if (wanted == 0) {
        return true;
    }
    const unsigned long have = message.flags().flags & wanted;
    switch (m_flags.action) {
        case ZeMessageFlags::ALL_SET:
            return have == wanted;
        case ZeMessageFlags::ALL_UNSET:
            return have == 0;
        default:
            return have != 0;
    }
}

// ---- FZeMHeader ------------------------------------------------------------

ZeMFilterRef FZeMHeader::create(const std::string& name, const std::string& text) {
    if (!zem_search::header_name(name) || !zem_search::searchable(text)) {
        return ZeMFilterRef();
    }
    return adopt(new FZeMHeader(name, text));
}

std::string FZeMHeader::imap_criteria() const {
    std::string upper = m_name;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    for (const char* key : {"FROM", "TO", "CC", "BCC", "SUBJECT"}) {
        if (upper == key) {
            return upper + " " + zem_search::quoted(m_text);
        }
    }
    return "HEADER " + zem_search::astring(m_name) + " " + zem_search::quoted(m_text);
}

bool FZeMHeader::match(ZeMessageEnv& /*envelope*/) {
    return true;  // needs the headers
}

bool FZeMHeader::match(ZeMessageBase& message) {
    for (const Corvane::Header& header : message.headers().headers()) {
        if (header.is(m_name) &&
            zem_search::contains(zem_search::decoded_value(header.value()), m_text)) {
            return true;
        }
    }
    return false;
}

// ---- FZeMAttachment --------------------------------------------------------

namespace {

bool part_is_attachment(const ZeImapMime& part, bool top) {
    const auto disposition = part.disposition().type;
    if (disposition == Corvane::ContentDisposition::ATTACHMENT) {
        return true;
    }
    if (top || part.media_type() == Corvane::ContentType::MULTIPART) {
        return false;
    }
    if (part.media_type() == Corvane::ContentType::MESSAGE &&
        part.sub_type() == Corvane::ContentType::RFC822) {
        return true;
    }
    const bool named = !part.disposition().filename.empty() || !part.content_type().name.empty();
    return named && disposition != Corvane::ContentDisposition::INLINE;
}

// Depth-first over the tree without recursion, so a deep tree cannot
// exhaust the stack.
bool tree_has_attachment(const ZeImapMimeRef& root) {
    std::vector<std::pair<const ZeImapMime*, bool>> pending{{root.get(), true}};
    while (!pending.empty()) {
        const auto [part, top] = pending.back();
        pending.pop_back();
        if (part == nullptr) {
            continue;
        }
        if (part_is_attachment(*part, top)) {
            return true;
        }
        for (const ZeImapMimeRef& child : part->children()) {
            pending.emplace_back(child.get(), false);
        }
    }
    return false;
}

}  // namespace

ZeMFilterRef FZeMAttachment::create() {
    return adopt(new FZeMAttachment());
}

std::string FZeMAttachment::imap_criteria() const {
    return "OR HEADER Content-Type \"multipart/mixed\" HEADER Content-Disposition \"attachment\"";
}

bool FZeMAttachment::header_says_attachment(const Corvane::HeaderContainer& headers) {
    for (const Corvane::Header& header : headers.headers()) {
        if ((header.is("Content-Type") &&
             zem_search::contains(header.value(), "multipart/mixed")) ||
            (header.is("Content-Disposition") &&
             zem_search::contains(header.value(), "attachment"))) {
            return true;
        }
    }
    return false;
}

bool FZeMAttachment::match(ZeMessageEnv& /*envelope*/) {
    return true;  // needs the MIME tree or the headers
}

bool FZeMAttachment::match(ZeMessageBase& message) {
    const ZeImapMimeRef& tree = message.mime();
    if (!tree.isNull()) {
        return tree_has_attachment(tree);
    }
    return header_says_attachment(message.headers());
}
