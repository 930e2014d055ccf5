// The IMAP mailbox against the real Dovecot: which messages an open loads,
// flag changes, moves and removals, appends, retrieval of sections and
// structures, and what happens with bad folders, dead servers and several
// users.
#include <gtest/gtest.h>

#include <signal.h>
#include <boost/filesystem.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <thread>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "imap/ZeImapRequest.h"
#include "model/ZeMFolder.h"
#include "model/ZeMailBox.h"
#include "stores/ZeMailImap.h"
#include "support/Debug.h"
#include "support/Paths.h"
#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"
#include "tests/support/ModelFakes.h"

namespace {

const char kReport[] =
    "From: Ann <ann@example.org>\n"
    "To: bob@example.org\n"
    "Subject: report\n"
    "Message-ID: <report-1@example.org>\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=\"XX\"\n"
    "\n"
    "--XX\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "Content-Transfer-Encoding: quoted-printable\n"
    "\n"
    "Caf=C3=A9 at noon.\n"
    "--XX\n"
    "Content-Type: application/pdf; name=\"report.pdf\"\n"
    "Content-Disposition: attachment; filename=\"report.pdf\"\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "JVBERi0xLjQKJcfsj6IK\n"
    "--XX--\n";

std::string simple(const std::string& subject) {
    return "From: x@example.org\nSubject: " + subject + "\n\nbody of " + subject + "\n";
}

// The message as the server hands it out: every line end a CRLF.
std::string as_served(const std::string& message) {
    std::string out;
    for (char c : message) {
        if (c == '\n') {
            out += '\r';
        }
        out += c;
    }
    return out;
}

// Waits (up to 5 s) until the child has exited and waits to be reaped.
bool exited(int pid) {
    for (int i = 0; i < 500; ++i) {
        const std::vector<int> zombies = zetest::zombie_children();
        if (std::find(zombies.begin(), zombies.end(), pid) != zombies.end()) {
            return true;
        }
        ::usleep(10000);
    }
    return false;
}

class ImapMailbox : public ::testing::Test {
protected:
    void SetUp() override {
        zemail::paths::set_mail_root(m_server.root());
        zemail::paths::set_imap_program(m_server.wrapper());
        zemail::paths::set_spool_dir(m_spool.path());
        m_server.add_user("ann");
    }
    void TearDown() override {
        ZeImapConnection::instance()->close();
        basepp::dbg::set_debug_zone(0);
        basepp::dbg::set_debug_output("");
        EXPECT_TRUE(zetest::zombie_children().empty());
    }

    // Delivers messages "m1".."m<n>" to the folder; returns their base names.
    std::vector<std::string> fill(const std::string& folder, int n, const std::string& flags = "") {
        std::vector<std::string> names;
        for (int i = 1; i <= n; ++i) {
            names.push_back(m_server.deliver("ann", folder, simple("m" + std::to_string(i)), flags,
                                             !flags.empty()));
        }
        return names;
    }

    ZeMailBoxRef box(const std::string& folder, const std::string& user = "ann") {
        ZeMailBoxRef made = ZeMailBoxRef::create(user, folder, MAILBOX_OPEN_IMAP);
        EXPECT_FALSE(made.isNull());
        return made;
    }

    static ZeMailBoxImap& imap(ZeMailBoxRef& mailbox) {
        return *dynamic_cast<ZeMailBoxImap*>(mailbox.get());
    }

    // The UIDs the walk of an opened mailbox yields, in order. After the
    // last one next() keeps answering 0 with no current message.
    static std::vector<unsigned long> walk(ZeMailBoxRef& mailbox) {
        std::vector<unsigned long> uids;
        mailbox->reset();
        while (mailbox->next() == 1) {
            uids.push_back(mailbox->fetch()->uid());
        }
        EXPECT_EQ(0, mailbox->next());
        EXPECT_TRUE(mailbox->fetch().isNull());
        return uids;
    }

