// The UID list read from a folder's ".dovecot-uidlist": record grammar, where
// reading stops, first-mapping-wins across re-reads, and the folder cache.
#include "stores/ZeUIDList.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/TestUtil.h"

namespace {

const unsigned long kUnknown = static_cast<unsigned long>(-1);
const std::string kHeader = "3 V1700000000 N9 G3085f01b8a2c0b65\n";

class ZeUIDListTest : public ::testing::Test {
protected:
    std::string file() const { return dir.path() + "/.dovecot-uidlist"; }

    // Writes the list file with an explicit modification time, so that a
    // test decides whether the list sees a change (times have 1 s steps).
    void write(const std::string& content, time_t when) {
        dir.write(".dovecot-uidlist", content);
        setTime(when);
    }
    void setTime(time_t when) {
        struct timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, file().c_str(), times, 0));
    }
    // A fresh list on the file, so every test starts unloaded.
    ZeUIDListImpl& list() { return *m_list; }

    zetest::TempDir dir{"zemail-uidlist"};

private:
    std::unique_ptr<ZeUIDListImpl> m_list{new ZeUIDListImpl(dir.path() + "/.dovecot-uidlist")};
};

// --- record grammar -------------------------------------------------------

TEST_F(ZeUIDListTest, RecordMapsUidToBaseNameAndNameIsCutAtFirstComma) {
    write(kHeader + "5 W989 :123.M1P2.host,S=987:2,S\n", 1000);
    EXPECT_EQ("123.M1P2.host", list().basename(5));
    EXPECT_EQ(5u, list().uid("123.M1P2.host,S=987:2,RS"));
    EXPECT_EQ(5u, list().uid("123.M1P2.host"));
    EXPECT_EQ(kUnknown, list().uid("123.M1P2"));
    EXPECT_EQ("", list().basename(6));
}

TEST_F(ZeUIDListTest, HeaderLineIsSkippedWhateverItHolds) {
    write("7 :looks-like-a-record\n8 :real\n", 1000);
    EXPECT_EQ("", list().basename(7));
    EXPECT_EQ("real", list().basename(8));
    write("not a header at all\n8 :real\n", 1001);
    EXPECT_EQ("real", list().basename(8));
}

TEST_F(ZeUIDListTest, BlanksFieldsAndNameBoundaries) {
    write(kHeader +
              "1   G0af3 W12 :many-blanks\n"
              "2\t:after-a-tab\n"
              "3 :no-comma:2,S\n"
              "7 :no-comma-either:3,\n"
              "4 Xa:b :first-colon-starts-the-name\n"
              "5 :\xe4\xf6\xff.high-bytes,S=1\n"
              "6 :last-line-without-feed",
          1000);
    EXPECT_EQ("many-blanks", list().basename(1));
    EXPECT_EQ("after-a-tab", list().basename(2));
    EXPECT_EQ("no-comma", list().basename(3));  // the base ends at ":2," then
    EXPECT_EQ(3u, list().uid("no-comma:2,RS"));
    EXPECT_EQ(7u, list().uid("no-comma-either:3,S"));
    EXPECT_EQ("b :first-colon-starts-the-name", list().basename(4));
    EXPECT_EQ(5u, list().uid("\xe4\xf6\xff.high-bytes"));
    EXPECT_EQ("last-line-without-feed", list().basename(6));
}

TEST_F(ZeUIDListTest, EmptyNameIsSkippedWithoutStoppingTheRead) {
    write(kHeader + "3 :\n4 W1 :,S=5\n5 :after\n", 1000);
    EXPECT_EQ("", list().basename(3));
    EXPECT_EQ("", list().basename(4));
    EXPECT_EQ(kUnknown, list().uid(""));
    EXPECT_EQ("after", list().basename(5));
}

TEST_F(ZeUIDListTest, MalformedLineDropsEverythingReadSoFar) {
    const char* broken[] = {
        "0 :uid-zero",
        "7:no-blank",
        "x7 :no-leading-digit",
        " 7 :leading-blank",
        "7 no-colon",  // the ":" of the line after it does not count
        "7",
        "",
        "18446744073709551616 :uid-over-64-bits",
    };
    time_t when = 1000;
    for (const char* line : broken) {
        SCOPED_TRACE(line);
        write(kHeader + "1 :good\n" + line + "\n2 :after\n", ++when);
        ZeUIDListImpl fresh(file());
        EXPECT_EQ(kUnknown, fresh.uid("good"));
        EXPECT_EQ("", fresh.basename(1));
        EXPECT_EQ("", fresh.basename(2));
        EXPECT_EQ(kUnknown, fresh.match(""));
    }
}

