#include "tests/support/DovecotServer.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace zetest {

namespace {

const char kImapBinary[] = "/usr/lib/dovecot/imap";
const char kModuleDir[] = "/usr/lib/dovecot/modules";
// Dovecot finds a plugin by the name it is listed under in mail_plugins;
// the number only orders loading.
const char kXfnameModule[] = "lib90_imap_xfname_plugin.so";
// The stock modules the configuration loads: the quota plugins, and
// listescape, which lets folder names hold "." (as the production server
// does) by escaping it on disk.
const char* const kStockModules[] = {"lib10_quota_plugin.so", "lib11_imap_quota_plugin.so",
                                     "lib20_listescape_plugin.so"};

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("DovecotServer: " + what);
}

[[noreturn]] void fail_errno(const std::string& what) {
    fail(what + ": " + std::strerror(errno));
}

// Paths end up unquoted in the Dovecot config (where '%' and '$' expand)
// and in the wrapper script, so only plain characters are accepted.
bool is_plain_path(const std::string& path) {
    return !path.empty() && std::all_of(path.begin(), path.end(), [](unsigned char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '/' || c == '.' || c == '_' || c == '-' || c == '+';
    });
}

bool is_inbox(const std::string& folder) {
    if (folder.empty())
        return true;
    if (folder.size() != 5)
        return false;
    std::string upper = folder;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return upper == "INBOX";
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out)
        fail("cannot write " + path);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::string();
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

void make_dir(const fs::path& path, fs::perms mode) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec)
        fail("cannot create " + path.string() + ": " + ec.message());
    fs::permissions(path, mode, ec);
    if (ec)
        fail("cannot set the mode of " + path.string() + ": " + ec.message());
}

// ---- the IMAP session behind run_imap() ----

struct TimedOut {};

// Size of the literal announced at the end of the line [begin, end) as
// "{N}", ignoring a trailing CR. Returns false when the line announces none.
bool literal_at_end(const std::string& s, size_t begin, size_t end, size_t* size) {
    if (end > begin && s[end - 1] == '\r')
        --end;
    if (end <= begin || s[end - 1] != '}')
        return false;
    size_t p = end - 1;
    const size_t digits_end = p;
    while (p > begin && s[p - 1] >= '0' && s[p - 1] <= '9')
        --p;
    const size_t digits = digits_end - p;
    if (digits == 0 || digits > 18 || p == begin || s[p - 1] != '{')
        return false;
    size_t n = 0;
    for (size_t i = p; i < digits_end; ++i)
        n = n * 10 + static_cast<size_t>(s[i] - '0');
    *size = n;
    return true;
}

// Blocks SIGPIPE for this thread while we write to a server that may be
// gone, and swallows the signal such a write leaves pending.
class SigpipeGuard {
public:
    SigpipeGuard() {
        sigset_t pending;
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        sigpending(&pending);
        m_was_pending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
    }
    ~SigpipeGuard() {
        if (!m_was_pending) {
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGPIPE) == 1) {
                const struct timespec zero = {0, 0};
                sigtimedwait(&m_pipe, nullptr, &zero);
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

private:
    sigset_t m_pipe;
    sigset_t m_old;
    bool m_was_pending = false;
};

class Session {
public:
    enum class Answer { Tagged, Continuation, Eof };

    Session(pid_t pid, int to_server, int from_server,
            std::chrono::steady_clock::time_point deadline)
        : m_pid(pid), m_to(to_server), m_from(from_server), m_deadline(deadline) {}

