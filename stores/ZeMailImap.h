#ifndef ZEMAIL_STORES_ZE_MAIL_IMAP_H
#define ZEMAIL_STORES_ZE_MAIL_IMAP_H

// The mailbox of a user's folder kept by the local IMAP server, spoken to
// over the user's session on the process-wide connection.
//
// Opening selects the folder and loads the envelope data (UID, file name,
// flags, size, arrival time and the display headers) of the messages the
// caller wants, in one UID FETCH:
//   - without filters, the newest undeleted messages: positions 0 to 25
//     counted from the newest (0 is the newest), or the positions of a range
//     scope; the UIDs are read from the end of the folder backwards, page by
//     page, until enough undeleted ones are found (pages double in size
//     after the first kFixedPages); a range without positions lists nothing;
//   - with filters, the UIDs of one server-side search ("UNDELETED " and the
//     criteria of the scope and filters), cut to a range scope's positions.
// Messages marked \Deleted never enter the list. The loaded messages keep
// the order of the server's answer (ascending UID).
//
// Every message operation selects the folder first. A folder that cannot be
// selected (missing, a name with CR, LF or NUL, a user without a session)
// throws Corvane::Exception("Failed to open mailbox!", 4); every other
// failure is a result code: 0 success, 4 failure, or the request's
// completion code where that is documented. Searches, moves and bulk flag
// changes wait up to 90 seconds, a filtered search 600; the time-out goes
// back to 60 seconds after each, also when it fails.
//
// A session whose server child has died is restarted before the next
// request. Used by one thread at a time.

#include <ctime>
#include <list>
#include <ostream>
#include <string>
#include <vector>

#include "imap/ZeImapRequest.h"
#include "model/ZeMailBox.h"

// What the mailbox knows of one message without fetching it.
class ZeMessageImapEnv : public ZeMessageEnv {
public:
    ZeMessageImapEnv(unsigned long uid, std::string basename, time_t received, unsigned long size,
                     std::string msgid, std::string from, const ZeMessageFlags& status)
        : m_uid(uid),
          m_basename(std::move(basename)),
          m_received(received),
          m_size(size),
          m_msgid(std::move(msgid)),
          m_from(std::move(from)),
          m_status(status) {}

    ZeMessageFlags status() override { return m_status; }
    std::string msgID() override { return m_msgid; }
    unsigned long uid() override { return m_uid; }
    std::string basename() const override { return m_basename; }
    // The arrival time (the server's INTERNALDATE).
    time_t date() override { return m_received; }
    // The From header as received.
    std::string from() override { return m_from; }
    unsigned long size() override { return m_size; }

    void status(const ZeMessageFlags& flags) { m_status = flags; }

private:
    unsigned long m_uid;
    std::string m_basename;
    time_t m_received;
    unsigned long m_size;
    std::string m_msgid;
    std::string m_from;
    ZeMessageFlags m_status;
};

// A message of the IMAP store, built from one FETCH answer.
class ZeMessageImap : public ZeMessageBase {
public:
    ZeMessageImap(unsigned long uid, const std::string& basename,
                  const Corvane::HeaderContainer& headers, time_t received, unsigned long size);

    using ZeMessageBase::flags;
    // Keeps the envelope's status in step.
    void flags(const ZeMessageFlags& value) override;
    // RFC822.SIZE, bytes as the server counts them.
    unsigned long size() const { return m_size; }

private:
    unsigned long m_size;
};

class ZeMailBoxImap : public ZeMailboxBase {
public:
    static constexpr int kDefaultTimeout = 60;  // seconds, every request
    static constexpr int kLongTimeout = 90;     // UID SEARCH, UID MOVE, bulk STORE
    static constexpr int kSearchTimeout = 600;  // the filtered search
    static constexpr long kDefaultPage = 25;    // messages listed without a range scope
    static constexpr int kFixedPages = 4;       // pages read backwards before they grow
    // The longest UID set one UID FETCH carries; a longer one is split.
    static constexpr std::size_t kMaxUidSet = 8192;
    // The items fetched for every loaded message (after the UID list).
    static const char* const INTERESTED_MESSAGED_INFO;