TEST_F(ZeUIDListTest, LineThatDoesNotFitTheBufferEndsTheReadKeepingWhatCameBefore) {
    // 1023 bytes with the line feed fit; one more does not.
    auto record = [](unsigned uid, std::size_t length) {
        std::string head = std::to_string(uid) + " :";
        return head + std::string(length - head.size(), 'n');
    };
    write(kHeader + "1 :first\n" + record(2, 1022) + "\n3 :third\n", 1000);
    EXPECT_EQ(std::string(1022 - 3, 'n'), list().basename(2));
    EXPECT_EQ("third", list().basename(3));

    write(kHeader + "1 :first\n" + record(2, 1023) + "\n3 :third\n", 1001);
    ZeUIDListImpl tooLong(file());
    EXPECT_EQ("first", tooLong.basename(1));
    EXPECT_EQ("", tooLong.basename(2));
    EXPECT_EQ("", tooLong.basename(3));

    // As the last line, without a line feed, 1023 bytes still fit.
    write(kHeader + record(2, 1023), 1002);
    ZeUIDListImpl lastLine(file());
    EXPECT_EQ(std::string(1023 - 3, 'n'), lastLine.basename(2));
    write(kHeader + record(2, 1024), 1003);
    ZeUIDListImpl lastTooLong(file());
    EXPECT_EQ("", lastTooLong.basename(2));
}

TEST_F(ZeUIDListTest, UidsOfEveryLengthUpToSixtyFourBits) {
    std::string content = kHeader;
    std::vector<std::pair<std::string, unsigned long>> uids;
    std::string digits;
    for (int length = 1; length <= 19; ++length) {
        digits += static_cast<char>('1' + length % 9);
        uids.emplace_back(digits, std::stoul(digits));
    }
    uids.emplace_back("10000000000000000000", 10000000000000000000ul);
    uids.emplace_back("18446744073709551615", 18446744073709551615ul);
    uids.emplace_back("0000000000000000000000042", 42ul);  // leading zeros do not count
    for (const auto& entry : uids) {
        content += entry.first + " :n" + entry.first + "\n";
    }
    write(content, 1000);
    for (const auto& entry : uids) {
        EXPECT_EQ("n" + entry.first, list().basename(entry.second)) << entry.first;
    }
}

TEST_F(ZeUIDListTest, LongLinesFollowTheSameGrammarAsShortOnes) {
    const std::string longName(300, 'x');
    write(kHeader +
              "1 G0123456789abcdef0123456789abcdef W12 :far-colon\n"  // ":" past 16 bytes
              "2 :" +
              longName + ",S=1\n" +                           // name past 64 bytes
              "3 :" + std::string(70, 'c') + "\n" +           // no comma, no feed nearby
              "4 :short,S=" + std::string(200, '9') + "\n" +  // feed far after the comma
              "5 :a:b,c:d\n" +                                // colons in the name
              "6 :next-line-is-not-this-name\n7 :x,y\n" +     // names cut at ","
              "8 :" + longName + ":2,S\n" +                   // long, no ","
              "9 :" + std::string(40, 'm') + ":2," + std::string(90, 'S') + "\n",  // feed far
          1000);
    EXPECT_EQ("far-colon", list().basename(1));
    EXPECT_EQ(longName, list().basename(2));
    EXPECT_EQ(2u, list().uid(longName + ",S=1:2,S"));
    EXPECT_EQ(std::string(70, 'c'), list().basename(3));
    EXPECT_EQ("short", list().basename(4));
    EXPECT_EQ("a:b", list().basename(5));
    EXPECT_EQ("next-line-is-not-this-name", list().basename(6));
    EXPECT_EQ("x", list().basename(7));
    EXPECT_EQ(longName, list().basename(8));
    EXPECT_EQ(std::string(40, 'm'), list().basename(9));
}

// The maps a file gives, worked out the plain way: first mapping seen wins.
struct Expected {
    std::map<unsigned long, std::string> byUid;
    std::map<std::string, unsigned long> byName;
    void add(const std::vector<std::pair<unsigned long, std::string>>& records) {
        for (const auto& record : records) {
            byUid.emplace(record.first, record.second);
            byName.emplace(record.second, record.first);
        }
    }
};

