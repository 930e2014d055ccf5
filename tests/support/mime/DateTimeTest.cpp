// Date fields as mail carries them: the strict form, the obsolete forms
// still seen, the calendar's and the zones' boundaries, and texts refused.

#include "support/mime/DateTime.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// 2003-07-01 10:52:37 UTC.
const time_t kJuly1 = 1057056757;

struct Accepted {
    const char* text;
    time_t expected;
};

TEST(Rfc5322Date, StrictAndObsoleteFormsGiveTheSameInstant) {
    const Accepted rows[] = {
        {"Tue, 1 Jul 2003 10:52:37 +0000", kJuly1},
        {"Tue, 01 Jul 2003 12:52:37 +0200", kJuly1},
        {"1 Jul 2003 06:52:37 EDT", kJuly1},
        {"Tue 1 jul 2003 10:52:37 GMT", kJuly1},
        {"  Tue,\r\n 1 July 2003 10:52:37 +0000 (UTC)  ", kJuly1},
        {"Tue, 1 (first) Jul 2003 10:52:37 (x (nested)) +0000", kJuly1},
        {"1-Jul-2003 10:52:37 -0000", kJuly1},
        {"1 Jul 03 10:52:37 Z", kJuly1},
        {"1 Jul 103 10:52:37 UT", kJuly1},
        {"1 Jul 2003 10:52:37", kJuly1},
        {"1 Jul 2003 10:52:37 CEST", kJuly1},  // unknown zone name: read as UTC
        {"1 Jul 2003 10:52 +0000", kJuly1 - 37},
        {"1 Jul 2003 02:52:37 PST", kJuly1},
    };
    for (const Accepted& row : rows) {
        time_t got = 0;
        EXPECT_TRUE(Corvane::parseRfc5322Date(row.text, &got)) << row.text;
        EXPECT_EQ(row.expected, got) << row.text;
    }
}

TEST(Rfc5322Date, CalendarAndZoneBoundaries) {
    time_t got = 0;
    ASSERT_TRUE(Corvane::parseRfc5322Date("29 Feb 2024 00:00:00 +0000", &got));
    EXPECT_EQ(1709164800, got);
    ASSERT_TRUE(Corvane::parseRfc5322Date("1 Jan 1970 00:00:00 +0000", &got));
    EXPECT_EQ(0, got);
    ASSERT_TRUE(Corvane::parseRfc5322Date("1 Jan 1900 00:00:00 +0000", &got));
    EXPECT_EQ(-2208988800, got);
    ASSERT_TRUE(Corvane::parseRfc5322Date("31 Dec 9999 23:59:60 -9959", &got));
    ASSERT_TRUE(Corvane::parseRfc5322Date("1 Jan 49 00:00:00 +0000", &got));
    EXPECT_EQ(2493072000, got);  // 2049
    ASSERT_TRUE(Corvane::parseRfc5322Date("1 Jan 50 00:00:00 +0000", &got));
    EXPECT_EQ(-631152000, got);  // 1950
}

TEST(Rfc5322Date, AnythingElseIsRefusedAndLeavesTheOutputAlone) {
    const char* rows[] = {
        "",
        "yesterday",
        "Tue, 1 Jul 2003",                                  // no time
        "29 Feb 2023 00:00:00 +0000",                       // not a leap year
        "31 Apr 2003 00:00:00 +0000",                       // April has 30 days
        "0 Jul 2003 00:00:00 +0000",                        // day 0
        "1 Jul 1899 00:00:00 +0000",                        // before 1900
        "1 Jul 2003 24:00:00 +0000",                        // hour 24
        "1 Jul 2003 10:60:00 +0000",                        // minute 60
        "1 Jul 2003 10:52:61 +0000",                        // second 61
        "1 Jul 2003 10:52:37 +02",                          // short zone
        "1 Jul 2003 10:52:37 +0260",                        // zone minutes 60
        "1 Jul 2003 10:52:37 +0000 trailing",               // text after the zone
        "1 Ju 2003 10:52:37 +0000",                         // two letters are no month
        "1 Julyish 2003 10:52:37 +0000",                    // not a prefix of a month
        "Tue, 1 Jul 12003 10:52:37 +0000",                  // five-digit year
        "Tue, 1 Jul 2003 10:52:37 +0000 (open",             // comment left open
        "1 Jul 2003 10:52:37 ((((((((((x)))))))))) +0000",  // nested too deep
        "Xyz, 1 Jul 2003 10:52:37 +0000",                   // not a day name
        "1-Jul 2003 10:52:37 +0000",                        // one dash without the other
    };
    for (const char* row : rows) {
        time_t got = 42;
        EXPECT_FALSE(Corvane::parseRfc5322Date(row, &got)) << row;
        EXPECT_EQ(42, got) << row;
    }
    time_t got = 42;
    EXPECT_FALSE(Corvane::parseRfc5322Date(std::string("1 Jul 2003\0 10:52:37", 19), &got));
    EXPECT_FALSE(Corvane::parseRfc5322Date(std::string(100000, '('), &got));
}

}  // namespace
