#include "imap/ZeImapResponse.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "support/Debug.h"

const char* const Corvane::ImapRfc822Header = "RFC822.HEADER";

namespace {

const char* const kUnit = "ZeImapResponse";

// Exact word, any case (the tokenizer's own == is a prefix test).
bool is_word(const TokenIterator& token, const char* word) {
    return token.token() != nullptr && strcasecmp(token.token(), word) == 0;
}

// Decimal numbers as the server sends them; a missing or malformed number is
// 0, an oversized one is clamped instead of wrapping.
long long to_number(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    errno = 0;
    long long value = std::strtoll(text, nullptr, 10);
    return errno == ERANGE ? (value < 0 ? LLONG_MIN : LLONG_MAX) : value;
}

unsigned long to_unsigned(const char* text) {
    long long value = to_number(text);
    return value < 0 ? 0 : static_cast<unsigned long>(value);
}

unsigned int to_uint(const char* text) {
    unsigned long value = to_unsigned(text);
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

// A quoted string's content with its backslash escapes resolved; any other
// token as it is.
std::string unquote(const char* text) {
    if (text == nullptr) {
        return std::string();
    }
    std::size_t length = std::strlen(text);
    if (length < 2 || text[0] != '"' || text[length - 1] != '"') {
        return std::string(text, length);
    }
    std::string out;
    out.reserve(length - 2);
    for (std::size_t i = 1; i + 1 < length; ++i) {
        if (text[i] == '\\' && i + 2 < length) {
            ++i;
        }
        out += text[i];
    }
    return out;
}

bool starts_with(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

bool ends_with(const std::string& text, const char* suffix) {
    const std::size_t n = std::strlen(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

bool is_literal_marker(const TokenIterator& token) {
    return token.token() != nullptr && token.group() && token.open_char() == '{' &&
           token.kind() == TokenIterator::kGroup;
}

// A string that may arrive as a quoted string, an atom or a literal; a literal's
// bytes are read from the feeder and the rest of its line is consumed.
std::string astring(TokenIterator& token, ZeImapFeeder& feeder) {
    if (!is_literal_marker(token)) {
        return unquote(token.token());
    }
    const long size =
        static_cast<long>(std::min<unsigned long>(to_unsigned(token.token()), LONG_MAX));
    Corvane::Buffer bytes;
    feeder.readliteral_all(bytes, size, 1L << 20);
    feeder.nextline();
    return bytes.str();
}

// Where a continuation line closes the FETCH item list: the index of its
// first ")" without a matching "(" (quoted strings skipped), or -1.
long closing_paren(const Corvane::Buffer& line) {
    int depth = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < line.length(); ++i) {
        const char c = line[i];
        if (quoted) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                quoted = false;
            }
        } else if (c == '"') {
            quoted = true;
        } else if (c == '(') {
            ++depth;
        } else if (c == ')' && --depth < 0) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

// The size of a literal marker "{n}" ending the line, or -1.
long trailing_literal(const Corvane::Buffer& line) {
    const std::size_t length = line.length();
    if (length < 3 || line[length - 1] != '}') {
        return -1;
    }
    std::size_t open = length - 1;
    while (open > 0 && line[open - 1] >= '0' && line[open - 1] <= '9') {
        --open;
    }
    if (open == 0 || open == length - 1 || line[open - 1] != '{') {
        return -1;
    }
    return static_cast<long>(to_unsigned(line.data() + open));
}

// A line that starts another response: untagged, or a tagged completion.
bool starts_response(TokenIterator& token) {
    if (!token || is_word(token, "+")) {
        return false;
    }
    if (is_word(token, "*")) {
        return true;
    }
    token.next();
    return is_word(token, "OK") || is_word(token, "NO") || is_word(token, "BAD") ||
           is_word(token, "BYE");
}

}  // namespace

// ---------------------------------------------------------------- NOOP

int ZeImapResponseNoop::parse() {
    TokenIterator& token = m_feeder.token();
    const unsigned int number = to_uint(token.token());
    token.next();
    if (is_word(token, "EXISTS")) {
        m_exists = number;
    } else if (is_word(token, "RECENT") || is_word(token, "EXPUNGE")) {
        m_recent = number;
    }
    return 0;
}

void ZeImapResponseNoop::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump", "<NOOP> : dump");
}

// ---------------------------------------------------------------- SELECT

int ZeImapResponseSelect::parse() {
    TokenIterator& token = m_feeder.token();
    if (token.is_number() && *token.token() != '\0') {
        const unsigned int number = to_uint(token.token());
        token.next();
        if (is_word(token, "EXISTS")) {
            m_exists = number;
        } else if (is_word(token, "RECENT")) {
            m_recent = number;
        }
    } else if (is_word(token, "OK")) {
        token.next();
        if (token.group() && token.open_char() == '[') {
            TokenIterator code(token.token());
            while (code) {
                if (is_word(code, "UIDNEXT")) {
                    code.next();
                    m_uidnext =
                        static_cast<int>(std::min<long long>(to_number(code.token()), INT_MAX));
                } else if (is_word(code, "UIDVALIDITY")) {
                    code.next();
                    m_uidvalidity = to_unsigned(code.token());
                }
                code.next();
            }
        }
    }
    return 0;
}

void ZeImapResponseSelect::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump", "<SELECT> : dump");
}

// ---------------------------------------------------------------- LIST

int ZeImapResponseList::parse() {
    TokenIterator& token = m_feeder.token();
    if (!is_word(token, "LIST") && !is_word(token, "LSUB")) {
        return 2;
    }
    token.next();
    m_attributes = token.strip().asString();
    // The delimiter is the first character of the stripped token, so a NIL
    // delimiter (a flat hierarchy) reads as 'N'.
    token.next();
    if (token) {
        const std::string delimiter = token.strip().asString();
        if (!delimiter.empty()) {
            m_delimiter = delimiter[0];
        }
    }
    token.next();
    if (token) {
        m_name = astring(token, m_feeder);
        if (m_name == "INBOX") {
            m_name = "Inbox";
        }
    }
    return 0;
}

void ZeImapResponseList::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump", "<LIST> ATTR:%s,NAME:%s,delimiter:%c",
                       m_attributes.c_str(), m_name.c_str(), m_delimiter ? m_delimiter : ' ');
}

