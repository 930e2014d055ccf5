#include "stores/ZeUIDList.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include "support/Debug.h"

namespace {

const char kUidListName[] = "/.dovecot-uidlist";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// Closes a descriptor when it goes.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

// Cuts a file into lines the way a reader with a fixed line buffer of
// ZeUIDListImpl::kLineBufferSize bytes sees them: a line is taken when it fits
// with its line feed (or, as the file's last line, without one); a longer line
// ends the reading. The file is read in large chunks, never byte by byte.
class LineReader {
public:
    enum class Result { Line, End, TooLong };

    // fileSize only sizes the buffer: small files get a small one.
    LineReader(int fd, std::size_t fileSize)
        : m_fd(fd), m_buffer(std::max(kMinChunk, std::min(kChunk, fileSize + 1))) {}

    Result next(const char** line, std::size_t* length) {
        static constexpr std::size_t kMaxWithFeed = ZeUIDListImpl::kLineBufferSize - 1;
        for (;;) {
            const char* begin = m_buffer.data() + m_start;
            std::size_t available = m_end - m_start;
            const void* feed = std::memchr(begin, '\n', available);
            if (feed != nullptr) {
                std::size_t taken = static_cast<const char*>(feed) - begin;
                if (taken + 1 > kMaxWithFeed) {
                    return Result::TooLong;
                }
                *line = begin;
                *length = taken;
                m_start += taken + 1;
                return Result::Line;
            }
            if (available > kMaxWithFeed) {
                return Result::TooLong;
            }
            if (m_eof) {
                if (available == 0) {
                    return Result::End;
                }
                *line = begin;
                *length = available;
                m_start = m_end;
                return Result::Line;
            }
            _fill();
        }
    }

private:
    static constexpr std::size_t kChunk = 256 * 1024;
    // Room for a longest line and a byte more, so a full buffer always
    // decides whether the line fits.
    static constexpr std::size_t kMinChunk = 4096;

    void _fill() {
        if (m_start > 0) {
            std::memmove(m_buffer.data(), m_buffer.data() + m_start, m_end - m_start);
            m_end -= m_start;
            m_start = 0;
        }
        for (;;) {
            ssize_t got = ::read(m_fd, m_buffer.data() + m_end, m_buffer.size() - m_end);
            if (got > 0) {
                m_end += static_cast<std::size_t>(got);
                return;
            }
            if (got < 0 && errno == EINTR) {
                continue;
            }
            // End of file, or a read error that ends the file here.
            m_eof = true;
            return;
        }
    }

    int m_fd;
    std::vector<char> m_buffer;
    std::size_t m_start = 0;
    std::size_t m_end = 0;
    bool m_eof = false;
};

}  // namespace

ZeUIDListImpl::ZeUIDListImpl(const std::string& uidlistFile)
    : file(uidlistFile), loaded(false), parsedOk(true), mtime(0) {}

bool ZeUIDListImpl::parseRecord(const char* line, std::size_t length, std::uint64_t* uidOut,
                                const char** nameOut, std::size_t* nameLength) {
    if (length == 0 || !is_digit(line[0])) {
        return false;
    }
    const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t value = 0;
    std::size_t i = 0;
    for (; i < length && is_digit(line[i]); ++i) {
        unsigned digit = static_cast<unsigned>(line[i] - '0');
        if (value > (max - digit) / 10) {
            return false;  // no UID has more than 64 bits
        }
        value = value * 10 + digit;
    }
    if (value == 0 || i == length || !is_blank(line[i])) {
        return false;
    }
    // The server's extension fields (W<size>, G<guid>, ...) stand between the
    // blank and the ":" that starts the file name.
    const char* end = line + length;
    const char* colon = static_cast<const char*>(std::memchr(line + i + 1, ':', length - i - 1));
    if (colon == nullptr) {
        return false;
    }
    const char* name = colon + 1;
    const void* comma = std::memchr(name, ',', static_cast<std::size_t>(end - name));
    *uidOut = value;
    *nameOut = name;
    *nameLength =
        static_cast<std::size_t>((comma != nullptr ? static_cast<const char*>(comma) : end) - name);
    return true;
}

void ZeUIDListImpl::_add_record(std::uint64_t uidValue, const char* name, std::size_t nameLength) {
    // The server writes records in ascending UID order, and its names begin
    // with the delivery time, so both maps mostly grow at their end: try that
    // place first. An entry already there is never replaced.
    if (byUid.empty() || uidValue > byUid.rbegin()->first) {
        byUid.emplace_hint(byUid.end(), uidValue, std::string(name, nameLength));
    } else {
        byUid.try_emplace(uidValue, name, nameLength);
    }
    std::string key(name, nameLength);
    if (byName.empty() || byName.rbegin()->first < key) {
        byName.emplace_hint(byName.end(), std::move(key), uidValue);
    } else {
        byName.try_emplace(std::move(key), uidValue);
    }
}

