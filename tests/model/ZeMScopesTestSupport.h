// What the scope and filter tests share: local times and a direct message over
// a file or over bytes in memory.
#ifndef ZEMAIL_TESTS_MODEL_ZE_M_SCOPES_TEST_SUPPORT_H
#define ZEMAIL_TESTS_MODEL_ZE_M_SCOPES_TEST_SUPPORT_H

#include <ctime>
#include <string>
#include <utility>

#include "model/ZeMailBox.h"

namespace zetest {

// The time of that local date and time of day.
inline time_t local_time(int year, int month, int day, int hour, int minute, int second) {
    struct tm parts {};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    return mktime(&parts);
}

// A direct message over the file at path or, with an empty path, over text;
// its headers are parsed on construction, everything else is the test's.
class DirectMessage : public ZeMDirectMessage {
public:
    DirectMessage(std::string path, std::string text)
        : m_path(std::move(path)), m_text(std::move(text)) {
        Corvane::MediaIn in = media();
        m_headers.parse(in);
    }
    void set_uid(unsigned long uid) { m_uid = uid; }
    void set_received(time_t time) { m_received = time; }
    void set_basename(const std::string& name) { m_basename = name; }

    Corvane::MediaIn media() override {
        return m_path.empty() ? Corvane::MediaIn::fromString(m_text)
                              : Corvane::MediaIn::fromFile(m_path);
    }
    std::string getFileName() const override { return m_path; }
    void replace(const Corvane::MediaIn&) override {}
    int permanent_remove() override { return 0; }

private:
    std::string m_path;
    std::string m_text;
};

}  // namespace zetest

#endif
