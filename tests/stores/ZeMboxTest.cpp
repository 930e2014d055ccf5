// The mbox mailbox: how a file is cut into messages (fed whole and byte by
// byte), ">From " unquoting, Status letters, dates and UIDs, the mailbox on
// temporary files (walk, look-ups, refusals, a file changing under it), and
// sections and trees against the same messages read from a Maildir.
#include "stores/ZeMbox.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "stores/ZeMaildir.h"
#include "support/TestUtil.h"

namespace {

using ZeMboxParser::Entry;

const char kFromA[] = "From ann@example.org Mon Mar  7 14:23:23 2011\n";
const char kFromB[] = "From bob@example.org Tue Mar  8 09:00:00 2011\n";

std::vector<Entry> scan(const std::string& file, bool byteByByte = false) {
    ZeMboxParser::Scanner scanner;
    if (byteByByte) {
        for (char c : file) {
            scanner.feed(&c, 1);
        }
    } else {
        scanner.feed(file.data(), file.size());
    }
    return scanner.finish();
}

// The messages of a file, unquoted; fed byte by byte the scanner must find
// the same, and each size is that of the unquoted bytes. (The fuzz target
// checks that separators and messages tile the file.)
std::vector<std::string> split(const std::string& file) {
    const std::vector<Entry> entries = scan(file);
    const std::vector<Entry> piecewise = scan(file, true);
    EXPECT_EQ(entries.size(), piecewise.size());
    std::vector<std::string> out;
    for (std::size_t i = 0; i < entries.size() && i < piecewise.size(); ++i) {
        const Entry& e = entries[i];
        out.push_back(ZeMboxParser::unquote(file.substr(e.begin, e.end - e.begin)));
        EXPECT_EQ(out.back().size(), e.size);
        EXPECT_TRUE(e.end == piecewise[i].end && e.size == piecewise[i].size &&
                    e.flags == piecewise[i].flags && e.xuid == piecewise[i].xuid);
    }
    return out;
}

using Messages = std::vector<std::string>;

// --- cutting the file -------------------------------------------------------

TEST(ZeMboxParserTest, BlankLineBeforeFromLineBelongsToTheSeparator) {
    EXPECT_EQ((Messages{"A: 1\n\nbody\n", "B: 2\n\nsecond\n"}),
              split(std::string(kFromA) + "A: 1\n\nbody\n\n" + kFromB + "B: 2\n\nsecond\n\n"));
    // Without a blank line the message gives up its last line end.
    EXPECT_EQ((Messages{"A: 1\n\nbody", "B: 2\n\nsecond\n"}),
              split(std::string(kFromA) + "A: 1\n\nbody\n" + kFromB + "B: 2\n\nsecond\n"));
    EXPECT_EQ((Messages{"A: 1\r\n\r\nbody\r\n", "B: 2\r\n"}),
              split("From a x\r\nA: 1\r\n\r\nbody\r\n\r\nFrom b y\r\nB: 2\r\n\r\n"));
}

TEST(ZeMboxParserTest, EveryFromLineStartsAMessageEvenBrokenOnes) {
    EXPECT_EQ((Messages{"", "x\n", "y\n", "z"}),
              split("From \nFrom garbage\nx\n\nFrom \x01\x02\ny\n\nFrom a\nz"));
    // An unquoted "From " in a body splits it; nothing is lost.
    EXPECT_EQ((Messages{"S: 1\n\nhello", "was here\n"}),
              split("From a\nS: 1\n\nhello\nFrom the past\nwas here\n"));
    // "From" without its blank, or not at a line start, splits nothing.
    EXPECT_EQ((Messages{"From:x\nFromage\n FromX\n"}), split("From a\nFrom:x\nFromage\n FromX\n"));
}

TEST(ZeMboxParserTest, FileStartAndEnd) {
    EXPECT_TRUE(split("").empty());
    EXPECT_EQ(Messages{"x"}, split("Subject: no mbox\n\nFrom the start? No.\nx"));
    EXPECT_TRUE(split("Subject: no mbox\n\nnot a message at all\n").empty());
    EXPECT_EQ(Messages{"m\n"}, split("junk\n\nFrom a\nm\n"));
    EXPECT_EQ(Messages{""}, split("From a"));  // cut inside the From_ line
    EXPECT_EQ(Messages{""}, split("From a\n"));
    EXPECT_EQ(Messages{""}, split("From a\n\n"));  // only the writer's blank line
    EXPECT_EQ(Messages{"H: v\n\nbody cut sh"}, split("From a\nH: v\n\nbody cut sh"));
    EXPECT_EQ(Messages{"b\n\n"}, split("From a\nb\n\n\n"));
    EXPECT_EQ(Messages{"b\n\r"}, split("From a\nb\n\r"));  // a CR without its LF is content
}

TEST(ZeMboxParserTest, QuotedFromLinesLoseOneGreaterThanSign) {
    EXPECT_EQ((Messages{"From me\n>From you\n>From\n> From x\n>Fro\nA >From\n>From "}),
              split("From a\n>From me\n>>From you\n>From\n> From x\n>Fro\nA >From\n>>From "));
    // Runs around the length of the line head that is looked at first.
    for (std::size_t run : {1, 58, 59, 60, 63, 64, 65, 200}) {
        const std::string quoted = std::string(run, '>') + "From x";
        EXPECT_EQ((Messages{quoted.substr(1) + "\n", std::string(run, '>') + "Frog\n"}),
                  split("From a\n" + quoted + "\n\nFrom b\n" + std::string(run, '>') + "Frog\n\n"))
            << run;
    }
}

TEST(ZeMboxParserTest, UnquoterKeepsItsPlaceAcrossPieces) {
    const std::string stored = ">From a\n>>>From b\n>Fr\n>\n>>\nx>From c\n>From";
    const std::string whole = ZeMboxParser::unquote(stored);
    EXPECT_EQ("From a\n>>From b\n>Fr\n>\n>>\nx>From c\n>From", whole);
    ZeMboxParser::Unquoter unquoter;
    std::string pieces;
    for (char c : stored) {
        unquoter.filter(&c, 1, pieces);
    }
    unquoter.finish(pieces);
    EXPECT_EQ(whole, pieces);
}

// --- header fields: status, UIDs, dates --------------------------------------

TEST(ZeMboxParserTest, StatusLettersFromBothHeadersOnlyInTheHeader) {
    const std::vector<Entry> e = scan(
        "From a\nstatus: Ro\nX-Status : aF\nStatus: D\n\nX-Status: D\n"  // 2nd Status, body
        "From b\nX-Status: A\n F\nStatus: RZ?\r\n\r\n"                   // folded, CRLF
        "From c\nSubject: x\n");
    ASSERT_EQ(3u, e.size());
    EXPECT_EQ(ZeMessageFlags::SEEN | 0x20ul | ZeMessageFlags::ANSWERED | ZeMessageFlags::FLAGGED,
              e[0].flags);
    EXPECT_EQ(ZeMessageFlags::ANSWERED | ZeMessageFlags::FLAGGED | ZeMessageFlags::SEEN,
              e[1].flags);
    EXPECT_EQ(0u, e[2].flags);
    EXPECT_EQ(0x40ul, ZeMboxParser::statusFlags("d"));
}

TEST(ZeMboxParserTest, UidValues) {
    EXPECT_EQ(17u, ZeMboxParser::parseUid(" 17\r"));
    EXPECT_EQ(7u, ZeMboxParser::parseUid("007"));
    EXPECT_EQ(4294967295u, ZeMboxParser::parseUid("4294967295"));
    for (const char* bad : {"", "0", "4294967296", "99999999999999999999999", "12a", "-3", "1 2"}) {
        EXPECT_EQ(0u, ZeMboxParser::parseUid(bad)) << bad;
    }
}

std::vector<unsigned long> uids(const std::vector<std::uint64_t>& xuids) {
    std::vector<Entry> entries(xuids.size());
    for (std::size_t i = 0; i < xuids.size(); ++i) {
        entries[i].xuid = xuids[i];
    }
    ZeMboxParser::assignUids(entries);
    std::vector<unsigned long> out;
    for (const Entry& e : entries) {
        out.push_back(e.uid);
    }
    return out;
}

TEST(ZeMboxParserTest, UidsAreUniqueAndDependOnlyOnEarlierMessages) {
    EXPECT_EQ((std::vector<unsigned long>{1, 2, 3}), uids({0, 0, 0}));
    EXPECT_EQ((std::vector<unsigned long>{10, 20, 3}), uids({10, 20, 0}));
    // A UID taken by an earlier message, by X-UID or by position, is not
    // given again; the fallback steps over it and stays above it.
    EXPECT_EQ((std::vector<unsigned long>{3, 2, 4, 5}), uids({3, 3, 0, 0}));
    EXPECT_EQ((std::vector<unsigned long>{1, 2, 3}), uids({0, 1, 0}));
    EXPECT_EQ((std::vector<unsigned long>{2, 3, 4, 5}), uids({2, 3, 4, 0}));
    // Appending messages leaves the earlier UIDs alone.
    const std::vector<unsigned long> before = uids({5, 0, 5, 9, 0});
    std::vector<unsigned long> after = uids({5, 0, 5, 9, 0, 2, 0, 4000000000u});
    after.resize(before.size());
    EXPECT_EQ(before, after);
}

// Dates without a zone are local time: these tests run in UTC.
class InUtc : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
    }
};