// ---------------------------------------------------------------- STATUS

int ZeImapResponseStatus::parse() {
    TokenIterator& token = m_feeder.token();
    if (!is_word(token, "STATUS")) {
        return 2;
    }
    token.next();
    // A name sent as a literal leaves the iterator at the start of the line
    // that follows the literal's bytes, i.e. on the list already.
    const bool from_literal = is_literal_marker(token);
    m_name = astring(token, m_feeder);
    if (!from_literal) {
        token.next();
    }
    TokenIterator& list = m_feeder.token();
    if (list.group() && list.open_char() == '(') {
        TokenIterator items(list.token());
        while (items) {
            get_value(items);
        }
    }
    return 0;
}

void ZeImapResponseStatus::get_value(TokenIterator& token) {
    const std::string key = token.asString();
    token.next();
    const long long value = to_number(token.token());
    const long clamped = static_cast<long>(value);
    if (strcasecmp(key.c_str(), "MESSAGES") == 0) {
        m_messages = clamped;
    } else if (strcasecmp(key.c_str(), "UNSEEN") == 0) {
        m_unseen = clamped;
    } else if (strcasecmp(key.c_str(), "RECENT") == 0) {
        m_recent = clamped;
    } else if (strcasecmp(key.c_str(), "UIDNEXT") == 0) {
        m_uidnext = clamped;
    } else if (strcasecmp(key.c_str(), "X-SIZE") == 0) {
        m_size = value;
    }
    token.next();  // unknown keys: their value is skipped with them
}

