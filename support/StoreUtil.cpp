#include "support/StoreUtil.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem.hpp>

#include "support/MailUserId.h"

namespace {

// The server reads no more than this of a size file; a larger one is
// rewritten from a recount, so we treat it the same way.
constexpr std::size_t kMaxSizeFile = 5120;
// How deep a store is walked when it is counted; deeper folders are left out.
constexpr int kMaxTreeDepth = 32;

const char kCacheFile[] = "/.vt_folder_size";
const char kQuotaFile[] = "/.maildirsize";
// The quota file under the name a stock Dovecot gives it.
const char kStockQuotaFile[] = "maildirsize";
const char kFolderMarker[] = "/maildirfolder";

std::string safe(const char* text) {
    return text ? std::string(text) : std::string();
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// Closes a descriptor on every way out.
class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

bool is_directory(const std::string& path) {
    struct stat st;
    return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_real_directory(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Opens an existing regular file without blocking on a FIFO or device.
int open_regular(const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return -1;
    }
    return fd;
}

// Parses a signed decimal number that fills [begin, end) exactly.
// A leading "+" is accepted, as the server's own reader does.
bool parse_number(const char* begin, const char* end, long long* value) {
    if (begin != end && *begin == '+' && end - begin > 1 && begin[1] != '-') {
        ++begin;
    }
    if (begin == end) {
        return false;
    }
    const auto result = std::from_chars(begin, end, *value);
    return result.ec == std::errc() && result.ptr == end;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// One "<bytes> <count>" line, blanks around the numbers allowed.
bool parse_size_line(const char* p, const char* end, long long* bytes, long long* count) {
    while (p < end && is_blank(*p)) {
        ++p;
    }
    while (end > p && is_blank(end[-1])) {
        --end;
    }
    const char* gap = std::find_if(p, end, is_blank);
    if (gap == end) {
        return false;
    }
    const char* second = std::find_if_not(gap, end, is_blank);
    return parse_number(p, gap, bytes) && parse_number(second, end, count);
}

// The size a Maildir file name carries in ",S=<bytes>", or -1.
long long size_from_name(const char* name) {
    const char* field = std::strstr(name, ",S=");
    if (field == nullptr) {
        return -1;
    }
    const char* digits = field + 3;
    const char* end = digits;
    while (*end >= '0' && *end <= '9') {
        ++end;
    }
    if (end == digits || (*end != ':' && *end != ',' && *end != '\0')) {
        return -1;
    }
    long long value = 0;
    return parse_number(digits, end, &value) ? value : -1;
}

long long saturating_add(long long a, long long b) {
    long long sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? LLONG_MAX : sum;
}

// Adds the messages of one directory (cur/ or new/) of a folder.
void add_message_sizes(const std::string& dir, long long* bytes, long long* count) {
    DirPtr stream(opendir(dir.c_str()));
    if (!stream) {
        return;
    }
    const int fd = dirfd(stream.get());
    while (const dirent* entry = readdir(stream.get())) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        struct stat st;
        bool regular = entry->d_type == DT_REG;
        bool have_stat = false;
        if (entry->d_type == DT_UNKNOWN) {
            have_stat = fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0;
            regular = have_stat && S_ISREG(st.st_mode);
        }
        if (!regular) {
            continue;
        }
        long long size = size_from_name(entry->d_name);
        if (size < 0) {
            if (!have_stat && fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                continue;  // gone since readdir
            }
            size = st.st_size;
        }
        *bytes = saturating_add(*bytes, size);
        *count = saturating_add(*count, 1);
    }
}

// The deferred-deletion form of a folder directory:
// ".deleted.<seconds>.<pid>.<name>".
bool is_deferred_deletion(const std::string& dir_name) {
    static const char kPrefix[] = ".deleted.";
    if (dir_name.compare(0, sizeof kPrefix - 1, kPrefix) != 0) {
        return false;
    }
    std::size_t pos = sizeof kPrefix - 1;
    for (int field = 0; field < 2; ++field) {
        const std::size_t start = pos;
        while (pos < dir_name.size() && dir_name[pos] >= '0' && dir_name[pos] <= '9') {
            ++pos;
        }
        if (pos == start || pos >= dir_name.size() || dir_name[pos] != '.') {
            return false;
        }
        ++pos;
    }
    return true;
}

// ".A.B" -> "A/B"; empty when a level is empty.
std::string folder_name(const std::string& dir_name) {
    std::string name = dir_name.substr(1);
    if (name.empty() || name.front() == '.' || name.back() == '.' ||
        name.find("..") != std::string::npos) {
        return std::string();
    }
    std::replace(name.begin(), name.end(), '.', '/');
    return name;
}

struct Folder {
    std::string name;  // "A/B"
    std::string dir;   // <path>/.A.B
};

// The folders of a Maildir++ store below its inbox, sorted by name; false
// when the store cannot be read.
bool list_folders(const std::string& path, std::vector<Folder>* folders) {
    DirPtr stream(opendir(path.c_str()));
    if (!stream) {
        return false;
    }
    while (const dirent* entry = readdir(stream.get())) {
        const std::string dir_name = entry->d_name;
        if (dir_name.size() < 2 || dir_name[0] != '.' || is_deferred_deletion(dir_name)) {
            continue;
        }
        std::string name = folder_name(dir_name);
        const std::string dir = path + "/" + dir_name;
        if (!name.empty() && is_real_directory(dir) && is_directory(dir + "/cur")) {
            folders->push_back({std::move(name), dir});
        }
    }
    std::sort(folders->begin(), folders->end(),
              [](const Folder& a, const Folder& b) { return a.name < b.name; });
    return true;
}

bool is_message_dir(const std::string& name) {
    return name == "cur" || name == "new" || name == "tmp";
}

// Adds every Maildir of a tree: the directory itself when it holds cur/,
// then its subdirectories (Maildir++ folders, or folders of a plain tree),
// without following links or descending into message directories.
void add_tree_sizes(const std::string& dir, int depth, long long* bytes, long long* count) {
    long long messages = 0;
    if (is_directory(dir + "/cur")) {
        *bytes = saturating_add(*bytes, std::max(0LL, vtl_get_mailbox_size(dir, &messages)));
        *count = saturating_add(*count, messages);
    }
    DirPtr stream(depth < kMaxTreeDepth ? opendir(dir.c_str()) : nullptr);
    if (!stream) {
        return;
    }
    std::vector<std::string> subdirs;
    while (const dirent* entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || is_message_dir(name) || is_deferred_deletion(name) ||
            name.compare(0, 2, "..") == 0) {
            continue;
        }
        if (is_real_directory(dir + "/" + name)) {
            subdirs.push_back(name);
        }
    }
    stream.reset();
    for (const std::string& name : subdirs) {
        add_tree_sizes(dir + "/" + name, depth + 1, bytes, count);
    }
}

bool has_parent_reference(const std::string& path) {
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string::npos) {
            end = path.size();
        }
        if (path.compare(start, end - start, "..") == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

bool make_directory(const std::string& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) == 0) {
        return true;
    }
    return errno == EEXIST && is_directory(path);
}

std::string parent_of(const std::string& path) {
    const std::string::size_type slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string last_component(const std::string& path) {
    const std::string::size_type slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Opens a size file for reading or appending. "<store>/.maildirsize" is the
// name the appliance's server keeps; when it does not exist (a dangling link
// included), the stock server's "<store>/maildirsize" is opened instead.
int open_size_file(const std::string& path, int flags) {
    const int fd = open_regular(path, flags);
    const std::size_t dotted = sizeof kQuotaFile - 1;
    struct stat st;
    if (fd >= 0 || path.size() < dotted ||
        path.compare(path.size() - dotted, dotted, kQuotaFile) != 0 ||
        stat(path.c_str(), &st) == 0 || errno != ENOENT) {
        return fd;
    }
    return open_regular(path.substr(0, path.size() - dotted + 1) + kStockQuotaFile, flags);
}

// After a message of <folder> went: the store's quota file learns about it
// and the folder's size cache goes.
void account_removal(const std::string& message_path, long long size) {
    const std::string sub = parent_of(message_path);
    const std::string sub_name = last_component(sub);
    if (sub_name != "cur" && sub_name != "new") {
        return;
    }
    const std::string folder = parent_of(sub);
    if (folder.empty()) {
        return;
    }
    const std::string store = exists(folder + kFolderMarker) ? parent_of(folder) : folder;
    const int fd = open_size_file(store + kQuotaFile, O_WRONLY | O_APPEND);
    if (fd >= 0) {
        Fd guard(fd);
        const std::string line = "-" + std::to_string(size) + " -1\n";
        struct stat before;
        const bool measured = fstat(fd, &before) == 0;
        const ssize_t wrote = write(fd, line.data(), line.size());
        // A full disk may take part of the line: it is cut off again, or the
        // next line appended would join it and break the file. A failed
        // append only leaves the total high until the next recount.
        if (measured && wrote > 0 && wrote < static_cast<ssize_t>(line.size())) {
            (void)!ftruncate(fd, before.st_size);
        }
    }
    unlink((folder + kCacheFile).c_str());
}

}  // namespace

int vtl_is_system_folder(const char* name) {
    static const char* const kSystemFolders[] = {"INBOX", "Drafts", "Sent", "Trash", "Junk"};
    if (name == nullptr) {
        return 0;
    }
    for (int i = 0; i < static_cast<int>(sizeof kSystemFolders / sizeof kSystemFolders[0]); ++i) {
        if (strcasecmp(name, kSystemFolders[i]) == 0) {
            return i + 1;
        }
    }
    return 0;
}

int vtl_parse_mail_folder_size(const char* data, std::size_t length, long long* bytes,
                               long long* count) {
    if (data == nullptr || length >= kMaxSizeFile) {
        return VTL_SIZE_BROKEN;
    }
    // A last line without its line feed is an append still in progress.
    while (length > 0 && data[length - 1] != '\n') {
        --length;
    }
    if (length == 0 || std::memchr(data, '\0', length) != nullptr) {
        return VTL_SIZE_BROKEN;
    }
    const char* end = data + length;
    // The definition line holds the limits, which are the server's business.
    const char* line = static_cast<const char*>(std::memchr(data, '\n', length)) + 1;
    long long total_bytes = 0;
    long long total_count = 0;
    while (line < end) {
        const char* eol = static_cast<const char*>(std::memchr(line, '\n', end - line));
        long long line_bytes = 0;
        long long line_count = 0;
        if (!parse_size_line(line, eol, &line_bytes, &line_count) ||
            __builtin_add_overflow(total_bytes, line_bytes, &total_bytes) ||
            __builtin_add_overflow(total_count, line_count, &total_count)) {
            return VTL_SIZE_BROKEN;
        }
        line = eol + 1;
    }
    if (total_bytes < 0 || total_count < 0) {
        return VTL_SIZE_BROKEN;
    }
    if (bytes != nullptr) {
        *bytes = total_bytes;
    }
    if (count != nullptr) {
        *count = total_count;
    }
    return VTL_SIZE_OK;
}

int vtl_read_mail_folder_size(const char* file, long long* bytes, long long* count) {
    const std::string path = safe(file);
    if (path.empty()) {
        return VTL_SIZE_UNREADABLE;
    }
    const int fd = open_size_file(path, O_RDONLY);
    if (fd < 0) {
        return VTL_SIZE_UNREADABLE;
    }
    Fd guard(fd);
    char buffer[kMaxSizeFile];
    std::size_t size = 0;
    while (size < sizeof buffer) {
        const ssize_t got = read(fd, buffer + size, sizeof buffer - size);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return VTL_SIZE_UNREADABLE;
        }
        if (got == 0) {
            break;
        }
        size += static_cast<std::size_t>(got);
    }
    return vtl_parse_mail_folder_size(buffer, size, bytes, count);
}

long long vtl_get_mailbox_size(const char* dir, long long* count) {
    const std::string path = safe(dir);
    if (!is_directory(path)) {
        return -1;
    }
    long long bytes = 0;
    long long messages = 0;
    add_message_sizes(path + "/cur", &bytes, &messages);
    add_message_sizes(path + "/new", &bytes, &messages);
    if (count != nullptr) {
        *count = messages;
    }
    return bytes;
}

int vtl_get_maildir_cache_file(const char* dir, char* buffer, std::size_t size) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    const std::string path = safe(dir);
    const std::string name = path + kCacheFile;
    if (path.empty() || name.size() >= size) {
        buffer[0] = '\0';
        return -1;
    }
    std::memcpy(buffer, name.c_str(), name.size() + 1);
    return 0;
}