class ZeMboxDateTest : public InUtc {
protected:
    static time_t from(const std::string& text, std::string* sender = nullptr) {
        return ZeMboxParser::parseFromLine(text.data(), text.size(), sender);
    }
};

const time_t k2011 = 1299507803;  // 2011-03-07 14:23:23 UTC

TEST_F(ZeMboxDateTest, FromLineDates) {
    std::string sender;
    EXPECT_EQ(k2011, from("ann@example.org Mon Mar  7 14:23:23 2011\r", &sender));
    EXPECT_EQ("ann@example.org", sender);
    EXPECT_EQ(k2011 - 3600, from("a Mon Mar  7 14:23:23 +0100 2011", &sender));
    EXPECT_EQ(k2011 + 5 * 3600 - 23, from("a Mon Mar 7 14:23 2011 -0500 remote from x"));
    EXPECT_EQ(k2011 + 5 * 3600, from("a Mar 07 14:23:23 EST 2011"));
    EXPECT_EQ(k2011, from("a mon mar 7 14:23:23 CET 2011"));  // unknown zone: local time
    EXPECT_EQ(k2011 + 5 * 3600, from("a Mon, 7 Mar 2011 14:23:23 -0500"));
    EXPECT_EQ(k2011, from("\"a b\"@x Mon Mar  7 14:23:23 2011", &sender));
    EXPECT_EQ("\"a b\"@x", sender);
    EXPECT_EQ(951782400, from("a Tue Feb 29 00:00:00 2000"));
    for (const char* bad :
         {"", "a", "a Mon Mar 7 2011", "a Mon Mar 32 14:23:23 2011", "a Mon Feb 29 00:00:00 2011",
          "a Mon Mar 7 24:00:00 2011", "a Mon Mar 7 14:23:23 1969", "a Mon Mar 7 14:23:23 11",
          "a Mon Xyz 7 14:23:23 2011", "a Mon Mar 7 14:23:23"}) {
        EXPECT_EQ(0, from(bad)) << bad;
    }
    from(" Mon Mar  7 14:23:23 2011", &sender);
    EXPECT_EQ("", sender);
}