void ZeImapResponseStatus::dump() const {
    basepp::dbg::debug(
        kUnit, __LINE__, "dump",
        "<STATUS> FOLDER:%s,MESSAGES:%ld,RECENT:%ld,UNSEEN:%ld,UIDNEXT:%ld,X-SIZE:%lld",
        m_name.c_str(), m_messages, m_recent, m_unseen, m_uidnext, m_size);
}

// ---------------------------------------------------------------- GETQUOTA

int ZeImapResponseGetQuota::parse() {
    TokenIterator& token = m_feeder.token();
    if (!is_word(token, "QUOTA") && !is_word(token, "QUOTAROOT")) {
        return 2;
    }
    token.next();
    for (; token; token.next()) {
        if (token.group() && token.open_char() == '(') {
            TokenIterator items(token.token());
            while (items) {
                get_value(items);
            }
            break;
        }
    }
    return 0;
}

void ZeImapResponseGetQuota::get_value(TokenIterator& token) {
    const std::string key = token.asString();
    token.next();
    if (strcasecmp(key.c_str(), "STORAGE") == 0) {
        m_quota = m_usage = 0;
        m_usage = to_uint(token++);
        m_quota = to_uint(token++);
    } else if (strcasecmp(key.c_str(), "MESSAGES") == 0) {
        token.next();
        token.next();
    }
}

void ZeImapResponseGetQuota::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump", "<GETQUOTA> : quota:%u,usage:%u", m_quota, m_usage);
}

// ---------------------------------------------------------------- SEARCH

int ZeImapResponseUIDSearch::parse() {
    TokenIterator& token = m_feeder.token();
    if (!is_word(token, "SEARCH")) {
        return 2;
    }
    m_count = 0;
    m_result.clear();
    for (token.next(); token; token.next()) {
        if (m_count > 0) {
            m_result += ',';
        }
        m_result += token.token();
        ++m_count;
    }
    return 0;
}

void ZeImapResponseUIDSearch::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump", "<UIDSearch> : result list:%s", m_result.c_str());
}

void ZeImapResponseAppend::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump", "<APPEND> : dump");
}

// ---------------------------------------------------------------- UID FETCH

ZeImapResponseUIDFetch::ZeImapResponseUIDFetch(ZeImapFeeder& feeder) : ZeImapResponse(feeder) {}

// Back to the values after construction, in place: strings and buffers keep
// their storage for the next answer.
void ZeImapResponseUIDFetch::_reset() {
    m_data.seq = 0;
    m_data.uid = 0;
    m_data.fname.clear();
    m_data.flags.clear();
    m_data.size = 0;
    m_data.literal_size = -1;
    m_data.received = 0;
    m_data.mime.release();
    m_data.headers.clear();
    m_data.mime_headers.clear();
}

int ZeImapResponseUIDFetch::parse() {
    // The record of the previous answer comes back when this line is not a
    // usable answer. It is kept by swapping the two records, not copied (it
    // may hold header blocks), and the new one is reset in place.
    std::swap(m_data, m_previous);
    _reset();
    m_unread = 0;
    m_cut_short = false;

    TokenIterator& token = m_feeder.token();
    m_data.seq =
        static_cast<std::uint32_t>(std::min<unsigned long>(to_unsigned(token.token()), UINT32_MAX));
    token.next();
    if (!is_word(token, "FETCH")) {
        _restore_previous();
        return 2;
    }
    token.next();
    if (token.group() && token.open_char() == '(') {
        if (token.kind() == TokenIterator::kGroup) {
            TokenIterator items(token.token());
            while (items) {
                get_value(items);
            }
        } else {
            m_in_fetch = true;
            _parse(token);
        }
    }
    if (m_data.uid == 0) {
        basepp::dbg::debug(kUnit, __LINE__, "parse", ">>> not UID fetch response, skip !!!");
        _restore_previous();
        return 2;
    }
    return 1;
}

