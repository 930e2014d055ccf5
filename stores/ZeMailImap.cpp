#include "stores/ZeMailImap.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <streambuf>
#include <vector>

#include "imap/ZeImapProcessor.h"
#include "imap/ZeImapResponse.h"
#include "model/ZeMImapSession.h"
#include "support/Debug.h"
#include "support/Exception.h"
#include "support/Paths.h"

namespace {

const char* const kUnit = "ZeMailImap";

// Where the records that administrators and tests look for come from: they
// keep these lines whatever the file looks like.
constexpr int kLineDeletedSearch = 330;
constexpr int kLineUndeletedSearch = 358;
constexpr int kLineUidList = 399;
constexpr int kLineSearch = 505;
constexpr int kLineOpenFetch = 609;
constexpr int kLineAppendFile = 1174;
constexpr int kLineAppendUid = 1211;
constexpr int kLineSelect = 1236;

// \Recent belongs to the server: no STORE or APPEND may name it.
constexpr unsigned long kStorable = ~ZeMessageFlags::RECENT;

const char* const kDeletedFlagText = " +FLAGS (\\Deleted)";

// Texts that go on the command line as they are must not end it.
bool safe_on_the_wire(const std::string& text) {
    return text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

std::vector<std::string> split_uids(const std::string& uids) {
    std::vector<std::string> out;
    std::string::size_type start = 0;
    while (start <= uids.size() && !uids.empty()) {
        const std::string::size_type comma = uids.find(',', start);
        const std::string one =
            uids.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!one.empty()) {
            out.push_back(one);
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return out;
}

// The value of a text of decimal digits only; 0 for anything else and for
// values that do not fit.
unsigned long digits_value(const std::string& text) {
    if (text.empty() || text.size() > 20 ||
        text.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    errno = 0;
    const unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    return errno == ERANGE ? 0 : value;
}

}  // namespace

std::string ze_uid_set(const std::string& uids) {
    std::vector<unsigned long> numbers;
    for (const std::string& item : split_uids(uids)) {
        const unsigned long uid = digits_value(item);
        if (uid != 0) {
            numbers.push_back(uid);
        }
    }
    std::string out;
    std::size_t i = 0;
    while (i < numbers.size()) {
        const unsigned long first = numbers[i];
        unsigned long last = first;
        std::size_t j = i + 1;
        while (j < numbers.size() && last < ULONG_MAX && numbers[j] == last + 1) {
            ++last;
            ++j;
        }
        if (!out.empty()) {
            out += ',';
        }
        out += std::to_string(first);
        if (last != first) {
            out += ':' + std::to_string(last);
        }
        i = j;
    }
    return out;
}

namespace {

// Keeps the flags of the FETCH answer for one UID.
class FlagsReader : public ZeImapProcessor {
public:
    explicit FlagsReader(unsigned long uid) : m_uid(uid) {}
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& response) override {
        if (response.data().uid == m_uid) {
            flags.set(response.data().flags);
            seen = true;
        }
        return 0;
    }
    ZeMessageFlags flags;
    bool seen = false;

private:
    unsigned long m_uid;
};

// The highest UID among the FETCH answers.
class HighestUid : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& response) override {
        uid = std::max(uid, response.data().uid);
        return 0;
    }
    unsigned long uid = 0;
};

// The MIME tree of the FETCH answer for one UID.
class StructureReader : public ZeImapProcessor {
public:
    explicit StructureReader(unsigned long uid) : m_uid(uid) {}
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& response) override {
        if (response.data().uid == m_uid && !response.data().mime.isNull()) {
            tree = response.data().mime;
        }
        return 0;
    }
    ZeImapMimeRef tree;

private:
    unsigned long m_uid;
};

// Whether a STATUS answer came, and its message count.
class StatusReader : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseStatus& response) override {
        messages = response.messages();
        seen = true;
        return 0;
    }
    long messages = 0;
    bool seen = false;
};