TEST_F(ZeMboxDateTest, FromLineDateWinsOverTheDateHeader) {
    const std::vector<Entry> e = scan(std::string(kFromA) +
                                      "Date: Tue, 8 Mar 2011 00:00:00 +0000\n\n\n"
                                      "From a no date\nDate: Mon, 7 Mar 2011 14:23:23 +0000\n\n\n"
                                      "From a\n\nDate: Mon, 7 Mar 2011 14:23:23 +0000\n");
    ASSERT_EQ(3u, e.size());
    EXPECT_EQ(k2011, e[0].date);
    EXPECT_EQ(k2011, e[1].date);
    EXPECT_EQ(0, e[2].date);  // a Date line in the body is no header

    // The Date parser itself is tested with the MIME support; this reader
    // only refuses what comes before 1970.
    EXPECT_EQ(k2011 + 5 * 3600, ZeMboxParser::parseDate("Mon, 7 Mar 2011 14:23:23 -0500 (EST)"));
    EXPECT_EQ(0, ZeMboxParser::parseDate("31 Dec 1969 23:59:59 +0000"));
    EXPECT_EQ(0, ZeMboxParser::parseDate("yesterday"));
}

// --- the mailbox on files ------------------------------------------------------

class ZeMboxTest : public InUtc {
protected:
    std::string write(const std::string& content, const std::string& name = "mbox") {
        return dir.write(name, content);
    }
    static void append(const std::string& path, const std::string& more) {
        FILE* f = std::fopen(path.c_str(), "ab");
        ASSERT_NE(nullptr, f);
        std::fwrite(more.data(), 1, more.size(), f);
        std::fclose(f);
    }
    static std::vector<unsigned long> walk(ZeMbox& box) {
        std::vector<unsigned long> out;
        box.reset();
        while (box.next() == 1) {
            out.push_back(box.fetch()->uid());
        }
        EXPECT_TRUE(box.fetch().isNull());
        return out;
    }

