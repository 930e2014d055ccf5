#include "support/Media.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "support/Paths.h"

namespace Corvane {

// ---- input ---------------------------------------------------------------

FileMediaIn::FileMediaIn(const std::string& path) : m_file(std::fopen(path.c_str(), "rb")) {}

FileMediaIn::~FileMediaIn() {
    if (m_file != nullptr) {
        std::fclose(m_file);
    }
}

long FileMediaIn::read(void* buf, std::size_t n) {
    if (m_file == nullptr) {
        m_eof = true;
        return 0;
    }
    if (n == 0) {
        return 0;
    }
    std::size_t got = std::fread(buf, 1, n, m_file);
    if (got == 0) {
        if (std::ferror(m_file)) {
            return -1;
        }
        m_eof = true;
    }
    return static_cast<long>(got);
}

long MemoryMediaIn::read(void* buf, std::size_t n) {
    std::size_t left = m_bytes.size() - m_pos;
    if (left == 0) {
        m_eof = true;
        return 0;
    }
    std::size_t count = n < left ? n : left;
    std::memcpy(buf, m_bytes.data() + m_pos, count);
    m_pos += count;
    return static_cast<long>(count);
}

MediaIn MediaIn::fromFile(const std::string& path) {
    auto* file = new FileMediaIn(path);
    MediaIn in = adopt(file);
    if (!file->isOpen()) {
        return MediaIn();
    }
    return in;
}

MediaIn MediaIn::fromBuffer(const Buffer& buffer) {
    return adopt(new MemoryMediaIn(std::string(buffer.data(), buffer.length())));
}

MediaIn MediaIn::fromString(const std::string& text) {
    return adopt(new MemoryMediaIn(text));
}

std::string MediaIn::readAll() {
    std::string out;
    MediaInImpl* impl = get();
    if (impl == nullptr) {
        return out;
    }
    char chunk[8192];
    for (;;) {
        long n = impl->read(chunk, sizeof(chunk));
        if (n <= 0) {
            break;
        }
        out.append(chunk, static_cast<std::size_t>(n));
    }
    return out;
}

// ---- output --------------------------------------------------------------

namespace {

class PathMediaOut : public MediaOutImpl {
public:
    explicit PathMediaOut(const std::string& path) : m_file(std::fopen(path.c_str(), "wb")) {}
    ~PathMediaOut() override { close(); }
    PathMediaOut(const PathMediaOut&) = delete;
    PathMediaOut& operator=(const PathMediaOut&) = delete;

    bool isOpen() const { return m_file != nullptr; }
    long write(const void* data, std::size_t n) override {
        if (m_file == nullptr) {
            return -1;
        }
        return std::fwrite(data, 1, n, m_file) == n ? static_cast<long>(n) : -1;
    }
    void end() override { close(); }

private:
    void close() {
        if (m_file != nullptr) {
            std::fclose(m_file);
            m_file = nullptr;
        }
    }
    std::FILE* m_file;
};

class BufferMediaOut : public MediaOutImpl {
public:
    explicit BufferMediaOut(Buffer& buffer) : m_buffer(buffer) {}
    long write(const void* data, std::size_t n) override {
        m_buffer.append(data, n);
        return static_cast<long>(n);
    }

private:
    Buffer& m_buffer;
};

class StringMediaOut : public MediaOutImpl {
public:
    explicit StringMediaOut(std::string& text) : m_text(text) {}
    long write(const void* data, std::size_t n) override {
        m_text.append(static_cast<const char*>(data), n);
        return static_cast<long>(n);
    }

private:
    std::string& m_text;
};

}  // namespace

long FileMediaOut::write(const void* data, std::size_t n) {
    m_stream.write(static_cast<const char*>(data), static_cast<std::streamsize>(n));
    return m_stream ? static_cast<long>(n) : -1;
}

void FileMediaOut::end() {
    m_stream.flush();
}

MediaOut MediaOut::toFile(const std::string& path) {
    auto* file = new PathMediaOut(path);
    MediaOut out = adopt(file);
    if (!file->isOpen()) {
        return MediaOut();
    }
    return out;
}

MediaOut MediaOut::toBuffer(Buffer& buffer) {
    return adopt(new BufferMediaOut(buffer));
}

MediaOut MediaOut::toString(std::string& text) {
    return adopt(new StringMediaOut(text));
}

MediaOut MediaOut::toStream(std::ostream& stream) {
    return adopt(new FileMediaOut(stream));
}

// ---- temporary files -----------------------------------------------------

TempFile::TempFile(const std::string& folder, const std::string& prefix) {
    std::string dir = folder.empty() ? zemail::paths::spool_path("tmp") : folder;
    // The spool's tmp folder may not exist yet on a fresh system or in a
    // test's private spool; make it (its parent must exist).
    struct stat st;
    if (::stat(dir.c_str(), &st) != 0) {
        ::mkdir(dir.c_str(), 0700);
    }
    std::string pattern = dir;
    if (pattern.empty() || pattern.back() != '/') {
        pattern += '/';
    }
    pattern += prefix + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int fd = ::mkstemp(name.data());
    if (fd >= 0) {
        m_fd = fd;
        m_path.assign(name.data());
    }
}

TempFile::~TempFile() {
    close();
    if (!m_keep && !m_path.empty()) {
        ::unlink(m_path.c_str());
    }
}

void TempFile::close() {
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

}  // namespace Corvane