// A stream writing into a MediaOut, which it does not end.
class MediaOutBuf : public std::streambuf {
public:
    explicit MediaOutBuf(Corvane::MediaOut& out) : m_out(out) {}

protected:
    std::streamsize xsputn(const char* data, std::streamsize n) override {
        return m_out->write(data, static_cast<std::size_t>(n)) < 0 ? 0 : n;
    }
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) {
            return traits_type::not_eof(c);
        }
        const char byte = traits_type::to_char_type(c);
        return m_out->write(&byte, 1) < 0 ? traits_type::eof() : c;
    }

private:
    Corvane::MediaOut& m_out;
};

// The bytes of a message to append, taken before the server is told their
// number: the literal announced is then exactly what is sent, whatever
// happens to the file meanwhile (a file that shrank or went would leave the
// server waiting for the rest and the stream out of step). Up to
// kInMemory bytes are kept in memory, larger messages in a private file in
// the spool's tmp folder ("mbox_append_...").
class AppendSnapshot {
public:
    static constexpr std::size_t kInMemory = 1u << 20;

    enum Taken { kTaken, kNotAFile, kNoCopy };

    // kNotAFile when the file cannot be opened or is not a regular file,
    // kNoCopy when it cannot be read or a large one cannot be copied (a full
    // spool); errno tells why.
    Taken take(const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return kNotAFile;
        }
        struct stat st;
        Taken result = kNotAFile;
        if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
            result = _copy(fd) ? kTaken : kNoCopy;
        }
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return result;
    }
    long long size() const { return m_size; }
    ZeImapProcessorRef processor() const {
        return m_copy ? ZeImapProcessorRef::make<ZeImapProcessAppend>(m_copy->path())
                      : ZeImapProcessorRef::make<ZeImapProcessAppend>(m_bytes);
    }

private:
    bool _copy(int fd) {
        char chunk[64 * 1024];
        while (true) {
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got < 0) {
                return false;
            }
            if (got == 0) {
                return !m_copy || _flush();
            }
            m_size += got;
            m_bytes.append(chunk, static_cast<std::size_t>(got));
            if (m_bytes.length() > kInMemory && !_flush()) {
                return false;
            }
        }
    }
    // Moves what is held in memory to the private file (made on first use).
    bool _flush() {
        if (!m_copy) {
            m_copy.reset(new Corvane::TempFile(std::string(), "mbox_append_"));
        }
        const char* at = m_bytes.data();
        std::size_t left = m_bytes.length();
        while (left > 0 && m_copy->fd() >= 0) {
            const ssize_t put = ::write(m_copy->fd(), at, left);
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put <= 0) {
                return false;
            }
            at += put;
            left -= static_cast<std::size_t>(put);
        }
        m_bytes.clear();
        return left == 0;
    }

    Corvane::Buffer m_bytes;
    std::unique_ptr<Corvane::TempFile> m_copy;
    long long m_size = 0;
};

}  // namespace