    // "<code>:<bytes>" of a section asked for by UID or by key.
    template <class Key>
    static std::string section(ZeMailBoxRef& mailbox, Key key, const std::string& name) {
        std::ostringstream out;
        const int code = mailbox->retrieve_section(out, key, name);
        return std::to_string(code) + ":" + out.str();
    }
    static std::string body(ZeMailBoxRef& mailbox, unsigned long uid) {
        std::ostringstream out;
        const int code = mailbox->retrieve_body(out, uid);
        return std::to_string(code) + ":" + out.str();
    }

    static std::vector<unsigned long> range(unsigned long first, unsigned long last) {
        std::vector<unsigned long> out;
        for (unsigned long uid = first; uid <= last; ++uid) {
            out.push_back(uid);
        }
        return out;
    }

    // The message's flags as the server has them now, through a new mailbox.
    unsigned long server_flags(const std::string& folder, unsigned long uid) {
        ZeMailBoxRef fresh = box(folder);
        ZeMessageRef message = fresh->retrieve_message(uid);
        return message.isNull() ? ~0UL : message->flags().flags;
    }

    // Debug records from here on, in a file.
    std::string start_log() {
        const std::string path = m_spool.path() + "/debug.log";
        basepp::dbg::set_debug_output(path);
        basepp::dbg::set_debug_zone(basepp::dbg::kZoneImap | basepp::dbg::kLevelTrace);
        return path;
    }

    zetest::DovecotServer m_server;
    zetest::TempDir m_spool;
};

// ------------------------------------------------------------ opening

TEST_F(ImapMailbox, OpenLoadsTheNewestPageOfTwentyFiveWithEnvelopeData) {
    const std::vector<std::string> names = fill("Work", 30);
    ZeMailBoxRef work = box("Work");
    EXPECT_EQ(1, work->open());
    EXPECT_EQ(range(6, 30), walk(work));
    EXPECT_EQ(1, work->open());  // already open: nothing reloaded
    EXPECT_EQ(25u, walk(work).size());
    EXPECT_EQ(30, work->total_messages());
    EXPECT_EQ(0, work->searched_count());

    ZeMessageRef last = work->retrieve_message(30UL);
    ASSERT_FALSE(last.isNull());
    EXPECT_EQ(names[29], last->basename());
    EXPECT_EQ("m30", last->headers().get("Subject"));
    EXPECT_STREQ("x@example.org", ZeMessageRef::headerValue(last, "From"));
    EXPECT_GT(last->received(), 0);
    EXPECT_EQ(as_served(simple("m30")).size(), last->env()->size());
    EXPECT_EQ("x@example.org", last->env()->from());
    EXPECT_TRUE(last->flags().test(ZeMessageFlags::RECENT));  // delivered to new/
    EXPECT_FALSE(last->flags().test(ZeMessageFlags::SEEN));

    // Older messages are fetched by UID; deleted ones are not handed out.
    ZeMessageRef old = work->retrieve_message(3UL);
    ASSERT_FALSE(old.isNull());
    EXPECT_EQ("m3", old->headers().get("Subject"));
    EXPECT_TRUE(work->retrieve_message(31UL).isNull());
    EXPECT_TRUE(work->retrieve_message(std::string("not a uid")).isNull());
    EXPECT_TRUE(work->retrieve_message(0UL).isNull());
    work->remove_message("3", false);
    EXPECT_TRUE(imap(work).message_by_uid(3).isNull());

    // Folders smaller than the page give all they have.
    fill("Small", 10);
    ZeMailBoxRef small = box("Small");
    small->open();
    EXPECT_EQ(range(1, 10), walk(small));
    m_server.add_folder("ann", "Empty");
    ZeMailBoxRef empty = box("Empty");
    EXPECT_EQ(1, empty->open());
    EXPECT_TRUE(walk(empty).empty());
    EXPECT_EQ(0, empty->total_messages());
}

TEST_F(ImapMailbox, DeletedNewestMessagesArePagedBackOver) {
    fill("Big", 70);
    fill("Big", 30, "T");  // \Deleted in the Maildir name
    ZeMailBoxRef big = box("Big");
    const std::string log = start_log();
    big->open();
    EXPECT_EQ(range(46, 70), walk(big));
    EXPECT_EQ(70, big->total_messages());
    EXPECT_NE(std::string::npos,
              zetest::read_file(log).find("req_start=0, req_end=25, bstart=75, bend=100, bcount=0"))
        << zetest::read_file(log);
}

// Range positions count from the newest; filters search on the server, and a
// range then cuts what they found.
TEST_F(ImapMailbox, RangeScopesAndFiltersChooseTheMessages) {
    fill("Work", 30);  // subjects m1 .. m30
    using Uids = std::vector<unsigned long>;
    const struct Case {
        long start;  // no range scope when negative
        long end;
        const char* subject;  // SUBJECT searches for a part of the subject
        const char* or_subject;
        Uids uids;
        long searched;
    } cases[] = {
        {5, 10, nullptr, nullptr, range(21, 25), 0},
        {25, 50, nullptr, nullptr, range(1, 5), 0},
        {40, 60, nullptr, nullptr, Uids{}, 0},
        {-1, 0, "m1", nullptr, Uids{1, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19}, 11},
        {0, 2, "m1", nullptr, Uids{18, 19}, 11},
        {-1, 0, "m2", "m3", Uids{2, 3, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30}, 13},
        {-1, 0, "nothing like it", nullptr, Uids{}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.start) + " " + (c.subject ? c.subject : ""));
        ZeMailBoxRef work = box("Work");
        if (c.start >= 0) {
            work->setScope(zetest::RangeScope::make(c.start, c.end));
        }
        if (c.subject != nullptr) {
            work->andFilter(zetest::subject_filter(c.subject));
        }
        if (c.or_subject != nullptr) {
            work->orFilter(zetest::subject_filter(c.or_subject));
        }
        EXPECT_EQ(1, work->open());
        EXPECT_EQ(c.uids, walk(work));
        EXPECT_EQ(c.searched, work->searched_count());
    }
}

