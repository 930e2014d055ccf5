#ifndef ZEMAIL_IMAP_ZE_IMAP_REQUEST_H
#define ZEMAIL_IMAP_ZE_IMAP_REQUEST_H

#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>

#include "imap/ZeImapClient.h"
#include "imap/ZeImapResponse.h"

// The send marker: `request << command << arguments << REQUEST_SEND` sends.
enum REQUEST_CMD { REQUEST_SEND = 0 };

// One IMAP command exchange at a time on the IMAP child's pipes: writes a
// tagged command line ("Ze<n> COMMAND args\n"), feeds the untagged answers to
// the command's response object and processor, and ends with the completion:
//
//   0  tagged OK; also when no further line came (time-out, hang-up), or when
//      LOGOUT failed on a closed descriptor
//   1  tagged NO (last_error() holds the text after " NO "); also a failure on
//      a bad descriptor or an unknown exception, after a reconnect
//   2  tagged BAD, or a tagged line with a missing or unknown status word
//   3  tagged BYE: connection broken, reconnected
//   4  a line with another tag arrived; the rest of the answer stays unread
//
// Server failures never throw; only an unexpected read error does. A request
// object is reusable; requests are never pipelined.
//
// An exchange that ends without its tagged answer (codes 0 and 4 above)
// leaves the pipes out of step: the late answer may still come. The next
// request on the same pipes first gets them back in step, so that no
// command is given another command's answer: the connection's server is
// replaced (the same user, a new child); other pipes are drained of what
// they hold.
class ZeImapRequest {
public:
    explicit ZeImapRequest(ZePipeIO& io);

    // Makes cmd current and empties the argument text.
    ZeImapRequest& operator<<(const ZeImapCommand& cmd);
    // REQUEST_SEND sends the current command with the arguments gathered so
    // far and returns its completion; other values do nothing and give 0.
    int operator<<(REQUEST_CMD marker);
    // Anything else is appended to the argument text.
    template <class T>
    ZeImapRequest& operator<<(const T& value) {
        m_args << value;
        return *this;
    }

    int request(const ZeImapCommand& cmd, const std::string& args);

    int timeout() const { return m_feeder.timeout(); }
    void timeout(int seconds) { m_feeder.timeout(seconds); }
    // Whether the last exchange read its tagged completion line. A 0 without
    // it is a missing answer (time-out, hang-up), not an OK.
    bool answered() const { return m_answered; }
    bool has_error() const { return !m_last_error.empty(); }
    const std::string& last_error() const { return m_last_error; }
    ZeImapResponseRef& responser() { return m_response; }
    void clean_responser() { m_response.release(); }
    ssize_t write(const Corvane::Buffer& data) { return m_feeder.write(data); }
    ZeImapFeeder& feeder() { return m_feeder; }
    const std::string& tag() const { return m_tag.m_tag; }

private:
    int process();
    int _exchange(const std::string& args);
    void _get_in_step();
    void _answered();
    int pre_parse(TokenIterator& token);
    void process_continue();
    int process_OK();
    int process_NO();
    int process_BAD();
    int process_BYE();
    // One debug record: the tag, then the pieces; nothing is built while the
    // debug log is off.
    void _log(int line, const char* function, std::initializer_list<std::string_view> pieces) const;

    ZeImapTag& m_tag;
    ZeImapFeeder m_feeder;
    ZeImapCommand m_command;
    ZeImapResponseRef m_response;
    std::ostringstream m_args;
    std::string m_last_error;
    bool m_answered = false;
    Corvane::Buffer m_out;  // the command line being sent
};

// The commands by name, without processor, for callers.
extern const ZeImapCommand ImapRequestNoop;
extern const ZeImapCommand ImapRequestCapability;
extern const ZeImapCommand ImapRequestList;
extern const ZeImapCommand ImapRequestStatus;
extern const ZeImapCommand ImapRequestSelect;
extern const ZeImapCommand ImapRequestFetch;
extern const ZeImapCommand ImapRequestSearch;
extern const ZeImapCommand ImapRequestUidFetch;
extern const ZeImapCommand ImapRequestUidSearch;
extern const ZeImapCommand ImapRequestUidStore;
extern const ZeImapCommand ImapRequestUidCopy;
extern const ZeImapCommand ImapRequestUidMove;
extern const ZeImapCommand ImapRequestUidExpunge;
extern const ZeImapCommand ImapRequestGetQuota;
extern const ZeImapCommand ImapRequestAppend;
extern const ZeImapCommand ImapRequestCreate;
extern const ZeImapCommand ImapRequestDelete;
extern const ZeImapCommand ImapRequestRename;
extern const ZeImapCommand ImapRequestLogout;
extern const ZeImapCommand ImapRequestUnknown;

#endif
