#include "imap/ZeImapClient.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "imap/ZeImapRequest.h"
#include "imap/ZeImapResponse.h"
#include "support/Debug.h"
#include "support/Paths.h"

namespace {

const char* const kUnit = "ZeImapClient";

// The program's own name from /proc/<pid>/cmdline: its first line, up to the
// first zero byte. Empty when it cannot be read.
std::string own_command_line(int pid) {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/cmdline", pid);
    std::FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        return std::string();
    }
    char line[1024] = {};
    const bool read = std::fgets(line, sizeof line, file) != nullptr;
    std::fclose(file);
    return read ? std::string(line) : std::string();  // stops at the first zero byte
}

}  // namespace

// ---------------------------------------------------------------- ZeImapTag

ZeImapTag ZeImapTag::m_instance;

const std::string& ZeImapTag::next() {
    ++m_counter;
    m_tag = "Ze" + std::to_string(m_counter);
    return m_tag;
}

std::ostream& operator<<(std::ostream& out, const ZeImapTag& tag) {
    return out << tag.m_tag;
}

// ---------------------------------------------------------------- ZeImapCommand

const std::map<ZeImapCommand::COMMAND, std::string>& ZeImapCommand::m_cmd2string() {
    static const std::map<COMMAND, std::string> table = {
        {NOOP, "NOOP"},
        {CAPABILITY, "CAPABILITY"},
        {LIST, "LIST"},
        {STATUS, "STATUS"},
        {SELECT, "SELECT"},
        {FETCH, "FETCH"},
        {SEARCH, "SEARCH"},
        {EXPUNGE, "EXPUNGE"},
        {STORE, "STORE"},
        {UID_FETCH, "UID FETCH"},
        {UID_SEARCH, "UID SEARCH"},
        {UID_STORE, "UID STORE"},
        {UID_COPY, "UID COPY"},
        {UID_MOVE, "UID MOVE"},
        {UID_EXPUNGE, "UID EXPUNGE"},
        {GETQUOTA, "GETQUOTA"},
        {APPEND, "APPEND"},
        {CREATE, "CREATE"},
        {DELETE, "DELETE"},
        {RENAME, "RENAME"},
        {LOGOUT, "LOGOUT"},
        {NONE, ""},
    };
    return table;
}

// The table is a function-local constant, built on first use: constructing a
// command (global ones included, during static initialisation) only makes
// sure it exists.
void ZeImapCommand::init_map() {
    (void)m_cmd2string();
}

ZeImapCommand::ZeImapCommand(COMMAND command) : m_command(command) {
    init_map();
}

const std::string& ZeImapCommand::text(COMMAND command) {
    const auto& table = m_cmd2string();
    auto found = table.find(command);
    return found != table.end() ? found->second : table.at(NONE);
}

int ZeImapCommand::process(ZeImapResponseRef& response) {
    if (m_processor.isNull()) {
        return 0;
    }
    return m_processor->process(response);
}

std::ostream& operator<<(std::ostream& out, const ZeImapCommand& command) {
    return out << command.text();
}

// ---------------------------------------------------------------- ZeImapConnection

ZeImapConnection* ZeImapConnection::m_instance = nullptr;

ZeImapConnection* ZeImapConnection::instance() {
    if (m_instance == nullptr) {
        m_instance = new ZeImapConnection();  // lives as long as the process
    }
    return m_instance;
}

std::string ZeImapConnection::m_imap_cmd() {
    return zemail::paths::imap_program();
}

ZePipeIO& ZeImapConnection::get_io(const ZeMailUserId& user) {
    if (m_program.is_open() && user == m_username) {
        return m_program.io();
    }
    m_username = user;
    open();
    return m_program.io();
}