// 12,000 scattered matches make a UID set of about 67 KB, more than the
// server takes on one command line: the fetch goes out in pieces and every
// matched message is loaded.
TEST_F(ImapMailbox, AFilterWithManyScatteredMatchesLoadsThemAll) {
    for (int i = 1; i <= 24000; ++i) {
        m_server.deliver("ann", "Many", simple((i % 2 ? "odd" : "even") + std::to_string(i)), "S",
                         true);
    }
    ZeMailBoxRef many = box("Many");
    many->andFilter(zetest::subject_filter("odd"));
    EXPECT_EQ(1, many->open());
    EXPECT_EQ(12000, many->searched_count());
    const std::vector<unsigned long> loaded = walk(many);
    ASSERT_EQ(12000u, loaded.size()) << many->last_error();
    EXPECT_EQ(1u, loaded.front());
    EXPECT_EQ(23999u, loaded.back());
}

// A type-2 user's mailbox is its "dead.letter" folder, whatever folder is
// asked for: a name with a "." that the server takes, as production's does.
TEST_F(ImapMailbox, TheDeadLetterMailboxOfATypeTwoUserOpensOnTheServer) {
    ASSERT_EQ(0, ZeMFolderRef::create(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "ann"), "dead.letter", 0)
                     ->create());
    EXPECT_TRUE(boost::filesystem::is_directory(m_server.folder_path("ann", "dead.letter")));
    m_server.deliver("ann", "dead.letter", simple("bounced"));
    ZeMailBoxRef dead =
        ZeMailBoxRef::create(static_cast<MailBoxType>(2), "ann", "Inbox", MAILBOX_OPEN_IMAP);
    ASSERT_FALSE(dead.isNull());
    EXPECT_EQ("dead.letter", dead->mailfolder());
    EXPECT_EQ(1, dead->open());
    EXPECT_EQ(std::vector<unsigned long>{1}, walk(dead));
    EXPECT_EQ("bounced", dead->retrieve_message(1UL)->headers().get("Subject"));
}

// ------------------------------------------------------------ flags