bool ZeUIDListImpl::_read_records(int fd, std::size_t fileSize) {
    LineReader reader(fd, fileSize);
    const char* line = nullptr;
    std::size_t length = 0;
    if (reader.next(&line, &length) != LineReader::Result::Line) {
        return true;  // empty file, or a header too long to read past
    }
    unsigned long lineNumber = 1;
    while (reader.next(&line, &length) == LineReader::Result::Line) {
        ++lineNumber;
        std::uint64_t uidValue = 0;
        const char* name = nullptr;
        std::size_t nameLength = 0;
        if (!parseRecord(line, length, &uidValue, &name, &nameLength)) {
            basepp::dbg::debug("ZeUIDList", __LINE__, "LoadUIDList", "%s: malformed line %lu",
                               file.c_str(), lineNumber);
            return false;
        }
        if (nameLength > 0) {
            _add_record(uidValue, name, nameLength);
        }
    }
    return true;
}

void ZeUIDListImpl::LoadUIDList() {
    // O_NONBLOCK: a FIFO put in the file's place must not stall the caller;
    // anything but a regular file counts as unreadable.
    FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat st;
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        byUid.clear();
        byName.clear();
        loaded = false;
        mtime = 0;
        return;
    }
    if (loaded && st.st_mtime == mtime) {
        return;
    }
    parsedOk = _read_records(fd.get(), static_cast<std::size_t>(st.st_size));
    if (!parsedOk) {
        byUid.clear();
        byName.clear();
    }
    loaded = true;
    mtime = st.st_mtime;
}

std::string ZeUIDListImpl::basename(unsigned long uidValue) {
    boost::mutex::scoped_lock lock(mutex);
    LoadUIDList();
    auto found = byUid.find(uidValue);
    return found != byUid.end() ? found->second : std::string();
}

unsigned long ZeUIDListImpl::uid(const std::string& name) {
    boost::mutex::scoped_lock lock(mutex);
    LoadUIDList();
    auto found = byName.find(name.substr(0, name.find(',')));
    return found != byName.end() ? found->second : kUnknownUid;
}

unsigned long ZeUIDListImpl::cached_uid(const std::string& name) {
    {
        boost::mutex::scoped_lock lock(mutex);
        if (loaded) {
            auto found = byName.find(name.substr(0, name.find(',')));
            if (found != byName.end()) {
                return found->second;
            }
        }
    }
    return uid(name);
}

unsigned long ZeUIDListImpl::match(const std::string& name) {
    boost::mutex::scoped_lock lock(mutex);
    LoadUIDList();
    for (const auto& entry : byName) {
        if (entry.first.find(name) != std::string::npos) {
            return entry.second;
        }
    }
    return kUnknownUid;
}

std::string ZeUIDListManagerImpl::normalise(const std::string& folder) {
    std::string path = folder;
    if (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    std::string::size_type slash = path.rfind('/');
    if (slash != std::string::npos) {
        std::string last = path.substr(slash + 1);
        if (last == "cur" || last == "new") {
            path.erase(slash);
        }
    }
    return path;
}

boost::shared_ptr<ZeUIDList__> ZeUIDListManagerImpl::GetUIDList(const std::string& folder) {
    std::string path = normalise(folder);
    boost::mutex::scoped_lock lock(mutex);
    for (auto& record : records) {
        if (record.path == path) {
            record.time = ::time(nullptr);
            return record.list;
        }
    }
    return AddUidList(path);
}

boost::shared_ptr<ZeUIDListImpl> ZeUIDListManagerImpl::AddUidList(const std::string& folder) {
    if (records.size() > kMaxKept) {
        records.sort();  // stable: records last used in the same second keep their order
        while (records.size() > kMaxKept) {
            records.pop_front();
        }
    }
    auto list = boost::make_shared<ZeUIDListImpl>(folder + kUidListName);
    records.push_back(uidlist_record_t{folder, ::time(nullptr), list});
    return list;
}

std::size_t ZeUIDListManagerImpl::cached() const {
    boost::mutex::scoped_lock lock(mutex);
    return records.size();
}

boost::shared_ptr<ZeUIDListManager__> ZeUIDListManager__::instance() {
    static const boost::shared_ptr<ZeUIDListManager__> manager =
        boost::make_shared<ZeUIDListManagerImpl>();
    return manager;
}

namespace {
// Makes the manager while the library is loaded, before any thread of the
// program can ask for it.
const boost::shared_ptr<ZeUIDListManager__> g_made_at_load = ZeUIDListManager__::instance();
}  // namespace