void ZeImapResponseUIDFetch::_restore_previous() {
    if (m_previous.uid != 0) {
        std::swap(m_data, m_previous);
    }
}

void ZeImapResponseUIDFetch::get_value(TokenIterator& token) {
    const std::string key = token.asString();
    token.next();
    if (strcasecmp(key.c_str(), "UID") == 0) {
        m_data.uid = to_unsigned(token++);
    } else if (strcasecmp(key.c_str(), "X-FNAME") == 0) {
        m_data.fname = unquote(token++);
        const std::string::size_type comma = m_data.fname.find(',');
        if (comma != std::string::npos) {
            m_data.fname.erase(comma);
        }
    } else if (strcasecmp(key.c_str(), "FLAGS") == 0) {
        m_data.flags.assign(token ? token.strip().token() : "");
        token.next();
    } else if (strcasecmp(key.c_str(), "RFC822.SIZE") == 0) {
        m_data.size = static_cast<long>(to_number(token++));
    } else if (strcasecmp(key.c_str(), "INTERNALDATE") == 0) {
        struct tm when = {};
        if (token) {
            strptime(token.strip().token(), "%d-%b-%Y %T %z", &when);
        }
        token.next();
        when.tm_isdst = -1;
        m_data.received = mktime(&when);
    } else if (strcasecmp(key.c_str(), "BODYSTRUCTURE") == 0) {
        // A structure that does not close on this line continues on the
        // next ones; the parser reads them and with them the end of this
        // answer.
        const bool spans_lines = token.group() && token.kind() == TokenIterator::kOpenGroup;
        ImapMimeParser parser(&m_feeder);
        parser.parse(token);
        m_data.mime = parser.root();
        token.next();
        if (spans_lines) {
            m_in_fetch = false;
        }
    }
}

void ZeImapResponseUIDFetch::_parse(TokenIterator& group) {
    TokenIterator items(group.token());
    bool closes = false;  // the first line leaves the item list open
    while (true) {
        if (_walk(items, closes)) {
            return;
        }
        if (!m_in_fetch) {
            return;
        }
        if (m_feeder.nextline() < 1 && m_feeder.curline().length() == 0) {
            m_cut_short = true;  // input ended inside the answer
            return;
        }
        const Corvane::Buffer& line = m_feeder.curline();
        const long at = closing_paren(line);
        closes = at >= 0;
        items.restart(closes ? std::string(line.data(), static_cast<std::size_t>(at)) : line.str());
    }
}

// One line of items. Literals: after an item ending in "]" (a header fetch
// such as BODY[HEADER.FIELDS (...)]) the bytes become the headers; after
// BODY[<section>.MIME] the section's MIME headers; any other literal (a body
// section, RFC822.HEADER, a whole message) is left unread for the caller.
bool ZeImapResponseUIDFetch::_walk(TokenIterator& items, bool closes) {
    std::string previous;
    while (items) {
        if (is_literal_marker(items)) {
            const long size =
                static_cast<long>(std::min<unsigned long>(to_unsigned(items.token()), LONG_MAX));
            if (previous == "]" ||
                (starts_with(previous, "BODY[") && ends_with(previous, ".MIME]"))) {
                Corvane::Buffer& into = previous == "]" ? m_data.headers : m_data.mime_headers;
                into.clear();
                const long keep = std::min(size, kMaxHeaderLiteral);
                into.reserve(static_cast<std::size_t>(keep) + 1);
                if (m_feeder.readliteral_all(into, size, keep) < size) {
                    m_cut_short = true;
                }
                return false;  // the answer goes on on the next line
            }
            m_data.literal_size = size;
            m_unread = size;
            return true;
        }
        previous = items.asString();
        get_value(items);
        if (!m_in_fetch) {
            return true;  // a structure spanning lines took the rest
        }
    }
    if (closes) {
        m_in_fetch = false;
    }
    return true;
}