TEST_F(ImapMailbox, FlagsAreAddedRemovedAndReplacedOnTheServer) {
    fill("Work", 2);
    ZeMailBoxRef work = box("Work");
    work->open();
    const unsigned long seen = ZeMessageFlags::SEEN;
    const unsigned long flagged = ZeMessageFlags::FLAGGED;
    const unsigned long label = ZeMessageFlags::LABEL1;

    EXPECT_EQ(0, work->modify_message(1UL, ZeMessageFlags(seen | label, ZeMessageFlags::ADD)));
    EXPECT_EQ(seen | label, server_flags("Work", 1));
    // The loaded message follows.
    EXPECT_TRUE(work->retrieve_message(1UL)->flags().test(label));

    EXPECT_EQ(0, work->modify_message("1", ZeMessageFlags(label, ZeMessageFlags::REMOVE)));
    EXPECT_EQ(seen, server_flags("Work", 1));

    // Replace: everything named goes, \Recent (the server's own) is neither
    // removed nor set.
    EXPECT_EQ(0, work->modify_message(2UL, ZeMessageFlags(flagged | ZeMessageFlags::RECENT,
                                                          ZeMessageFlags::REPLACE)));
    EXPECT_EQ(flagged, server_flags("Work", 2) & ~ZeMessageFlags::RECENT);
    EXPECT_EQ(0, work->modify_message(2UL, ZeMessageFlags(seen, ZeMessageFlags::REPLACE)));
    EXPECT_EQ(seen, server_flags("Work", 2) & ~ZeMessageFlags::RECENT);

    // Search codes change nothing; bad keys and missing messages fail.
    EXPECT_EQ(0, work->modify_message(2UL, ZeMessageFlags(flagged, ZeMessageFlags::ALL_SET)));
    EXPECT_EQ(seen, server_flags("Work", 2) & ~ZeMessageFlags::RECENT);
    EXPECT_EQ(4, work->modify_message(0UL, ZeMessageFlags(seen, ZeMessageFlags::ADD)));
    EXPECT_EQ(4, work->modify_message("x1", ZeMessageFlags(seen, ZeMessageFlags::ADD)));
    EXPECT_EQ(4, work->modify_message(99UL, ZeMessageFlags(seen, ZeMessageFlags::REPLACE)));
}

// ------------------------------------------------------------ moving and removing

TEST_F(ImapMailbox, MoveRemoveExpungeAndClean) {
    fill("Work", 5);
    m_server.add_folder("ann", "Archive");
    ZeMailBoxRef work = box("Work");
    work->open();

    EXPECT_EQ(0, work->move_message("1", "Archive"));
    EXPECT_TRUE(work->retrieve_message(1UL).isNull());
    ZeMailBoxRef archive = box("Archive");
    archive->open();
    const std::vector<unsigned long> moved = walk(archive);
    ASSERT_EQ(1u, moved.size());
    EXPECT_EQ("m1", archive->retrieve_message(moved[0])->headers().get("Subject"));
    EXPECT_EQ(1, work->move_message("2", "No such folder"));
    EXPECT_EQ(4, work->move_message("2", "../etc"));

    // Not permanent: marked, left out of the next open and of the count.
    EXPECT_EQ(0, work->remove_message("2", false));
    EXPECT_EQ(3, work->total_messages());
    EXPECT_EQ(ZeMessageFlags::DELETED, server_flags("Work", 2) & ZeMessageFlags::DELETED);
    ZeMailBoxRef again = box("Work");
    again->open();
    EXPECT_EQ((std::vector<unsigned long>{3, 4, 5}), walk(again));

    // Permanent: the expunge (with the flag text after the UID) removes it.
    EXPECT_EQ(0, work->remove_message("3", true));
    EXPECT_EQ(~0UL, server_flags("Work", 3));
    EXPECT_EQ(4, work->remove_message("0", true));

    // EXPUNGE takes message 2 for good.
    EXPECT_EQ(0, work->expunge());
    ZeMailBoxImap& raw = imap(work);
    EXPECT_EQ(0, raw._get_deleted_uid(nullptr, nullptr));

    // clean marks the rest and forgets the folder's size cache.
    const std::string cache = m_server.folder_path("ann", "Work") + "/.vt_folder_size";
    std::ofstream(cache) << "0S\n10 1\n";
    EXPECT_EQ(0, work->clean());
    EXPECT_EQ(0, work->total_messages());
    struct stat st;
    EXPECT_NE(0, ::stat(cache.c_str(), &st));
    EXPECT_EQ(2, raw._get_deleted_uid(nullptr, nullptr));
    work->expunge();
    EXPECT_EQ(0, work->clean());  // an empty folder: nothing sent
}

