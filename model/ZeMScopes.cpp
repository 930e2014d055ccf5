#include "model/ZeMScopes.h"

#include <cstdio>
#include <exception>

#include "model/ZeMFilters.h"
#include "model/ZeMailBox.h"
#include "stores/ZeUIDList.h"

namespace {

ZeMScopeRef adopt(ZeMScopeImpl* scope) {
    return ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(scope));
}

// The envelope's UID; false when the envelope cannot tell.
bool envelope_uid(ZeMessageEnv& envelope, unsigned long& uid) {
    try {
        uid = envelope.uid();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// The message's UID, else its envelope's; 0 when neither knows.
unsigned long message_uid(ZeMessageBase& message) {
    unsigned long uid = message.uid();
    if (uid == 0 && !message.env().isNull()) {
        envelope_uid(*message.env(), uid);
    }
    return uid;
}

// The envelope's date(); 0 when it has none or cannot tell.
time_t envelope_time(ZeMessageEnv& envelope) {
    try {
        return envelope.date();
    } catch (const std::exception&) {
        return 0;
    }
}

time_t message_time(ZeMessageBase& message) {
    const time_t time = message.env().isNull() ? 0 : envelope_time(*message.env());
    return time != 0 ? time : message.received();
}

bool leap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

bool valid_day(int year, int month, int day) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1) {
        return false;
    }
    return day <= kDays[month - 1] + ((month == 2 && leap(year)) ? 1 : 0);
}

}  // namespace

// ---- ZeMScopeUid -----------------------------------------------------------

ZeMScopeRef ZeMScopeUid::create(unsigned long uid) {
    return uid == 0 ? ZeMScopeRef() : adopt(new ZeMScopeUid(uid));
}

std::string ZeMScopeUid::imap_criteria() const {
    return "UID " + std::to_string(m_uid);
}

bool ZeMScopeUid::_take(unsigned long uid) {
    if (uid != m_uid) {
        return false;
    }
    m_found = true;  // UIDs are unique: nothing after this can match
    return true;
}

bool ZeMScopeUid::match(ZeMessageEnv& envelope) {
    unsigned long uid = 0;
    if (!envelope_uid(envelope, uid) || uid == 0) {
        return true;  // unknown here; the message decides
    }
    return _take(uid);
}

bool ZeMScopeUid::match(ZeMessageBase& message) {
    return _take(message_uid(message));
}

// ---- ZeMScopeRange ---------------------------------------------------------

ZeMScopeRef ZeMScopeRange::create(long start, long end) {
    if (start < 0 || end < start) {
        return ZeMScopeRef();
    }
    return adopt(new ZeMScopeRange(start, end));
}

bool ZeMScopeRange::range(long& start, long& end) const {
    start = m_start;
    end = m_end;
    return true;
}

bool ZeMScopeRange::match(ZeMessageEnv& /*envelope*/) {
    return true;  // positions are counted on messages only
}

bool ZeMScopeRange::match(ZeMessageBase& /*message*/) {
    const long position = m_seen++;
    return position >= m_start && position < m_end;
}

// ---- ZeMScopeExpect --------------------------------------------------------

ZeMScopeRef ZeMScopeExpect::create(const std::set<unsigned long>& uids) {
    std::set<unsigned long> kept(uids);
    kept.erase(0);
    return adopt(new ZeMScopeExpect(std::move(kept)));
}

std::string ZeMScopeExpect::imap_criteria() const {
    if (m_uids.empty()) {
        return "NOT ALL";
    }
    // Runs of consecutive UIDs become "first:last".
    std::string set;
    auto it = m_uids.begin();
    while (it != m_uids.end()) {
        const unsigned long first = *it;
        unsigned long last = first;
        for (++it; it != m_uids.end() && *it == last + 1; ++it) {
            last = *it;
        }
        if (!set.empty()) {
            set += ',';
        }
        set += std::to_string(first);
        if (last != first) {
            set += ':' + std::to_string(last);
        }
    }
    return "UID " + set;
}

bool ZeMScopeExpect::_take(unsigned long uid) {
    if (m_uids.count(uid) == 0) {
        return false;
    }
    m_seen.insert(uid);
    return true;
}

bool ZeMScopeExpect::match(ZeMessageEnv& envelope) {
    unsigned long uid = 0;
    if (!envelope_uid(envelope, uid) || uid == 0) {
        return true;
    }
    return m_uids.count(uid) != 0;
}

bool ZeMScopeExpect::match(ZeMessageBase& message) {
    return _take(message_uid(message));
}

// ---- ZeMScopeDate ----------------------------------------------------------

ZeMScopeRef ZeMScopeDate::create(When when, int year, int month, int day) {
    if (!valid_day(year, month, day)) {
        return ZeMScopeRef();
    }
    const long number = day_number(year, month, day);
    switch (when) {
        case SINCE:
            return adopt(new ZeMScopeDate(number, 0));
        case BEFORE:
            return adopt(new ZeMScopeDate(0, number));
        case ON:
            return adopt(new ZeMScopeDate(number, -number));  // one day, see _day_matches
    }
    return ZeMScopeRef();
}