    ~Session() {
        close_input();
        if (m_from >= 0)
            ::close(m_from);
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            int status = 0;
            while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::string& output() const { return m_out; }

    // Sends bytes while still reading the server, so neither side can block
    // the other on a full pipe. False when the server closed its input.
    bool send(const char* data, size_t len) {
        while (len > 0) {
            if (m_to < 0)
                return false;
            struct pollfd fds[2] = {{m_to, POLLOUT, 0}, {m_from, POLLIN, 0}};
            const nfds_t count = m_eof ? 1 : 2;
            _poll(fds, count);
            if (count == 2 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0)
                _read_once();
            if ((fds[0].revents & (POLLERR | POLLHUP)) != 0 && (fds[0].revents & POLLOUT) == 0)
                return false;
            if ((fds[0].revents & POLLOUT) == 0)
                continue;
            const ssize_t n = ::write(m_to, data, std::min<size_t>(len, 16384));
            if (n < 0) {
                if (errno == EAGAIN || errno == EINTR)
                    continue;
                return false;  // EPIPE: the server is gone
            }
            data += n;
            len -= static_cast<size_t>(n);
        }
        return true;
    }

    // Waits for the next complete response and returns it, or "" at end of
    // file.
    std::string next_response() {
        for (;;) {
            const size_t end = _response_end(m_scan);
            if (end != std::string::npos) {
                std::string response = m_out.substr(m_scan, end - m_scan);
                m_scan = end;
                return response;
            }
            if (m_eof)
                return std::string();
            _read_wait();
        }
    }

    // Skips responses until the tagged one for `tag` (or, with
    // want_continuation, a "+" request) arrives.
    Answer wait_for(const std::string& tag, bool want_continuation) {
        const std::string prefix = tag + " ";
        for (;;) {
            const std::string response = next_response();
            if (response.empty())
                return Answer::Eof;
            if (want_continuation && response[0] == '+')
                return Answer::Continuation;
            if (response.compare(0, prefix.size(), prefix) == 0)
                return Answer::Tagged;
        }
    }

    void close_input() {
        if (m_to >= 0) {
            ::close(m_to);
            m_to = -1;
        }
    }

    void read_to_end() {
        while (!m_eof)
            _read_wait();
    }

    // Reaps the server; afterwards the destructor has nothing left to kill.
    void reap() {
        for (;;) {
            int status = 0;
            const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
            if (r == m_pid || (r < 0 && errno != EINTR)) {
                m_pid = -1;
                return;
            }
            if (std::chrono::steady_clock::now() >= m_deadline)
                throw TimedOut();
            ::usleep(2000);
        }
    }

private:
    // End of the response starting at `from`: its last line, after any
    // literals the server sent inside it. npos while incomplete.
    size_t _response_end(size_t from) const {
        size_t p = from;
        for (;;) {
            const size_t nl = m_out.find('\n', p);
            if (nl == std::string::npos)
                return std::string::npos;
            size_t n = 0;
            if (!literal_at_end(m_out, p, nl, &n))
                return nl + 1;
            if (m_out.size() - (nl + 1) < n)
                return std::string::npos;
            p = nl + 1 + n;
        }
    }

    void _poll(struct pollfd* fds, nfds_t count) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              m_deadline - std::chrono::steady_clock::now())
                              .count();
        if (left <= 0)
            throw TimedOut();
        const int r = ::poll(fds, count, static_cast<int>(std::min<long long>(left, 1000)));
        if (r < 0 && errno != EINTR)
            fail_errno("poll");
    }

    void _read_wait() {
        struct pollfd fd = {m_from, POLLIN, 0};
        _poll(&fd, 1);
        if ((fd.revents & (POLLIN | POLLHUP | POLLERR)) != 0)
            _read_once();
    }

    void _read_once() {
        char buf[65536];
        const ssize_t n = ::read(m_from, buf, sizeof buf);
        if (n > 0)
            m_out.append(buf, static_cast<size_t>(n));
        else if (n == 0 || (errno != EINTR && errno != EAGAIN))
            m_eof = true;
    }

    pid_t m_pid;
    int m_to;
    int m_from;
    std::chrono::steady_clock::time_point m_deadline;
    std::string m_out;
    size_t m_scan = 0;  // start of the first response not yet examined
    bool m_eof = false;
};