// ------------------------------------------------------------ appending

TEST_F(ImapMailbox, AppendStoresTheFileWithFlagsAndLearnsItsUid) {
    fill("Work", 3);
    const std::string file = m_spool.write("in/report.eml", kReport);
    ZeMailBoxRef work = box("Work");
    ZeMailBoxImap& raw = imap(work);
    EXPECT_EQ(0, work->append(file, ZeMessageFlags(ZeMessageFlags::SEEN | ZeMessageFlags::RECENT |
                                                   ZeMessageFlags::LABEL1)));
    EXPECT_EQ(4u, raw.last_append_uid());
    ZeMessageRef stored = work->retrieve_message(4UL);
    ASSERT_FALSE(stored.isNull());
    EXPECT_EQ("report", stored->headers().get("Subject"));
    EXPECT_TRUE(stored->flags().test(ZeMessageFlags::SEEN));
    EXPECT_TRUE(stored->flags().test(ZeMessageFlags::LABEL1));
    EXPECT_EQ("0:" + as_served(kReport), body(work, 4));

    // Without flags.
    EXPECT_EQ(0, work->append(m_spool.write("in/plain.eml", simple("plain")), ZeMessageFlags()));
    EXPECT_EQ(5u, raw.last_append_uid());

    // Not a regular file: answered 0, nothing sent.
    EXPECT_EQ(0, work->append(m_spool.path() + "/in", ZeMessageFlags()));
    EXPECT_EQ(0, work->append(m_spool.path() + "/missing.eml", ZeMessageFlags()));
    EXPECT_EQ(0u, raw.last_append_uid());
    EXPECT_EQ(5, work->total_messages());

    ZeMailBoxRef missing = box("Nowhere");
    EXPECT_EQ(4, missing->append(file, ZeMessageFlags()));
}

// ------------------------------------------------------------ retrieval

// Records every part foreach_sections hands out as "<section>=<content>".
class PartRecorder : public ZeMessageSectionVisitor {
public:
    int visit(ZeMessageRef&, const ZeImapMimeRef& part, Corvane::MediaIn& content) override {
        seen.push_back(part->section() + "=" + (content.isNull() ? "<none>" : content.readAll()));
        return static_cast<int>(seen.size()) == stop_after ? 7 : 0;
    }
    std::vector<std::string> seen;
    int stop_after = -1;
};