std::string recordsText(const std::vector<std::pair<unsigned long, std::string>>& records) {
    std::string text = kHeader;
    for (const auto& record : records) {
        text += std::to_string(record.first) + " :" + record.second + ",S=1\n";
    }
    return text;
}

void expectMaps(ZeUIDListImpl& list, const Expected& expected) {
    for (const auto& entry : expected.byUid) {
        EXPECT_EQ(entry.second, list.basename(entry.first)) << entry.first;
    }
    for (const auto& entry : expected.byName) {
        EXPECT_EQ(entry.second, list.uid(entry.first)) << entry.first;
    }
    // match() walks the names in byte order.
    EXPECT_EQ(expected.byName.empty() ? kUnknown : expected.byName.begin()->second, list.match(""));
}

// Records as the server writes them (ascending UIDs, names in time order)
// and in other orders, with repeated UIDs and names: the same answers as a
// plain reading, whatever the order.
TEST_F(ZeUIDListTest, RecordsInAnyOrderKeepTheFirstMappingSeen) {
    std::vector<std::pair<unsigned long, std::string>> records;
    for (unsigned long uid = 1; uid <= 300; ++uid) {
        records.emplace_back(uid * 3, "17000" + std::to_string(100000 + uid) + ".M1P2.host");
    }
    records.emplace_back(30, "17000100001.M1P2.host");  // both known: changes nothing
    records.emplace_back(31, "17000100010.M1P2.host");  // a new UID for a known name
    records.emplace_back(33, "0-sorts-first");          // a known UID, a new name
    records.emplace_back(2000, "~sorts-last");

    std::mt19937 random(7);
    std::vector<std::vector<std::pair<unsigned long, std::string>>> orders;
    orders.push_back(records);
    orders.emplace_back(records.rbegin(), records.rend());
    orders.push_back(records);
    std::rotate(orders.back().begin(), orders.back().begin() + 1, orders.back().end());
    for (int i = 0; i < 3; ++i) {
        orders.push_back(records);
        std::shuffle(orders.back().begin(), orders.back().end(), random);
    }
    time_t when = 1000;
    for (const auto& order : orders) {
        SCOPED_TRACE(when);
        write(recordsText(order), ++when);
        ZeUIDListImpl fresh(file());
        Expected expected;
        expected.add(order);
        expectMaps(fresh, expected);
    }
}

// A file larger than one read: lines of every length cross the places where
// one read ends and the next begins.
TEST_F(ZeUIDListTest, LargeFileIsReadWhole) {
    std::vector<std::pair<unsigned long, std::string>> records;
    std::string text = kHeader;
    for (unsigned long uid = 1; text.size() < 700 * 1024; ++uid) {
        records.emplace_back(uid, std::to_string(1700000000 + uid) + std::string(uid % 97, 'n'));
        text += std::to_string(uid) + (uid % 3 == 0 ? " W77 :" : " :") + records.back().second +
                (uid % 5 == 0 ? "" : ",S=12") + "\n";
    }
    records.emplace_back(records.size() + 1, "last-without-feed");
    text += std::to_string(records.size()) + " :last-without-feed";
    write(text, 1000);
    Expected expected;
    expected.add(records);
    expectMaps(list(), expected);
}

// A re-read adds what the new version has that the list lacks, wherever it
// falls in either order; what the list had stays, even where the file now
// says otherwise.
TEST_F(ZeUIDListTest, RereadAddsNewRecordsAnywhereAndKeepsOldOnes) {
    std::vector<std::pair<unsigned long, std::string>> first;
    for (unsigned long uid = 10; uid <= 200; uid += 10) {
        first.emplace_back(uid, "1700000" + std::to_string(uid + 100) + ".host");
    }
    std::vector<std::pair<unsigned long, std::string>> appended = first;
    appended.emplace_back(300, "1700000400.host");
    std::vector<std::pair<unsigned long, std::string>> anywhere = appended;
    anywhere.emplace_back(15, "1700000115.host");   // between in both orders
    anywhere.emplace_back(5, "1700000999.host");    // first by UID, last by name
    anywhere.emplace_back(20, "1700000120.other");  // a known UID, a new name
    anywhere.emplace_back(400, "1700000110.host");  // a new UID, a known name
    anywhere.erase(anywhere.begin());               // gone from the file, kept by the list

    Expected expected;
    time_t when = 1000;
    for (const auto* version : {&first, &appended, &anywhere, &first, &anywhere}) {
        SCOPED_TRACE(when);
        write(recordsText(*version), ++when);
        expected.add(*version);
        expectMaps(list(), expected);
    }
    // Vanished and back: read from scratch.
    ASSERT_EQ(0, ::unlink(file().c_str()));
    EXPECT_EQ(kUnknown, list().match(""));
    write(recordsText(anywhere), ++when);
    Expected fresh;
    fresh.add(anywhere);
    expectMaps(list(), fresh);
    EXPECT_EQ("", list().basename(10));
}

