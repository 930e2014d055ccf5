#include "imap/ZePipe.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <stdexcept>
#include <vector>

#include "foundation/TokenIterator.h"
#include "support/Buffer.h"
#include "support/Debug.h"

namespace {

const char* const kUnit = "ZePipe";

// The most trace_residual_data() drains, so that a child that keeps writing
// cannot keep us in the drain loop.
constexpr std::size_t kMaxResidual = 1u << 20;

[[noreturn]] void throw_read_error() {
    throw std::runtime_error(std::string("Internal error:") + std::strerror(errno));
}

// write() with SIGPIPE held back for this thread: a child that has exited
// makes the write fail with EPIPE instead of killing the caller's process.
ssize_t write_without_sigpipe(int fd, const void* data, std::size_t length) {
    sigset_t pipe_only, old_mask;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    const bool was_pending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipe_only, &old_mask);

    ssize_t written;
    do {
        written = ::write(fd, data, length);
    } while (written < 0 && errno == EINTR);

    if (written < 0 && errno == EPIPE && !was_pending) {
        // Consume the SIGPIPE our own write raised, keeping errno.
        int saved = errno;
        timespec none = {0, 0};
        while (sigtimedwait(&pipe_only, nullptr, &none) < 0 && errno == EINTR) {
        }
        errno = saved;
    }
    pthread_sigmask(SIG_SETMASK, &old_mask, nullptr);
    return written;
}

}  // namespace

// ---------------------------------------------------------------- ZePipeIO

ZePipeIO::~ZePipeIO() {
    _close_descriptors();
}

void ZePipeIO::read_fd(int fd) {
    m_read_fd = fd;
    set_nonblock(fd, m_nonblocking);
}

int ZePipeIO::set_nonblock(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) {
        return -1;
    }
    flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    return fcntl(fd, F_SETFL, flags) < 0 ? -1 : 0;
}

int ZePipeIO::wait_io_event(int fd, int timeout_seconds) {
    pollfd entry = {};
    entry.fd = fd;
    entry.events = POLLIN | POLLPRI | POLLERR | POLLRDHUP;
    const std::time_t start = std::time(nullptr);
    while (true) {
        int ready = poll(&entry, 1, 2);
        if (ready > 0) {
            break;
        }
        if (ready < 0 && errno != EINTR) {
            basepp::dbg::debug(kUnit, __LINE__, "wait_io_event", "PIPE poll failed: %s",
                               std::strerror(errno));
            return -1;
        }
        if (m_read_fd < 1 || m_write_fd < 1) {
            return -1;
        }
        if (std::time(nullptr) - start >= timeout_seconds) {
            return -1;
        }
    }
    if (entry.revents & (POLLRDHUP | POLLHUP)) {
        basepp::dbg::debug(kUnit, __LINE__, "wait_io_event", "PIPE fd hung: %s",
                           std::strerror(errno));
        return 0;
    }
    if (entry.revents & POLLERR) {
        basepp::dbg::debug(kUnit, __LINE__, "wait_io_event", "PIPE fd error: %s",
                           std::strerror(errno));
        return -1;
    }
    return (entry.revents & (POLLIN | POLLPRI)) ? 1 : 0;
}

int ZePipeIO::readable() {
    return m_nonblocking ? wait_io_event(m_read_fd, m_timeout) : 1;
}

int ZePipeIO::_fill(unsigned char* chunk) {
    while (true) {
        int ready = readable();
        if (ready < 0) {
            return ready;
        }
        // On a hang-up (ready == 0) the pipe may still hold the child's last
        // words, written just before it exited: read them rather than drop
        // them. read() then answers 0 once the pipe is empty.
        ssize_t got = ::read(m_read_fd, chunk, kCarrySize);
        if (got >= 0) {
            return static_cast<int>(got);
        }
        if (errno == EINTR) {
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (ready == 0) {
                return 0;
            }
            continue;  // poll saw an event without data: wait again
        }
        throw_read_error();
    }
}