    ZeMailBoxImap(ZeMUserRef user, const std::string& folder, bool option1, bool create);
    // create from op & 4; option1 cleared.
    ZeMailBoxImap(ZeMUserRef user, const std::string& folder, unsigned long op);
    ~ZeMailBoxImap() override;

    // 1, also when it already was open. Throws when the folder cannot be
    // selected. A failed search leaves the mailbox empty and closed.
    int open() override;
    void reset() override;
    int next() override;
    ZeMessageRef& fetch() override;
    // STATUS messages minus the messages marked deleted, never below 0; 0
    // without an answer.
    long total_messages() override;
    long searched_count() override { return m_searched; }
    // The text of the last NO answer ("" after a success).
    const std::string& last_error() const override;

    // EXPUNGE: the request's completion code.
    int expunge() override;
    // Marks every message \Deleted (not expunged) and drops the folder's size
    // cache. 0 for an empty folder, else the request's completion code.
    int clean() override;

    // The loaded message, or one fetched from the server; null when the
    // folder has no such (undeleted) message.
    ZeMessageRef retrieve_message(unsigned long uid) override;
    // The key is the decimal UID.
    ZeMessageRef retrieve_message(const std::string& key) override;
    using ZeMailboxBase::modify_message;
    // By flags.action: 2 adds, 3 removes, 1 replaces the named flags (\Recent
    // cannot be changed and is left out); other codes do nothing. 0 or 4.
    int modify_message(const std::string& key, const ZeMessageFlags& flags) override;
    // UID MOVE to the folder: the request's completion code (4 for a bad key
    // or a folder name that cannot be sent).
    int move_message(const std::string& key, const std::string& to_folder) override;
    // Marks the message \Deleted; permanent also sends UID EXPUNGE (with the
    // flag text after the UID, as the STORE had it). 0 or 4.
    int remove_message(const std::string& key, bool permanent) override;

    // The message's MIME tree from its BODYSTRUCTURE, kept with the message.
    ZeImapMimeRef retrieve_mime(ZeMessageRef& message) override;
    using ZeMailboxBase::retrieve_section;
    // The section's bytes as stored ("" is the whole message): 0, the
    // request's completion code, or 4 when no answer came to its end (the
    // server died or hung; what was written may be partial).
    int retrieve_section(std::ostream& out, unsigned long uid, const std::string& section) override;
    int retrieve_section(Corvane::MediaOut& out, unsigned long uid, const std::string& section);
    int retrieve_body(std::ostream& out, unsigned long uid) override;
    // length bytes of the section from offset (BODY.PEEK[section]<o.l>).
    int retrieve_partial(std::ostream& out, unsigned long uid, const std::string& section,
                         unsigned long offset, unsigned long length);
    // Every part of the message in tree order; leaves decoded from their
    // transfer encoding through a temporary file in the spool's tmp folder.
    // 0, 4 when the structure cannot be had, or the visitor's non-zero answer.
    int foreach_sections(ZeMessageRef& message, ZeMessageSectionVisitor* visitor) override;
    using ZeMailboxBase::retrieve_section_mime;
    // The section's own MIME header as a node; null when the server has none.
    ZeImapMimeRef retrieve_section_mime(unsigned long uid, const std::string& section) override;
    // APPEND of the file with the flags' IMAP names. 0 on success (the new
    // UID is then last_append_uid()), 4 when the server refused it or gave
    // no answer, or when the message could not be copied for sending; 0 and
    // nothing sent when the file is not a regular file.
    int append(const std::string& file, const ZeMessageFlags& flags) override;
    MailboxOpenMethod open_method() override { return MAILBOX_OPEN_IMAP; }