// --- lookups ----------------------------------------------------------------

TEST_F(ZeUIDListTest, MatchTakesFirstContainingNameInNameOrder) {
    write(kHeader + "1 :b-12.host\n2 :a-12.host\n3 :c-99.host\n", 1000);
    EXPECT_EQ(2u, list().match("12"));
    EXPECT_EQ(3u, list().match("99.h"));
    EXPECT_EQ(1u, list().match("b-12.host"));
    EXPECT_EQ(kUnknown, list().match("b-12.host,S=1"));
    EXPECT_EQ(kUnknown, list().match("zz"));
    EXPECT_EQ(2u, list().match(""));  // the empty text is in every name
}

// --- the file on disk -------------------------------------------------------

TEST_F(ZeUIDListTest, FileIsReadAgainOnlyWhenItsTimeChangesAndOldMappingsStay) {
    write(kHeader + "5 :old-five\n", 1000);
    EXPECT_EQ("old-five", list().basename(5));

    write(kHeader + "5 :new-five\n6 :six\n", 1000);  // same time: not read
    EXPECT_EQ("", list().basename(6));

    setTime(1001);
    EXPECT_EQ("six", list().basename(6));
    EXPECT_EQ("old-five", list().basename(5));
    EXPECT_EQ(5u, list().uid("old-five"));  // gone from the file, kept here
    EXPECT_EQ(5u, list().uid("new-five"));

    ASSERT_EQ(0, ::unlink(file().c_str()));
    EXPECT_EQ("", list().basename(5));
    write(kHeader + "5 :new-five\n", 1001);  // same time as before: still read afresh
    EXPECT_EQ("new-five", list().basename(5));
    EXPECT_EQ(kUnknown, list().uid("old-five"));
}

TEST_F(ZeUIDListTest, MalformedRewriteEmptiesLoadedListUntilFixed) {
    write(kHeader + "1 :one\n", 1000);
    EXPECT_EQ(1u, list().uid("one"));
    write(kHeader + "1 :one\n2:broken\n", 1001);
    EXPECT_EQ(kUnknown, list().uid("one"));
    EXPECT_EQ(kUnknown, list().uid("one"));  // stays empty while the file stays
    write(kHeader + "1 :one\n", 1002);
    EXPECT_EQ(1u, list().uid("one"));
}

TEST_F(ZeUIDListTest, BadFilesGiveUnknownAnswersAndAreLeftAsTheyWere) {
    EXPECT_EQ(kUnknown, list().uid("missing"));
    EXPECT_EQ("", list().basename(1));

    const std::string content = kHeader + "1 :one\n2 :two\n3:bad";
    write(content, 1000);
    struct stat before;
    ASSERT_EQ(0, ::stat(file().c_str(), &before));
    EXPECT_EQ(kUnknown, list().uid("one"));
    struct stat after;
    ASSERT_EQ(0, ::stat(file().c_str(), &after));
    EXPECT_EQ(before.st_mtime, after.st_mtime);
    EXPECT_EQ(content, zetest::read_file(file()));

    ASSERT_EQ(0, ::unlink(file().c_str()));
    ASSERT_EQ(0, ::mkdir(file().c_str(), 0700));
    EXPECT_EQ(kUnknown, list().uid("one"));
    ASSERT_EQ(0, ::rmdir(file().c_str()));

    // A FIFO in the file's place must not block the reader.
    ASSERT_EQ(0, ::mkfifo(file().c_str(), 0600));
    EXPECT_EQ(kUnknown, list().uid("one"));
}

TEST_F(ZeUIDListTest, StockServerFileWithoutTheDotIsReadWhenTheDottedOneIsMissing) {
    dir.write("dovecot-uidlist", kHeader + "4 :four\n");
    ASSERT_EQ(0, ::symlink("dovecot-uidlist.gone", file().c_str()));  // dangling
    EXPECT_EQ(4u, list().uid("four"));
    ASSERT_EQ(0, ::unlink(file().c_str()));
    write(kHeader + "5 :five\n", 1000);
    EXPECT_EQ(5u, list().uid("five"));  // the dotted file, once there, is the one read
}