int ZePipeIO::receive(unsigned char* out, unsigned int max, char delimiter) {
    // The chunk being handed out always sits at the front of the carry-over
    // buffer: carried bytes are used where they are and a new chunk is read
    // straight into it, so each byte is copied once into out, and the
    // unread rest is moved down once.
    int chunk_length = m_carry_count;
    m_carry_count = 0;
    if (max < 1) {
        return 0;
    }
    if (chunk_length == 0) {
        chunk_length = _fill(m_carry);
        if (chunk_length < 1) {
            return chunk_length;
        }
    }
    unsigned int placed = 0;
    while (true) {
        std::size_t used =
            std::min<std::size_t>(static_cast<std::size_t>(chunk_length), max - placed);
        bool at_delimiter = false;
        if (delimiter != 0) {
            const void* hit = std::memchr(m_carry, static_cast<unsigned char>(delimiter), used);
            if (hit != nullptr) {
                used =
                    static_cast<std::size_t>(static_cast<const unsigned char*>(hit) - m_carry) + 1;
                at_delimiter = true;
            }
        }
        std::memcpy(out + placed, m_carry, used);
        placed += static_cast<unsigned int>(used);
        if (used < static_cast<std::size_t>(chunk_length)) {
            m_carry_count = chunk_length - static_cast<int>(used);
            std::memmove(m_carry, m_carry + used, static_cast<std::size_t>(m_carry_count));
        }
        if (at_delimiter || placed >= max) {
            return static_cast<int>(placed);
        }
        chunk_length = _fill(m_carry);
        if (chunk_length < 0) {
            return chunk_length;
        }
        if (chunk_length == 0) {
            return static_cast<int>(placed);  // end of input: what arrived
        }
    }
}

int ZePipeIO::readline(Corvane::Buffer& line) {
    line.clear();
    unsigned int ask = kLinePiece;
    while (true) {
        // Each piece is received straight into the line's storage.
        const std::size_t have = line.length();
        line.reserve(have + ask);
        const int got = receive(reinterpret_cast<unsigned char*>(line.data()) + have, ask, '\n');
        if (got < 0) {
            line.clear();
            return 0;
        }
        line.length(have + static_cast<std::size_t>(got));
        if (got == 0) {
            break;
        }
        const char last = line[line.length() - 1];
        if (last == '\n') {
            break;
        }
        // A piece ending in CR: ask for the one byte that should be its LF.
        ask = last == '\r' ? 1 : kLinePiece;
    }
    std::size_t length = line.length();
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) {
        --length;
    }
    line.length(length);
    return static_cast<int>(length);
}

ssize_t ZePipeIO::write(const Corvane::Buffer& data) {
    if (data.length() == 0) {
        return 0;
    }
    return _write(data.data(), data.length());
}

ssize_t ZePipeIO::_write(const void* data, std::size_t length) {
    return write_without_sigpipe(m_write_fd, data, length);
}

void ZePipeIO::trace_residual_data(bool whole) {
    std::string text(reinterpret_cast<const char*>(m_carry),
                     static_cast<std::size_t>(m_carry_count));
    m_carry_count = 0;
    if (m_read_fd > 0) {
        pollfd entry = {};
        entry.fd = m_read_fd;
        entry.events = POLLIN;
        char chunk[512];
        while (text.size() < kMaxResidual && poll(&entry, 1, 0) > 0 && (entry.revents & POLLIN)) {
            ssize_t got = ::read(m_read_fd, chunk, sizeof chunk);
            if (got < 1) {
                break;
            }
            text.append(chunk, static_cast<std::size_t>(got));
        }
    }
    if (text.empty() || !basepp::dbg::enabled()) {
        return;
    }
    if (whole) {
        basepp::dbg::debug(kUnit, __LINE__, "trace_residual_data",
                           "!!! Unhandled IMAP response: %s", text.c_str());
        return;
    }
    std::list<std::string> lines;
    string2list(lines, text, '\n', true);
    for (const std::string& one : lines) {
        basepp::dbg::debug(kUnit, __LINE__, "trace_residual_data",
                           "!!! Unhandled IMAP response: %s", one.c_str());
    }
}

void ZePipeIO::_close_descriptors() {
    if (m_read_fd > 0) {
        ::close(m_read_fd);
    }
    m_read_fd = -1;
    if (m_write_fd > 0) {
        ::close(m_write_fd);
    }
    m_write_fd = -1;
}

void ZePipeIO::close() {
    trace_residual_data(true);
    _close_descriptors();
}

void ZePipeIO::close(int) {
    trace_residual_data(false);
    _close_descriptors();
}

// ---------------------------------------------------------------- ZePipeProgram

ZePipeProgram::~ZePipeProgram() {
    if (m_open) {
        close();
    }
}