int vtl_get_maildirsize(int userType, const char* path, long long* bytes, long long* count) {
    const std::string store = safe(path);
    if (store.empty()) {
        return VTL_SIZE_UNREADABLE;
    }
    const int result = vtl_read_mail_folder_size(store + kQuotaFile, bytes, count);
    if (result == VTL_SIZE_OK || ZeMailUserId::imap_served(userType)) {
        return result;
    }
    if (!is_directory(store)) {
        return VTL_SIZE_UNREADABLE;
    }
    long long total_bytes = 0;
    long long total_count = 0;
    add_tree_sizes(store, 0, &total_bytes, &total_count);
    if (bytes != nullptr) {
        *bytes = total_bytes;
    }
    if (count != nullptr) {
        *count = total_count;
    }
    return VTL_SIZE_OK;
}

int vtl_visit_folders(const char* path, int options, vtl_folder_visitor visit, void* context) {
    const std::string store = safe(path);
    std::vector<Folder> folders;
    if (visit == nullptr || !is_directory(store) || !list_folders(store, &folders)) {
        return -1;
    }
    int visited = 0;
    if ((options & VTL_VISIT_NO_INBOX) == 0) {
        ++visited;
        if (visit("INBOX", context) == 0) {
            return visited;
        }
    }
    for (const Folder& folder : folders) {
        ++visited;
        if (visit(folder.name.c_str(), context) == 0) {
            break;
        }
    }
    return visited;
}