// Feeds the script to the server one command at a time: each command waits
// for its tagged answer, a literal for the server's "+" first. A literal the
// server refuses (tagged answer instead of "+") is skipped with its command.
void play_script(Session& session, const std::string& script) {
    size_t p = 0;
    std::string tag;  // of the command being sent; empty between commands
    while (p < script.size()) {
        const size_t nl = script.find('\n', p);
        std::string line =
            nl == std::string::npos ? script.substr(p) + "\n" : script.substr(p, nl + 1 - p);
        p = nl == std::string::npos ? script.size() : nl + 1;
        if (tag.empty())
            tag = line.substr(0, line.find_first_of(" \r\n"));
        if (!session.send(line.data(), line.size()))
            return;
        size_t literal = 0;
        if (literal_at_end(line, 0, line.size() - 1, &literal)) {
            const Session::Answer answer = session.wait_for(tag, true);
            const size_t n = std::min(literal, script.size() - p);
            if (answer == Session::Answer::Eof)
                return;
            if (answer == Session::Answer::Tagged) {
                p += n;
                tag.clear();
                continue;
            }
            if (!session.send(script.data() + p, n))
                return;
            p += n;
            continue;  // the command goes on after the literal
        }
        if (tag.empty())
            continue;  // an empty line: nothing to wait for
        if (session.wait_for(tag, false) == Session::Answer::Eof)
            return;
        tag.clear();
    }
}

}  // namespace

std::string DovecotServer::default_xfname_plugin() {
#ifdef ZEMAIL_XFNAME_PLUGIN
    return ZEMAIL_XFNAME_PLUGIN;
#else
    return std::string();
#endif
}

namespace {

// A fresh directory under $TMPDIR (or /tmp) for one server.
std::string make_temp_dir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    std::string templ = base + "/zetest-dovecot.XXXXXX";
    if (!is_plain_path(templ))
        fail("temporary directory '" + base + "' has characters Dovecot's config cannot take");
    std::vector<char> name(templ.begin(), templ.end());
    name.push_back('\0');
    if (::mkdtemp(name.data()) == nullptr)
        fail_errno("mkdtemp(" + templ + ")");
    return name.data();
}

}  // namespace

DovecotServer::DovecotServer(const std::string& xfname_plugin) : DovecotServer(xfname_plugin, "") {}

DovecotServer::DovecotServer(const std::string& xfname_plugin, const std::string& kept_dir) {
    if (::access(kImapBinary, X_OK) != 0)
        fail_errno(std::string("Dovecot's imap binary is not usable at ") + kImapBinary);

    if (::geteuid() == 0) {
        struct passwd pw;
        struct passwd* found = nullptr;
        std::vector<char> buf(16384);
        if (::getpwnam_r("mail", &pw, buf.data(), buf.size(), &found) != 0 || found == nullptr)
            fail("running as root needs the system user 'mail'");
        m_owner.change = true;
        m_owner.uid = pw.pw_uid;
        m_owner.gid = pw.pw_gid;
    } else {
        m_owner.uid = ::geteuid();
        m_owner.gid = ::getegid();
    }

    if (kept_dir.empty()) {
        m_dir = make_temp_dir();
    } else {
        m_dir = fs::absolute(kept_dir).lexically_normal().string();
        if (!is_plain_path(m_dir))
            fail("directory '" + m_dir + "' has characters Dovecot's config cannot take");
        std::error_code ec;
        fs::remove_all(m_dir, ec);
        fs::create_directories(m_dir);
        m_keep = true;
    }

    try {
        // The mail user must reach everything below the temp directory.
        if (m_owner.change) {
            for (fs::path p = fs::path(m_dir).parent_path(); !p.empty(); p = p.parent_path()) {
                struct stat st;
                if (::stat(p.c_str(), &st) != 0)
                    fail_errno("stat(" + p.string() + ")");
                const bool reachable = (st.st_mode & S_IXOTH) != 0 ||
                                       (st.st_uid == m_owner.uid && (st.st_mode & S_IXUSR)) ||
                                       (st.st_gid == m_owner.gid && (st.st_mode & S_IXGRP));
                if (!reachable)
                    fail("the mail user cannot enter " + p.string() + "; set TMPDIR elsewhere");
                if (p == p.parent_path())
                    break;
            }
        }
        const fs::perms public_dir = fs::perms::owner_all | fs::perms::group_read |
                                     fs::perms::group_exec | fs::perms::others_read |
                                     fs::perms::others_exec;
        make_dir(m_dir, public_dir);
        m_config = m_dir + "/dovecot.conf";
        m_wrapper = m_dir + "/imap";
        m_plugins = m_dir + "/plugins";
        m_root = m_dir + "/mail";
        m_log = m_dir + "/log/dovecot.log";
        make_dir(m_plugins, public_dir);
        make_dir(m_root, public_dir);
        make_dir(m_dir + "/run", public_dir);
        make_dir(m_dir + "/state", public_dir);
        make_dir(m_dir + "/log", public_dir);
        write_file(m_log, "");
        _own(m_dir + "/log");

        for (const char* module : kStockModules) {
            const std::string target = std::string(kModuleDir) + "/" + module;
            if (::access(target.c_str(), R_OK) != 0)
                fail_errno("Dovecot plugin missing: " + target);
            fs::create_symlink(target, m_plugins + "/" + module);
        }
        if (!xfname_plugin.empty()) {
            std::error_code ec;
            const fs::path plugin = fs::canonical(xfname_plugin, ec);
            if (ec)
                fail("X-FNAME plugin not found at " + xfname_plugin + ": " + ec.message());
            fs::create_symlink(plugin, m_plugins + "/" + kXfnameModule);
        }
        _write_config(xfname_plugin);
        _write_wrapper();
    } catch (...) {
        std::error_code ec;
        if (!m_keep)
            fs::remove_all(m_dir, ec);
        throw;
    }
}

