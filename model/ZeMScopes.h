#ifndef ZEMAIL_MODEL_ZE_M_SCOPES_H
#define ZEMAIL_MODEL_ZE_M_SCOPES_H

// The scopes of a search: which part of a mailbox a caller wants. A mailbox
// holds at most one (setScope); filters narrow it further (ZeMFilters.h).
// Each is made by its create(), which answers a null handle for arguments
// that name nothing (a UID 0, an impossible date, a text that cannot be
// searched), and answers:
//
//   imap_criteria()   the IMAP search key(s) for the server
//   match(envelope)   the cheap test on what a store knows without reading
//                     the message; true where it cannot decide
//   match(message)    the final test
//   done(), reset()   scopes that select one known message end the walk once
//                     they have seen it; reset() forgets that for a new walk
//
//   box->setScope(ZeMScopeDate::create(ZeMScopeDate::SINCE, 2024, 1, 1));
//   box->setScope(ZeMScopeUid::create(17));          // "UID 17"
//
// Dates are calendar days in local time, as the server compares them (it
// ignores the time of day and the zone); a message's time is its envelope's
// date(), or its received() time when the envelope gives none.

#include <ctime>
#include <set>
#include <string>
#include <utility>

#include "model/ZeMScopeAndFilter.h"

// One message by its UID: "UID 17". Done once it has seen that UID.
class ZeMScopeUid : public ZeMScopeImpl {
public:
    // A null handle for UID 0 (no message has it).
    static ZeMScopeRef create(unsigned long uid);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;
    bool done() const override { return m_found; }
    void reset() override { m_found = false; }

private:
    explicit ZeMScopeUid(unsigned long uid) : m_uid(uid) {}
    bool _take(unsigned long uid);

    unsigned long m_uid;
    bool m_found = false;
};

// A page of the mailbox by position, 0 being the newest message: positions
// start to end - 1 (the default page 0 to 25 holds 25 messages). The IMAP
// mailbox reads range() and cuts its list of UIDs itself, so the criteria are
// empty. Stores read from disk have no newest-first order; locally the
// positions count the messages that reach this scope's message test in the
// order the store walks them, and the walk is done after position end - 1.
class ZeMScopeRange : public ZeMScopeImpl {
public:
    // A null handle unless 0 <= start <= end.
    static ZeMScopeRef create(long start, long end);

    bool range(long& start, long& end) const override;
    std::string imap_criteria() const override { return std::string(); }
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;
    bool done() const override { return m_seen >= m_end; }
    void reset() override { m_seen = 0; }

private:
    ZeMScopeRange(long start, long end) : m_start(start), m_end(end) {}

    long m_start;
    long m_end;
    long m_seen = 0;  // messages counted in this walk
};

// The messages the caller expects, by UID: "UID 3,5:7". UID 0 is dropped.
// Done once every expected UID has been seen. An empty set selects nothing
// ("NOT ALL") and is done at once.
class ZeMScopeExpect : public ZeMScopeImpl {
public:
    static ZeMScopeRef create(const std::set<unsigned long>& uids);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;
    bool done() const override { return m_seen.size() == m_uids.size(); }
    void reset() override { m_seen.clear(); }

    const std::set<unsigned long>& uids() const { return m_uids; }

private:
    explicit ZeMScopeExpect(std::set<unsigned long> uids) : m_uids(std::move(uids)) {}
    bool _take(unsigned long uid);

    std::set<unsigned long> m_uids;
    std::set<unsigned long> m_seen;
};

// Messages by day: SINCE (on or after the day), BEFORE (before the day), ON
// (that day), or BETWEEN (on or after the first day and before the second):
// "SINCE 1-Jan-2024", "BEFORE 5-Mar-2024", "ON 29-Feb-2024",
// "(SINCE 1-Jan-2024 BEFORE 1-Feb-2024)".
class ZeMScopeDate : public ZeMScopeImpl {
public:
    enum When { SINCE, BEFORE, ON };

    // A null handle for a day that does not exist or a year outside 1..9999.
    static ZeMScopeRef create(When when, int year, int month, int day);
    // The day that time falls on, in local time.
    static ZeMScopeRef create(When when, time_t time);
    // From the first day up to (not including) the second; a null handle when
    // either day is bad.
    static ZeMScopeRef between(int year1, int month1, int day1, int year2, int month2, int day2);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;

    // The day as yyyymmdd; IMAP's "1-Jan-2024" spelling.
    static long day_number(int year, int month, int day) {
        return static_cast<long>(year) * 10000 + month * 100 + day;
    }
    static std::string imap_date(long day);
    // The local day of a time, as yyyymmdd.
    static long local_day(time_t time);

private:
    ZeMScopeDate(long from, long until) : m_from(from), m_until(until) {}
    bool _day_matches(long day) const;

    long m_from;   // first day selected, 0 for none
    long m_until;  // first day no longer selected, 0 for none, -m_from for ON
};

// Messages by Message-Id: "HEADER Message-ID \"<x@y>\"". Angle brackets are
// added when the caller left them out, so the server's substring search only
// finds the whole identifier. Decided on the message's headers (a store's
// envelope may keep another key in msgID()).
class ZeMScopeMessageId : public ZeMScopeImpl {
public:
    // A null handle for an empty or unsearchable identifier.
    static ZeMScopeRef create(const std::string& message_id);

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;

    const std::string& message_id() const { return m_id; }

private:
    explicit ZeMScopeMessageId(std::string id) : m_id(std::move(id)) {}
    std::string m_id;  // with its angle brackets
};

// One Maildir file by its base name. Names are compared by their unique part:
// the text before the first "," or ":" ("1700000000.M1P1.host" for
// "1700000000.M1P1.host,S=12:2,S"), so a file is found whatever its flags.
// IMAP cannot search file names: given the Maildir folder's path, the UID list
// there turns the name into "UID <n>" ("NOT ALL" when it names no file);
// without a path the criteria are empty and only the local match selects.
// Done once it has seen the file.
class ZeMScopeBasename : public ZeMScopeImpl {
public:
    // A null handle for an empty name, one with "/" or an unsearchable one.
    static ZeMScopeRef create(const std::string& basename, const std::string& folder_path = "");

    std::string imap_criteria() const override;
    bool match(ZeMessageEnv& envelope) override;
    bool match(ZeMessageBase& message) override;
    bool done() const override { return m_found; }
    void reset() override { m_found = false; }

    // The unique part of a Maildir file name.
    static std::string unique_part(const std::string& name);

private:
    ZeMScopeBasename(std::string key, std::string folder)
        : m_key(std::move(key)), m_folder(std::move(folder)) {}
    bool _take(const std::string& name);

    std::string m_key;
    std::string m_folder;
    bool m_found = false;
};

#endif
