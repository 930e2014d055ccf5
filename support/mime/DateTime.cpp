#include "support/mime/DateTime.h"

#include <strings.h>

#include <cstdint>
#include <cstring>

namespace Corvane {

namespace {

const char* const kMonths[] = {"january",   "february", "march",    "april",
                               "may",       "june",     "july",     "august",
                               "september", "october",  "november", "december"};
const char* const kDays[] = {"mon", "tue", "wed", "thu", "fri", "sat", "sun"};

struct Zone {
    const char* name;
    int minutes;
};
const Zone kZones[] = {{"UT", 0},        {"UTC", 0},       {"GMT", 0},       {"Z", 0},
                       {"EST", -5 * 60}, {"EDT", -4 * 60}, {"CST", -6 * 60}, {"CDT", -5 * 60},
                       {"MST", -7 * 60}, {"MDT", -6 * 60}, {"PST", -8 * 60}, {"PDT", -7 * 60}};

const int kMaxCommentDepth = 8;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_alpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Days from 1970-01-01 to the given day of the proleptic Gregorian calendar.
std::int64_t days_from_civil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2 ? 1 : 0;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

unsigned days_in_month(unsigned year, unsigned month) {
    static const unsigned kDaysIn[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDaysIn[month - 1];
}

// Walks the text token by token; comments and folding white space between
// tokens are skipped.
class Scanner {
public:
    explicit Scanner(const std::string& text)
        : m_p(text.data()), m_end(text.data() + text.size()) {}

    // False for a comment left open or nested too deep.
    bool skip() {
        while (m_p < m_end) {
            if (*m_p == ' ' || *m_p == '\t' || *m_p == '\r' || *m_p == '\n') {
                ++m_p;
            } else if (*m_p == '(') {
                if (!_comment()) {
                    return false;
                }
            } else {
                break;
            }
        }
        return true;
    }
    bool at_end() const { return m_p == m_end; }
    bool take(char c) {
        if (m_p < m_end && *m_p == c) {
            ++m_p;
            return true;
        }
        return false;
    }
    // At least one and at most max_digits digits.
    bool number(unsigned max_digits, unsigned* value, unsigned* digits) {
        *value = 0;
        *digits = 0;
        while (m_p < m_end && is_digit(*m_p)) {
            if (++*digits > max_digits) {
                return false;
            }
            *value = *value * 10 + static_cast<unsigned>(*m_p++ - '0');
        }
        return *digits > 0;
    }
    std::string word() {
        const char* start = m_p;
        while (m_p < m_end && is_alpha(*m_p) && m_p - start < 16) {
            ++m_p;
        }
        return std::string(start, m_p);
    }
    bool alpha_next() const { return m_p < m_end && is_alpha(*m_p); }

private:
    bool _comment() {
        int depth = 0;
        while (m_p < m_end) {
            const char c = *m_p++;
            if (c == '\\' && m_p < m_end) {
                ++m_p;
            } else if (c == '(') {
                if (++depth > kMaxCommentDepth) {
                    return false;
                }
            } else if (c == ')' && --depth == 0) {
                return true;
            }
        }
        return false;
    }

    const char* m_p;
    const char* m_end;
};

bool is_day_name(const std::string& word) {
    for (const char* day : kDays) {
        if (word.size() >= 3 && strncasecmp(word.c_str(), day, 3) == 0) {
            return true;
        }
    }
    return false;
}

// 1 to 12, or 0: three letters or more, a prefix of the month's English name.
unsigned month_number(const std::string& word) {
    if (word.size() < 3) {
        return 0;
    }
    for (unsigned i = 0; i < 12; ++i) {
        if (word.size() <= std::strlen(kMonths[i]) &&
            strncasecmp(word.c_str(), kMonths[i], word.size()) == 0) {
            return i + 1;
        }
    }
    return 0;
}

// The zone's offset east of UTC in minutes; false for a malformed one.
bool zone_offset(Scanner& in, int* minutes) {
    *minutes = 0;
    if (in.at_end()) {
        return true;
    }
    const bool east = in.take('+');
    if (east || in.take('-')) {
        unsigned value = 0;
        unsigned digits = 0;
        if (!in.number(4, &value, &digits) || digits != 4 || value % 100 > 59) {
            return false;
        }
        *minutes = static_cast<int>(value / 100 * 60 + value % 100) * (east ? 1 : -1);
        return true;
    }
    const std::string name = in.word();
    if (name.empty()) {
        return false;
    }
    for (const Zone& zone : kZones) {
        if (strcasecmp(name.c_str(), zone.name) == 0) {
            *minutes = zone.minutes;
            return true;
        }
    }
    // Military letters and other names: the zone is unknown, the time is
    // read as UTC.
    return name.size() <= 5;
}

}  // namespace

bool parseRfc5322Date(const std::string& text, time_t* out) {
    Scanner in(text);
    if (!in.skip()) {
        return false;
    }
    if (in.alpha_next()) {
        if (!is_day_name(in.word()) || !in.skip()) {
            return false;
        }
        in.take(',');
    }
    unsigned day = 0;
    unsigned year = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    unsigned second = 0;
    unsigned digits = 0;
    if (!in.skip() || !in.number(2, &day, &digits) || !in.skip()) {
        return false;
    }
    const bool dashed = in.take('-') || in.take('.');
    if (!in.skip()) {
        return false;
    }
    const unsigned month = month_number(in.word());
    if (month == 0 || !in.skip()) {
        return false;
    }
    if (dashed && !in.take('-') && !in.take('.')) {
        return false;
    }
    if (!in.skip() || !in.number(4, &year, &digits) || digits < 2) {
        return false;
    }
    if (digits == 2) {
        year += year < 50 ? 2000 : 1900;
    } else if (digits == 3) {
        year += 1900;
    }
    if (!in.skip() || !in.number(2, &hour, &digits) || !in.skip() || !in.take(':') || !in.skip() ||
        !in.number(2, &minute, &digits) || digits != 2 || !in.skip()) {
        return false;
    }
    if (in.take(':')) {
        if (!in.skip() || !in.number(2, &second, &digits) || digits != 2 || !in.skip()) {
            return false;
        }
    }
    int zone = 0;
    if (!zone_offset(in, &zone) || !in.skip() || !in.at_end()) {
        return false;
    }
    if (year < 1900 || day < 1 || day > days_in_month(year, month) || hour > 23 || minute > 59 ||
        second > 60) {
        return false;
    }
    const std::int64_t seconds = days_from_civil(year, month, day) * 86400 + hour * 3600 +
                                 minute * 60 + second - static_cast<std::int64_t>(zone) * 60;
    *out = static_cast<time_t>(seconds);
    return true;
}

}  // namespace Corvane