void ZeImapResponseUIDFetch::_skip_unread_literal() {
    if (m_unread > 0) {
        Corvane::Buffer nothing;
        m_feeder.readliteral_all(nothing, m_unread, 0);
        m_unread = 0;
    }
}

void ZeImapResponseUIDFetch::cleanup() {
    if (!m_in_fetch) {
        return;
    }
    _skip_unread_literal();
    while (m_feeder.nextline() > 0 || m_feeder.curline().length() > 0) {
        TokenIterator& token = m_feeder.token();
        if (starts_response(token)) {
            // The answer ended without its ")": leave this line to the request.
            m_feeder.keep_line();
            break;
        }
        const Corvane::Buffer& line = m_feeder.curline();
        const long literal = trailing_literal(line);
        if (closing_paren(line) >= 0 && literal < 0) {
            break;
        }
        if (literal >= 0) {
            m_unread = literal;
            _skip_unread_literal();
        }
    }
    m_in_fetch = false;
}

long ZeImapResponseUIDFetch::retrieve_literal(Corvane::Buffer& buffer,
                                              unsigned long& remaining) const {
    return _retrieve(buffer, remaining, false);
}

long ZeImapResponseUIDFetch::retrieve_line(Corvane::Buffer& buffer,
                                           unsigned long& remaining) const {
    return _retrieve(buffer, remaining, true);
}

// Reads at most the smaller of the buffer's size and remaining bytes of the
// unread literal, or up to the end of a line when by_line is set.
long ZeImapResponseUIDFetch::_retrieve(Corvane::Buffer& buffer, unsigned long& remaining,
                                       bool by_line) const {
    if (remaining == 0) {
        return 0;
    }
    const std::size_t room = buffer.capacity() > 0 ? buffer.capacity() : 1024;
    const unsigned long ask =
        std::min<unsigned long>(std::min<unsigned long>(room, remaining), INT_MAX);
    const int got = by_line ? m_feeder.readline(buffer, static_cast<int>(ask))
                            : m_feeder.readliteral(buffer, static_cast<int>(ask));
    if (got < 1) {
        return 0;
    }
    remaining -= static_cast<unsigned long>(got);
    m_unread = std::max(0L, m_unread - got);
    return got;
}

void ZeImapResponseUIDFetch::dump() const {
    basepp::dbg::debug(kUnit, __LINE__, "dump",
                       "<UID FETCH> seq:%u,UID:%lu,flags:%s,rfc822 size:%ld,received:%ld",
                       m_data.seq, m_data.uid, m_data.flags.c_str(), m_data.size,
                       static_cast<long>(m_data.received));
}

// ---------------------------------------------------------------- factory

ZeImapResponseRef::ZeImapResponseRef(const ZeImapCommand& cmd, ZeImapFeeder& feeder) {
    ZeImapResponse* made = nullptr;
    switch (cmd.command()) {
        case ZeImapCommand::NOOP:
            made = new ZeImapResponseNoop(feeder);
            break;
        case ZeImapCommand::LIST:
            made = new ZeImapResponseList(feeder);
            break;
        case ZeImapCommand::STATUS:
            made = new ZeImapResponseStatus(feeder);
            break;
        case ZeImapCommand::SELECT:
            made = new ZeImapResponseSelect(feeder);
            break;
        case ZeImapCommand::FETCH:
        case ZeImapCommand::UID_FETCH:
            made = new ZeImapResponseUIDFetch(feeder);
            break;
        case ZeImapCommand::SEARCH:
        case ZeImapCommand::UID_SEARCH:
            made = new ZeImapResponseUIDSearch(feeder);
            break;
        case ZeImapCommand::GETQUOTA:
            made = new ZeImapResponseGetQuota(feeder);
            break;
        case ZeImapCommand::APPEND:
            made = new ZeImapResponseAppend(feeder);
            break;
        default:
            return;
    }
    Corvane::Ref<ZeImapResponse>::operator=(Corvane::Ref<ZeImapResponse>::adopt(made));
}
