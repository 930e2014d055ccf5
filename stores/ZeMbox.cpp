#include "stores/ZeMbox.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "support/Debug.h"
#include "support/Exception.h"

namespace {

// The unit named in exceptions and debug records.
const char kUnit[] = "ZeMbox";
// The file is read in pieces of this size when it is indexed, and a
// message's bytes when they are streamed.
const std::size_t kIndexChunk = 1u << 20;
const std::size_t kStreamChunk = 64u << 10;

// A message's bytes, unquoted on the way, read from the file piece by piece.
class MboxMediaIn : public Corvane::MediaInImpl {
public:
    MboxMediaIn(std::shared_ptr<const ZeMboxFile> file, std::uint64_t begin, std::uint64_t end)
        : m_file(std::move(file)), m_pos(begin), m_end(end) {}

    long read(void* buf, std::size_t n) override {
        if (n == 0) {
            return 0;
        }
        while (m_taken == m_pending.size()) {
            m_pending.clear();
            m_taken = 0;
            if (m_failed) {
                return -1;
            }
            if (m_pos == m_end) {
                if (m_finished) {
                    m_eof = true;
                    return 0;
                }
                m_unquoter.finish(m_pending);
                m_finished = true;
                continue;
            }
            const std::size_t want =
                static_cast<std::size_t>(std::min<std::uint64_t>(kStreamChunk, m_end - m_pos));
            m_chunk.resize(want);
            const long got = m_file->readSome(m_pos, &m_chunk[0], want);
            if (got <= 0) {
                m_failed = true;  // the file was cut short under us
                return -1;
            }
            m_pos += static_cast<std::uint64_t>(got);
            m_unquoter.filter(m_chunk.data(), static_cast<std::size_t>(got), m_pending);
        }
        const std::size_t count = std::min(n, m_pending.size() - m_taken);
        std::memcpy(buf, m_pending.data() + m_taken, count);
        m_taken += count;
        return static_cast<long>(count);
    }

    bool eof() const override { return m_eof; }

private:
    std::shared_ptr<const ZeMboxFile> m_file;
    std::uint64_t m_pos;
    std::uint64_t m_end;
    ZeMboxParser::Unquoter m_unquoter;
    std::string m_chunk;
    std::string m_pending;  // unquoted bytes not yet taken
    std::size_t m_taken = 0;
    bool m_finished = false;
    bool m_failed = false;
    bool m_eof = false;
};

}  // namespace

// ---------------------------------------------------------------------- file

ZeMboxFile::~ZeMboxFile() {
    ::close(m_fd);
}

long ZeMboxFile::readSome(std::uint64_t offset, char* buffer, std::size_t length) const {
    if (offset > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) {
        return -1;
    }
    for (;;) {
        const ssize_t got = ::pread(m_fd, buffer, length, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return static_cast<long>(got);
    }
}

bool ZeMboxFile::readExactly(std::uint64_t offset, char* buffer, std::size_t length) const {
    while (length > 0) {
        const long got = readSome(offset, buffer, length);
        if (got <= 0) {
            return false;
        }
        offset += static_cast<std::uint64_t>(got);
        buffer += got;
        length -= static_cast<std::size_t>(got);
    }
    return true;
}

// ------------------------------------------------------------------ envelope

ZeMboxMsgEnv::ZeMboxMsgEnv(std::shared_ptr<const ZeMboxFile> file, const ZeMboxParser::Entry& entry)
    : m_file(std::move(file)), m_entry(entry) {}

ZeMessageFlags ZeMboxMsgEnv::status() {
    return ZeMessageFlags(m_entry.flags);
}

std::string ZeMboxMsgEnv::basename() const {
    return ",U" + std::to_string(m_entry.uid);
}

std::string ZeMboxMsgEnv::msgID() {
    if (!m_msgidLoaded) {
        m_msgidLoaded = true;
        Corvane::MediaIn in = media();
        Corvane::HeaderContainer headers;
        headers.parse(in);
        m_msgid = headers.get("Message-Id");
    }
    return m_msgid;
}

std::string ZeMboxMsgEnv::from() {
    if (!m_fromLoaded && m_file) {
        m_fromLoaded = true;
        const std::uint64_t length = std::min<std::uint64_t>(
            m_entry.begin - m_entry.fromLine, 5 + ZeMboxParser::Scanner::kMaxFromLine);
        std::string line(static_cast<std::size_t>(length), '\0');
        if (length >= 5 && m_file->readExactly(m_entry.fromLine, &line[0], line.size()) &&
            line.compare(0, 5, "From ") == 0) {
            ZeMboxParser::parseFromLine(line.data() + 5, line.size() - 5, &m_from);
        }
    }
    return m_from;
}

Corvane::MediaIn ZeMboxMsgEnv::media() const {
    if (!m_file) {
        return Corvane::MediaIn();
    }
    // The file still holds the message where it was found: its From_ line
    // and its last byte are there (a rewritten file is caught by reset()).
    char from[5];
    char last;
    if (!m_file->readExactly(m_entry.fromLine, from, sizeof from) ||
        std::memcmp(from, "From ", sizeof from) != 0 ||
        (m_entry.end > m_entry.begin && !m_file->readExactly(m_entry.end - 1, &last, 1))) {
        return Corvane::MediaIn();
    }
    return Corvane::MediaIn::adopt(new MboxMediaIn(m_file, m_entry.begin, m_entry.end));
}

// ------------------------------------------------------------------- message

ZeMboxMsg::ZeMboxMsg(const Corvane::Ref<ZeMessageEnv>& env, std::string path)
    : m_path(std::move(path)) {
    m_env = env;
    if (!env.isNull()) {
        m_uid = env.get()->uid();
        m_basename = env.get()->basename();
        m_received = env.get()->date();
        m_flags = env.get()->status();
    }
}

ZeMboxMsgEnv* ZeMboxMsg::_mbox_env() const {
    return dynamic_cast<ZeMboxMsgEnv*>(m_env.get());
}

Corvane::MediaIn ZeMboxMsg::media() {
    const ZeMboxMsgEnv* env = _mbox_env();
    return env != nullptr ? env->media() : Corvane::MediaIn();
}

// ------------------------------------------------------------------- mailbox

bool ZeMbox::Version::operator==(const Version& other) const {
    return exists == other.exists && device == other.device && inode == other.inode &&
           size == other.size && mtime.tv_sec == other.mtime.tv_sec &&
           mtime.tv_nsec == other.mtime.tv_nsec;
}

ZeMbox::ZeMbox(const std::string& path, bool option, bool create)
    : m_create(create), m_option(option), m_path(path) {}

ZeMbox::~ZeMbox() = default;

int ZeMbox::open() {
    if (m_opened) {
        return 1;
    }
    if (m_create) {
        const int fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
        } else if (errno != EEXIST) {
            basepp::dbg::debug(kUnit, __LINE__, "open", "creating %s failed: %s", m_path.c_str(),
                               std::strerror(errno));
            return 0;
        }
    }
    _read_file();
    m_opened = true;
    return 1;
}

