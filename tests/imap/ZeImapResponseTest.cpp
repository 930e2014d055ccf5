// The untagged-line parsers, fed real bytes through a pipe the way the
// request feeds them: one line at a time, the iterator on the token after "*".
#include "imap/ZeImapResponse.h"

#include <gtest/gtest.h>

#include <string>

#include "support/PipeFeed.h"

namespace {

class Wire {
public:
    explicit Wire(const std::string& text) : m_feed(text), m_feeder(m_feed.io()) {}
    // Reads the next line and stands on the token after "*".
    bool line() {
        if (m_feeder.nextline() < 1) {
            return false;
        }
        m_feeder.token().next();
        return true;
    }
    ZeImapFeeder& feeder() { return m_feeder; }

private:
    zetest::PipeFeed m_feed;
    ZeImapFeeder m_feeder;
};

// --- counters, lists, status, quota, search ------------------------------

TEST(ResponseParsers, NoopCountsAndExpungeOverwritesRecent) {
    Wire wire("* 7 EXISTS\r\n* 2 RECENT\r\n* 3 EXPUNGE\r\n* 9 FLAGS\r\n");
    ZeImapResponseNoop noop(wire.feeder());
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(wire.line());
        EXPECT_EQ(0, noop.parse());
    }
    EXPECT_EQ(7u, noop.exists());
    EXPECT_EQ(3u, noop.recent());
}

TEST(ResponseParsers, SelectTakesCountersAndResponseCodes) {
    Wire wire(
        "* FLAGS (\\Answered \\Flagged \\Deleted \\Seen \\Draft)\r\n"
        "* OK [PERMANENTFLAGS (\\Answered \\Flagged \\Deleted \\Seen \\Draft \\*)] Flags "
        "permitted.\r\n"
        "* 12 EXISTS\r\n* 1 RECENT\r\n* 4 EXPUNGE\r\n"
        "* OK [UIDVALIDITY 4294967295] UIDs valid\r\n* OK [UIDNEXT 43] Predicted next UID\r\n");
    ZeImapResponseSelect select(wire.feeder());
    while (wire.line()) {
        EXPECT_EQ(0, select.parse());
    }
    EXPECT_EQ(12u, select.exists());
    EXPECT_EQ(1u, select.recent());  // EXPUNGE is not a SELECT counter
    EXPECT_EQ(43, select.uidnext());
    EXPECT_EQ(4294967295ul, select.uidvalidity());
}

TEST(ResponseParsers, ListNamesInboxAndKeepsOtherNames) {
    struct Case {
        const char* line;
        const char* attributes;
        char delimiter;
        const char* name;
    } cases[] = {
        {"* LIST (\\HasNoChildren) \"/\" INBOX", "\\HasNoChildren", '/', "Inbox"},
        {"* LIST (\\HasChildren) \"/\" \"INBOX/Sub\"", "\\HasChildren", '/', "INBOX/Sub"},
        {"* LIST () \"/\" \"Sent Items\"", "", '/', "Sent Items"},
        {"* LIST (\\Noselect) \"/\" \"a \\\"quoted\\\" \\\\ name\"", "\\Noselect", '/',
         "a \"quoted\" \\ name"},
        {"* LIST () NIL Flat", "", 'N', "Flat"},  // first character of the token
        {"* LIST () \"/\" {6}\r\nCaf\xc3\xa9!", "", '/', "Caf\xc3\xa9!"},
    };
    for (const Case& c : cases) {
        Wire wire(std::string(c.line) + "\r\n");
        ZeImapResponseList list(wire.feeder());
        ASSERT_TRUE(wire.line());
        EXPECT_EQ(0, list.parse()) << c.line;
        EXPECT_EQ(c.attributes, list.attributes()) << c.line;
        EXPECT_EQ(c.delimiter, list.delimiter()) << c.line;
        EXPECT_EQ(c.name, list.name()) << c.line;
    }
}