// Part headers, trees and section bytes of the corpus are compared with the
// disk's in ZeMaildirDovecotTest; here: every form of the calls, and the
// decoded parts.
TEST_F(ImapMailbox, SectionsStructuresAndDecodedParts) {
    m_server.deliver("ann", "Work", kReport);
    m_server.deliver("ann", "Work", simple("plain"));
    ZeMailBoxRef work = box("Work");
    work->open();
    ZeMessageRef report = work->retrieve_message("1");
    ASSERT_FALSE(report.isNull());

    EXPECT_EQ("0:Caf=C3=A9 at noon.", section(work, 1UL, "1"));  // as stored, not decoded
    EXPECT_EQ("0:JVBERi0xLjQKJcfsj6IK", section(work, std::string("1"), "2"));
    // A bad section never reaches the wire; a missing message streams nothing.
    EXPECT_EQ("4:", section(work, 1UL, "1]\r\nZe1 LOGOUT"));
    EXPECT_EQ("0:", section(work, 77UL, "1"));
    Corvane::Buffer buffer(std::string("<"));
    EXPECT_EQ(0, work->retrieve_section(buffer, 1UL, "2"));
    EXPECT_EQ(0, work->retrieve_section(buffer, 0UL, "2"));  // UID 0: nothing added
    EXPECT_EQ("<JVBERi0xLjQKJcfsj6IK", buffer.str());
    std::string media_text;
    Corvane::MediaOut media = Corvane::MediaOut::toString(media_text);
    EXPECT_EQ(0, imap(work).retrieve_section(media, 1UL, "1"));
    EXPECT_EQ("Caf=C3=A9 at noon.", media_text);
    std::ostringstream part;
    EXPECT_EQ(0, imap(work).retrieve_partial(part, 1UL, "1", 4, 5));
    EXPECT_EQ("C3=A9", part.str());

    EXPECT_FALSE(work->retrieve_section_mime(std::string("1"), "1").isNull());
    EXPECT_TRUE(work->retrieve_section_mime(std::string("0"), "1").isNull());
    ZeImapMimeRef tree = work->retrieve_mime(report);
    ASSERT_FALSE(tree.isNull());
    EXPECT_EQ(tree.get(), report->mime().get());  // kept with the message

    PartRecorder all;
    EXPECT_EQ(0, work->foreach_sections(report, &all));
    EXPECT_EQ((std::vector<std::string>{"=<none>", "1=Caf\xC3\xA9 at noon.",
                                        std::string("2=%PDF-1.4\n%\xC7\xEC\x8F\xA2\n")}),
              all.seen);
    PartRecorder first;
    first.stop_after = 1;
    EXPECT_EQ(7, work->foreach_sections(report, &first));
    EXPECT_EQ(1u, first.seen.size());
    // A single part: its body is section 1 of the message.
    ZeMessageRef plain = work->retrieve_message(2UL);
    PartRecorder single;
    EXPECT_EQ(0, work->foreach_sections(plain, &single));
    EXPECT_EQ(std::vector<std::string>{"=body of plain\r\n"}, single.seen);
    ZeMessageRef none;
    EXPECT_EQ(0, work->foreach_sections(none, &all));
    // The parts went through temporary files, none of which is left.
    std::vector<std::string> left;
    for (const auto& entry : boost::filesystem::directory_iterator(m_spool.path() + "/tmp")) {
        left.push_back(entry.path().filename().string());
    }
    EXPECT_TRUE(left.empty()) << left.front();
}

// ------------------------------------------------------------ faults

TEST_F(ImapMailbox, MissingFoldersAndUnservableUsersThrowOnOpen) {
    ZeMailBoxRef missing = box("Nope");
    try {
        missing->open();
        FAIL() << "no exception";
    } catch (const Corvane::Exception& e) {
        EXPECT_EQ("Failed to open mailbox!", e.text());
        EXPECT_EQ(4, e.code());
    }
    EXPECT_NE(std::string::npos, missing->last_error().find("doesn't exist"))
        << missing->last_error();
    EXPECT_EQ(0, missing->total_messages());
    EXPECT_THROW(missing->expunge(), Corvane::Exception);

    // A name that cannot be resolved: nothing is started for it.
    ZeMailBoxRef nobody = ZeMailBoxRef::create("bad/user", "Inbox", MAILBOX_OPEN_IMAP);
    ASSERT_FALSE(nobody.isNull());
    EXPECT_THROW(nobody->open(), Corvane::Exception);
    EXPECT_EQ(0, nobody->total_messages());
    EXPECT_EQ(4, nobody->append(m_spool.write("x.eml", simple("x")), ZeMessageFlags()));

    // A folder name that would end the command line is refused before sending.
    ZeMailBoxRef injected = box("Inbox\r\nZe1 DELETE \"Work\"");
    EXPECT_THROW(injected->open(), Corvane::Exception);

    // Quotes and backslashes travel escaped.
    m_server.add_folder("ann", "say \"hi\"");
    m_server.deliver("ann", "say \"hi\"", simple("quoted"));
    ZeMailBoxRef quoted = box("say \"hi\"");
    EXPECT_EQ(1, quoted->open());
    EXPECT_EQ(range(1, 1), walk(quoted));
}

