#include "imap/ZeImapRequest.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/Debug.h"

namespace {

const char* const kUnit = "ZeImapRequest";

// Classes of a response line, as pre_parse() sorts them.
enum LineClass {
    kUntagged = 0,
    kTaggedOk = 1,
    kTaggedNo = 2,
    kTaggedBad = 3,
    kTaggedBye = 4,
    kForeignTag = 5,
    kNoToken = 6,
};

}  // namespace

const ZeImapCommand ImapRequestNoop(ZeImapCommand::NOOP);
const ZeImapCommand ImapRequestCapability(ZeImapCommand::CAPABILITY);
const ZeImapCommand ImapRequestList(ZeImapCommand::LIST);
const ZeImapCommand ImapRequestStatus(ZeImapCommand::STATUS);
const ZeImapCommand ImapRequestSelect(ZeImapCommand::SELECT);
const ZeImapCommand ImapRequestFetch(ZeImapCommand::FETCH);
const ZeImapCommand ImapRequestSearch(ZeImapCommand::SEARCH);
const ZeImapCommand ImapRequestUidFetch(ZeImapCommand::UID_FETCH);
const ZeImapCommand ImapRequestUidSearch(ZeImapCommand::UID_SEARCH);
const ZeImapCommand ImapRequestUidStore(ZeImapCommand::UID_STORE);
const ZeImapCommand ImapRequestUidCopy(ZeImapCommand::UID_COPY);
const ZeImapCommand ImapRequestUidMove(ZeImapCommand::UID_MOVE);
const ZeImapCommand ImapRequestUidExpunge(ZeImapCommand::UID_EXPUNGE);
const ZeImapCommand ImapRequestGetQuota(ZeImapCommand::GETQUOTA);
const ZeImapCommand ImapRequestAppend(ZeImapCommand::APPEND);
const ZeImapCommand ImapRequestCreate(ZeImapCommand::CREATE);
const ZeImapCommand ImapRequestDelete(ZeImapCommand::DELETE);
const ZeImapCommand ImapRequestRename(ZeImapCommand::RENAME);
const ZeImapCommand ImapRequestLogout(ZeImapCommand::LOGOUT);
const ZeImapCommand ImapRequestUnknown(ZeImapCommand::NONE);

ZeImapRequest::ZeImapRequest(ZePipeIO& io) : m_tag(ZeImapTag::m_instance), m_feeder(io) {}

void ZeImapRequest::_log(int line, const char* function,
                         std::initializer_list<std::string_view> pieces) const {
    if (!basepp::dbg::enabled()) {
        return;
    }
    std::string text = m_tag.m_tag;
    for (std::string_view piece : pieces) {
        text.append(piece.data(), piece.size());
    }
    basepp::dbg::debug(kUnit, line, function, "%s", text.c_str());
}

ZeImapRequest& ZeImapRequest::operator<<(const ZeImapCommand& cmd) {
    m_args.str(std::string());
    m_args.clear();
    m_command = cmd;
    return *this;
}

int ZeImapRequest::operator<<(REQUEST_CMD marker) {
    if (marker != REQUEST_SEND) {
        return 0;
    }
    const std::string args = m_args.str();
    const ZeImapCommand cmd = m_command;
    int result = request(cmd, args);
    m_args.str(std::string());
    m_args.clear();
    return result;
}

int ZeImapRequest::request(const ZeImapCommand& cmd, const std::string& args) {
    m_last_error.clear();
    m_command = cmd;
    m_answered = false;
    // A LOGOUT needs no answer: the child goes right after it.
    if (m_feeder.io().out_of_step() && m_command.command() != ZeImapCommand::LOGOUT) {
        _get_in_step();
    }
    // Out of step until the tagged answer is read; a reconnect on the way
    // (BYE, a failed read) starts a child that is in step from the start.
    m_feeder.io().out_of_step(true);
    return _exchange(args);
}

void ZeImapRequest::_answered() {
    m_answered = true;
    m_feeder.io().out_of_step(false);
}

void ZeImapRequest::_get_in_step() {
    ZeImapConnection* connection = ZeImapConnection::instance();
    if (&connection->program().io() == &m_feeder.io() && connection->program().is_open()) {
        _log(__LINE__, "request", {":an earlier answer is still unread, reconnecting imap"});
        connection->reconnect();
    } else {
        m_feeder.io().trace_residual_data(true);
    }
    m_feeder.io().out_of_step(false);
}