int ZeImapConnection::open() {
    if (m_program.is_open()) {
        basepp::dbg::debug(kUnit, __LINE__, "open", "Leaving the previous imap instance...");
        ZeImapRequest request(m_program.io());
        request.timeout(5);
        request.request(ZeImapCommand(ZeImapCommand::LOGOUT), "");
        m_program.close();
        request.timeout(ZePipeIO::kDefaultTimeout);
    }
    return connect();
}

int ZeImapConnection::connect() {
    const std::string address = m_username.address();
    if (address.empty()) {
        const int pid = static_cast<int>(getpid());
        std::string message = "ZeImapConnection::connect() - m_username.address() is empty. user=" +
                              m_username.name() + ",pid=" + std::to_string(pid);
        const std::string cmdline = own_command_line(pid);
        if (!cmdline.empty()) {
            message += ",cmdline=" + cmdline;
        }
        imap_syslog(LOG_WARNING, "%s", message.c_str());
        basepp::dbg::debug(kUnit, __LINE__, "connect", "%s", message.c_str());
        return m_program.is_open() ? 1 : 0;
    }
    // Each variable reaches the child as one string, whatever it holds: a
    // name with blanks (a path user's) cannot set further variables.
    const ZePipeProgram::Variables env = {
        {"HOME", m_username.homepath()},
        {"USER", address},
        {"MAIL", "maildir:" + m_username.mailpath()},
    };
    basepp::dbg::debug(kUnit, __LINE__, "connect", "ENV:[HOME=%s USER=%s MAIL=%s]",
                       env[0].second.c_str(), env[1].second.c_str(), env[2].second.c_str());
    m_program.open(m_imap_cmd(), std::vector<std::string>(), env);
    return m_program.is_open() ? 1 : 0;
}

int ZeImapConnection::reconnect() {
    if (m_program.is_open() && !m_username.address().empty()) {
        m_program.close();
        return connect();
    }
    return 0;
}

int ZeImapConnection::close() {
    return m_program.is_open() ? m_program.close() : 0;
}

int ZeImapConnection::close(int pid) {
    return m_program.is_open() ? m_program.close(pid) : 0;
}

// ---------------------------------------------------------------- ZeImapFeeder

int ZeImapFeeder::nextline() {
    if (m_keep) {
        m_keep = false;
    } else if (m_stalled) {
        m_line.clear();
        m_token.restart(m_line);
        return -1;
    } else {
        m_io.readline(m_line);
    }
    // readline answers 0 both for an empty line and for a failed wait; a
    // failed wait leaves nothing in the buffer, which the request reads as
    // "no further line".
    m_token.restart(m_line);
    return static_cast<int>(m_line.length());
}

int ZeImapFeeder::readline(Corvane::Buffer& b, int max) {
    const int got = _receive(b, max, '\n');
    return got > 0 ? got : 0;
}

int ZeImapFeeder::readliteral(Corvane::Buffer& b, int n) {
    return _receive(b, n, 0);
}

int ZeImapFeeder::_receive(Corvane::Buffer& b, int max, char delimiter) {
    if (max < 1 || m_stalled) {
        b.clear();
        return max < 1 ? 0 : -1;
    }
    b.reserve(static_cast<std::size_t>(max));
    const int got = m_io.receive(reinterpret_cast<unsigned char*>(b.data()),
                                 static_cast<unsigned int>(max), delimiter);
    b.length(got > 0 ? static_cast<std::size_t>(got) : 0);
    m_stalled = got < 0;
    return got;
}

long ZeImapFeeder::readliteral_all(Corvane::Buffer& b, long n, long keep) {
    long total = 0;
    Corvane::Buffer piece;
    while (total < n) {
        const long ask = std::min<long>(n - total, 64 * 1024);
        int got = readliteral(piece, static_cast<int>(ask));
        if (got < 1) {
            break;
        }
        if (total < keep) {
            const long take = std::min<long>(got, keep - total);
            b.append(piece.data(), static_cast<std::size_t>(take));
        }
        total += got;
    }
    return total;
}