int ZePipeProgram::open(const std::string& path, const std::string& args, const std::string& env) {
    std::list<std::string> arg_items;
    string2list(arg_items, args, ' ', true);
    std::list<std::string> env_items;
    string2list(env_items, env, ' ', true);
    Variables variables;
    for (const std::string& item : env_items) {
        const std::string::size_type equals = item.find('=');
        if (equals != std::string::npos) {
            variables.emplace_back(item.substr(0, equals), item.substr(equals + 1));
        }
    }
    return open(path, std::vector<std::string>(arg_items.begin(), arg_items.end()), variables);
}

namespace {

bool holds_nul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

// What execv and setenv cannot take as it is: a NUL would cut the text, and
// a name with '=' or no name at all would set another variable than asked.
bool passable(const std::string& path, const std::vector<std::string>& args,
              const ZePipeProgram::Variables& env) {
    if (holds_nul(path)) {
        return false;
    }
    for (const std::string& arg : args) {
        if (holds_nul(arg)) {
            return false;
        }
    }
    for (const auto& variable : env) {
        if (variable.first.empty() || variable.first.find('=') != std::string::npos ||
            holds_nul(variable.first) || holds_nul(variable.second)) {
            return false;
        }
    }
    return true;
}

}  // namespace

int ZePipeProgram::open(const std::string& path, const std::vector<std::string>& args,
                        const Variables& env) {
    if (!passable(path, args, env)) {
        basepp::dbg::debug(kUnit, __LINE__, "open", "refused: %s cannot be passed intact",
                           path.c_str());
        return -1;
    }
    // Both pipes close on exec: only the child's standard input and output
    // (made by dup2, which clears the flag) reach the program, and no later
    // child of the caller inherits our ends and keeps the server's input open.
    int to_child[2];
    if (pipe2(to_child, O_CLOEXEC) < 0) {
        std::perror("write pipe");
        return -1;
    }
    int from_child[2];
    if (pipe2(from_child, O_CLOEXEC) < 0) {
        std::perror("read pipe");
        ::close(to_child[0]);
        ::close(to_child[1]);
        return -1;
    }

    // Everything the child needs is built before fork: between fork and exec
    // the child only moves descriptors, sets variables and execs.
    const std::string::size_type slash = path.rfind('/');
    std::vector<std::string> argv_text;
    argv_text.push_back(slash == std::string::npos ? path : path.substr(slash + 1));
    argv_text.insert(argv_text.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& item : argv_text) {
        argv.push_back(&item[0]);
    }
    argv.push_back(nullptr);
    const Variables& variables = env;

    pid_t pid = fork();
    if (pid == 0) {
        ::close(from_child[0]);
        dup2(from_child[1], 1);
        ::close(from_child[1]);
        ::close(to_child[1]);
        dup2(to_child[0], 0);
        ::close(to_child[0]);
        for (const auto& variable : variables) {
            setenv(variable.first.c_str(), variable.second.c_str(), 1);
        }
        execv(path.c_str(), argv.data());
        std::perror(path.c_str());
        _exit(0);
    }

    // Parent; a failed fork (-1) is stored as the pid like any other: the
    // caller then reads end of input at once.
    ::close(to_child[0]);
    ::close(from_child[1]);
    m_io.write_fd(to_child[1]);
    m_io.read_fd(from_child[0]);
    m_io.timeout(ZePipeIO::kDefaultTimeout);
    m_io.out_of_step(false);
    m_pid = pid;
    m_open = true;
    return 0;
}

int ZePipeProgram::close() {
    if (!m_open) {
        return 0;
    }
    basepp::dbg::debug(kUnit, __LINE__, "close", "ZePipeProgram::close() is called");
    m_io.close();
    m_open = false;
    _reap();
    return 0;
}

void ZePipeProgram::_reap() {
    if (m_pid <= 0) {
        return;  // no child was made: never wait for someone else's
    }
    // The child ends on the end of its input; one that ignores it is killed
    // after the grace period rather than blocking the caller for ever.
    for (int waited_ms = 0; waited_ms < kExitGraceSeconds * 1000; waited_ms += 2) {
        pid_t done = waitpid(m_pid, nullptr, WNOHANG);
        if (done == m_pid || (done < 0 && errno != EINTR)) {
            return;
        }
        usleep(2000);
    }
    basepp::dbg::debug(kUnit, __LINE__, "close", "child %d ignored end of input; killed", m_pid);
    kill(m_pid, SIGKILL);
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

int ZePipeProgram::close(int pid) {
    if (m_open && pid == m_pid) {
        m_io.close(pid);
        m_open = false;
    }
    return 0;
}
