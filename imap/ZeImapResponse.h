#ifndef ZEMAIL_IMAP_ZE_IMAP_RESPONSE_H
#define ZEMAIL_IMAP_ZE_IMAP_RESPONSE_H

#include <cstdint>
#include <ctime>
#include <string>

#include "foundation/TokenIterator.h"
#include "imap/ZeImapClient.h"
#include "imap/ZeImapMime.h"
#include "include2/VantroRefcounted"
#include "support/Buffer.h"

namespace Corvane {
// The fetch item that returns a message's header block as a literal.
extern const char* const ImapRfc822Header;  // "RFC822.HEADER"
}  // namespace Corvane

// Turns the untagged lines of one command into fields for its processor. The
// request makes one response per command (ZeImapResponseRef's factory) and
// calls parse() with the feeder's token iterator standing on the token after
// "*". Parsers never throw on malformed input: a missing number reads as 0,
// missing tokens leave fields unchanged.
class ZeImapResponse : public Corvane::RefImpl {
public:
    explicit ZeImapResponse(ZeImapFeeder& feeder) : m_feeder(feeder) {}
    ~ZeImapResponse() override = default;

    // 0: the line was taken; 2: the line is not for this response, so the
    // processor is not called. (The UID FETCH response answers 1 when taken.)
    virtual int parse() = 0;
    // Resets between lines.
    virtual void cleanup() {}
    // One debug record describing the fields.
    virtual void dump() const {}

    // The feeder the answer is read from (processors write APPEND literals to it).
    ZeImapFeeder& feeder() const { return m_feeder; }

protected:
    ZeImapFeeder& m_feeder;
};

// "* <n> EXISTS", "* <n> RECENT", "* <n> EXPUNGE" during NOOP. An expunge
// notice overwrites the recent count: the caller only learns that the
// mailbox changed.
class ZeImapResponseNoop : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override;
    void dump() const override;
    unsigned int exists() const { return m_exists; }
    unsigned int recent() const { return m_recent; }

private:
    unsigned int m_exists = 0;
    unsigned int m_recent = 0;
};

// SELECT: the counters, and UIDNEXT/UIDVALIDITY from "* OK [...]" lines.
class ZeImapResponseSelect : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override;
    void dump() const override;
    unsigned int exists() const { return m_exists; }
    unsigned int recent() const { return m_recent; }
    int uidnext() const { return m_uidnext; }
    unsigned long uidvalidity() const { return m_uidvalidity; }

private:
    unsigned int m_exists = 0;
    unsigned int m_recent = 0;
    int m_uidnext = 0;
    unsigned long m_uidvalidity = 0;
};

// "* LIST (<attributes>) "<delimiter>" <name>"; "INBOX" is stored as "Inbox".
class ZeImapResponseList : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override;
    void dump() const override;
    const std::string& attributes() const { return m_attributes; }
    char delimiter() const { return m_delimiter; }
    const std::string& name() const { return m_name; }

private:
    std::string m_attributes;
    char m_delimiter = 0;
    std::string m_name;
};

// "* STATUS <name> (MESSAGES n UNSEEN n RECENT n UIDNEXT n X-SIZE n)"; the
// X-SIZE value (bytes) is kept whole beyond 4 GiB.
class ZeImapResponseStatus : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override;
    void dump() const override;
    // Reads one key and the value after it.
    void get_value(TokenIterator& token);

    const std::string& name() const { return m_name; }
    long messages() const { return m_messages; }
    long unseen() const { return m_unseen; }
    long recent() const { return m_recent; }
    long uidnext() const { return m_uidnext; }
    long long size() const { return m_size; }

private:
    std::string m_name;
    long m_messages = 0;
    long m_unseen = 0;
    long m_recent = 0;
    long m_uidnext = 0;
    long long m_size = 0;
};

// "* QUOTA <root> (STORAGE <usage> <limit> [MESSAGES <n> <m>])" (and QUOTAROOT
// lines, taken the same way). Values in KiB, as the server gives them.
class ZeImapResponseGetQuota : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override;
    void dump() const override;
    void get_value(TokenIterator& token);
    unsigned int quota() const { return m_quota; }
    unsigned int usage() const { return m_usage; }

private:
    unsigned int m_quota = 0;
    unsigned int m_usage = 0;
};