// A sparse file of 1 TiB made every lookup throw std::bad_alloc: what is
// reserved and read is capped, and the records before the hole still count.
TEST_F(ZeUIDListTest, HugeSparseFileAnswersInsteadOfThrowingBadAlloc) {
    write(kHeader + "1 :one\n", 1000);
    ASSERT_EQ(0, ::truncate(file().c_str(), off_t{1} << 40));
    EXPECT_EQ(1u, list().uid("one"));
    EXPECT_EQ(kUnknown, list().uid("two"));
    EXPECT_EQ("", list().basename(2));
}

TEST_F(ZeUIDListTest, ReadingStopsAfterTheByteCapDroppingTheLineItCuts) {
    write(kHeader + "1 :one\n2 :two\n3 :three\n", 1000);
    const std::pair<std::size_t, const char*> rows[] = {
        {kHeader.size() + 11, ""},  // "2 :tw" cut
        {kHeader.size() + 13, ""},  // "2 :two" without its feed: maybe cut
        {kHeader.size() + 14, "two"},
    };
    for (const auto& row : rows) {
        ZeUIDListImpl capped(file(), row.first);
        EXPECT_EQ("one", capped.basename(1)) << row.first;
        EXPECT_EQ(row.second, capped.basename(2)) << row.first;
        EXPECT_EQ("", capped.basename(3)) << row.first;
    }
}

TEST_F(ZeUIDListTest, EmptyAndHeaderOnlyFilesAreEmptyLists) {
    write("", 1000);
    EXPECT_EQ(kUnknown, list().match(""));
    write(kHeader, 1001);
    EXPECT_EQ(kUnknown, list().match(""));
    write(std::string(5000, 'h') + "\n1 :after-long-header\n", 1002);
    EXPECT_EQ("", list().basename(1));
}