    zetest::TempDir dir{"zemail-mbox"};
};

const char kTwo[] =
    "From ann@example.org Mon Mar  7 14:23:23 2011\n"
    "Message-Id: <one@example.org>\n"
    "Status: RO\n"
    "X-UID: 40\n"
    "Subject: first\n"
    "\n"
    ">From the start\n"
    "\n"
    "From bob@example.org Tue Mar  8 09:00:00 2011\n"
    "Subject: second\n"
    "X-Status: F\n"
    "\n"
    "two\n"
    "\n";

TEST_F(ZeMboxTest, WalkGivesEnvelopesAndMessages) {
    const std::string path = write(kTwo);
    ZeMbox box(path, false, false);
    EXPECT_EQ(1, box.open());
    EXPECT_EQ(2, box.total_messages());
    box.reset();
    ASSERT_EQ(1, box.next());
    ZeMessageRef first = box.fetch();
    Corvane::Ref<ZeMessageEnv>& env = first->env();
    EXPECT_EQ(40u, env->uid());
    EXPECT_EQ(",U40", env->basename());
    EXPECT_EQ("<one@example.org>", env->msgID());
    EXPECT_EQ("ann@example.org", env->from());
    EXPECT_EQ(ZeMessageFlags::SEEN | ZeMessageFlags::DELETED, env->status().flags);
    const std::string bytes = first.media().readAll();
    EXPECT_EQ(
        "Message-Id: <one@example.org>\nStatus: RO\nX-UID: 40\nSubject: first\n\nFrom the start\n",
        bytes);
    EXPECT_EQ(bytes.size(), env->size());
    EXPECT_EQ(40u, first->uid());
    EXPECT_EQ(k2011, first->received());
    EXPECT_EQ(env->status(), first->flags());
    EXPECT_STREQ("first", ZeMessageRef::headerValue(first, "Subject"));
    EXPECT_EQ(path, first.direct_message()->getFileName());

    ASSERT_EQ(1, box.next());
    EXPECT_EQ(2u, box.fetch()->uid());
    EXPECT_EQ("", box.fetch()->env()->msgID());
    EXPECT_EQ(ZeMessageFlags::FLAGGED, box.fetch()->flags().flags);
    EXPECT_EQ(0, box.next());
    EXPECT_TRUE(box.fetch().isNull());
    EXPECT_EQ((std::vector<unsigned long>{40, 2}), walk(box));
}