int vtl_is_maildir_folder(const char* path) {
    const std::string dir = safe(path);
    return is_directory(dir) && is_directory(dir + "/cur") ? 1 : 0;
}

int vtl_is_mbox(const char* path) {
    const std::string file = safe(path);
    if (file.empty()) {
        return 0;
    }
    const int fd = open_regular(file, O_RDONLY);
    if (fd < 0) {
        return 0;
    }
    Fd guard(fd);
    char head[5];
    std::size_t size = 0;
    while (size < sizeof head) {
        const ssize_t got = read(fd, head + size, sizeof head - size);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;
        }
        size += static_cast<std::size_t>(got);
    }
    return size == 0 || (size == sizeof head && std::memcmp(head, "From ", 5) == 0) ? 1 : 0;
}

int vtl_mkdir_maildir(const char* path, unsigned int mode) {
    std::string dir = safe(path);
    while (dir.size() > 1 && dir.back() == '/') {
        dir.pop_back();
    }
    if (dir.empty() || has_parent_reference(dir)) {
        return -1;
    }
    const mode_t dir_mode = mode == 0 ? 0700 : static_cast<mode_t>(mode & 07777);
    // Parents first, then the Maildir itself.
    for (std::size_t slash = dir.find('/', 1); slash != std::string::npos;
         slash = dir.find('/', slash + 1)) {
        if (!make_directory(dir.substr(0, slash), dir_mode)) {
            return -1;
        }
    }
    if (!make_directory(dir, dir_mode)) {
        return -1;
    }
    for (const char* sub : {"/cur", "/new", "/tmp"}) {
        if (!make_directory(dir + sub, dir_mode)) {
            return -1;
        }
    }
    if (last_component(dir)[0] == '.') {
        const std::string marker = dir + kFolderMarker;
        const int fd =
            open(marker.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, dir_mode & 0666);
        if (fd < 0) {
            return -1;
        }
        close(fd);
    }
    return 0;
}