ZeMbox::Version ZeMbox::_current_version() const {
    Version version;
    struct stat st;
    if (::stat(m_path.c_str(), &st) == 0) {
        version.exists = true;
        version.device = st.st_dev;
        version.inode = st.st_ino;
        version.size = st.st_size;
        version.mtime = st.st_mtim;
    }
    return version;
}

void ZeMbox::_read_file() {
    m_index.clear();
    m_by_uid.clear();
    m_cursor = 0;
    m_file.reset();
    m_version = Version();

    // O_NONBLOCK: opening a FIFO put in the file's place must not wait for
    // a writer; it is refused below as not a regular file.
    const int fd = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        if (errno != ENOENT) {
            basepp::dbg::debug(kUnit, __LINE__, "open", "open(%s) failed: %s", m_path.c_str(),
                               std::strerror(errno));
        }
        m_version = _current_version();
        return;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        m_version = _current_version();
        return;
    }
    auto file = std::make_shared<const ZeMboxFile>(fd, m_path);
    m_version.exists = true;
    m_version.device = st.st_dev;
    m_version.inode = st.st_ino;
    m_version.size = st.st_size;
    m_version.mtime = st.st_mtim;

    // Only the length seen now is read: what a writer appends meanwhile
    // changes the size, and reset() reads the file again.
    ZeMboxParser::Scanner scanner;
    const std::uint64_t size = static_cast<std::uint64_t>(st.st_size);
    std::string buffer(static_cast<std::size_t>(std::min<std::uint64_t>(kIndexChunk, size)), '\0');
    std::uint64_t offset = 0;
    while (offset < size) {
        const long got = file->readSome(
            offset, &buffer[0],
            static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), size - offset)));
        if (got <= 0) {
            break;  // cut short while read: index what was there
        }
        scanner.feed(buffer.data(), static_cast<std::size_t>(got));
        offset += static_cast<std::uint64_t>(got);
    }
    m_index = scanner.finish();
    ZeMboxParser::assignUids(m_index);
    m_by_uid.reserve(m_index.size());
    for (std::size_t i = 0; i < m_index.size(); ++i) {
        m_by_uid.emplace_back(m_index[i].uid, i);
    }
    std::sort(m_by_uid.begin(), m_by_uid.end());
    m_file = std::move(file);
}

void ZeMbox::reset() {
    if (m_opened && !(_current_version() == m_version)) {
        _read_file();
    }
    open();
    m_cursor = 0;
    if (!m_scope_filter.isNull()) {
        m_scope_filter->reset();
    }
}

long ZeMbox::total_messages() {
    open();
    return static_cast<long>(m_index.size());
}

ZeMessageRef ZeMbox::_make_message(std::size_t index) const {
    Corvane::Ref<ZeMessageEnv> env =
        Corvane::Ref<ZeMessageEnv>::adopt(new ZeMboxMsgEnv(m_file, m_index[index]));
    return ZeMessageRef(new ZeMboxMsg(env, m_path));
}

int ZeMbox::next() {
    if (!open()) {
        m_current.release();
        return 0;
    }
    while (m_cursor < m_index.size()) {
        if (_scope_done()) {
            break;
        }
        const std::size_t index = m_cursor++;
        Corvane::Ref<ZeMessageEnv> env =
            Corvane::Ref<ZeMessageEnv>::adopt(new ZeMboxMsgEnv(m_file, m_index[index]));
        if (!_scope_takes(*env)) {
            continue;
        }
        ZeMessageRef message(new ZeMboxMsg(env, m_path));
        if (!_scope_takes(*message)) {
            continue;
        }
        m_current = message;
        return 1;
    }
    m_current.release();
    return 0;
}

ZeMessageRef ZeMbox::_find(unsigned long uid) const {
    if (uid == 0) {
        return ZeMessageRef();
    }
    const auto found =
        std::lower_bound(m_by_uid.begin(), m_by_uid.end(), std::make_pair(uid, std::size_t{0}));
    if (found == m_by_uid.end() || found->first != uid) {
        return ZeMessageRef();
    }
    return _make_message(found->second);
}

ZeMessageRef ZeMbox::retrieve_message(unsigned long uid) {
    open();
    return _find(uid);
}

ZeMessageRef ZeMbox::retrieve_message(const std::string& key) {
    open();
    const bool direct = key.compare(0, 2, ",U") == 0;
    return _find(ze_message_key_uid(direct ? key.substr(2) : key));
}