TEST_F(ImapMailbox, AServerKilledBetweenCallsIsReplacedByTheNextCall) {
    fill("Work", 3);
    ZeMailBoxRef work = box("Work");
    work->open();
    const int first = ZeImapConnection::instance()->program().pid();
    ASSERT_GT(first, 0);
    ::kill(first, SIGKILL);
    ASSERT_TRUE(exited(first));
    EXPECT_EQ(3, work->total_messages());
    EXPECT_NE(first, ZeImapConnection::instance()->program().pid());
    EXPECT_EQ("0:" + as_served(simple("m2")), body(work, 2));
}

// ------------------------------------------------------------ fault injection

// An output that kills the server the first time bytes reach it: the server
// dies in the middle of sending a section.
class KillOnFirstBytes : public std::streambuf {
public:
    explicit KillOnFirstBytes(int pid) : m_pid(pid) {}
    std::size_t received = 0;

protected:
    std::streamsize xsputn(const char*, std::streamsize n) override {
        _kill();
        received += static_cast<std::size_t>(n);
        return n;
    }
    int_type overflow(int_type c) override {
        _kill();
        ++received;
        return traits_type::not_eof(c);
    }

private:
    void _kill() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            m_pid = 0;
        }
    }
    int m_pid;
};

// Kills the server from another thread once ready() holds (or after 10 s),
// while the test's thread is inside a call.
class Killer {
public:
    Killer(int pid, std::function<bool()> ready)
        : m_thread([pid, ready] {
              for (int i = 0; i < 1000 && !ready(); ++i) {
                  ::usleep(10000);
              }
              ::kill(pid, SIGKILL);
          }) {}
    ~Killer() { m_thread.join(); }

private:
    std::thread m_thread;
};

class ImapMailboxFaults : public ImapMailbox {
protected:
    int server() { return ZeImapConnection::instance()->program().pid(); }
    // Whatever was killed, a closed connection leaves no descriptor open and
    // no child unreaped.
    void expect_nothing_left(const std::vector<std::string>& descriptors) {
        ZeImapConnection::instance()->close();
        EXPECT_EQ(descriptors, zetest::open_descriptors());
        EXPECT_TRUE(zetest::zombie_children().empty());
    }
};

TEST_F(ImapMailboxFaults, ServerKilledInTheMiddleOfALargeFetch) {
    const std::string big = simple("big") + std::string(8u << 20, 'b') + "\n";
    m_server.deliver("ann", "Work", big);
    const auto descriptors = zetest::open_descriptors();
    ZeMailBoxRef work = box("Work");
    EXPECT_EQ(1, work->total_messages());  // a server runs
    KillOnFirstBytes killing(server());
    std::ostream out(&killing);
    EXPECT_EQ(4, work->retrieve_section(out, 1UL, ""));  // part of the bytes only
    EXPECT_LT(killing.received, as_served(big).size());
    EXPECT_EQ("0:" + as_served(big), body(work, 1));  // on a new server
    expect_nothing_left(descriptors);
}

TEST_F(ImapMailboxFaults, ServerKilledInTheMiddleOfAnAppend) {
    fill("Work", 2);
    const std::string file = m_spool.write("big.eml", simple("big") + std::string(30u << 20, 'a'));
    const std::string tmp = m_server.folder_path("ann", "Work") + "/tmp";
    const auto descriptors = zetest::open_descriptors();
    ZeMailBoxRef work = box("Work");
    EXPECT_EQ(2, work->total_messages());
    {
        // Killed once the server has begun to write the message.
        Killer killer(server(), [&tmp] {
            for (const auto& entry : boost::filesystem::directory_iterator(tmp)) {
                if (boost::filesystem::file_size(entry.path()) > 0) {
                    return true;
                }
            }
            return false;
        });
        EXPECT_EQ(4, work->append(file, ZeMessageFlags()));
    }
    // Nothing half-stored, nothing lost; the next append works.
    ZeMailBoxRef again = box("Work");
    EXPECT_EQ(1, again->open());
    EXPECT_EQ(range(1, 2), walk(again));
    EXPECT_EQ(0, again->append(m_spool.write("small.eml", simple("small")), ZeMessageFlags()));
    EXPECT_EQ(3, again->total_messages());
    expect_nothing_left(descriptors);
}

