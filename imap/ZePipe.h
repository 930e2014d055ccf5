#ifndef ZEMAIL_IMAP_ZE_PIPE_H
#define ZEMAIL_IMAP_ZE_PIPE_H

#include <sys/types.h>

#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Corvane {
class Buffer;
}

// The parent's side of the two pipes to the IMAP server child: bounded,
// time-limited, line-oriented reads through a private carry-over buffer, and
// plain writes. Used by one thread at a time; holds no lock. Owns its
// descriptors: they are closed by close() or, at the latest, by the destructor.
class ZePipeIO {
public:
    static constexpr int kDefaultTimeout = 60;    // seconds
    static constexpr unsigned kCarrySize = 1024;  // also the size of one read()
    static constexpr unsigned kLinePiece = 2048;  // bytes asked per receive by readline(Buffer&)

    ZePipeIO() = default;
    ~ZePipeIO();
    ZePipeIO(const ZePipeIO&) = delete;
    ZePipeIO& operator=(const ZePipeIO&) = delete;

    int read_fd() const { return m_read_fd; }
    int write_fd() const { return m_write_fd; }
    // Stores the read descriptor and applies the non-blocking setting to it.
    void read_fd(int fd);
    void write_fd(int fd) { m_write_fd = fd; }

    int timeout() const { return m_timeout; }
    void timeout(int seconds) { m_timeout = seconds; }

    // When on (the default), every read waits for input first, with the time-out.
    bool nonblocking() const { return m_nonblocking; }
    void nonblocking(bool on) { m_nonblocking = on; }

    // Sets or clears O_NONBLOCK; 0, or -1 when the descriptor refuses.
    static int set_nonblock(int fd, bool on);

    // Waits, in 2 ms polls, up to timeout_seconds whole seconds for input on
    // fd: 1 input ready, 0 the other side hung up, -1 error, time-out, or one of
    // our descriptors closed meanwhile.
    int wait_io_event(int fd, int timeout_seconds);

    // 1 at once in blocking mode, else wait_io_event(read descriptor, time-out).
    int readable();

    // Reads up to max bytes into out, stopping after the delimiter (kept; 0 for
    // none). Bytes read past it stay in the carry-over buffer for the next call.
    // Returns the bytes placed, 0 at end of input, or the failed wait's result
    // (-1) when no answer came in time. A read() failure throws
    // std::runtime_error("Internal error:<strerror>").
    int receive(unsigned char* out, unsigned int max, char delimiter);
    int readline(unsigned char* out, unsigned int max) { return receive(out, max, '\n'); }

    // Reads one whole line of any length into line, without its line ending
    // (the content is followed by a zero byte). Returns the stripped length;
    // 0 with an empty buffer when the wait failed.
    int readline(Corvane::Buffer& line);

    // One write() of the whole buffer; its result (short writes not retried),
    // 0 for an empty buffer. A child that has gone gives -1 (EPIPE), never
    // SIGPIPE.
    ssize_t write(const Corvane::Buffer& data);

    // Formats value as a stream would and writes the text with one write().
    template <class T>
    ZePipeIO& operator<<(const T& value) {
        std::ostringstream text;
        text << value;
        const std::string out = text.str();
        _write(out.data(), out.size());
        return *this;
    }

    // Whether the last command sent on these pipes ended without its tagged
    // answer (a time-out, a foreign tag, an empty line): its answer, or the
    // rest of it, may still arrive and must not be taken for the next
    // command's. Cleared when a program is started on the pipes.
    bool out_of_step() const { return m_out_of_step; }
    void out_of_step(bool on) { m_out_of_step = on; }

    // Drains what the server sent that nobody read (the carry-over bytes, then
    // whatever the pipe holds now) and logs it with the prefix
    // "!!! Unhandled IMAP response: ": as one record when whole, else a record
    // per line.
    void trace_residual_data(bool whole);

    // Drain (whole, or line by line) and close both descriptors. A descriptor
    // of value 0 counts as closed and is never closed here.
    void close();
    void close(int);

private:
    // One read() after waiting: bytes read, 0 at end of input, -1 on time-out.
    int _fill(unsigned char* chunk);
    ssize_t _write(const void* data, std::size_t length);
    void _close_descriptors();

    int m_read_fd = -1;   // child's standard output
    int m_write_fd = -1;  // child's standard input
    bool m_nonblocking = true;
    int m_timeout = kDefaultTimeout;
    unsigned char m_carry[kCarrySize] = {};
    int m_carry_count = 0;
    bool m_out_of_step = false;
};

// Starts a program with its standard input and output on pipes to us, and
// ends it. Standard error is inherited.
class ZePipeProgram {
public:
    // A child that ignores the end of its input is killed after this many
    // seconds, so that close() can never hang.
    static constexpr int kExitGraceSeconds = 30;

    ZePipeProgram() = default;
    ~ZePipeProgram();
    ZePipeProgram(const ZePipeProgram&) = delete;
    ZePipeProgram& operator=(const ZePipeProgram&) = delete;

    // Starts path with the blank-separated args, after setting each
    // "NAME=value" item of the blank-separated env in the child's environment
    // (split at the first '='; items without '=' are ignored). Returns 0 in
    // the parent, -1 when a pipe cannot be made ("write pipe"/"read pipe" on
    // standard error). Text with blanks of its own cannot go through this
    // form: use the one below.
    int open(const std::string& path, const std::string& args, const std::string& env);

    // The same with every argument and every variable as a string of its
    // own, passed to the child as it is: a value may hold blanks, '=' and
    // anything else but NUL. Returns -1, starting nothing, when a text holds
    // a NUL or a variable name is empty or holds '=' (it could not reach the
    // child intact).
    using Variables = std::vector<std::pair<std::string, std::string>>;
    int open(const std::string& path, const std::vector<std::string>& args, const Variables& env);

    // Closes the pipes (draining unread input into the log) and reaps the
    // child, which ends on the end of its input. Returns 0.
    int close();

    // Closes the pipes only, without reaping, when open and pid is ours.
    int close(int pid);

    ZePipeIO& io() { return m_io; }
    int pid() const { return m_pid; }
    bool is_open() const { return m_open; }
    const std::string& program() const { return m_program; }

private:
    void _reap();

    std::string m_program;
    ZePipeIO m_io;
    int m_pid = -1;
    bool m_open = false;
};

#endif