DovecotServer::~DovecotServer() {
    if (m_keep)
        return;
    std::error_code ec;
    fs::remove_all(m_dir, ec);
}

void DovecotServer::_write_config(const std::string& xfname_plugin) {
    const std::string uid = m_owner.change ? "mail" : std::to_string(m_owner.uid);
    const std::string gid = m_owner.change ? "mail" : std::to_string(m_owner.gid);
    std::ostringstream c;
    // imap started without the master logs to stderr whatever log_path
    // says; the wrapper sends that stream to the same file.
    c << "# Throwaway configuration of one test's IMAP server.\n"
      << "protocols = imap\n"
      << "ssl = no\n"
      << "base_dir = " << m_dir << "/run\n"
      << "state_dir = " << m_dir << "/state\n"
      << "log_path = " << m_log << "\n"
      << "info_log_path = " << m_log << "\n"
      << "mail_location = maildir:~/Maildir\n"
      << "mail_uid = " << uid << "\n"
      << "mail_gid = " << gid << "\n"
      << "first_valid_uid = " << (m_owner.uid == 0 ? 0 : 1) << "\n"
      << "first_valid_gid = " << (m_owner.gid == 0 ? 0 : 1) << "\n"
      << "mail_plugin_dir = " << m_plugins << "\n"
      << "mail_plugins = quota listescape\n";
    // Tests add folders behind Dovecot's back: read the file system on every
    // LIST instead of a cached list index, and stat entries so that the
    // dotted links (.dovecot-uidlist, .maildirsize) are not taken for
    // Maildir++ folders.
    c << "mailbox_list_index = no\n"
      << "maildir_stat_dirs = yes\n"
      << "mail_fsync = never\n"
      << "\n"
      << "namespace inbox {\n"
      << "  inbox = yes\n"
      << "  prefix =\n"
      << "  separator = /\n"
      << "}\n"
      << "\n"
      << "protocol imap {\n"
      << "  mail_plugins = $mail_plugins imap_quota"
      << (xfname_plugin.empty() ? "" : " imap_xfname") << "\n"
      << "}\n"
      << "\n";
    // An unnamed quota root: GETQUOTA "" answers * QUOTA "" (STORAGE used limit).
    c << "plugin {\n"
      << "  quota = maildir\n"
      << "  quota_rule = *:storage=100M\n"
      << "}\n";
    write_file(m_config, c.str());
}