TEST_F(ImapMailboxFaults, ServerKilledInTheMiddleOfASelect) {
    fill("Work", 3);
    const auto descriptors = zetest::open_descriptors();
    ZeMailBoxRef work = box("Work");
    EXPECT_EQ(3, work->total_messages());
    // The server is stopped, so the SELECT waits unanswered until it is
    // killed; the open then runs on a new server.
    const int first = server();
    ::kill(first, SIGSTOP);
    {
        Killer killer(first, [] {
            ::usleep(300000);
            return true;
        });
        EXPECT_EQ(1, work->open());
    }
    EXPECT_NE(first, server());
    EXPECT_EQ(range(1, 3), walk(work));
    expect_nothing_left(descriptors);
}

// The disk filling up while the server saves a message (its file size
// limit): the APPEND fails, the folder keeps what it had, byte for byte.
TEST_F(ImapMailboxFaults, TheDiskFillingUpWhileAMessageIsSaved) {
    fill("Work", 2);
    const std::string wrapper = m_spool.write(
        "imap-full",
        "#!/bin/sh\ntrap '' XFSZ\nulimit -f 1024\nexec '" + m_server.wrapper() + "' \"$@\"\n",
        true);
    zemail::paths::set_imap_program(wrapper);
    const std::string file = m_spool.write("big.eml", simple("big") + std::string(2u << 20, 'a'));
    ZeMailBoxRef work = box("Work");
    EXPECT_EQ(4, work->append(file, ZeMessageFlags()));
    ZeImapConnection::instance()->close();
    zemail::paths::set_imap_program(m_server.wrapper());
    EXPECT_EQ(2, work->total_messages());
    EXPECT_EQ("0:" + as_served(simple("m1")), body(work, 1));
    EXPECT_EQ("0:" + as_served(simple("m2")), body(work, 2));
    EXPECT_EQ(0, work->append(file, ZeMessageFlags()));  // room again: stored whole
    EXPECT_EQ(3, work->total_messages());
}

TEST_F(ImapMailbox, TwoUsersAreServedOneAfterTheOther) {
    m_server.add_user("bob");
    fill("Work", 2);
    m_server.deliver("bob", "Work", simple("for bob"));
    ZeMailBoxRef ann = box("Work");
    ZeMailBoxRef bob = box("Work", "bob");
    ann->open();
    const int ann_child = ZeImapConnection::instance()->program().pid();
    bob->open();
    EXPECT_NE(ann_child, ZeImapConnection::instance()->program().pid());
    EXPECT_EQ(range(1, 2), walk(ann));
    EXPECT_EQ(range(1, 1), walk(bob));
    // Each call goes to its own user's server, whoever was served last.
    EXPECT_EQ(2, ann->total_messages());
    EXPECT_EQ(1, bob->total_messages());
    EXPECT_EQ("m1", ann->retrieve_message(1UL)->headers().get("Subject"));
    EXPECT_EQ("0:" + as_served(simple("for bob")), body(bob, 1));
}

TEST_F(ImapMailbox, TimeoutsGoBackToSixtySecondsAfterLongRequests) {
    fill("Work", 3);
    ZeMailBoxRef work = box("Work");
    ZeMailBoxImap& raw = imap(work);
    work->andFilter(zetest::subject_filter("m"));
    work->open();  // a 600-second search
    std::string uids;
    long total = 3;
    raw.get_uid_list(uids, &total);  // 90-second searches
    EXPECT_EQ("1,2,3", uids);
    work->move_message("1", "Nope");  // a failed 90-second move
    work->clean();
    EXPECT_EQ(ZeMailBoxImap::kDefaultTimeout,
              ZeImapConnection::instance()->program().io().timeout());

    long none_start = 0;
    long none_end = 0;
    std::string untouched = "kept";
    EXPECT_EQ(0, raw._get_undeleted_uid_list(untouched, &none_start, &none_end));
    EXPECT_EQ("kept", untouched);
}

}  // namespace