TEST_F(ZeMboxTest, LookupsByUidAndKey) {
    ZeMbox box(write(kTwo), false, false);
    box.reset();
    box.next();
    ZeMessageRef current = box.fetch();
    EXPECT_EQ(40u, box.retrieve_message(40ul)->uid());
    EXPECT_EQ(40u, box.retrieve_message(",U40")->uid());
    EXPECT_EQ(2u, box.retrieve_message("2")->uid());
    for (const char* miss : {",U1", "1", ",U", "", ",U2x", "U2", ",u2", ",U-2", "40 "}) {
        EXPECT_TRUE(box.retrieve_message(std::string(miss)).isNull()) << miss;
    }
    EXPECT_TRUE(box.retrieve_message(0ul).isNull());
    EXPECT_EQ(current.get(), box.fetch().get());  // look-ups leave the cursor alone

    std::ostringstream body;
    EXPECT_EQ(0, box.retrieve_body(body, 2));
    EXPECT_EQ("Subject: second\r\nX-Status: F\r\n\r\ntwo\r\n", body.str());
    Corvane::Buffer header;
    EXPECT_EQ(0, box.retrieve_section(header, 40ul, "HEADER"));  // through ",U40"
    EXPECT_EQ(0u, header.str().find("Message-Id: <one@example.org>\r\n"));
    std::ostringstream none;
    EXPECT_EQ(4, box.retrieve_body(none, 3));
}

TEST_F(ZeMboxTest, OperationsThatWouldRewriteTheFileAreRefused) {
    ZeMbox box(write(kTwo), false, false);
    const ZeMessageFlags seen(ZeMessageFlags::SEEN, ZeMessageFlags::ADD);
    const std::vector<std::pair<std::string, std::function<void()>>> calls = {
        {"expunge", [&] { box.expunge(); }},
        {"clean", [&] { box.clean(); }},
        {"append", [&] { box.append(std::string("/tmp/x"), seen); }},
        {"append", [&] { box.append(ZeMessageRef(), ZeMDirectMailBox::STATUS_KEEP, seen); }},
        {"modify_message", [&] { box.modify_message(std::string(",U2"), seen); }},
        {"modify_message", [&] { box.modify_message(2ul, seen); }},
        {"move_message", [&] { box.move_message(",U2", "Trash"); }},
        {"remove_message", [&] { box.remove_message(",U2", true); }},
    };
    for (const auto& call : calls) {
        try {
            call.second();
            ADD_FAILURE() << call.first << " returned";
        } catch (const Corvane::Exception& e) {
            EXPECT_EQ(" ZeMbox::" + call.first + " - Not Implimented", e.text());
            EXPECT_EQ(4, e.code());
            EXPECT_EQ("ZeMbox", e.file());
        }
    }
    EXPECT_EQ(4, box.modify_message(0ul, seen));  // UID 0 never gets that far
    ZeMessageRef m = box.retrieve_message(2ul);
    EXPECT_EQ(4, m.direct_message()->permanent_remove());
    m.direct_message()->replace(Corvane::MediaIn::fromString("x"));
    EXPECT_EQ(std::string(kTwo), zetest::read_file(box.path()));
}

TEST_F(ZeMboxTest, OpenMissingFileCreateItOrOpenThroughTheFactory) {
    ZeMbox missing(dir.path() + "/none", true, false);
    EXPECT_EQ(1, missing.open());
    EXPECT_EQ(0, missing.total_messages());
    EXPECT_EQ(0, missing.next());
    EXPECT_TRUE(missing.option());
    EXPECT_NE(0, ::access((dir.path() + "/none").c_str(), F_OK));

    ZeMbox made(dir.path() + "/new", false, true);
    EXPECT_EQ(1, made.open());
    EXPECT_EQ("", zetest::read_file(dir.path() + "/new"));
    const std::string kept_path = write(kTwo, "kept");
    ZeMbox kept(kept_path, false, true);  // an existing file is kept
    EXPECT_EQ(2, kept.total_messages());

    ZeMbox blocked(dir.path() + "/no/such/dir", false, true);
    EXPECT_EQ(0, blocked.open());
    EXPECT_FALSE(blocked.is_open());

    ZeMbox directory(dir.path(), false, false);  // not a regular file
    EXPECT_EQ(1, directory.open());
    EXPECT_EQ(0, directory.total_messages());
    ASSERT_EQ(0, ::mkfifo((dir.path() + "/fifo").c_str(), 0600));
    ZeMbox fifo(dir.path() + "/fifo", false, false);  // must not wait for a writer
    EXPECT_EQ(0, fifo.total_messages());

    ZeMailBoxRef byPath = ZeMailBoxRef::create(kept_path, MAILBOX_OPEN_DIRECT);
    ASSERT_NE(nullptr, dynamic_cast<ZeMbox*>(byPath.get()));
    EXPECT_EQ(2, byPath->total_messages());
}