void DovecotServer::_write_wrapper() {
    std::ostringstream w;
    w << "#!/bin/sh\n"
      << "# Dovecot's imap on this test's config; its log goes to " << m_log << ".\n"
      << "exec " << kImapBinary << " -c " << m_config << " \"$@\" 2>>" << m_log << "\n";
    write_file(m_wrapper, w.str());
    std::error_code ec;
    fs::permissions(m_wrapper,
                    fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                        fs::perms::others_read | fs::perms::others_exec,
                    ec);
    if (ec)
        fail("cannot make " + m_wrapper + " executable: " + ec.message());
}

std::string DovecotServer::home(const std::string& user) const {
    const size_t at = user.find('@');
    if (at == std::string::npos)
        return m_root + "/localhost/" + user;
    return m_root + "/" + user.substr(at + 1) + "/" + user.substr(0, at);
}

std::string DovecotServer::maildir(const std::string& user) const {
    return home(user) + "/Maildir";
}

std::string DovecotServer::folder_path(const std::string& user, const std::string& folder) const {
    if (is_inbox(folder))
        return maildir(user);
    // Maildir++: "/" becomes "."; a "." of the name itself, and listescape's
    // escape character, are written as listescape writes them.
    std::string dotted;
    for (const char c : folder) {
        if (c == '/') {
            dotted += '.';
        } else if (c == '.') {
            dotted += "\\2e";
        } else if (c == '\\') {
            dotted += "\\5c";
        } else {
            dotted += c;
        }
    }
    return maildir(user) + "/." + dotted;
}

std::string DovecotServer::env(const std::string& user) const {
    const std::string h = home(user);
    return "HOME=" + h + " USER=" + user + " MAIL=maildir:" + h + "/Maildir";
}

std::string DovecotServer::log() const {
    return read_file(m_log);
}

void DovecotServer::_own(const std::string& path) const {
    if (!m_owner.change)
        return;
    auto own_one = [this](const fs::path& p) {
        if (::lchown(p.c_str(), m_owner.uid, m_owner.gid) != 0)
            fail_errno("chown(" + p.string() + ")");
    };
    own_one(path);
    std::error_code ec;
    if (!fs::is_directory(fs::symlink_status(path, ec)))
        return;
    for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec))
        own_one(it->path());
    if (ec)
        fail("cannot walk " + path + ": " + ec.message());
}

void DovecotServer::fix_ownership() const {
    _own(m_root);
}

void DovecotServer::_make_maildir(const std::string& path, bool is_folder) const {
    const fs::perms mode = fs::perms::owner_all;
    make_dir(path, mode);
    for (const char* sub : {"/cur", "/new", "/tmp"})
        make_dir(path + sub, mode);
    if (is_folder && !fs::exists(path + "/maildirfolder"))
        write_file(path + "/maildirfolder", "");
    for (const char* name : {"dovecot-uidlist", "maildirsize"}) {
        const fs::path link = fs::path(path) / (std::string(".") + name);
        std::error_code ec;
        if (fs::symlink_status(link, ec).type() == fs::file_type::not_found) {
            fs::create_symlink(name, link, ec);
            if (ec)
                fail("cannot link " + link.string() + ": " + ec.message());
        }
    }
    _own(path);
}

void DovecotServer::add_user(const std::string& user) {
    const std::string h = home(user);
    const fs::perms public_dir = fs::perms::owner_all | fs::perms::group_read |
                                 fs::perms::group_exec | fs::perms::others_read |
                                 fs::perms::others_exec;
    make_dir(fs::path(h).parent_path(), public_dir);  // the domain folder
    make_dir(h, fs::perms::owner_all);
    _make_maildir(h + "/Maildir", false);
    _own(h);
}

void DovecotServer::_subscribe(const std::string& user, const std::string& folder) const {
    // Dovecot's own format: a version header, then one name per line with
    // the hierarchy levels separated by tabs.
    const std::string path = maildir(user) + "/subscriptions";
    std::string text = read_file(path);
    if (text.empty())
        text = "V\t2\n\n";
    std::string entry = folder;
    std::replace(entry.begin(), entry.end(), '/', '\t');
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line == entry)
            return;
    if (text.back() != '\n')
        text += '\n';
    write_file(path, text + entry + "\n");
    _own(path);
}