std::vector<std::string> ze_split_uid_set(const std::string& set, std::size_t max) {
    std::vector<std::string> pieces;
    std::string::size_type start = 0;
    while (start < set.size()) {
        std::string::size_type end = set.size();
        if (end - start > max) {
            // The last comma that keeps the piece within max, else the first
            // one after it (an item longer than max goes whole).
            const std::string::size_type comma = set.rfind(',', start + max);
            end = comma != std::string::npos && comma > start ? comma : set.find(',', start);
            if (end == std::string::npos) {
                end = set.size();
            }
        }
        pieces.push_back(set.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

unsigned long ze_appended_uid(const std::string& line) {
    static const std::string kCode = "[APPENDUID ";
    const std::string::size_type at = line.find(kCode);
    if (at == std::string::npos) {
        return 0;
    }
    // "<validity> <uid>]": two runs of digits.
    const std::string::size_type validity = at + kCode.size();
    const std::string::size_type blank = line.find(' ', validity);
    if (blank == std::string::npos || digits_value(line.substr(validity, blank - validity)) == 0) {
        return 0;
    }
    const std::string::size_type close = line.find(']', blank + 1);
    if (close == std::string::npos) {
        return 0;
    }
    return digits_value(line.substr(blank + 1, close - blank - 1));
}

const char* const ZeMailBoxImap::INTERESTED_MESSAGED_INFO =
    " (UID X-FNAME FLAGS RFC822.SIZE INTERNALDATE BODY.PEEK[HEADER.FIELDS (From To Cc Bcc "
    "Reply-To Subject Date Message-ID In-Reply-To References Content-Type "
    "Disposition-Notification-To Importance X-ZE-RECEIPT X-ZE-ORIG-ENV-FROM X-ZE-ORIG-ENV-RCPT "
    "X-ZE-Encryption-MessageID)])";

std::string ze_cut_uid_list(const std::string& uids, long start, long end) {
    const std::vector<std::string> list = split_uids(uids);
    const long count = static_cast<long>(list.size());
    std::string out;
    for (long i = 0; i < count; ++i) {
        const long position = count - 1 - i;  // 0 is the newest, the last one
        if (position >= start && position < end) {
            if (!out.empty()) {
                out += ',';
            }
            out += list[static_cast<std::size_t>(i)];
        }
    }
    return out;
}

// ---------------------------------------------------------------- ZeMessageImap

ZeMessageImap::ZeMessageImap(unsigned long uid, const std::string& basename,
                             const Corvane::HeaderContainer& headers, time_t received,
                             unsigned long size)
    : m_size(size) {
    m_uid = uid;
    m_basename = basename;
    m_headers = headers;
    m_received = received;
    m_env = Corvane::Ref<ZeMessageEnv>::adopt(new ZeMessageImapEnv(
        uid, basename, received, size, headers.get("Message-ID"), headers.get("From"), m_flags));
}

void ZeMessageImap::flags(const ZeMessageFlags& value) {
    ZeMessageBase::flags(value);
    if (auto* env = dynamic_cast<ZeMessageImapEnv*>(m_env.get())) {
        env->status(value);
    }
}

// ---------------------------------------------------------------- ZeMailBoxImap

ZeMailBoxImap::ZeMailBoxImap(ZeMUserRef user, const std::string& folder, bool option1, bool create)
    : ZeMailboxBase(user),
      m_create(create ? 1 : 0),
      m_option1(option1 ? 1 : 0),
      // The connection's pipes are one object whichever user it serves;
      // each operation first makes sure they serve this mailbox's user.
      m_request(ZeImapConnection::instance()->program().io()) {
    m_folder = folder;
    if (!ze_imap_quote_folder(folder, m_quoted_folder)) {
        m_quoted_folder.clear();
    }
    m_cursor = m_messages.end();
}

ZeMailBoxImap::ZeMailBoxImap(ZeMUserRef user, const std::string& folder, unsigned long op)
    : ZeMailBoxImap(user, folder, false, (op & 4) != 0) {}

ZeMailBoxImap::~ZeMailBoxImap() = default;

bool ZeMailBoxImap::_session() {
    return !m_user.isNull() && ze_imap_session(m_user->id()) != nullptr;
}

const std::string& ZeMailBoxImap::last_error() const {
    return m_request.last_error();
}

int ZeMailBoxImap::select_imap_folder(long* exists, long* recent, long* uidnext) {
    int result = 4;
    if (!m_quoted_folder.empty() && _session()) {
        ZeImapTimeoutGuard timeout(m_request, kDefaultTimeout);
        result = m_request.request(ImapRequestSelect, m_quoted_folder);
        // A server that left instead of answering gets one more chance.
        if (result == 0 && ze_imap_recover(m_user->id())) {
            result = m_request.request(ImapRequestSelect, m_quoted_folder);
        }
        // No answer at all (a server that died or hangs) is a failure, not
        // an empty folder.
        if (result == 0 && !m_request.answered()) {
            result = 4;
        }
    }
    if (result != 0) {
        basepp::dbg::debug(kUnit, kLineSelect, "select_imap_folder", "Failed to open mailbox %s",
                           m_folder.c_str());
        throw Corvane::Exception("Failed to open mailbox!", 4, kUnit, kLineSelect);
    }
    const auto* answer = dynamic_cast<const ZeImapResponseSelect*>(m_request.responser().get());
    if (exists != nullptr) {
        *exists = answer != nullptr ? static_cast<long>(answer->exists()) : 0;
    }
    if (recent != nullptr) {
        *recent = answer != nullptr ? static_cast<long>(answer->recent()) : 0;
    }
    if (uidnext != nullptr) {
        *uidnext = answer != nullptr ? answer->uidnext() : 0;
    }
    return 0;
}

int ZeMailBoxImap::select_folder() {
    return select_imap_folder(nullptr, nullptr, nullptr);
}

int ZeMailBoxImap::open() {
    if (m_opened != 0) {
        return 1;
    }
    close(true);
    m_searched = 0;
    long total = 0;
    select_imap_folder(&total, nullptr, nullptr);

    std::string uids;
    if (!m_scope_filter.isNull() && m_scope_filter->has_filter()) {
        if (search_uid_list(uids, &total) != 0) {
            return 1;
        }
    } else {
        get_uid_list(uids, &total);
    }
    if (uids.empty()) {
        return 1;
    }

    // Many scattered UIDs make a set too long for one command line: it goes
    // out in pieces, each loading its messages.
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    fetch.set_processor(ZeImapProcessorRef::make<ZeImapFetchHeaders>(this));
    for (const std::string& set : ze_split_uid_set(ze_uid_set(uids), kMaxUidSet)) {
        if (m_request.request(fetch, set + INTERESTED_MESSAGED_INFO) != 0) {
            basepp::dbg::debug(kUnit, kLineOpenFetch, "open",
                               "ZeMailBoxImap::open() UID FETCH failed");
        }
    }
    m_cursor = m_messages.begin();
    m_opened = 1;
    return 1;
}

void ZeMailBoxImap::reset() {
    m_cursor = m_messages.begin();
}

int ZeMailBoxImap::next() {
    if (m_cursor == m_messages.end()) {
        m_current.release();
        return 0;
    }
    m_current = *m_cursor;
    ++m_cursor;
    return 1;
}

ZeMessageRef& ZeMailBoxImap::fetch() {
    return m_current;
}

void ZeMailBoxImap::close(bool full) {
    m_messages.clear();
    m_cursor = m_messages.end();
    m_current.release();
    if (full) {
        m_opened = 0;
    }
}

void ZeMailBoxImap::add_message(const ZeMessageRef& message) {
    if (!message.isNull()) {
        m_messages.push_back(message);
    }
}

void ZeMailBoxImap::_forget(unsigned long uid) {
    for (auto it = m_messages.begin(); it != m_messages.end(); ++it) {
        if ((*it)->uid() == uid) {
            if (m_cursor == it) {
                ++m_cursor;
            }
            m_messages.erase(it);
            return;
        }
    }
}

void ZeMailBoxImap::_requested_range(long& start, long& end) const {
    start = 0;
    end = kDefaultPage;
    long scope_start = 0;
    long scope_end = 0;
    if (!m_scope_filter.isNull() && m_scope_filter->range(scope_start, scope_end)) {
        start = scope_start;
        end = scope_end;
    }
}

int ZeMailBoxImap::_long_search(const std::string& key, long* start, long* end) {
    std::string args = key;
    if (start != nullptr && end != nullptr) {
        args = std::to_string(*start) + ":" + std::to_string(*end) + " " + key;
    }
    ZeImapTimeoutGuard timeout(m_request, kLongTimeout);
    return m_request.request(ImapRequestUidSearch, args);
}

int ZeMailBoxImap::_get_undeleted_uid_list(std::string& uids, long* start, long* end) {
    if (start != nullptr && end != nullptr && *start == 0 && *end == 0) {
        return 0;
    }
    if (_long_search("UNDELETED", start, end) != 0) {
        basepp::dbg::debug(kUnit, kLineUndeletedSearch, "_get_undeleted_uid_list",
                           "ZeMailBoxImap::_get_undeleted_uid_list() SEARCH UNDELETED failed");
    }
    if (m_request.responser().isNull()) {
        return 4;
    }
    const auto* answer = dynamic_cast<const ZeImapResponseUIDSearch*>(m_request.responser().get());
    if (answer == nullptr) {
        return 0;
    }
    uids = answer->result();
    return answer->count();
}

int ZeMailBoxImap::get_uid_list(std::string& uids, long* total) {
    long req_start = 0;
    long req_end = 0;
    _requested_range(req_start, req_end);
    uids.clear();
    // A range that holds no position (a caller's own scope may answer one)
    // asks for nothing; paging backwards through it would never end.
    if (req_start < 0 || req_end <= req_start) {
        return 0;
    }

    long bstart = 0;
    long bend = 0;
    long bcount = 0;
    if (total != nullptr && *total > 0) {
        long n = std::min(req_end, *total);
        if (n == *total) {
            n = n - 1;
        }
        bend = *total;
        bstart = *total - n;
        bcount = _get_undeleted_uid_list(uids, &bstart, &bend);
    } else {
        bcount = _get_undeleted_uid_list(uids, nullptr, nullptr);
    }
    basepp::dbg::debug(kUnit, kLineUidList, "get_uid_list",
                       "ZeMailBoxImap::get_uid_list() req_start=%ld, req_end=%ld, bstart=%ld, "
                       "bend=%ld, bcount=%ld",
                       req_start, req_end, bstart, bend, bcount);

    // Deleted messages left the page short: read further back, page by page.
    // The first pages have the requested size; after kFixedPages each page
    // doubles, so that a folder that claims billions of messages (a broken
    // or hostile server) costs a few dozen searches, not one per page.
    long span = req_end - req_start;
    int pages = 0;
    while (bcount < req_end && bstart >= 2) {
        if (++pages > kFixedPages && span < LONG_MAX / 2) {
            span *= 2;
        }
        bend = bstart - 1;
        bstart = std::max(bend - span, 1L);
        std::string page;
        const int found = _get_undeleted_uid_list(page, &bstart, &bend);
        if (!page.empty()) {
            uids = uids.empty() ? page : page + "," + uids;
        }
        bcount += found;
    }
    uids = ze_cut_uid_list(uids, req_start, req_end);
    return 0;
}

int ZeMailBoxImap::search_uid_list(std::string& uids, long*) {
    uids.clear();
    std::string criteria =
        m_scope_filter.isNull() ? std::string() : m_scope_filter->imap_criteria();
    if (!safe_on_the_wire(criteria)) {
        basepp::dbg::debug(kUnit, kLineSearch, "search_uid_list",
                           "ZeMailBoxImap::search_uid_list() UID SEARCH failed");
        return 4;
    }
    const std::string args = criteria.empty() ? "UNDELETED" : "UNDELETED " + criteria;
    int result;
    {
        ZeImapTimeoutGuard timeout(m_request, kSearchTimeout);
        result = m_request.request(ImapRequestUidSearch, args);
    }
    if (result != 0) {
        basepp::dbg::debug(kUnit, kLineSearch, "search_uid_list",
                           "ZeMailBoxImap::search_uid_list() UID SEARCH failed");
        return result;
    }
    const auto* answer = dynamic_cast<const ZeImapResponseUIDSearch*>(m_request.responser().get());
    if (answer == nullptr || answer->result().empty()) {
        m_searched = 0;
        return 0;
    }
    uids = answer->result();
    m_searched = answer->count();
    long start = 0;
    long end = 0;
    if (!m_scope_filter.isNull() && m_scope_filter->range(start, end)) {
        uids = ze_cut_uid_list(uids, start, end);
    }
    return 0;
}

int ZeMailBoxImap::_get_deleted_uid(long* start, long* end) {
    if (m_user.isNull() || !m_user->hasImapAccess(m_folder)) {
        return 0;
    }
    try {
        select_folder();
    } catch (const Corvane::Exception&) {
        return 0;
    }
    if (_long_search("DELETED", start, end) != 0) {
        basepp::dbg::debug(kUnit, kLineDeletedSearch, "_get_deleted_uid",
                           "ZeMailBoxImap::_get_deleted_uid() SEARCH DELETED failed");
        return 0;
    }
    const auto* answer = dynamic_cast<const ZeImapResponseUIDSearch*>(m_request.responser().get());
    return answer != nullptr ? answer->count() : 0;
}

long ZeMailBoxImap::total_messages() {
    if (m_quoted_folder.empty() || !_session()) {
        return 0;
    }
    ze_imap_noop(m_request, m_user->id());
    ZeImapCommand status(ZeImapCommand::STATUS);
    ZeImapProcessorRef reader = ZeImapProcessorRef::make<StatusReader>();
    status.set_processor(reader);
    const int result = m_request.request(status, m_quoted_folder + " (messages)");
    const auto* answer = static_cast<const StatusReader*>(reader.get());
    if (result != 0 || !answer->seen) {
        return 0;
    }
    const long messages = answer->messages;
    return std::max(0L, messages - _get_deleted_uid(nullptr, nullptr));
}

int ZeMailBoxImap::modify_message(const std::string& key, const ZeMessageFlags& flags) {
    const unsigned long uid = ze_message_key_uid(key);
    if (uid == 0) {
        return 4;
    }
    select_folder();
    const std::string target = std::to_string(uid);
    ZeMessageFlags wanted(flags.flags & kStorable, flags.action);
    int result = 0;
    switch (flags.action) {
        case ZeMessageFlags::ADD:
            result = m_request.request(ImapRequestUidStore,
                                       target + " +FLAGS (" + wanted.asImapActionString() + ")");
            break;
        case ZeMessageFlags::REMOVE:
            result = m_request.request(ImapRequestUidStore,
                                       target + " -FLAGS (" + wanted.asImapActionString() + ")");
            break;
        case ZeMessageFlags::REPLACE: {
            ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
            ZeImapProcessorRef reader = ZeImapProcessorRef::make<FlagsReader>(uid);
            fetch.set_processor(reader);
            result = m_request.request(fetch, target + " (FLAGS)");
            const auto* current = static_cast<const FlagsReader*>(reader.get());
            if (result == 0 && !current->seen) {
                result = 4;  // no such message
            }
            const ZeMessageFlags old(current->flags.flags & kStorable);
            if (result == 0 && !old.asImapActionString().empty()) {
                result = m_request.request(ImapRequestUidStore,
                                           target + " -FLAGS (" + old.asImapActionString() + ")");
            }
            if (result == 0 && !wanted.asImapActionString().empty()) {
                result = m_request.request(
                    ImapRequestUidStore, target + " +FLAGS (" + wanted.asImapActionString() + ")");
            }
            break;
        }
        default:
            return 0;
    }
    if (result != 0) {
        return 4;
    }
    for (ZeMessageRef& message : m_messages) {
        if (message->uid() == uid) {
            ZeMessageFlags merged = message->flags();
            merged.merge(flags);
            message->flags(merged);
        }
    }
    return 0;
}

int ZeMailBoxImap::move_message(const std::string& key, const std::string& to_folder) {
    const unsigned long uid = ze_message_key_uid(key);
    std::string quoted;
    if (uid == 0 || to_folder.find("../") != std::string::npos ||
        !ze_imap_quote_folder(to_folder, quoted)) {
        return 4;
    }
    select_folder();
    int result;
    {
        ZeImapTimeoutGuard timeout(m_request, kLongTimeout);
        result = m_request.request(ImapRequestUidMove, std::to_string(uid) + " " + quoted);
    }
    if (result == 0) {
        _forget(uid);
    }
    return result;
}

int ZeMailBoxImap::remove_message(const std::string& key, bool permanent) {
    const unsigned long uid = ze_message_key_uid(key);
    if (uid == 0) {
        return 4;
    }
    select_folder();
    const std::string args = std::to_string(uid) + kDeletedFlagText;
    if (m_request.request(ImapRequestUidStore, args) != 0) {
        return 4;
    }
    _forget(uid);
    if (!permanent) {
        return 0;
    }
    // The expunge carries the STORE's text after the UID as well.
    return m_request.request(ImapRequestUidExpunge, args) == 0 ? 0 : 4;
}

int ZeMailBoxImap::expunge() {
    select_folder();
    return m_request.request(ZeImapCommand(ZeImapCommand::EXPUNGE), "");
}

int ZeMailBoxImap::clean() {
    long exists = 0;
    select_imap_folder(&exists, nullptr, nullptr);
    if (exists == 0) {
        return 0;
    }
    int result;
    {
        ZeImapTimeoutGuard timeout(m_request, kLongTimeout);
        result = m_request.request(ImapRequestUidStore, " 1:* +FLAGS.SILENT (\\Deleted)");
        if (!m_user.isNull()) {
            const std::string dir = m_user->id().mailfolder(m_folder);
            if (!dir.empty()) {
                ::unlink((dir + "/.vt_folder_size").c_str());
            }
        }
    }
    if (result == 0) {
        close(false);
    }
    return result;
}

ZeMessageRef ZeMailBoxImap::retrieve_message(unsigned long uid) {
    for (const ZeMessageRef& message : m_messages) {
        if (message->uid() == uid) {
            return message;
        }
    }
    return uid == 0 ? ZeMessageRef() : message_by_uid(uid);
}

ZeMessageRef ZeMailBoxImap::retrieve_message(const std::string& key) {
    const unsigned long uid = ze_message_key_uid(key);
    return uid == 0 ? ZeMessageRef() : retrieve_message(uid);
}

ZeMessageRef ZeMailBoxImap::message_by_uid(unsigned long uid) {
    if (uid == 0) {
        return ZeMessageRef();
    }
    select_folder();
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    ZeImapProcessorRef reader = ZeImapProcessorRef::make<ZeImapFetchHeaders>();
    fetch.set_processor(reader);
    m_request.request(fetch, std::to_string(uid) + INTERESTED_MESSAGED_INFO);
    const ZeMessageRef& found = static_cast<const ZeImapFetchHeaders*>(reader.get())->message();
    if (found.isNull() || found->uid() != uid) {
        return ZeMessageRef();
    }
    return found;
}

ZeImapMimeRef ZeMailBoxImap::retrieve_mime(ZeMessageRef& message) {
    if (message.isNull() || message->uid() == 0) {
        return ZeImapMimeRef();
    }
    if (!message->mime().isNull()) {
        return ZeImapMimeRef(message->mime());
    }
    select_folder();
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    ZeImapProcessorRef reader = ZeImapProcessorRef::make<StructureReader>(message->uid());
    fetch.set_processor(reader);
    m_request.request(fetch, std::to_string(message->uid()) + " (BODYSTRUCTURE)");
    const ZeImapMimeRef& tree = static_cast<const StructureReader*>(reader.get())->tree;
    if (!tree.isNull()) {
        message->mime(tree);
    }
    return ZeImapMimeRef(tree);
}

int ZeMailBoxImap::_fetch_section(std::ostream* out, unsigned long uid, const std::string& items,
                                  Corvane::ContentEncoding encoding, ZeImapMimeRef* node) {
    select_folder();
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    ZeImapProcessorRef reader = ZeImapProcessorRef::make<ZeImapFetchBodySection>(out, encoding);
    fetch.set_processor(reader);
    const int result = m_request.request(fetch, std::to_string(uid) + items);
    if (node != nullptr) {
        *node = static_cast<const ZeImapFetchBodySection*>(reader.get())->node();
    }
    // Without the tagged answer the bytes written may be only part of the
    // section (the server died or hangs).
    return result == 0 && !m_request.answered() ? 4 : result;
}

int ZeMailBoxImap::retrieve_section(std::ostream& out, unsigned long uid,
                                    const std::string& section) {
    if (uid == 0 || !safe_on_the_wire(section)) {
        return 4;
    }
    const std::string items =
        section.empty() ? std::string(" BODY.PEEK[]") : " (BODY.PEEK[" + section + "])";
    return _fetch_section(&out, uid, items, Corvane::ENCODING_NONE, nullptr);
}

int ZeMailBoxImap::retrieve_section(Corvane::MediaOut& out, unsigned long uid,
                                    const std::string& section) {
    if (out.isNull()) {
        return 4;
    }
    MediaOutBuf buffer(out);
    std::ostream stream(&buffer);
    return retrieve_section(stream, uid, section);
}

int ZeMailBoxImap::retrieve_body(std::ostream& out, unsigned long uid) {
    return retrieve_section(out, uid, std::string());
}

int ZeMailBoxImap::retrieve_partial(std::ostream& out, unsigned long uid,
                                    const std::string& section, unsigned long offset,
                                    unsigned long length) {
    if (uid == 0 || !safe_on_the_wire(section)) {
        return 4;
    }
    const std::string items = " (BODY.PEEK[" + section + "]<" + std::to_string(offset) + "." +
                              std::to_string(length) + ">)";
    return _fetch_section(&out, uid, items, Corvane::ENCODING_NONE, nullptr);
}

ZeImapMimeRef ZeMailBoxImap::retrieve_section_mime(unsigned long uid, const std::string& section) {
    if (uid == 0 || !safe_on_the_wire(section)) {
        return ZeImapMimeRef();
    }
    ZeImapMimeRef node;
    _fetch_section(nullptr, uid, " (BODY.PEEK[" + section + ".mime])", Corvane::ENCODING_NONE,
                   &node);
    return node;
}

int ZeMailBoxImap::foreach_sections(ZeMessageRef& message, ZeMessageSectionVisitor* visitor) {
    if (message.isNull() || visitor == nullptr) {
        return 0;
    }
    ZeImapMimeRef tree = retrieve_mime(message);
    if (tree.isNull()) {
        return 4;
    }
    const unsigned long uid = message->uid();
    return ze_visit_sections(message, tree, *visitor, [this, uid](const ZeImapMimeRef& node) {
        Corvane::MediaIn content;
        if (node->media_type() == Corvane::ContentType::MULTIPART) {
            return content;
        }
        // A single-part message's body is its section 1.
        const std::string section = node->section().empty() ? "1" : node->section();
        Corvane::TempFile file(std::string(), "mbox_imap_foreach_");
        if (file.ok()) {
            file.close();
            std::ofstream into(file.path(), std::ios::binary | std::ios::trunc);
            _fetch_section(&into, uid, " (BODY.PEEK[" + section + "])",
                           node->content_type().encoding, nullptr);
            into.close();
            // The stream keeps the file open; its name goes with the TempFile.
            content = Corvane::MediaIn::fromFile(file.path());
        }
        return content;
    });
}

unsigned long ZeMailBoxImap::_last_uid() {
    select_folder();
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    ZeImapProcessorRef reader = ZeImapProcessorRef::make<HighestUid>();
    fetch.set_processor(reader);
    if (m_request.request(fetch, "* (UID)") != 0) {
        return 0;
    }
    return static_cast<const HighestUid*>(reader.get())->uid;
}

int ZeMailBoxImap::append(const std::string& file, const ZeMessageFlags& flags) {
    m_last_append_uid = 0;
    AppendSnapshot message;
    switch (message.take(file)) {
        case AppendSnapshot::kTaken:
            break;
        case AppendSnapshot::kNotAFile:
            basepp::dbg::debug(kUnit, kLineAppendFile, "append",
                               "%s is not valid or not accessible", file.c_str());
            return 0;
        case AppendSnapshot::kNoCopy:
            basepp::dbg::debug(kUnit, __LINE__, "append", "cannot copy %s for APPEND: %s",
                               file.c_str(), std::strerror(errno));
            return 4;
    }
    if (m_quoted_folder.empty() || !_session()) {
        return 4;
    }
    ze_imap_noop(m_request, m_user->id());
    const ZeMessageFlags storable(flags.flags & kStorable);
    const std::string names = storable.asImapActionString();
    std::string args = m_quoted_folder;
    if (!names.empty()) {
        args += " (" + names + ")";
    }
    args += " {" + std::to_string(message.size()) + "}";
    ZeImapCommand command(ZeImapCommand::APPEND);
    command.set_processor(message.processor());
    // Without the tagged answer (the server died or hangs) nothing says the
    // message was stored.
    if (m_request.request(command, args) != 0 || !m_request.answered()) {
        return 4;
    }
    m_last_append_uid = ze_appended_uid(m_request.feeder().curline().str());
    if (m_last_append_uid == 0) {
        basepp::dbg::debug(kUnit, kLineAppendUid, "append",
                           "APPENDUID not returned, fetch last UID");
        try {
            m_last_append_uid = _last_uid();
        } catch (const Corvane::Exception&) {
            m_last_append_uid = 0;
        }
    }
    return 0;
}
