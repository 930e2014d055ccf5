// The IMAP mailbox, folders and users against a scripted server: the exact
// command texts they send, and what they make of answers Dovecot never
// gives (no APPENDUID, refusals on demand, a server dying mid-answer).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "imap/ZeImapRequest.h"
#include "model/ZeMFolder.h"
#include "model/ZeMUser.h"
#include "model/ZeMScopeAndFilter.h"
#include "model/ZeMailBox.h"
#include "stores/ZeMailImap.h"
#include "support/Debug.h"
#include "support/Paths.h"
#include "support/TestUtil.h"
#include "tests/support/ScriptedImapServer.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kFetchItems = ZeMailBoxImap::INTERESTED_MESSAGED_INFO;

// One complete FETCH answer of envelope data with a header literal.
Lines fetch_answer(int seq, int uid, const std::string& subject) {
    const std::string header = "Subject: " + subject + "\r\n\r\n";
    return {"* " + std::to_string(seq) + " FETCH (UID " + std::to_string(uid) + " X-FNAME 17" +
                std::to_string(uid) + ".M1P1.host FLAGS (\\Seen) RFC822.SIZE 99 INTERNALDATE " +
                "\"01-Jan-2024 10:00:00 +0000\" BODY[HEADER.FIELDS (From)] {" +
                std::to_string(header.size()) + "}",
            header.substr(0, header.size() - 2), ")"};
}