TEST_F(ZeMboxTest, ResetReadsAGrownFileAndKeepsUids) {
    const std::string path = write(kTwo);
    ZeMbox box(path, false, false);
    EXPECT_EQ((std::vector<unsigned long>{40, 2}), walk(box));
    append(path, "From c\nX-UID: 2\n\nthree\n\nFrom d\n\nfour\n");
    EXPECT_EQ(2, box.total_messages());  // read again only by reset()
    EXPECT_EQ((std::vector<unsigned long>{40, 2, 3, 4}), walk(box));
}

TEST_F(ZeMboxTest, FileCutShortWhileOpen) {
    const std::string path = write(kTwo);
    ZeMbox box(path, false, false);
    ZeMessageRef second = box.retrieve_message(2ul);
    ZeMessageRef first = box.retrieve_message(40ul);
    ASSERT_EQ(0, ::truncate(path.c_str(), 60));
    EXPECT_TRUE(second.media().isNull());
    EXPECT_TRUE(second->headers().empty());
    std::ostringstream out;
    EXPECT_EQ(4, box.retrieve_body(out, 2));
    // A stream already handed out ends in a read error.
    ASSERT_EQ(0, ::truncate(path.c_str(), std::string(kTwo).size()));
    Corvane::MediaIn in = first.media();
    ASSERT_FALSE(in.isNull());
    ASSERT_EQ(0, ::truncate(path.c_str(), 60));
    EXPECT_LT(in.readAll().size(), first->env()->size());

    EXPECT_EQ(1u, walk(box).size());  // reset() reads what is left
    EXPECT_EQ(60u, box.index()[0].end);
}

TEST_F(ZeMboxTest, MessagesOutliveTheMailboxAndItsRereads) {
    const std::string path = write(kTwo);
    ZeMessageRef kept;
    {
        ZeMbox box(path, false, false);
        kept = box.retrieve_message(2ul);
        ASSERT_EQ(0, ::rename(write("From z\n\nnew file\n", "other").c_str(), path.c_str()));
        box.reset();
        EXPECT_EQ(1, box.total_messages());
    }
    // The renamed-over file is still read through the descriptor it had.
    EXPECT_EQ("Subject: second\nX-Status: F\n\ntwo\n", kept.media().readAll());
}

// Keeps envelopes whose UID is odd and is done after a number of messages.
class OddUidScope : public ZeMScopeImpl {
public:
    explicit OddUidScope(int limit) : m_limit(limit) {}
    std::string imap_criteria() const override { return ""; }
    bool match(ZeMessageEnv& envelope) override { return envelope.uid() % 2 == 1; }
    bool match(ZeMessageBase& message) override {
        ++matched;
        return message.basename() != ",U3";
    }
    bool done() const override { return m_limit > 0 && matched >= m_limit; }
    void reset() override { matched = 0; }
    int matched = 0;

private:
    int m_limit;
};

TEST_F(ZeMboxTest, ScopeChecksEnvelopeThenMessageAndEndsTheWalk) {
    std::string file;
    for (int i = 0; i < 6; ++i) {
        file += "From x\n\n" + std::to_string(i) + "\n\n";
    }
    ZeMbox box(write(file), false, false);
    box.setScope(ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(new OddUidScope(0))));
    EXPECT_EQ((std::vector<unsigned long>{1, 5}), walk(box));
    box.setScope(ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(new OddUidScope(1))));
    EXPECT_EQ((std::vector<unsigned long>{1}), walk(box));
    EXPECT_EQ((std::vector<unsigned long>{1}), walk(box));  // reset() rewinds the scope
}

// --- sections and trees: the same as a Maildir file's --------------------------

void sections(const ZeImapMimeRef& node, std::vector<std::string>& out) {
    const std::string s = node->section();
    out.push_back(s);
    if (!s.empty()) {
        out.push_back(s + ".MIME");
        out.push_back(s + ".HEADER");
        out.push_back(s + ".TEXT");
    }
    for (const ZeImapMimeRef& child : node->children()) {
        sections(child, out);
    }
}