// A walk's look-ups (cached_uid) answer exactly what uid() answers, for names
// in any order, before and after a re-read that renames and adds records.
TEST_F(ZeUIDListTest, WalkLookupsAgreeWithUidAcrossReReads) {
    std::vector<int> order(2000);
    for (int i = 0; i < 2000; ++i) {
        order[i] = i + 1;
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    std::string content = kHeader;
    for (int u : order) {
        content += std::to_string(u) + " :n" + std::to_string(u * 7919 % 2003) + ".h\n";
    }
    write(content, 1000);
    auto check = [&](int last) {
        for (int u = 1; u <= last; ++u) {
            const std::string name = "n" + std::to_string(u * 7919 % 2003) + ".h,S=1:2,S";
            ASSERT_EQ(list().uid(name), list().cached_uid(name)) << name;
            ASSERT_EQ(static_cast<unsigned long>(u), list().cached_uid(name)) << name;
        }
        EXPECT_EQ(kUnknown, list().cached_uid("n99999.h"));
        EXPECT_EQ(kUnknown, list().cached_uid(""));
    };
    check(2000);
    // New records, one of them reusing a known name under a new UID: the
    // first mapping seen stays.
    write(content + "2001 :n2001x.h\n2002 :n1.h\n", 1001);
    EXPECT_EQ(2001u, list().cached_uid("n2001x.h,S=1:2,"));  // unknown: the file is read again
    check(2000);
    EXPECT_EQ(list().uid("n1.h"), list().cached_uid("n1.h"));
}

// --- the manager --------------------------------------------------------------

TEST(ZeUIDListManagerTest, FolderPathsAreNormalised) {
    const std::pair<const char*, const char*> cases[] = {
        {"/m/Inbox/cur/", "/m/Inbox"},
        {"/m/Inbox/new", "/m/Inbox"},
        {"/m/Inbox/", "/m/Inbox"},
        {"/m/Inbox", "/m/Inbox"},
        {"/m/cur/cur", "/m/cur"},
        {"/m/Inbox/tmp", "/m/Inbox/tmp"},
        {"/m/xcur", "/m/xcur"},
        {"cur", "cur"},
        {"/m/Inbox//", "/m/Inbox/"},
        {"/cur", ""},
        {"", ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, ZeUIDListManagerImpl::normalise(c.first)) << c.first;
    }
}

TEST(ZeUIDListManagerTest, CurAndFolderShareOneListReadingTheFolderFile) {
    zetest::TempDir dir("zemail-uidlist");
    dir.write("Inbox/.dovecot-uidlist", kHeader + "4 :four\n");
    ZeUIDListManagerImpl manager;
    auto viaCur = manager.GetUIDList(dir.path() + "/Inbox/cur/");
    auto plain = manager.GetUIDList(dir.path() + "/Inbox");
    EXPECT_EQ(viaCur.get(), plain.get());
    EXPECT_EQ(1u, manager.cached());
    EXPECT_EQ(4u, plain->uid("four"));
    EXPECT_EQ(ZeUIDListManager__::instance().get(), ZeUIDListManager__::instance().get());
}

TEST(ZeUIDListManagerTest, EleventhFolderDropsTheLeastRecentlyUsed) {
    zetest::TempDir dir("zemail-uidlist");
    dir.write("f1/.dovecot-uidlist", kHeader + "1 :kept\n");
    auto folder = [&](int i) { return dir.path() + "/f" + std::to_string(i); };
    ZeUIDListManagerImpl manager;
    std::vector<boost::shared_ptr<ZeUIDList__>> first;
    for (int i = 0; i < 10; ++i) {
        first.push_back(manager.GetUIDList(folder(i)));
    }
    EXPECT_EQ(10u, manager.cached());

    // Let the clock move on, then use f0 again: f1 is now the oldest.
    time_t start = ::time(nullptr);
    while (::time(nullptr) == start) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(first[0].get(), manager.GetUIDList(folder(0)).get());

    manager.GetUIDList(folder(10));
    EXPECT_EQ(10u, manager.cached());
    EXPECT_EQ(first[0].get(), manager.GetUIDList(folder(0)).get());
    for (int i = 2; i < 10; ++i) {
        EXPECT_EQ(first[i].get(), manager.GetUIDList(folder(i)).get()) << i;
    }
    // f1 was dropped: asking again makes a new list (the old one lives on
    // in our hands, so the addresses cannot coincide), and the old one
    // still answers.
    EXPECT_NE(first[1].get(), manager.GetUIDList(folder(1)).get());
    EXPECT_EQ(10u, manager.cached());
    EXPECT_EQ(1u, first[1]->uid("kept"));
}

// --- threads ------------------------------------------------------------------

// Readers on many folders (more than the cache holds, so lists are dropped
// and made again) while a writer keeps adding records to one of them: every
// answer must be the one its own folder's file gives.
TEST(ZeUIDListManagerTest, ConcurrentLookupsSeeTheirOwnFolder) {
    zetest::TempDir dir("zemail-uidlist");
    const int kFolders = 14;
    for (int f = 0; f < kFolders; ++f) {
        std::string content = kHeader;
        for (int u = 1; u <= 50; ++u) {
            content +=
                std::to_string(u) + " :f" + std::to_string(f) + "-m" + std::to_string(u) + ",S=1\n";
        }
        dir.write("F" + std::to_string(f) + "/.dovecot-uidlist", content);
    }
    ZeUIDListManagerImpl manager;
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};

    std::thread writer([&] {
        std::string path = dir.path() + "/F0/.dovecot-uidlist";
        for (int round = 0; round < 30 && !stop; ++round) {
            std::string content = kHeader;
            for (int u = 1; u <= 50 + round; ++u) {
                content += std::to_string(u) + " :f0-m" + std::to_string(u) + "\n";
            }
            std::string tmp = path + ".tmp";
            dir.write("F0/.dovecot-uidlist.tmp", content);
            struct timespec times[2] = {{2000 + round, 0}, {2000 + round, 0}};
            ::utimensat(AT_FDCWD, tmp.c_str(), times, 0);
            ::rename(tmp.c_str(), path.c_str());
        }
    });
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&, t] {
            for (int i = 0; i < 3000; ++i) {
                int f = (i * 7 + t) % kFolders;
                int u = 1 + (i * 13 + t) % 50;
                std::string name = "f" + std::to_string(f) + "-m" + std::to_string(u);
                auto list = manager.GetUIDList(dir.path() + "/F" + std::to_string(f) + "/cur");
                if (list->uid(name + ",S=1:2,S") != static_cast<unsigned long>(u) ||
                    list->basename(u) != name) {
                    ++wrong;
                }
            }
        });
    }
    for (auto& r : readers) {
        r.join();
    }
    stop = true;
    writer.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_LE(manager.cached(), 10u);
}

}  // namespace