Lines join(std::initializer_list<Lines> parts) {
    Lines out;
    for (const Lines& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

bool has(const Lines& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

class Scripted : public ::testing::Test {
protected:
    void SetUp() override {
        zemail::paths::set_mail_root(m_root.path());
        zemail::paths::set_spool_dir(m_root.path());
        zemail::paths::set_imap_program(m_server.program());
    }
    void TearDown() override {
        ZeImapConnection::instance()->close();
        basepp::dbg::set_debug_zone(0);
        basepp::dbg::set_debug_output("");
        EXPECT_TRUE(zetest::zombie_children().empty());
    }

    // After a test's own rules: every other folder selects with 3 messages.
    void serve() {
        m_server.on("SELECT*", {"* 3 EXISTS", "* 0 RECENT", "$tag OK [READ-WRITE] done"});
    }

    ZeMailBoxRef box(const std::string& folder = "Inbox") {
        return ZeMailBoxRef::create("ann", folder, MAILBOX_OPEN_IMAP);
    }
    static ZeMailBoxImap& imap(ZeMailBoxRef& mailbox) {
        return *dynamic_cast<ZeMailBoxImap*>(mailbox.get());
    }
    // The commands received after the given count.
    Lines since(std::size_t count) const {
        Lines all = m_server.untagged_commands();
        return Lines(all.begin() + static_cast<long>(std::min(count, all.size())), all.end());
    }
    std::string start_log() {
        const std::string path = m_root.path() + "/debug.log";
        basepp::dbg::set_debug_output(path);
        basepp::dbg::set_debug_zone(basepp::dbg::kZoneImap | basepp::dbg::kLevelTrace);
        return path;
    }

    zetest::TempDir m_root;
    zetest::ScriptedImapServer m_server;
};

// ------------------------------------------------------------ appending

TEST_F(Scripted, AppendTakesTheAppendUidOrElseTheFoldersHighestUid) {
    m_server.on("APPEND \"Inbox\"*", {"$tag OK [APPENDUID 1700000000 17] Append completed."});
    m_server.on("APPEND \"Sent\"*", {"$tag OK Append completed."});
    m_server.on("APPEND \"Odd\"*", {"$tag OK [APPENDUID 1700000000 x] odd code"});
    m_server.on("APPEND \"Full\"*", {"$tag NO [OVERQUOTA] Quota exceeded"});
    m_server.on("UID FETCH \\* (UID)", {"* 3 FETCH (UID 41)", "$tag OK done"}, true);
    m_server.on("UID FETCH \\* (UID)", {"* 4 FETCH (UID 42)", "$tag OK done"});
    serve();
    const std::string message = "Subject: hi\n\nthere\n";
    const std::string file = m_root.write("m.eml", message);
    ZeMailBoxRef inbox = box();
    EXPECT_EQ(0, inbox->append(file, ZeMessageFlags()));
    EXPECT_EQ(17u, imap(inbox).last_append_uid());
    EXPECT_TRUE(has(m_server.untagged_commands(), "APPEND \"Inbox\" {19}"));

    const std::string log = start_log();
    ZeMailBoxRef sent = box("Sent");
    EXPECT_EQ(0, sent->append(file, ZeMessageFlags(ZeMessageFlags::SEEN | ZeMessageFlags::RECENT)));
    EXPECT_EQ(41u, imap(sent).last_append_uid());
    EXPECT_TRUE(has(m_server.untagged_commands(),
                    "APPEND \"Sent\" (\\Seen) {" + std::to_string(message.size()) + "}"));
    EXPECT_EQ(message + message, m_server.literals());
    EXPECT_NE(std::string::npos,
              zetest::read_file(log).find("ZeMailImap::append:1211: APPENDUID not returned"))
        << zetest::read_file(log);
    // A code that is not a number: the fallback too.
    ZeMailBoxRef odd = box("Odd");
    EXPECT_EQ(0, odd->append(file, ZeMessageFlags()));
    EXPECT_EQ(42u, imap(odd).last_append_uid());

    ZeMailBoxRef full = box("Full");
    EXPECT_EQ(4, full->append(file, ZeMessageFlags()));
    EXPECT_EQ("[OVERQUOTA] Quota exceeded", full->last_error());
}

// The message is taken before its size is announced: a file that shrinks or
// goes before the server asks for it must not leave the server waiting for
// bytes that never come.
TEST_F(Scripted, AppendOfAFileThatChangesAfterItsSizeWasAnnounced) {
    serve();
    const std::string message = "Subject: hi\n\n" + std::string(3u << 20, 'x') + "\n";
    for (const char* change : {"rm -f", ": >"}) {
        for (const std::size_t size : {std::size_t(20), message.size()}) {  // memory, spool copy
            const std::string file = m_root.write("m.eml", message.substr(0, size));
            m_server.before_literal(std::string(change) + " '" + file + "'");
            ZeMailBoxRef inbox = box();
            EXPECT_EQ(0, inbox->append(file, ZeMessageFlags())) << change;
            EXPECT_EQ(message.substr(0, size), m_server.literals()) << change << size;
            EXPECT_TRUE(has(m_server.untagged_commands(),
                            "APPEND \"Inbox\" {" + std::to_string(size) + "}"));
            EXPECT_NO_THROW(imap(inbox).select_folder());  // the stream is in step
            std::remove((m_server.dir() + "/commands.log.literal").c_str());
            ZeImapConnection::instance()->close();
        }
    }
    // No copy is left in the spool.
    EXPECT_TRUE(std::filesystem::is_empty(m_root.path() + "/tmp"));
}

// ------------------------------------------------------------ wire texts

TEST_F(Scripted, OpenSendsTheSearchPagesAndOneFetchOfTheUidSet) {
    m_server.on("UID SEARCH 1:3 UNDELETED", {"* SEARCH 1 2 3", "$tag OK done"});
    m_server.on("UID FETCH*",
                join({fetch_answer(1, 1, "a"), fetch_answer(2, 2, "b"), {"$tag OK done"}}));
    serve();
    ZeMailBoxRef inbox = box();
    EXPECT_EQ(1, inbox->open());
    const Lines sent = m_server.untagged_commands();
    // 3 messages: n = min(25, 3) equals the total, so the page is 1:3.
    EXPECT_EQ(
        (Lines{"SELECT \"Inbox\"", "UID SEARCH 1:3 UNDELETED", "UID FETCH 1:3" + kFetchItems}),
        sent);
    // What the answers hold is read from Dovecot's in ZeMailImapDovecotTest.
    inbox->reset();
    ASSERT_EQ(1, inbox->next());
    EXPECT_EQ(1u, inbox->fetch()->uid());
    ASSERT_EQ(1, inbox->next());
    EXPECT_EQ(0, inbox->next());
}

// A caller's own scope whose range holds no position.
class BackwardsRange : public ZeMScopeImpl {
public:
    bool range(long& start, long& end) const override {
        start = 10;
        end = 5;
        return true;
    }
    std::string imap_criteria() const override { return std::string(); }
    bool match(ZeMessageEnv&) override { return true; }
    bool match(ZeMessageBase&) override { return true; }
    bool done() const override { return false; }
    void reset() override {}
};

// Paging backwards for undeleted messages ends: a range with start above end
// asks for nothing, and a server claiming about 4e9 messages but finding
// none costs a few dozen searches.
TEST_F(Scripted, PagingForUndeletedMessagesIsBounded) {
    m_server.on("SELECT \"Huge\"", {"* 4000000000 EXISTS", "$tag OK [READ-WRITE] done"});
    m_server.on("UID SEARCH*", {"* SEARCH", "$tag OK done"});
    serve();
    ZeMailBoxRef backwards = box();
    backwards->setScope(ZeMScopeRef::adopt(new BackwardsRange()));
    std::size_t mark = m_server.commands().size();
    EXPECT_EQ(1, backwards->open());
    EXPECT_EQ((Lines{"SELECT \"Inbox\""}), since(mark));

    ZeMailBoxRef huge = box("Huge");
    mark = m_server.commands().size();
    EXPECT_EQ(1, huge->open());
    const Lines sent = since(mark);
    EXPECT_LT(sent.size(), 40u);
    EXPECT_EQ("UID SEARCH 3999999975:4000000000 UNDELETED", sent.at(1));
    EXPECT_EQ(0u, sent.back().find("UID SEARCH 1:")) << sent.back();  // down to the first
    huge->reset();
    EXPECT_EQ(0, huge->next());
}

TEST_F(Scripted, MessageOperationsSendTheirCommandsAfterSelecting) {
    m_server.on("UID FETCH 6 (FLAGS)",
                {"* 2 FETCH (UID 6 FLAGS (\\Seen \\Recent $label2))", "$tag OK done"});
    serve();
    ZeMailBoxRef inbox = box();
    ZeMailBoxImap& raw = imap(inbox);
    std::size_t mark = m_server.commands().size();
    EXPECT_EQ(0, inbox->remove_message("5", true));
    EXPECT_EQ((Lines{"SELECT \"Inbox\"", "UID STORE 5 +FLAGS (\\Deleted)",
                     "UID EXPUNGE 5 +FLAGS (\\Deleted)"}),
              since(mark));

    mark = m_server.commands().size();
    EXPECT_EQ(0, inbox->clean());
    EXPECT_EQ((Lines{"SELECT \"Inbox\"", "UID STORE  1:* +FLAGS.SILENT (\\Deleted)"}), since(mark));

    mark = m_server.commands().size();
    EXPECT_EQ(0, inbox->move_message("4", "Old \"mail\""));
    EXPECT_EQ("UID MOVE 4 \"Old \\\"mail\\\"\"", since(mark).back());

    mark = m_server.commands().size();
    EXPECT_EQ(0, inbox->modify_message(
                     6UL, ZeMessageFlags(ZeMessageFlags::FLAGGED | ZeMessageFlags::ANSWERED,
                                         ZeMessageFlags::REPLACE)));
    EXPECT_EQ(
        (Lines{"SELECT \"Inbox\"", "UID FETCH 6 (FLAGS)", "UID STORE 6 -FLAGS (\\Seen $label2)",
               "UID STORE 6 +FLAGS (\\Answered \\Flagged)"}),
        since(mark));

    mark = m_server.commands().size();
    std::ostringstream out;
    inbox->retrieve_section(out, 5UL, "1.2");
    inbox->retrieve_body(out, 5);
    inbox->retrieve_section_mime(5UL, "2");
    ZeMessageRef none;
    inbox->retrieve_mime(none);  // a null message: nothing sent
    EXPECT_EQ(
        (Lines{"SELECT \"Inbox\"", "UID FETCH 5 (BODY.PEEK[1.2])", "SELECT \"Inbox\"",
               "UID FETCH 5 BODY.PEEK[]", "SELECT \"Inbox\"", "UID FETCH 5 (BODY.PEEK[2.mime])"}),
        since(mark));

    mark = m_server.commands().size();
    std::string uids;
    long start = 75;
    long end = 100;
    raw._get_undeleted_uid_list(uids, &start, &end);
    EXPECT_EQ((Lines{"UID SEARCH 75:100 UNDELETED"}), since(mark));
}

// Header literals announced as items the fetch does not read in place
// (RFC822.HEADER, BODY[HEADER]) leave the answer in progress: the message is
// made with empty headers, and the literal is skipped.
TEST_F(Scripted, AHeaderAnswerLeftInProgressMakesAMessageWithEmptyHeaders) {
    for (const char* item : {"RFC822.HEADER", "BODY[HEADER]"}) {
        m_server.on("UID FETCH 5 *",
                    {"* 1 FETCH (UID 5 FLAGS (\\Seen) " + std::string(item) + " {13}", "Subject: x",
                     ")", "$tag OK done"},
                    true);
        serve();
        ZeMailBoxRef inbox = box();
        ZeMessageRef message = inbox->retrieve_message(5UL);
        ASSERT_FALSE(message.isNull()) << item;
        EXPECT_EQ(5u, message->uid());
        EXPECT_TRUE(message->flags().test(ZeMessageFlags::SEEN));
        EXPECT_EQ("", message->headers().get("Subject")) << item;
        EXPECT_NO_THROW(imap(inbox).select_folder());  // the answer was read to its end
        ZeImapConnection::instance()->close();
    }
}

TEST_F(Scripted, TotalMessagesSubtractsTheDeletedAndNeverGoesBelowZero) {
    m_server.on("STATUS \"Other\"*", {"$tag NO no such folder"});
    m_server.on("STATUS*", {"* STATUS Inbox (MESSAGES 2)", "$tag OK done"});
    m_server.on("UID SEARCH DELETED", {"* SEARCH 4 5 6", "$tag OK done"});
    serve();
    ZeMailBoxRef inbox = box();
    EXPECT_EQ(0, inbox->total_messages());
    const Lines sent = m_server.untagged_commands();
    EXPECT_TRUE(has(sent, "STATUS \"Inbox\" (messages)"));
    EXPECT_TRUE(has(sent, "UID SEARCH DELETED"));

    // No STATUS answer at all: 0, without asking for the deleted ones.
    ZeMailBoxRef other = box("Other");
    const std::size_t mark = m_server.commands().size();
    EXPECT_EQ(0, other->total_messages());
    EXPECT_FALSE(has(since(mark), "UID SEARCH DELETED"));
}

TEST_F(Scripted, ASelectRefusedThrowsAndIsLogged) {
    m_server.on("SELECT \"Gone\"", {"$tag NO Mailbox doesn't exist: Gone"});
    m_server.on("SELECT \"Bad\"", {"$tag BAD bad"});
    serve();
    const std::string log = start_log();
    ZeMailBoxRef gone = box("Gone");
    EXPECT_THROW(gone->open(), Corvane::Exception);  // its text: ZeMailImapDovecotTest
    EXPECT_NE(std::string::npos,
              zetest::read_file(log).find(
                  "ZeMailImap::select_imap_folder:1236: Failed to open mailbox Gone"));
    ZeMailBoxRef bad = box("Bad");
    EXPECT_THROW(imap(bad).select_folder(), Corvane::Exception);
    EXPECT_THROW(bad->remove_message("1", false), Corvane::Exception);
}

// ------------------------------------------------------------ a server dying

TEST_F(Scripted, AServerKilledInTheMiddleOfOpenCostsThatOpenOnly) {
    m_server.on("UID SEARCH 1:3 UNDELETED", {"* SEARCH 1 2 3", "$tag OK done"});
    // The first fetch: one whole answer, half of the next, then the server dies.
    m_server.on("UID FETCH*",
                join({fetch_answer(1, 1, "a"),
                      {"* 2 FETCH (UID 2 X-FNAME 172.M1P1.host FLAGS ("},
                      {"@KILL"}}),
                true);
    m_server.on("STATUS*", {"* STATUS Inbox (MESSAGES 9)", "$tag OK done"});
    m_server.on("UID SEARCH DELETED", {"* SEARCH 1 2", "$tag OK done"});
    serve();
    const std::size_t before = zetest::open_descriptors().size();

    ZeMailBoxRef inbox = box();
    EXPECT_EQ(1, inbox->open());
    const int first = ZeImapConnection::instance()->program().pid();
    // What arrived whole is kept; nothing else.
    inbox->reset();
    ASSERT_EQ(1, inbox->next());
    EXPECT_EQ(1u, inbox->fetch()->uid());
    EXPECT_EQ(0, inbox->next());

    // The next call runs on a new server.
    EXPECT_EQ(7, inbox->total_messages());
    EXPECT_NE(first, ZeImapConnection::instance()->program().pid());
    ZeImapConnection::instance()->close();
    EXPECT_EQ(before, zetest::open_descriptors().size());
}

TEST_F(Scripted, AServerThatQuitsInsteadOfSelectingIsReplacedOnceThenTheOpenFails) {
    m_server.on("SELECT \"Quit\"", {"@EXIT"}, true);
    m_server.on("SELECT \"Never\"", {"@EXIT"});
    m_server.on("UID SEARCH 1:3 UNDELETED", {"* SEARCH 3", "$tag OK done"});
    m_server.on("UID FETCH*", join({fetch_answer(3, 3, "c"), {"$tag OK done"}}));
    serve();
    // The first server leaves; the SELECT is sent again to a new one.
    ZeMailBoxRef quit = box("Quit");
    EXPECT_EQ(1, quit->open());
    const Lines first = m_server.untagged_commands();
    ASSERT_LE(2u, first.size());
    EXPECT_EQ((Lines{"SELECT \"Quit\"", "SELECT \"Quit\""}),
              Lines(first.begin(), first.begin() + 2));
    quit->reset();
    ASSERT_EQ(1, quit->next());
    EXPECT_EQ(3u, quit->fetch()->uid());

    // A server that leaves every time: one retry, then the open fails as a
    // refused SELECT does (not an empty mailbox), and no hang.
    ZeMailBoxRef never = box("Never");
    EXPECT_THROW(never->open(), Corvane::Exception);
    const Lines sent = m_server.untagged_commands();
    EXPECT_EQ(2, std::count(sent.begin(), sent.end(), "SELECT \"Never\""));

    // A search without any scope or filter set lists every undeleted UID.
    m_server.on("UID SEARCH UNDELETED", {"* SEARCH 3 4", "$tag OK done"});
    ZeMailBoxRef plain = box();
    std::string uids;
    EXPECT_EQ(0, imap(plain).search_uid_list(uids, nullptr));
    EXPECT_EQ("3,4", uids);
}

// ------------------------------------------------------------ folders and users

TEST_F(Scripted, FolderCommandsQuoteNamesAndDeferredRemovalHidesTheFolder) {
    m_server.on("RENAME \"Trash\"*", {"$tag NO [CANNOT] not now"});
    serve();
    const ZeMailUserId id(MAILBOX_TYPE_DEFAULT, "ann");
    const std::string size_file = id.mailpath() + "/maildirsize";
    m_root.write(size_file.substr(m_root.path().size() + 1), "0S\n");

    ZeMFolderRef work = ZeMFolderRef::create(id, "Work/2019", 0);
    std::size_t mark = m_server.commands().size();
    const long long before = static_cast<long long>(std::time(nullptr));
    EXPECT_EQ(0, work->remove_deferred());
    const long long after = static_cast<long long>(std::time(nullptr));
    // RENAME "Work/2019" ".deleted.<time>.<pid>.Work.2019", then SELECT it.
    const std::string rename = "RENAME \"Work/2019\" ";
    Lines sent = since(mark);
    ASSERT_EQ(3u, sent.size());
    ASSERT_EQ(0u, sent[1].find(rename + "\".deleted.")) << sent[1];
    const long long when = std::atoll(sent[1].c_str() + rename.size() + sizeof "\".deleted." - 1);
    EXPECT_GE(when, before);
    EXPECT_LE(when, after);
    const std::string hidden =
        "\".deleted." + std::to_string(when) + "." + std::to_string(getpid()) + ".Work.2019\"";
    EXPECT_EQ((Lines{"NOOP", rename + hidden, "SELECT " + hidden}), sent);
    EXPECT_EQ("Work/2019", work->name());
    EXPECT_FALSE(exists(size_file));  // the quota is counted afresh

    // A refused rename: no SELECT, quota file untouched.
    m_root.write(size_file.substr(m_root.path().size() + 1), "0S\n");
    ZeMFolderRef trash = ZeMFolderRef::create(id, "Trash", 0);
    mark = m_server.commands().size();
    EXPECT_EQ(1, trash->remove_deferred());
    sent = since(mark);
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(0u, sent[1].find("RENAME \"Trash\" \".deleted.")) << sent[1];
    EXPECT_TRUE(exists(size_file));

    mark = m_server.commands().size();
    ZeMFolderRef odd = ZeMFolderRef::create(id, "a \"b\" \\c", 0);
    EXPECT_EQ(0, odd->create());
    EXPECT_EQ(0, odd->remove());
    EXPECT_EQ(0, odd->rename("d"));
    EXPECT_EQ((Lines{"NOOP", "CREATE \"a \\\"b\\\" \\\\c\"", "NOOP", "DELETE \"a \\\"b\\\" \\\\c\"",
                     "NOOP", "RENAME \"a \\\"b\\\" \\\\c\" \"d\"", "SELECT \"d\""}),
              since(mark));

    // Names that cannot travel are refused without a word to the server.
    mark = m_server.commands().size();
    ZeMFolderRef broken = ZeMFolderRef::create(id, "a\nb", 0);
    EXPECT_EQ(4, broken->create());
    EXPECT_EQ(4, work->rename("x\r\ny"));
    EXPECT_EQ(4, work->rename("../x"));
    EXPECT_EQ(0, broken->get_status());
    EXPECT_TRUE(since(mark).empty());
}

// Figures that tell limit from usage, and an answer without them.
TEST_F(Scripted, QuotaAnswersAndTheirAbsence) {
    m_server.on("GETQUOTA*", {"* QUOTA \"\" (STORAGE 12 2048)", "$tag OK done"}, true);
    m_server.on("GETQUOTA*", {"$tag OK no quota here"});
    serve();
    ZeMUserRef ann = ZeMUserRef::createImap("ann");
    long long count = -1;
    long long kbytes = -1;
    EXPECT_EQ(0, ann->get_quota(&count, &kbytes));
    EXPECT_EQ(2048, count);  // the answer's first number, the limit
    EXPECT_EQ(12, kbytes);   // the second, the usage
    EXPECT_TRUE(has(m_server.untagged_commands(), "GETQUOTA \"\""));
    EXPECT_EQ(4, ann->get_quota(&count, &kbytes));
    EXPECT_EQ(2048, count);
    EXPECT_EQ(12, kbytes);
}

}  // namespace
