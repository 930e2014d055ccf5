#include "stores/ZeMboxParser.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "model/ZeMessageFlags.h"
#include "support/mime/DateTime.h"

namespace ZeMboxParser {

namespace {

const char kFrom[] = "From ";
const std::size_t kFromLength = 5;
const std::uint64_t kMaxUid = 4294967295u;
// Words of a From_ line or a date looked at; the rest is ignored.
const std::size_t kMaxWords = 16;

bool blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool digit(char c) {
    return c >= '0' && c <= '9';
}

bool alpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_text(const std::string& a, const char* b) {
    const std::size_t n = std::strlen(b);
    if (a.size() != n) {
        return false;
    }
    for (std::size_t i = 0; i < n; ++i) {
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> words(const char* p, const char* end) {
    std::vector<std::string> out;
    while (p < end && out.size() < kMaxWords) {
        while (p < end && blank(*p)) {
            ++p;
        }
        const char* start = p;
        while (p < end && !blank(*p)) {
            ++p;
        }
        if (p > start) {
            out.emplace_back(start, p);
        }
    }
    return out;
}

// The index (0-based) of a name among twelve or seven three-letter names,
// when word is alphabetic and begins with one of them; -1 otherwise.
int name_index(const std::string& word, const char* const* names, int count) {
    if (word.size() < 3) {
        return -1;
    }
    for (char c : word) {
        if (!alpha(c)) {
            return -1;
        }
    }
    for (int i = 0; i < count; ++i) {
        if (lower(word[0]) == lower(names[i][0]) && lower(word[1]) == names[i][1] &&
            lower(word[2]) == names[i][2]) {
            return i;
        }
    }
    return -1;
}

const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
const char* const kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};

int month_of(const std::string& word) {
    return name_index(word, kMonths, 12);
}

bool is_weekday(const std::string& word) {
    return name_index(word, kWeekdays, 7) >= 0;
}

// A whole word of 1 to max digits.
bool number(const std::string& word, std::size_t max, int* value) {
    if (word.empty() || word.size() > max) {
        return false;
    }
    int v = 0;
    for (char c : word) {
        if (!digit(c)) {
            return false;
        }
        v = v * 10 + (c - '0');
    }
    *value = v;
    return true;
}

// "hh:mm" or "hh:mm:ss".
bool clock_time(const std::string& word, int* seconds) {
    int h = 0;
    int m = 0;
    int s = 0;
    const std::size_t first = word.find(':');
    if (first == std::string::npos || !number(word.substr(0, first), 2, &h)) {
        return false;
    }
    const std::size_t second = word.find(':', first + 1);
    if (!number(word.substr(first + 1,
                            second == std::string::npos ? std::string::npos : second - first - 1),
                2, &m)) {
        return false;
    }
    if (second != std::string::npos && !number(word.substr(second + 1), 2, &s)) {
        return false;
    }
    if (h > 23 || m > 59 || s > 60) {
        return false;
    }
    *seconds = h * 3600 + m * 60 + s;
    return true;
}

enum class Zone { None, Known, Unknown };

// "+0100", "-0500", or a zone name. Known names give their offset; any
// other alphabetic word is a zone whose offset is unknown.
Zone zone_of(const std::string& word, long* offset) {
    if (word.size() == 5 && (word[0] == '+' || word[0] == '-')) {
        int hhmm = 0;
        if (!number(word.substr(1), 4, &hhmm) || hhmm % 100 > 59) {
            return Zone::None;
        }
        const long seconds = (hhmm / 100) * 3600L + (hhmm % 100) * 60L;
        *offset = word[0] == '-' ? -seconds : seconds;
        return Zone::Known;
    }
    static const struct {
        const char* name;
        int hours;
    } kNames[] = {{"UT", 0},   {"UTC", 0},  {"GMT", 0},  {"Z", 0},    {"EST", -5}, {"EDT", -4},
                  {"CST", -6}, {"CDT", -5}, {"MST", -7}, {"MDT", -6}, {"PST", -8}, {"PDT", -7}};
    for (const auto& known : kNames) {
        if (same_text(word, known.name)) {
            *offset = known.hours * 3600L;
            return Zone::Known;
        }
    }
    if (word.empty()) {
        return Zone::None;
    }
    for (char c : word) {
        if (!alpha(c)) {
            return Zone::None;
        }
    }
    return Zone::Unknown;
}

bool leap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar (month
// 0..11, year from 1970), counted in 400-year eras of 146097 days.
long days_since_epoch(int year, int month, int day) {
    const int m = month + 1;
    const long y = year - (m <= 2 ? 1 : 0);
    const long era = y / 400;
    const long yearOfEra = y - era * 400;
    const long dayOfYear = (153L * (m > 2 ? m - 3 : m + 9) + 2) / 5 + day - 1;
    const long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

// Seconds since 1970 of a calendar time; month 0..11. With a known zone the
// offset is taken away, without one the time is the machine's local time.
// 0 for a day the month does not have, a year outside 1970..9999, or a
// moment before 1970.
time_t make_time(int year, int month, int day, int seconds, Zone zone, long offset) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (year < 1970 || year > 9999 || month < 0 || month > 11 || day < 1 ||
        day > kDays[month] + (month == 1 && leap(year) ? 1 : 0)) {
        return 0;
    }
    long long result = 0;
    if (zone == Zone::Known) {
        result = days_since_epoch(year, month, day) * 86400LL + seconds - offset;
    } else {
        struct tm tm = {};
        tm.tm_year = year - 1900;
        tm.tm_mon = month;
        tm.tm_mday = day;
        tm.tm_hour = seconds / 3600;
        tm.tm_min = seconds / 60 % 60;
        tm.tm_sec = seconds % 60;
        tm.tm_isdst = -1;
        result = static_cast<long long>(mktime(&tm));
    }
    return result > 0 ? static_cast<time_t>(result) : 0;
}

// [weekday] month day time [zone] year [zone] ..., as ctime() and the
// delivering programs write it.
time_t asctime_date(const std::vector<std::string>& w) {
    std::size_t i = 0;
    if (i < w.size() && is_weekday(w[i]) && month_of(w[i]) < 0) {
        ++i;
    }
    int month = i < w.size() ? month_of(w[i]) : -1;
    int day = 0;
    int seconds = 0;
    int year = 0;
    if (month < 0 || ++i >= w.size() || !number(w[i], 2, &day) || ++i >= w.size() ||
        !clock_time(w[i], &seconds) || ++i >= w.size()) {
        return 0;
    }
    long offset = 0;
    Zone zone = zone_of(w[i], &offset);
    if (zone != Zone::None && ++i >= w.size()) {
        return 0;
    }
    if (w[i].size() != 4 || !number(w[i], 4, &year)) {
        return 0;
    }
    if (zone == Zone::None && ++i < w.size()) {
        zone = zone_of(w[i], &offset);
    }
    return make_time(year, month, day, seconds, zone, offset);
}

}  // namespace

// ------------------------------------------------------------------- scanner

void Scanner::feed(const char* data, std::size_t length) {
    std::size_t i = 0;
    while (i < length) {
        if (m_phase == Phase::Skip) {
            // The rest of this line says nothing we keep: jump to its end.
            const void* nl = std::memchr(data + i, '\n', length - i);
            const std::size_t stop =
                nl == nullptr ? length
                              : static_cast<std::size_t>(static_cast<const char*>(nl) - data);
            if (stop > i) {
                m_lineLength += stop - i;
                m_lastByte = data[stop - 1];
                m_pos += stop - i;
                i = stop;
            }
            if (i == length) {
                break;
            }
        } else if (m_phase == Phase::Head && data[i] != '\n') {
            // The head of a line is taken in one piece, up to its LF.
            const std::size_t room = std::min(kLineHead - m_head.size(), length - i);
            const void* nl = std::memchr(data + i, '\n', room);
            const std::size_t take =
                nl == nullptr ? room
                              : static_cast<std::size_t>(static_cast<const char*>(nl) - (data + i));
            m_head.append(data + i, take);
            m_lineLength += take;
            m_lastByte = data[i + take - 1];
            m_pos += take;
            i += take;
            if (m_head.size() == kLineHead) {
                _classify(false);
            }
            continue;
        }
        const char c = data[i++];
        if (c == '\n') {
            _endLine(true);
        } else {
            _byte(c);
        }
        ++m_pos;
    }
}

void Scanner::_byte(char c) {
    ++m_lineLength;
    m_lastByte = c;
    switch (m_phase) {
        case Phase::Head:
            m_head.push_back(c);
            if (m_head.size() == kLineHead) {
                _classify(false);
            }
            break;
        case Phase::GtRun:
            if (c == 'F') {
                m_matched = 1;
                m_phase = Phase::MatchFrom;
            } else if (c != '>') {
                m_phase = Phase::Skip;
            }
            break;
        case Phase::MatchFrom:
            if (c != kFrom[m_matched]) {
                m_phase = Phase::Skip;
            } else if (++m_matched == kFromLength) {
                ++m_quoted;
                m_phase = Phase::Skip;
            }
            break;
        case Phase::FromLine:
            if (m_fromText.size() < kMaxFromLine) {
                m_fromText.push_back(c);
            } else {
                m_phase = Phase::Skip;
            }
            break;
        case Phase::Value:
            if (m_value.size() < kMaxFieldValue) {
                m_value.push_back(c);
            } else {
                m_phase = Phase::Skip;
            }
            break;
        case Phase::Skip:
            break;
    }
}

void Scanner::_classify(bool complete) {
    const std::string& head = m_head;
    m_phase = Phase::Skip;
    if (head.compare(0, kFromLength, kFrom) == 0) {
        _openMessage();
        m_isFromLine = true;
        m_fromText.assign(head, kFromLength, std::string::npos);
        m_phase = Phase::FromLine;
        return;
    }
    if (!m_inMessage) {
        return;  // before the first From_ line
    }

    // ">From ", ">>From ", ...: the run of ">" may outgrow the head.
    std::size_t gt = 0;
    while (gt < head.size() && head[gt] == '>') {
        ++gt;
    }
    if (gt > 0) {
        const std::size_t rest = head.size() - gt;
        if (rest >= kFromLength) {
            if (head.compare(gt, kFromLength, kFrom) == 0) {
                ++m_quoted;
            }
        } else if (!complete && head.compare(gt, rest, kFrom, rest) == 0) {
            m_matched = rest;
            m_phase = rest == 0 ? Phase::GtRun : Phase::MatchFrom;
        }
    }

    const bool isBlank = complete && (head.empty() || head == "\r");
    if (!m_inHeader || isBlank) {
        return;  // _endLine ends the header at its blank line
    }
    if (head[0] == ' ' || head[0] == '\t') {
        // A folded line continues the field above it.
        if (m_field != Field::None && m_field != Field::Other) {
            m_value.append(head, 0, kMaxFieldValue - std::min(kMaxFieldValue, m_value.size()));
            if (!complete && m_value.size() < kMaxFieldValue) {
                m_phase = Phase::Value;
            }
        }
        return;
    }
    _commitField();
    m_field = Field::Other;
    const std::size_t colon = head.find(':');
    if (colon == std::string::npos) {
        return;
    }
    std::size_t nameEnd = colon;
    while (nameEnd > 0 && (head[nameEnd - 1] == ' ' || head[nameEnd - 1] == '\t')) {
        --nameEnd;
    }
    const std::string name = head.substr(0, nameEnd);
    Field field = Field::Other;
    if (same_text(name, "Status")) {
        field = Field::Status;
    } else if (same_text(name, "X-Status")) {
        field = Field::XStatus;
    } else if (same_text(name, "X-UID")) {
        field = Field::XUid;
    } else if (same_text(name, "Date") && m_entry.date == 0) {
        field = Field::Date;  // needed only when the From_ line had no date
    }
    const int slot = static_cast<int>(field);
    if (field == Field::Other || m_seen[slot]) {
        return;
    }
    m_seen[slot] = true;
    m_field = field;
    m_value = head.substr(colon + 1);
    if (!complete) {
        m_phase = Phase::Value;
    }
}

void Scanner::_endLine(bool hasNewline) {
    if (m_phase == Phase::Head) {
        _classify(true);
    }
    const bool isBlank = m_lineLength == 0 || (m_lineLength == 1 && m_lastByte == '\r');
    if (m_isFromLine) {
        m_isFromLine = false;
        m_entry.date = parseFromLine(m_fromText.data(), m_fromText.size(), nullptr);
        m_entry.begin = hasNewline ? m_pos + 1 : m_pos;
    } else if (m_inHeader && isBlank) {
        _commitField();
        m_inHeader = false;
    }
    m_hadLine = true;
    m_prevBlank = isBlank;
    m_prevLineStart = m_lineStart;
    m_prevLineEnd = m_lineStart + m_lineLength - (m_lineLength > 0 && m_lastByte == '\r' ? 1 : 0);
    m_lineStart = m_pos + 1;
    _resetLine();
}

void Scanner::_resetLine() {
    m_lineLength = 0;
    m_lastByte = 0;
    m_head.clear();
    m_phase = Phase::Head;
    m_matched = 0;
}

void Scanner::_openMessage() {
    if (m_inMessage) {
        // The line end before this From_ line is the separator's; an empty
        // message (two From_ lines in a row) has none to give.
        std::uint64_t end = m_hadLine ? m_prevLineEnd : m_lineStart;
        if (end < m_entry.begin) {
            end = m_entry.begin;
        }
        _closeMessage(end);
        m_entry = Entry();
        m_entry.separator = end;
    } else {
        m_entry = Entry();
        m_entry.separator = m_lineStart;
    }
    m_entry.fromLine = m_lineStart;
    m_entry.begin = m_lineStart;
    m_inMessage = true;
    m_inHeader = true;
    m_quoted = 0;
    m_fromText.clear();
    m_field = Field::None;
    m_value.clear();
    for (bool& seen : m_seen) {
        seen = false;
    }
    m_status.clear();
    m_xuid.clear();
    m_date.clear();
}

void Scanner::_commitField() {
    switch (m_field) {
        case Field::Status:
        case Field::XStatus:
            // Both carry letters of the same table; their union is the status.
            m_status += m_value;
            break;
        case Field::XUid:
            m_xuid = m_value;
            break;
        case Field::Date:
            m_date = m_value;
            break;
        case Field::None:
        case Field::Other:
            break;
    }
    m_field = Field::None;
    m_value.clear();
}

void Scanner::_closeMessage(std::uint64_t end) {
    _commitField();
    m_entry.end = end;
    const std::uint64_t stored = end - m_entry.begin;
    m_entry.size = stored - std::min(stored, m_quoted);
    m_entry.flags = statusFlags(m_status);
    m_entry.xuid = parseUid(m_xuid);
    if (m_entry.date == 0 && !m_date.empty()) {
        m_entry.date = parseDate(m_date);
    }
    m_entries.push_back(m_entry);
}

std::vector<Entry> Scanner::finish() {
    if (m_pos > m_lineStart) {
        _endLine(false);  // a last line without its LF
        m_prevBlank = false;
    }
    if (m_inMessage) {
        // A blank last line is the writer's blank line after the message.
        std::uint64_t end = m_pos;
        if (m_prevBlank && m_prevLineStart >= m_entry.begin && m_prevLineStart > m_entry.fromLine) {
            end = m_prevLineStart;
        }
        _closeMessage(end);
    }
    std::vector<Entry> out = std::move(m_entries);
    *this = Scanner();
    return out;
}

// ----------------------------------------------------------------- unquoting

void Unquoter::filter(const char* data, std::size_t length, std::string& out) {
    std::size_t i = 0;
    while (i < length) {
        const char c = data[i];
        switch (m_state) {
            case State::Rest: {
                const void* nl = std::memchr(data + i, '\n', length - i);
                const std::size_t stop =
                    nl == nullptr
                        ? length
                        : static_cast<std::size_t>(static_cast<const char*>(nl) - data) + 1;
                out.append(data + i, stop - i);
                i = stop;
                if (nl != nullptr) {
                    m_state = State::LineStart;
                }
                break;
            }
            case State::LineStart:
                if (c == '>') {
                    m_state = State::Held;  // the one ">" a quote would remove
                    ++i;
                } else {
                    m_state = State::Rest;
                }
                break;
            case State::Held:
                // Further ">" go out at once: they are the same byte as the
                // held one, so the order does not matter.
                if (c == '>') {
                    out.push_back('>');
                    ++i;
                } else if (c == 'F') {
                    m_matched = 1;
                    m_state = State::Match;
                    ++i;
                } else {
                    out.push_back('>');
                    m_state = State::Rest;
                }
                break;
            case State::Match:
                if (c == kFrom[m_matched]) {
                    ++i;
                    if (++m_matched == kFromLength) {
                        out.append(kFrom, kFromLength);  // the held ">" is dropped
                        m_state = State::Rest;
                    }
                } else {
                    out.push_back('>');
                    out.append(kFrom, m_matched);
                    m_state = State::Rest;
                }
                break;
        }
    }
}

void Unquoter::finish(std::string& out) {
    if (m_state == State::Held || m_state == State::Match) {
        out.push_back('>');
        out.append(kFrom, m_state == State::Match ? m_matched : 0);
    }
    m_state = State::LineStart;
    m_matched = 0;
}

std::string unquote(const std::string& stored) {
    std::string out;
    out.reserve(stored.size());
    Unquoter unquoter;
    unquoter.filter(stored.data(), stored.size(), out);
    unquoter.finish(out);
    return out;
}

// ------------------------------------------------------------ header values

time_t parseFromLine(const char* text, std::size_t length, std::string* sender) {
    const char* p = text;
    const char* end = text + length;
    // The sender runs to the first blank; a quoted local part may hold blanks.
    bool quoted = false;
    while (p < end && (quoted || !blank(*p))) {
        if (*p == '"') {
            quoted = !quoted;
        } else if (*p == '\\' && quoted && p + 1 < end) {
            ++p;
        }
        ++p;
    }
    if (sender != nullptr) {
        sender->assign(text, p);
    }
    const std::vector<std::string> w = words(p, end);
    const time_t asctime = asctime_date(w);
    if (asctime != 0) {
        return asctime;
    }
    // Some writers put a Date header's form there.
    return parseDate(std::string(p, end));
}

time_t parseDate(const std::string& value) {
    time_t when = 0;
    return Corvane::parseRfc5322Date(value, &when) && when > 0 ? when : 0;
}

unsigned long statusFlags(const std::string& text) {
    unsigned long flags = 0;
    for (char c : text) {
        flags |= ZeMessageFlags::getMboxFlagRev(static_cast<unsigned char>(c));
    }
    return flags;
}

std::uint64_t parseUid(const std::string& value) {
    std::size_t b = 0;
    std::size_t e = value.size();
    while (b < e && blank(value[b])) {
        ++b;
    }
    while (e > b && blank(value[e - 1])) {
        --e;
    }
    if (b == e) {
        return 0;
    }
    std::uint64_t uid = 0;
    for (std::size_t i = b; i < e; ++i) {
        if (!digit(value[i])) {
            return 0;
        }
        uid = uid * 10 + static_cast<std::uint64_t>(value[i] - '0');
        if (uid > kMaxUid) {
            return 0;
        }
    }
    return uid;
}

void assignUids(std::vector<Entry>& entries) {
    std::unordered_set<std::uint64_t> used;
    used.reserve(entries.size());
    std::uint64_t lastFallback = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        Entry& entry = entries[i];
        if (entry.xuid != 0 && used.insert(entry.xuid).second) {
            entry.uid = static_cast<unsigned long>(entry.xuid);
            continue;
        }
        // Candidates only grow, so each held number is stepped over at most
        // once over the whole walk.
        std::uint64_t candidate = std::max<std::uint64_t>(i + 1, lastFallback + 1);
        while (used.count(candidate) != 0) {
            ++candidate;
        }
        used.insert(candidate);
        lastFallback = candidate;
        entry.uid = static_cast<unsigned long>(candidate);
    }
}

}  // namespace ZeMboxParser