class Visits : public ZeMessageSectionVisitor {
public:
    int visit(ZeMessageRef&, const ZeImapMimeRef& part, Corvane::MediaIn& content) override {
        text += part->section() + "=" + content.readAll() + "|";
        return 0;
    }
    std::string text;
};

TEST_F(ZeMboxTest, SectionsAndTreesEqualThoseOfTheMaildirCopy) {
    std::vector<std::string> messages;
    if (DIR* d = ::opendir(ZEMAIL_TEST_DATA_DIR "/messages")) {
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".eml") == 0) {
                messages.push_back(zetest::read_file(ZEMAIL_TEST_DATA_DIR "/messages/" + name));
            }
        }
        ::closedir(d);
    }
    ASSERT_GE(messages.size(), 5u);
    // Lines an mbox writer has to quote, in a header and in a part.
    messages.push_back(
        "Subject: quoting\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n"
        "--b\n\nFrom here\n>From there\n--b\nContent-Type: message/rfc822\n\n"
        "From: x\n\nFrom inside\n--b--\n");
    // A Content-Type that cannot be read: no tree either way (found by the
    // fuzz target).
    messages.push_back("Content-Type: ;\n\nbody\n");
    std::string mbox;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        std::string body = messages[i];
        if (body.empty() || body.back() != '\n') {
            body += '\n';  // what a writer adds before its blank line
            messages[i] = body;
        }
        std::string quoted;
        for (std::size_t at = 0; at < body.size();) {
            std::size_t nl = body.find('\n', at);
            nl = nl == std::string::npos ? body.size() : nl + 1;
            const std::string line = body.substr(at, nl - at);
            const std::size_t gt = line.find_first_not_of('>');
            quoted +=
                (gt != std::string::npos && line.compare(gt, 5, "From ") == 0 ? ">" : "") + line;
            at = nl;
        }
        mbox += "From writer Mon Mar  7 14:23:23 2011\n" + quoted + "\n";
        dir.write("maildir/cur/1700000000.M" + std::to_string(i) + ".h,U" + std::to_string(i + 1) +
                      ":2,S",
                  body);
    }
    ZeMbox box(write(mbox), false, false);
    ZeMaildir maildir(ZeMUserRef(), dir.path() + "/maildir", 0ul);
    ASSERT_EQ(static_cast<long>(messages.size()), box.total_messages());
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const std::string key = ",U" + std::to_string(i + 1);
        ZeMessageRef fromMbox = box.retrieve_message(key);
        // The Maildir finds a file by a part of its name: ",U1:" is not ",U10".
        const std::string maildirKey = key + ":";
        ZeMessageRef fromMaildir = maildir.retrieve_message(maildirKey);
        ASSERT_FALSE(fromMbox.isNull());
        ASSERT_FALSE(fromMaildir.isNull());
        EXPECT_EQ(messages[i], fromMbox.media().readAll()) << key;
        ZeImapMimeRef tree = box.retrieve_mime(fromMbox);
        ZeImapMimeRef theirTree = maildir.retrieve_mime(fromMaildir);
        EXPECT_EQ(zetest::describe_tree(theirTree), zetest::describe_tree(tree)) << key;
        std::vector<std::string> names = {"", "HEADER", "TEXT", "1", "9.9"};
        if (!tree.isNull()) {
            sections(tree, names);
        }
        for (const std::string& section : names) {
            std::ostringstream a;
            std::ostringstream b;
            EXPECT_EQ(maildir.retrieve_section(b, maildirKey, section),
                      box.retrieve_section(a, key, section));
            EXPECT_EQ(b.str(), a.str()) << key << " " << section;
            ZeImapMimeRef mimeA = box.retrieve_section_mime(key, section);
            ZeImapMimeRef mimeB = maildir.retrieve_section_mime(maildirKey, section);
            EXPECT_EQ(mimeB.isNull(), mimeA.isNull()) << key << " " << section;
        }
        Visits a;
        Visits b;
        EXPECT_EQ(maildir.foreach_sections(fromMaildir, &b), box.foreach_sections(fromMbox, &a));
        EXPECT_EQ(b.text, a.text) << key;
    }
}

}  // namespace
