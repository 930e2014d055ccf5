#ifndef ZEMAIL_IMAP_ZE_IMAP_CLIENT_H
#define ZEMAIL_IMAP_ZE_IMAP_CLIENT_H

#include <sys/types.h>

#include <climits>
#include <map>
#include <ostream>
#include <string>

#include "foundation/TokenIterator.h"
#include "imap/ZeImapProcessor.h"
#include "imap/ZePipe.h"
#include "support/Buffer.h"
#include "support/MailUserId.h"

class ZeImapResponseRef;

// The request tag shared by every request of the process: "Ze" and a counter
// that starts at 1 and never goes back while the process lives. Printing a tag
// writes its text.
struct ZeImapTag {
    unsigned int m_counter = 0;
    std::string m_tag;

    // Moves to the next tag and returns its text.
    const std::string& next();

    static ZeImapTag m_instance;
};
std::ostream& operator<<(std::ostream& out, const ZeImapTag& tag);

// A command and the processor that consumes its untagged responses (empty
// when the responses need no processing). Printing a command writes its wire
// text; a value outside the table prints nothing.
class ZeImapCommand {
public:
    enum COMMAND : int {
        NOOP = 0,
        CAPABILITY = 1,
        LIST = 2,
        STATUS = 3,
        SELECT = 4,
        FETCH = 5,
        SEARCH = 6,
        EXPUNGE = 7,
        STORE = 8,
        UID_FETCH = 9,
        UID_SEARCH = 10,
        UID_STORE = 11,
        UID_COPY = 12,
        UID_MOVE = 13,
        UID_EXPUNGE = 14,
        GETQUOTA = 15,
        APPEND = 16,
        CREATE = 17,
        DELETE = 18,
        RENAME = 19,
        LOGOUT = 20,
        NONE = 21,
    };

    ZeImapCommand(COMMAND command = NONE);  // NOLINT: commands convert from their value

    COMMAND command() const { return m_command; }
    void set_processor(const ZeImapProcessorRef& processor) { m_processor = processor; }
    const ZeImapProcessorRef& get_processor() const { return m_processor; }

    // The wire text of this command ("UID FETCH"); "" for a value outside the table.
    const std::string& text() const { return text(m_command); }
    static const std::string& text(COMMAND command);

    // Hands a parsed response to the processor: 0 without one, else its result.
    int process(ZeImapResponseRef& response);

    // The command table, value to wire text; filled once, by every constructor.
    static void init_map();
    static const std::map<COMMAND, std::string>& m_cmd2string();

private:
    COMMAND m_command;
    ZeImapProcessorRef m_processor;
};
std::ostream& operator<<(std::ostream& out, const ZeImapCommand& command);

// The process-wide owner of the IMAP server child: one child, serving one user
// at a time, started pre-authenticated through its environment (HOME, USER,
// MAIL=maildir:<mail path>). No lock: callers use it from one thread at a time.
class ZeImapConnection {
public:
    // The connection, made on first use and never destroyed.
    static ZeImapConnection* instance();

    // The pipes of the child serving user, first replacing the child when it
    // serves someone else (LOGOUT with a 5-second time-out, close, wait,
    // start). Returned even when the start failed: its descriptors are then
    // -1 and every request on it fails its wait.
    ZePipeIO& get_io(const ZeMailUserId& user);

    // Ends a running child politely, then starts one for the current user.
    int open();
    // Starts the child for the current user; non-zero when it runs.
    int connect();
    // Replaces the child (for the same user) after a server failure.
    int reconnect();
    // Ends the child and reaps it; close(pid) closes the pipes only.
    int close();
    int close(int pid);

    const ZeMailUserId& user() const { return m_username; }
    ZePipeProgram& program() { return m_program; }

    // The server program: "/bin/imap" unless overridden (support/Paths.h).
    static std::string m_imap_cmd();

private:
    ZeImapConnection() = default;

    ZeMailUserId m_username;
    ZePipeProgram m_program;
    static ZeImapConnection* m_instance;
};

// Hands the server's answer to the parsers line by line, and literal by literal.
class ZeImapFeeder {
public:
    explicit ZeImapFeeder(ZePipeIO& io) : m_io(io) {}

    // Reads the next whole line (line ending stripped) and restarts the token
    // iterator on it. Returns its length, or -1 when the read failed.
    int nextline();
    // A wait that timed out in readline() or readliteral() marks the input as
    // stalled: every later read answers at once as failed (nextline() -1,
    // readline() 0, readliteral() -1) instead of waiting out the time-out
    // again, so a server that stops inside an answer costs one time-out per
    // exchange. The request resumes the feeder when it sends a command.
    bool stalled() const { return m_stalled; }
    void resume() { m_stalled = false; }
    // Makes the next nextline() give the current line again (a parser that
    // read one line too far hands it back).
    void keep_line() { m_keep = true; }
    Corvane::Buffer& curline() { return m_line; }
    TokenIterator& token() { return m_token; }

    // One read of at most max bytes up to and including a line feed into b
    // (replacing its content): b's new length, 0 when nothing was read.
    int readline(Corvane::Buffer& b, int max);
    // One read of up to n bytes, no delimiter, into b (replacing its content):
    // the count placed, or the failed wait's result (0 or -1) unchanged.
    int readliteral(Corvane::Buffer& b, int n);
    // Reads exactly n bytes, looping over readliteral, and appends the first
    // keep of them to b; the rest is read and dropped, so that a literal
    // larger than its reader wants still leaves the stream in step. Stops
    // early only at end of input or time-out. Returns the bytes read.
    long readliteral_all(Corvane::Buffer& b, long n, long keep = LONG_MAX);

    ssize_t write(const Corvane::Buffer& b) { return m_io.write(b); }
    int timeout() const { return m_io.timeout(); }
    void timeout(int seconds) { m_io.timeout(seconds); }
    ZePipeIO& io() { return m_io; }

private:
    // One receive into b (replacing its content); notes a failed wait.
    int _receive(Corvane::Buffer& b, int max, char delimiter);

    ZePipeIO& m_io;
    TokenIterator m_token;
    Corvane::Buffer m_line;
    bool m_keep = false;
    bool m_stalled = false;
};

#endif