TEST(ResponseParsers, StatusKeepsSizesAbove4GiBAndRefusesOtherLines) {
    Wire wire(
        "* STATUS \"Big Folder\" (MESSAGES 231 UNSEEN 5 RECENT 1 UIDNEXT 44292 X-SIZE "
        "6442450944 HIGHESTMODSEQ 7)\r\n* LIST () \"/\" x\r\n");
    ZeImapResponseStatus status(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(0, status.parse());
    EXPECT_EQ("Big Folder", status.name());
    EXPECT_EQ(231, status.messages());
    EXPECT_EQ(5, status.unseen());
    EXPECT_EQ(1, status.recent());
    EXPECT_EQ(44292, status.uidnext());
    EXPECT_EQ(6442450944LL, status.size());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(2, status.parse());
}

TEST(ResponseParsers, QuotaTakesStorageAndSkipsMessages) {
    Wire wire("* QUOTA \"\" (MESSAGES 3 1000 STORAGE 10 102400)\r\n* QUOTAROOT INBOX \"\"\r\n");
    ZeImapResponseGetQuota quota(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(0, quota.parse());
    EXPECT_EQ(10u, quota.usage());
    EXPECT_EQ(102400u, quota.quota());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(0, quota.parse());  // a QUOTAROOT line without a list changes nothing
    EXPECT_EQ(102400u, quota.quota());
}

TEST(ResponseParsers, SearchJoinsUidsAndEmptyResultIsEmpty) {
    Wire wire("* SEARCH 3 5 80\r\n* SEARCH\r\n* 4 EXISTS\r\n");
    ZeImapResponseUIDSearch search(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(0, search.parse());
    EXPECT_EQ(3, search.count());
    EXPECT_EQ("3,5,80", search.result());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(0, search.parse());
    EXPECT_EQ(0, search.count());
    EXPECT_EQ("", search.result());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(2, search.parse());
}

TEST(ResponseParsers, FactoryGivesEachCommandItsResponse) {
    Wire wire("");
    EXPECT_NE(nullptr, dynamic_cast<ZeImapResponseUIDFetch*>(
                           ZeImapResponseRef(ZeImapCommand::FETCH, wire.feeder()).get()));
    EXPECT_NE(nullptr, dynamic_cast<ZeImapResponseUIDSearch*>(
                           ZeImapResponseRef(ZeImapCommand::UID_SEARCH, wire.feeder()).get()));
    for (auto none : {ZeImapCommand::CAPABILITY, ZeImapCommand::UID_STORE, ZeImapCommand::LOGOUT,
                      ZeImapCommand::NONE}) {
        EXPECT_TRUE(ZeImapResponseRef(none, wire.feeder()).isNull()) << none;
    }
}

// --- UID FETCH -----------------------------------------------------------

TEST(UidFetchResponse, OneLineAnswer) {
    Wire wire(
        "* 3 FETCH (UID 17 FLAGS (\\Seen \\Flagged) RFC822.SIZE 2048 X-FNAME "
        "1234567.M1P2.host,S=1234:2,S INTERNALDATE \"17-Jul-1996 02:44:25 +0000\")\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    const auto& d = fetch.data();
    EXPECT_EQ(3u, d.seq);
    EXPECT_EQ(17u, d.uid);
    EXPECT_EQ("\\Seen \\Flagged", d.flags);
    EXPECT_EQ(2048, d.size);
    EXPECT_EQ(-1, d.literal_size);
    EXPECT_EQ("1234567.M1P2.host", d.fname);
    struct tm expected = {};
    strptime("17-Jul-1996 02:44:25", "%d-%b-%Y %T", &expected);
    expected.tm_isdst = -1;
    EXPECT_EQ(mktime(&expected), d.received);
    EXPECT_FALSE(fetch.in_fetch());
}

TEST(UidFetchResponse, AnswerWithoutUidKeepsThePreviousRecord) {
    Wire wire(
        "* 3 FETCH (UID 17 FLAGS (\\Seen) BODY[HEADER.FIELDS (TO)] {9}\r\nTo: a@b\r\n)\r\n"
        "* 3 FETCH (FLAGS (\\Seen))\r\n* 4 EXISTS\r\n"
        "* 5 FETCH (UID 18 RFC822.SIZE 5)\r\n* 6 FETCH (UID 19)\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    for (int notAnswer = 0; notAnswer < 2; ++notAnswer) {
        ASSERT_TRUE(wire.line());
        EXPECT_EQ(2, fetch.parse());
        EXPECT_EQ(3u, fetch.data().seq);
        EXPECT_EQ(17u, fetch.data().uid);
        EXPECT_EQ("\\Seen", fetch.data().flags);
        EXPECT_EQ("To: a@b\r\n", fetch.data().headers.str());
    }
    // The next answers start from empty records, whichever storage they reuse.
    for (unsigned long uid : {18ul, 19ul}) {
        ASSERT_TRUE(wire.line());
        EXPECT_EQ(1, fetch.parse());
        EXPECT_EQ(uid, fetch.data().uid);
        EXPECT_EQ(uid == 18 ? 5 : 0, fetch.data().size);
        EXPECT_EQ("", fetch.data().flags);
        EXPECT_TRUE(fetch.data().headers.empty());
    }
}

TEST(UidFetchResponse, BodyLiteralIsStreamedInBufferSizedPieces) {
    const std::string body(5000, 'b');
    Wire wire("* 1 FETCH (UID 9 BODY[1.2] {5000}\r\n" + body + ")\r\n* 2 FETCH (UID 10)\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(5000, fetch.data().literal_size);
    EXPECT_TRUE(fetch.in_fetch());
    Corvane::Buffer piece;
    piece.reserve(1024);
    unsigned long remaining = 5000;
    std::string got;
    for (long expected : {1024L, 1024L, 1024L, 1024L, 904L, 0L}) {
        EXPECT_EQ(expected, fetch.retrieve_literal(piece, remaining));
        got += piece.str().substr(0, static_cast<std::size_t>(std::max(expected, 0L)));
    }
    EXPECT_EQ(body, got);
    fetch.cleanup();
    EXPECT_FALSE(fetch.in_fetch());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(10u, fetch.data().uid);
}

TEST(UidFetchResponse, UnreadBodyLiteralIsSkippedByCleanup) {
    // The literal holds lines that look like answers and a lone ")".
    const std::string body = "* 5 FETCH (UID 99)\r\n)\r\nZe1 OK fake\r\n";
    Wire wire("* 1 FETCH (UID 9 BODY[] {" + std::to_string(body.size()) + "}\r\n" + body +
              " FLAGS (\\Seen))\r\n* 2 FETCH (UID 10)\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    fetch.cleanup();
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(10u, fetch.data().uid);
}

TEST(UidFetchResponse, HeaderAndMimeLiteralsAreReadAndTheAnswerGoesOn) {
    const std::string headers = "From: a@b.c\r\nSubject: x\r\n\r\n";
    const std::string mime(120, 'm');
    Wire wire("* 4 FETCH (UID 21 BODY[HEADER.FIELDS (FROM SUBJECT)] {" +
              std::to_string(headers.size()) + "}\r\n" + headers + " BODY[1.MIME] {120}\r\n" +
              mime + " FLAGS (\\Answered) RFC822.SIZE 77)\r\n* 5 FETCH (UID 22)\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(headers, fetch.data().headers.str());
    EXPECT_EQ(mime, fetch.data().mime_headers.str());
    EXPECT_EQ("\\Answered", fetch.data().flags);
    EXPECT_EQ(77, fetch.data().size);
    EXPECT_FALSE(fetch.in_fetch());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(22u, fetch.data().uid);
}

// A header block larger than any display needs is kept up to the cap; the
// rest is read past, and the answer and the next one still parse.
TEST(UidFetchResponse, HeaderLiteralsAreCappedAndTheRestIsReadPast) {
    const long cap = ZeImapResponseUIDFetch::kMaxHeaderLiteral;
    for (const char* item : {"BODY[HEADER.FIELDS (TO)]", "BODY[2.MIME]"}) {
        const std::string block = "To: a@b\r\n" + std::string(static_cast<std::size_t>(cap), 'x');
        Wire wire("* 1 FETCH (UID 9 " + std::string(item) + " {" + std::to_string(block.size()) +
                  "}\r\n" + block + " FLAGS (\\Seen))\r\n* 2 FETCH (UID 10)\r\n");
        ZeImapResponseUIDFetch fetch(wire.feeder());
        ASSERT_TRUE(wire.line());
        EXPECT_EQ(1, fetch.parse());
        const Corvane::Buffer& kept =
            item[5] == 'H' ? fetch.data().headers : fetch.data().mime_headers;
        EXPECT_EQ(block.substr(0, static_cast<std::size_t>(cap)), kept.str()) << item;
        EXPECT_EQ("\\Seen", fetch.data().flags) << item;
        EXPECT_FALSE(fetch.in_fetch());
        EXPECT_FALSE(fetch.cut_short());
        ASSERT_TRUE(wire.line());
        EXPECT_EQ(1, fetch.parse());
        EXPECT_EQ(10u, fetch.data().uid);
    }
}

TEST(UidFetchResponse, ClosingParenGluedToAValueEndsTheAnswer) {
    Wire wire("* 4 FETCH (BODY[HEADER.FIELDS (TO)] {3}\r\nabc UID 5)\r\n* 5 FETCH (UID 6)\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(5u, fetch.data().uid);
    EXPECT_FALSE(fetch.in_fetch());
    fetch.cleanup();  // nothing to skip: must not eat the next answer
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ(6u, fetch.data().uid);
}

TEST(UidFetchResponse, CleanupStopsBeforeTheTaggedCompletion) {
    // An answer that never closes: cleanup must leave the completion line
    // for the request.
    Wire wire("* 4 FETCH (UID 5 BODY[HEADER] {3}\r\nabc\r\nZe7 OK done\r\n");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    fetch.parse();
    fetch.cleanup();
    EXPECT_FALSE(fetch.in_fetch());
    ASSERT_GT(wire.feeder().nextline(), 0);
    EXPECT_EQ("Ze7 OK done", wire.feeder().curline().str());
}

TEST(UidFetchResponse, HangUpInsideALiteralEndsCleanly) {
    Wire wire("* 1 FETCH (UID 9 BODY[HEADER.FIELDS (TO)] {100}\r\nonly twenty bytes...");
    ZeImapResponseUIDFetch fetch(wire.feeder());
    ASSERT_TRUE(wire.line());
    EXPECT_EQ(1, fetch.parse());
    EXPECT_EQ("only twenty bytes...", fetch.data().headers.str());
    fetch.cleanup();
    EXPECT_FALSE(wire.line());
}

}  // namespace