void DovecotServer::add_folder(const std::string& user, const std::string& folder, bool subscribe) {
    const std::string path = folder_path(user, folder);
    add_user(user);
    if (is_inbox(folder))
        return;
    _make_maildir(path, true);
    if (subscribe)
        _subscribe(user, folder);
}

std::string DovecotServer::deliver(const std::string& user, const std::string& folder,
                                   const std::string& bytes, const std::string& flags,
                                   bool seen_in_cur) {
    const std::string path = folder_path(user, folder);
    if (!fs::is_directory(path + "/cur"))
        add_folder(user, folder);

    // Dovecot gives new files their UIDs in the order of the time stamp and
    // then the number after M, so names must grow with every delivery.
    long long now = static_cast<long long>(std::time(nullptr));
    if (now < m_last_time)
        now = m_last_time;
    m_last_time = now;
    ++m_delivered;
    const std::string name = std::to_string(now) + ".M" + std::to_string(m_delivered) + "P" +
                             std::to_string(::getpid()) + ".zetest";

    const std::string staged = path + "/tmp/" + name;
    write_file(staged, bytes);
    _own(staged);

    // The file name carries the size the way the production server writes
    // it ("<base>,S=<bytes>"), so that the base name ends at the first ",".
    const std::string file = name + ",S=" + std::to_string(bytes.size());
    std::string final_path;
    if (flags.empty() && !seen_in_cur) {
        final_path = path + "/new/" + file;
    } else {
        std::string sorted = flags;
        std::sort(sorted.begin(), sorted.end());
        sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
        final_path = path + "/cur/" + file + ":2," + sorted;
    }
    if (::rename(staged.c_str(), final_path.c_str()) != 0)
        fail_errno("rename(" + staged + ", " + final_path + ")");
    return name;
}

std::string DovecotServer::run_imap(const std::string& user, const std::string& script,
                                    std::chrono::milliseconds timeout) const {
    const std::string h = home(user);
    // Everything the child needs is built before fork().
    std::vector<std::string> env_text = {"HOME=" + h, "USER=" + user,
                                         "MAIL=maildir:" + h + "/Maildir",
                                         "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    std::vector<char*> envp;
    for (std::string& e : env_text)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string program = m_wrapper;
    char* argv[] = {program.data(), nullptr};

    int to_server[2];
    int from_server[2];
    if (::pipe2(to_server, O_CLOEXEC) != 0)
        fail_errno("pipe");
    if (::pipe2(from_server, O_CLOEXEC) != 0) {
        const int saved = errno;
        ::close(to_server[0]);
        ::close(to_server[1]);
        errno = saved;
        fail_errno("pipe");
    }

    const pid_t pid = ::fork();
    if (pid < 0) {
        const int saved = errno;
        for (int fd : {to_server[0], to_server[1], from_server[0], from_server[1]})
            ::close(fd);
        errno = saved;
        fail_errno("fork");
    }
    if (pid == 0) {
        // dup2() clears close-on-exec, except when a descriptor already sits
        // at its target number.
        if (to_server[0] == 0)
            ::fcntl(0, F_SETFD, 0);
        else
            ::dup2(to_server[0], 0);
        if (from_server[1] == 1)
            ::fcntl(1, F_SETFD, 0);
        else
            ::dup2(from_server[1], 1);
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::signal(SIGPIPE, SIG_DFL);
        ::execve(argv[0], argv, envp.data());
        ::_exit(127);
    }
    ::close(to_server[0]);
    ::close(from_server[1]);
    ::fcntl(to_server[1], F_SETFL, ::fcntl(to_server[1], F_GETFL) | O_NONBLOCK);

    SigpipeGuard no_sigpipe;
    Session session(pid, to_server[1], from_server[0], std::chrono::steady_clock::now() + timeout);
    try {
        // Commands go out only after the greeting, as a real client sends them.
        if (!session.next_response().empty())
            play_script(session, script);
        session.close_input();
        session.read_to_end();
        session.reap();
    } catch (const TimedOut&) {
        fail("IMAP session of " + user + " timed out after " + std::to_string(timeout.count()) +
             " ms; output so far:\n" + session.output());
    }
    return session.output();
}

}  // namespace zetest