int ZeImapRequest::_exchange(const std::string& args) {
    m_tag.next();
    m_feeder.resume();

    // The whole line in one write: a write that fails cannot leave half a
    // command on the wire, and the server does not wake up for every piece
    // (which doubled the round trip of a short command).
    m_out.clear();
    m_out.append(m_tag.m_tag);
    m_out.append(' ');
    m_out.append(m_command.text());
    if (!args.empty()) {
        m_out.append(' ');
        m_out.append(args);
    }
    m_out.append('\n');
    m_feeder.write(m_out);
    basepp::dbg::debug(kUnit, __LINE__, "request", ">>>%s:%s %s", m_tag.m_tag.c_str(),
                       m_command.text().c_str(), args.c_str());

    m_response.release();
    m_response = ZeImapResponseRef(m_command, m_feeder);

    try {
        return process();
    } catch (const std::runtime_error& error) {
        const int code = errno;
        const char* bad_descriptor = std::strerror(EBADF);
        if (m_command.command() == ZeImapCommand::LOGOUT) {
            if (std::strstr(error.what(), bad_descriptor) != nullptr) {
                return 0;
            }
            throw;
        }
        if (code == EBADF) {
            m_last_error = bad_descriptor;
            ZeImapConnection::instance()->reconnect();
            return 1;
        }
        _log(__LINE__, "request", {"Caught error:", error.what(), ":(", std::strerror(code), ")"});
        throw std::runtime_error(error.what());
    } catch (...) {
        _log(__LINE__, "request", {"something unknown happening..."});
        ZeImapConnection::instance()->reconnect();
        return 1;
    }
}

int ZeImapRequest::process() {
    while (true) {
        if (m_feeder.nextline() < 1) {
            // A silent server (time-out), a hang-up or an empty line ends the
            // exchange as if it had completed, with whatever was gathered.
            return 0;
        }
        TokenIterator& token = m_feeder.token();
        const int line_class = pre_parse(token);
        switch (line_class) {
            case kUntagged:
                token.next();
                process_continue();
                break;
            case kTaggedOk:
                _answered();
                return process_OK();
            case kTaggedNo:
                _answered();
                return process_NO();
            case kTaggedBad:
                _answered();
                return process_BAD();
            case kTaggedBye:
                _answered();
                return process_BYE();
            case kForeignTag:
                return 4;
            default:
                _log(__LINE__, "process",
                     {":break here... with return code:", std::to_string(line_class)});
                _log(__LINE__, "process",
                     {":buffer:",
                      std::string_view(m_feeder.curline().data(), m_feeder.curline().length())});
                return 0;
        }
    }
}

int ZeImapRequest::pre_parse(TokenIterator& token) {
    if (!token) {
        return kNoToken;
    }
    const char* first = token.token();
    if (first[0] == '*') {
        return kUntagged;
    }
    if (std::strcmp(first, m_tag.m_tag.c_str()) != 0) {
        // Exact comparison: "Ze1" is another tag than "Ze12".
        if (std::strcmp(first, "+") == 0) {
            _log(__LINE__, "pre_parse", {":waiting for input"});
            return kUntagged;
        }
        if (std::strcmp(first, "BYE") == 0) {
            _log(__LINE__, "pre_parse", {":Reconnecting imap!"});
            ZeImapConnection::instance()->reconnect();
        }
        _log(__LINE__, "pre_parse",
             {":FOUND ANOTHER COMMAND:", first, " .vs. ", m_tag.m_tag,
              ", please check if the first command timeout!"});
        return kForeignTag;
    }
    token.next();
    if (!token || token.token()[0] == '\0') {
        return kTaggedBad;
    }
    // The status word is read by its first letters as written: a server
    // that answers "ok" or "bye" in lower case is not understood.
    const char* status = token.token();
    switch (status[0]) {
        case 'N':
            return kTaggedNo;
        case 'O':
            return kTaggedOk;
        case 'B':
            return status[1] == 'Y' ? kTaggedBye : kTaggedBad;
        default:
            return kTaggedBad;
    }
}

void ZeImapRequest::process_continue() {
    if (m_response.isNull()) {
        return;
    }
    TokenIterator& token = m_feeder.token();
    if (token == std::string("NO") && token.token()[2] == '\0') {
        m_last_error = m_feeder.curline().str();
    }
    if (m_response->parse() != 2) {
        m_command.process(m_response);
    }
    m_response->cleanup();
}

int ZeImapRequest::process_OK() {
    if (has_error() && m_command.command() == ZeImapCommand::NOOP) {
        _log(__LINE__, "process_OK", {"NOOP: unknown imap server error, Reconnecting imap!"});
        ZeImapConnection::instance()->reconnect();
    }
    _log(__LINE__, "process_OK", {":COMMAND DONE! (", m_command.text(), ")"});
    return 0;
}

int ZeImapRequest::process_NO() {
    const std::string line = m_feeder.curline().str();
    const std::string::size_type at = line.find(" NO ");
    if (at != std::string::npos) {
        m_last_error = line.substr(at + 4);
    }
    _log(__LINE__, "process_NO", {":COMMAND NO! (", m_command.text(), ")"});
    return 1;
}

int ZeImapRequest::process_BAD() {
    _log(__LINE__, "process_BAD", {":BAD COMMAND! (", m_command.text(), ")"});
    return 2;
}

int ZeImapRequest::process_BYE() {
    m_response.release();
    _log(__LINE__, "process_BYE", {":BYE: connection broken!"});
    ZeImapConnection::instance()->reconnect();
    _log(__LINE__, "process_BYE", {":Reconnecting imap!"});
    return 3;
}