    // SELECT: 0, with the counters written where asked. Throws
    // "Failed to open mailbox!" on failure.
    int select_imap_folder(long* exists, long* recent, long* uidnext);
    int select_folder();

    // The UIDs (ascending, comma-separated) of the newest undeleted messages
    // in the requested positions; total is SELECT's message count. 0.
    int get_uid_list(std::string& uids, long* total);
    // The UIDs found by the scope and filters: 0, or the search's failure.
    int search_uid_list(std::string& uids, long* total);
    // UID SEARCH <start>:<end> UNDELETED (all UNDELETED without a range):
    // the number of UIDs found; 0 for a 0:0 range (nothing sent), for a
    // failure and for no SEARCH answer; 4 when no answer came at all.
    int _get_undeleted_uid_list(std::string& uids, long* start, long* end);
    // The number of messages marked \Deleted (in the sequence range
    // start:end when both are given); 0 on any failure and for users the
    // server does not serve.
    int _get_deleted_uid(long* start, long* end);

    // Fetches one message's envelope data; null when the folder has none.
    ZeMessageRef message_by_uid(unsigned long uid);
    // Appends a message to the loaded list.
    void add_message(const ZeMessageRef& message);
    // Drops the loaded messages; full also marks the mailbox closed.
    void close(bool full);

    unsigned long last_append_uid() const { return m_last_append_uid; }
    const std::string& quoted_folder() const { return m_quoted_folder; }
    // The loaded messages, in the server's order.
    const std::list<ZeMessageRef>& messages() const { return m_messages; }

private:
    // Makes the connection serve this mailbox's user (restarting a dead
    // child); false when the user cannot be served.
    bool _session();
    // The range of positions asked for: a range scope's, else 0 to 25.
    void _requested_range(long& start, long& end) const;
    // Selects, then UID FETCH <uid><items> with a body-section processor
    // writing to out (may be null), decoding by encoding; the section's MIME
    // node goes to node when asked.
    int _fetch_section(std::ostream* out, unsigned long uid, const std::string& items,
                       Corvane::ContentEncoding encoding, ZeImapMimeRef* node);
    // UID SEARCH [<start>:<end> ]<key> under the long time-out.
    int _long_search(const std::string& key, long* start, long* end);
    // The highest UID of the folder, 0 when empty or on failure.
    unsigned long _last_uid();
    // Drops a message from the loaded list (the cursor stays valid).
    void _forget(unsigned long uid);

    unsigned char m_opened = 0;
    [[maybe_unused]] unsigned char m_create = 0;   // kept: folders are created through ZeMFolder
    [[maybe_unused]] unsigned char m_option1 = 0;  // kept for callers that set it
    std::string m_quoted_folder;                   // "" when the name cannot be sent
    std::string m_scratch;
    std::list<ZeMessageRef> m_messages;
    std::list<ZeMessageRef>::iterator m_cursor;
    ZeImapRequest m_request;
    long m_searched = 0;
    unsigned long m_last_append_uid = 0;
};

// "1,2,3,7,8" becomes "1:3,7:8": the same UIDs as an IMAP set, in a line
// that stays short for large folders. Items that are not numbers are
// dropped.
std::string ze_uid_set(const std::string& uids);

// A UID set ("1:3,7,9:12") cut at its commas into pieces of at most max
// characters each (a single item longer than max stays whole), in order. A
// set within max is the one piece. Servers refuse command lines beyond a
// limit (Dovecot: 64 KiB), so a long set goes out in several commands.
std::vector<std::string> ze_split_uid_set(const std::string& set, std::size_t max);

// The UID of a "[APPENDUID <validity> <uid>]" code in a tagged answer; 0
// when there is none or it is malformed.
unsigned long ze_appended_uid(const std::string& line);

// Cuts a comma-separated UID list (ascending) to the positions start..end-1
// counted from its last element (position 0): with start 0 and end 25 the
// newest 25 UIDs, still ascending.
std::string ze_cut_uid_list(const std::string& uids, long start, long end);

#endif