int vtl_maildir_unlink_mail(const char* path, int options) {
    const std::string file = safe(path);
    struct stat st;
    if (file.empty() || lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return -1;
    }
    if (unlink(file.c_str()) != 0) {
        return -1;
    }
    if ((options & VTL_UNLINK_NO_BOOKKEEPING) == 0) {
        long long size = size_from_name(last_component(file).c_str());
        account_removal(file, size >= 0 ? size : static_cast<long long>(st.st_size));
    }
    return 0;
}

int vantro_clean_dir(const char* path, int options) {
    namespace fs = boost::filesystem;
    const std::string dir = safe(path);
    if (dir.empty()) {
        return -1;
    }
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) {
        return errno == ENOENT ? 0 : -1;
    }
    boost::system::error_code error;
    const fs::path real = fs::canonical(dir, error);
    if (!S_ISDIR(st.st_mode) || error || real == real.root_path()) {
        return -1;
    }
    if ((options & VANTRO_CLEAN_KEEP_DIR) == 0) {
        fs::remove_all(dir, error);
        return error ? -1 : 0;
    }
    int result = 0;
    for (fs::directory_iterator it(dir, error), end; !error && it != end; it.increment(error)) {
        boost::system::error_code remove_error;
        fs::remove_all(it->path(), remove_error);
        if (remove_error) {
            result = -1;
        }
    }
    return error ? -1 : result;
}
