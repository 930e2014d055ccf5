// Maildir file names read and rebuilt: base name, info part, size marker,
// date, flag letters in sorted order, and the stable prefix used to find a
// renamed file.
#include "stores/ZeMaildirName.h"

#include <limits>
#include <utility>

#include <gtest/gtest.h>

namespace {

using namespace ZeMaildirName;

FlagChars letters(const std::string& chars) {
    FlagChars flags;
    for (char c : chars) {
        flags.set(static_cast<unsigned char>(c));
    }
    return flags;
}

std::string letters(const FlagChars& flags) {
    std::string out;
    for (std::size_t c = 0; c < flags.size(); ++c) {
        if (flags.test(c)) {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Most delivery agents write no "," before the info part: their base name
// ends at the marker, where names with one keep the answer they always had.
TEST(ZeMaildirNameTest, BaseNameEndsAtFirstCommaOrAtAnInfoMarkerBeforeIt) {
    const std::pair<std::string, std::string> rows[] = {
        {"1.M1.h,S=5:2,S", "1.M1.h"},
        {"1.M1.h,U7:2,S", "1.M1.h"},
        {"1700000000.M1P1.host:2,S", "1700000000.M1P1.host"},
        {"123.host:3,SF", "123.host"},
        {"123.host:2,", "123.host"},
        {"x:3,A:2,B", "x"},
        {"a:2", "a:2"},    // no marker without its ","
        {"a:4,S", "a:4"},  // only 2 and 3 mark an info part
        {"a2,S=1", "a2"},  // a "2" before the "," is no marker without ":"
        {":2,S", ""},
        {"plain", "plain"},
        {",U5", ""},
        {"", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, ZeMaildirName::basename(row.first)) << row.first;
        EXPECT_EQ(row.second.size(), baseLength(row.first.data(), row.first.size())) << row.first;
    }
}

TEST(ZeMaildirNameTest, InfoPartFollowsFirstColonTwoElseColonThree) {
    EXPECT_EQ("FS", letters(flagChars("123.host:2,SF")));
    EXPECT_EQ("AX", letters(flagChars("123.host:3,XA")));
    EXPECT_EQ("B", letters(flagChars("x:3,A:2,B")));  // ":2," wins wherever it stands
    EXPECT_EQ(",2:CSUb", letters(flagChars("x:2,C:2,b,U:S")));
    EXPECT_EQ("", letters(flagChars("x:2,")));
    EXPECT_EQ("", letters(flagChars("x:1,S")));
    EXPECT_EQ("", letters(flagChars("no-info")));
    EXPECT_EQ(std::string::npos, infoStart("x:2"));
    EXPECT_EQ(4u, infoStart("x:2,"));
}

TEST(ZeMaildirNameTest, BytesAboveAsciiAreNotFlags) {
    EXPECT_EQ("S", letters(flagChars("x:2,S\x80\xff")));
    EXPECT_EQ(std::string(1, '\x7f'), letters(flagChars("x:2,\x7f")));
}

// The marker ",#F#S#<n>" and the server's ",S=<n>" field; -1: no size, the
// file's length is used.
TEST(ZeMaildirNameTest, SizeFromTheMarkerOrTheServersField) {
    struct Row {
        const char* name;
        long long marker;  // sizeFromName
        long long server;  // serverSizeFromName
    };
    const Row rows[] = {
        {"123.x,#F#S#471:2,S", 471, -1},
        {"123.x,#F#S471#E", -1, -1},  // the composer's spelling carries no size
        {"123.x#F#S#471", -1, -1},    // no comma before it
        {"x,#F#S#", 0, -1},
        {"x,#F#S#4294967295", 4294967295, -1},
        {"x,#F#S#4294967296", 4294967295, -1},  // capped, not wrapped to 0
        {"x,#F#S#-1", 4294967295, -1},
        {"1.M1.h,S=471,W=480:2,S", -1, 471},
        {"1.M1.h,W=480,S=471", -1, 471},
        {"1.M1.h,S=0:2,", -1, 0},
        {"1.M1.h,S=4294967296", -1, 4294967295},
        {"1.M1.h,S=99999999999999999999999:2,S", -1, 4294967295},
        {"1.M1.h,S=", -1, -1},
        {"1.M1.h,S=47x", -1, -1},
        {"1.M1.h,S=-1", -1, -1},
        {"1.M1.h:2,S=5", -1, -1},  // flag letters, not a field
        {"1.M1.hS=5", -1, -1},
    };
    for (const Row& row : rows) {
        std::uint32_t marker = 7;
        std::uint32_t server = 7;
        EXPECT_EQ(row.marker >= 0, sizeFromName(row.name, &marker)) << row.name;
        EXPECT_EQ(row.marker >= 0 ? row.marker : 7, marker) << row.name;
        EXPECT_EQ(row.server >= 0, serverSizeFromName(row.name, &server)) << row.name;
        EXPECT_EQ(row.server >= 0 ? row.server : 7, server) << row.name;
    }
}

TEST(ZeMaildirNameTest, DateIsTheLeadingNumber) {
    EXPECT_EQ(1700000000, date("1700000000.M1P2.host:2,S"));
    EXPECT_EQ(0, date("abc.1700000000"));
    EXPECT_EQ(0, date(" 12"));
    EXPECT_EQ(0, date("-12"));
    EXPECT_EQ(0, date(""));
    EXPECT_EQ(std::numeric_limits<time_t>::max(), date("99999999999999999999999.x"));
}

TEST(ZeMaildirNameTest, NewNameSortsLettersAndKeepsMarker) {
    EXPECT_EQ("123.host:2,DFS", newName("123.host:2,SF", letters("SFD")));
    EXPECT_EQ("123.host:2,S", newName("123.host", letters("S")));
    EXPECT_EQ("123.host:2,", newName("123.host", FlagChars()));
    EXPECT_EQ("123.host:3,AX", newName("123.host:3,X", letters("XA")));
    EXPECT_EQ("a:3,b:2,c", newName("a:3,b:2,z", letters("c")));
    EXPECT_EQ("1,#F#S#9:2,T", newName("1,#F#S#9:2,ST", letters("T")));
}

TEST(ZeMaildirNameTest, StablePrefixEndsAtFirstMarkerInFixedOrder) {
    EXPECT_EQ(5u, stablePrefix("123.x,U5:2,S"));
    EXPECT_EQ(5u, stablePrefix("a:2,S,U9"));  // ",U" is looked for first
    EXPECT_EQ(5u, stablePrefix("123.x:2,RS"));
    EXPECT_EQ(9u, stablePrefix("123.x,S=1:2,S"));
    EXPECT_EQ(5u, stablePrefix("123.x:3,S"));
    EXPECT_EQ(5u, stablePrefix("123.x,#F#S#5"));
    EXPECT_EQ(0u, stablePrefix(":2,S"));
    EXPECT_EQ(std::string::npos, stablePrefix("123.x,#F#S5#E"));
    EXPECT_EQ(std::string::npos, stablePrefix(""));
}

}  // namespace