ZeMScopeRef ZeMScopeDate::create(When when, time_t time) {
    const long day = local_day(time);
    return create(when, static_cast<int>(day / 10000), static_cast<int>(day / 100 % 100),
                  static_cast<int>(day % 100));
}

ZeMScopeRef ZeMScopeDate::between(int year1, int month1, int day1, int year2, int month2,
                                  int day2) {
    if (!valid_day(year1, month1, day1) || !valid_day(year2, month2, day2)) {
        return ZeMScopeRef();
    }
    return adopt(
        new ZeMScopeDate(day_number(year1, month1, day1), day_number(year2, month2, day2)));
}

std::string ZeMScopeDate::imap_date(long day) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const long month = day / 100 % 100;
    if (month < 1 || month > 12) {
        return std::string();
    }
    char text[32];
    std::snprintf(text, sizeof text, "%ld-%s-%04ld", day % 100, kMonths[month - 1], day / 10000);
    return text;
}

long ZeMScopeDate::local_day(time_t time) {
    struct tm parts {};
    if (localtime_r(&time, &parts) == nullptr) {
        return day_number(1970, 1, 1);
    }
    return day_number(parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday);
}

std::string ZeMScopeDate::imap_criteria() const {
    if (m_until < 0) {
        return "ON " + imap_date(m_from);
    }
    if (m_until == 0) {
        return "SINCE " + imap_date(m_from);
    }
    if (m_from == 0) {
        return "BEFORE " + imap_date(m_until);
    }
    return "(SINCE " + imap_date(m_from) + " BEFORE " + imap_date(m_until) + ")";
}

bool ZeMScopeDate::_day_matches(long day) const {
    if (m_until < 0) {
        return day == m_from;
    }
    return day >= m_from && (m_until == 0 || day < m_until);
}

bool ZeMScopeDate::match(ZeMessageEnv& envelope) {
    const time_t time = envelope_time(envelope);
    return time == 0 || _day_matches(local_day(time));  // 0: the message decides
}

bool ZeMScopeDate::match(ZeMessageBase& message) {
    return _day_matches(local_day(message_time(message)));
}

// ---- ZeMScopeMessageId -----------------------------------------------------

ZeMScopeRef ZeMScopeMessageId::create(const std::string& message_id) {
    std::string id = message_id;
    if (id.empty() || id.front() != '<') {
        id.insert(0, 1, '<');
    }
    if (id.back() != '>' || id.size() == 1) {
        id += '>';
    }
    if (id.size() <= 2 || !zem_search::searchable(id)) {
        return ZeMScopeRef();
    }
    return adopt(new ZeMScopeMessageId(id));
}

std::string ZeMScopeMessageId::imap_criteria() const {
    return "HEADER Message-ID " + zem_search::quoted(m_id);
}

bool ZeMScopeMessageId::match(ZeMessageEnv& /*envelope*/) {
    return true;
}

bool ZeMScopeMessageId::match(ZeMessageBase& message) {
    for (const Corvane::Header& header : message.headers().headers()) {
        if (header.is("Message-ID") && zem_search::contains(header.value(), m_id)) {
            return true;
        }
    }
    return false;
}

// ---- ZeMScopeBasename ------------------------------------------------------

std::string ZeMScopeBasename::unique_part(const std::string& name) {
    return name.substr(0, name.find_first_of(",:"));
}

ZeMScopeRef ZeMScopeBasename::create(const std::string& basename, const std::string& folder_path) {
    const std::string key = unique_part(basename);
    if (key.empty() || key.find('/') != std::string::npos || !zem_search::searchable(key)) {
        return ZeMScopeRef();
    }
    return adopt(new ZeMScopeBasename(key, folder_path));
}

std::string ZeMScopeBasename::imap_criteria() const {
    if (m_folder.empty()) {
        return std::string();
    }
    const unsigned long uid = ZeUIDListManager__::instance()->GetUIDList(m_folder)->uid(m_key);
    if (uid == 0 || uid == static_cast<unsigned long>(-1)) {
        return "NOT ALL";
    }
    return "UID " + std::to_string(uid);
}

bool ZeMScopeBasename::_take(const std::string& name) {
    if (unique_part(name) != m_key) {
        return false;
    }
    m_found = true;  // one file per unique name
    return true;
}

bool ZeMScopeBasename::match(ZeMessageEnv& envelope) {
    try {
        return _take(envelope.basename());
    } catch (const std::exception&) {
        return true;
    }
}

bool ZeMScopeBasename::match(ZeMessageBase& message) {
    if (!message.basename().empty()) {
        return _take(message.basename());
    }
    return !message.env().isNull() && match(*message.env());
}