// "* SEARCH 3 5 8": the UIDs joined with ",", and their count.
class ZeImapResponseUIDSearch : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override;
    void dump() const override;
    int count() const { return m_count; }
    const std::string& result() const { return m_result; }

private:
    int m_count = 0;
    std::string m_result;
};

// APPEND takes every line: the continuation request ("+") is what makes its
// processor send the literal.
class ZeImapResponseAppend : public ZeImapResponse {
public:
    using ZeImapResponse::ZeImapResponse;
    int parse() override { return 0; }
    void dump() const override;
};

// One FETCH answer ("* <seq> FETCH (<items>)") as a message record. An answer
// may run over several lines when it carries literals: header literals are
// read into the record; a body literal (BODY[<section>]) is left unread for
// the caller to stream with retrieve_literal() or retrieve_line(), and
// cleanup() skips whatever the caller did not take. The record of the last
// answer that carried a UID stays current.
class ZeImapResponseUIDFetch : public ZeImapResponse {
public:
    // The most of a header literal (a header fetch, or a section's MIME
    // header) kept in the record; the rest is read and dropped. Far above
    // any header block a display needs, and it keeps a hostile or broken
    // server from making us buffer a message-sized header.
    static constexpr long kMaxHeaderLiteral = 1L << 20;

    struct data_t {
        std::uint32_t seq = 0;
        unsigned long uid = 0;
        std::string fname;  // X-FNAME up to its first ",": the Maildir base name
        std::string flags;  // FLAGS without parentheses, as sent
        long size = 0;      // RFC822.SIZE
        long literal_size = -1;
        time_t received = 0;           // INTERNALDATE
        ZeImapMimeRef mime;            // from BODYSTRUCTURE
        Corvane::Buffer headers;       // a header literal (item ending in "]")
        Corvane::Buffer mime_headers;  // the literal of BODY[<section>.MIME]
    };

    explicit ZeImapResponseUIDFetch(ZeImapFeeder& feeder);

    // 1: a FETCH answer with a UID; 2: anything else (the previous record stays).
    int parse() override;
    void cleanup() override;
    void dump() const override;

    // Reads one item (its name token, and the value after it for the names
    // known here) into the record.
    void get_value(TokenIterator& token);

    // Stream an unread body literal: at most the buffer's capacity (1024 when
    // it has none) and at most remaining bytes per call; remaining goes down by
    // what was read; 0 once nothing is left or the input failed.
    long retrieve_literal(Corvane::Buffer& buffer, unsigned long& remaining) const;
    long retrieve_line(Corvane::Buffer& buffer, unsigned long& remaining) const;

    const data_t& data() const { return m_data; }
    void data(const data_t& saved) { m_data = saved; }
    // True while the answer goes on after the line read last (a body
    // literal left for the caller, or the rest of the item list).
    bool in_fetch() const { return m_in_fetch; }
    // True when the input ended, or a literal came short, inside the answer:
    // the server went away in the middle of it and the record is partial.
    bool cut_short() const { return m_cut_short; }

private:
    void _reset();
    // Makes the previous answer's record current again, when it had a UID.
    void _restore_previous();
    void _parse(TokenIterator& group);
    // Walks one line's items; returns true when the answer is finished or a
    // body literal was left for the caller.
    bool _walk(TokenIterator& items, bool closes);
    long _retrieve(Corvane::Buffer& buffer, unsigned long& remaining, bool by_line) const;
    void _skip_unread_literal();

    data_t m_data;
    data_t m_previous;  // the record before m_data, or storage for the next one
    bool m_in_fetch = false;
    bool m_cut_short = false;
    mutable long m_unread = 0;  // bytes of a body literal nobody has read yet
};

// The response object for a command (see the factory), held by handle.
class ZeImapResponseRef : public Corvane::Ref<ZeImapResponse> {
public:
    using Corvane::Ref<ZeImapResponse>::Ref;
    ZeImapResponseRef() = default;
    // The response for cmd: NOOP, LIST, STATUS, SELECT, FETCH and UID FETCH,
    // SEARCH and UID SEARCH, GETQUOTA and APPEND have one; every other command
    // gets an empty handle, and its untagged lines are ignored.
    ZeImapResponseRef(const ZeImapCommand& cmd, ZeImapFeeder& feeder);
};

#endif
