// The Maildir mailbox on temporary Maildirs: envelopes read from names, flag
// changes as renames, the walk with scopes and filters, lookups by name,
// prefix and UID, expunge, clean, and the folder walk of a tree.
#include "stores/ZeMaildir.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestUtil.h"

namespace {

const char kMessage[] = "From: Ann <ann@example.org>\nSubject: hello\n\nbody text\n";
// The same as the IMAP server sends it.
const char kMessageWire[] = "From: Ann <ann@example.org>\r\nSubject: hello\r\n\r\nbody text\r\n";
const unsigned long kUnknown = static_cast<unsigned long>(-1);

class ZeMaildirTest : public ::testing::Test {
protected:
    const std::string& root() const { return dir.path(); }
    std::string cur() const { return root() + "/cur/"; }

    // A file in cur/, new/ or tmp/.
    void put(const std::string& sub, const std::string& name,
             const std::string& content = kMessage) {
        dir.write(sub + "/" + name, content);
    }
    void makeEmpty(const std::string& sub) { ::mkdir((root() + "/" + sub).c_str(), 0700); }

    // The entries of a subdirectory in the order the directory gives them.
    std::vector<std::string> entries(const std::string& sub, bool sorted = true) const {
        std::vector<std::string> names;
        if (DIR* d = ::opendir((root() + "/" + sub).c_str())) {
            while (const dirent* e = ::readdir(d)) {
                std::string name = e->d_name;
                if (name != "." && name != "..") {
                    names.push_back(name);
                }
            }
            ::closedir(d);
        }
        if (sorted) {
            std::sort(names.begin(), names.end());
        }
        return names;
    }

    // The file names next() produces, in its order.
    static std::vector<std::string> walk(ZeMaildir& box) {
        std::vector<std::string> names;
        box.reset();
        while (box.next() == 1) {
            names.push_back(box.fetch()->env()->msgID());
        }
        EXPECT_TRUE(box.fetch().isNull());
        return names;
    }

    static ZeMaildirMsgEnv& envOf(ZeMessageRef& message) {
        return dynamic_cast<ZeMaildirMsgEnv&>(*message->env());
    }
    static ZeMaildirMsg& msgOf(ZeMessageRef& message) {
        return dynamic_cast<ZeMaildirMsg&>(*message);
    }

    zetest::TempDir dir{"zemail-maildir"};
};

// --- envelopes and messages: what a name tells ----------------------------

TEST_F(ZeMaildirTest, MessageAndEnvelopeReadTheName) {
    put("cur", "1700000000.M1.h,S=5:2,SF");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    ZeMessageRef& m = box.fetch("1700000000.M1.h,S=5:2,SF");
    ASSERT_FALSE(m.isNull());
    EXPECT_EQ(0u, m->uid());  // no uidlist: unknown to the list, 0 here
    EXPECT_EQ(kUnknown, m->env()->uid());
    EXPECT_EQ("1700000000.M1.h", m->basename());
    EXPECT_EQ(1700000000, m->received());
    EXPECT_EQ(ZeMessageFlags::SEEN | ZeMessageFlags::FLAGGED, m->flags().flags);
    EXPECT_EQ(cur() + "1700000000.M1.h,S=5:2,SF", msgOf(m).getFileName());
    EXPECT_EQ(std::string(kMessage), m.media().readAll());
    EXPECT_STREQ("hello", ZeMessageRef::headerValue(m, "Subject"));

    EXPECT_EQ(ZeMessageFlags::SEEN | ZeMessageFlags::DELETED | ZeMessageFlags::FORWARDED |
                  ZeMessageFlags::LABEL1 | (ZeMessageFlags::LABEL1 << 4) |
                  ZeMessageFlags::MAILDIR_X,
              ZeMaildirMsgEnv(cur(), "abc:2,STW15X", 0).status().flags);
    // 'R' is no letter of this store: answered is 'A'.
    EXPECT_EQ(0u, ZeMaildirMsgEnv(cur(), "x:2,R", 0).status().flags);
}

// A size in the name needs no stat; any other name takes the file's length
// when the envelope is built, so that the server renaming the file before
// size() is asked does not turn it into 0.
TEST_F(ZeMaildirTest, SizeOfAFileRenamedBeforeSizeIsAskedIsStillItsLength) {
    put("cur", "123.x,#F#S#471:2,S", "short");  // the name wins over the file
    put("cur", "123.s,S=471,W=480:2,S", "short");
    put("cur", "123.y,#F#S471#E:2,S", "twelve bytes");
    EXPECT_EQ(471u, ZeMaildirMsgEnv(cur(), "123.x,#F#S#471:2,S", 0).size());
    EXPECT_EQ(471u, ZeMaildirMsgEnv(cur(), "123.s,S=471,W=480:2,S", 0).size());
    ZeMaildirMsgEnv renamed(cur(), "123.y,#F#S471#E:2,S", 0);
    ASSERT_EQ(0, ::rename((cur() + "123.y,#F#S471#E:2,S").c_str(),
                          (cur() + "123.y,#F#S471#E:2,RS").c_str()));
    EXPECT_EQ(12u, renamed.size());
    EXPECT_EQ(0u, ZeMaildirMsgEnv(cur(), "missing:2,S", 0).size());
}

TEST_F(ZeMaildirTest, SetFlagRenamesWithSortedLetters) {
    put("cur", "123.host:2,SF");
    ZeMaildirMsgEnv env(cur(), "123.host:2,SF", 0);
    env.setflag(ZeMessageFlags::DRAFT);
    EXPECT_EQ("123.host:2,DFS", env.name());
    EXPECT_EQ("123.host:2,DFS", env.msgID());
    EXPECT_EQ(std::vector<std::string>{"123.host:2,DFS"}, entries("cur"));
    EXPECT_EQ(std::string(kMessage), zetest::read_file(cur() + "123.host:2,DFS"));

    env.unsetflag(ZeMessageFlags::SEEN);
    EXPECT_EQ("123.host:2,DF", env.name());
    EXPECT_EQ(ZeMessageFlags::DRAFT | ZeMessageFlags::FLAGGED, env.status().flags);
}

TEST_F(ZeMaildirTest, FlagWithoutLetterOrRenameThatCannotBeDoneChangesNothing) {
    put("cur", "1.x:2,S", "first");
    put("cur", "1.x:2,FS", "second");
    ZeMaildirMsgEnv env(cur(), "1.x:2,S", 0);
    env.setflag(ZeMessageFlags::RECENT);
    env.setflag(ZeMessageFlags::EXT1);
    EXPECT_EQ("1.x:2,S", env.name());
    env.setflag(ZeMessageFlags::FLAGGED);  // the new name is another message's
    EXPECT_EQ("1.x:2,S", env.name());
    EXPECT_EQ(ZeMessageFlags::SEEN, env.status().flags);
    EXPECT_EQ("first", zetest::read_file(cur() + "1.x:2,S"));
    EXPECT_EQ("second", zetest::read_file(cur() + "1.x:2,FS"));

    ZeMaildirMsgEnv gone(cur(), "2.gone:2,S", 0);
    gone.setflag(ZeMessageFlags::FLAGGED);
    EXPECT_EQ("2.gone:2,S", gone.name());
    gone.unsetflag(ZeMessageFlags::SEEN);
    EXPECT_EQ(ZeMessageFlags::SEEN, gone.status().flags);
    EXPECT_EQ((std::vector<std::string>{"1.x:2,FS", "1.x:2,S"}), entries("cur"));
}

TEST_F(ZeMaildirTest, MessageSetFlagTestsABitPositionButSetsAFlagValue) {
    put("cur", "1.seen:2,S");
    put("cur", "2.unsorted:2,SF");
    put("cur", "3.sorted:2,FS");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);

    // Position 4 is \Seen (0x10), which is set: Draft (value 4) is not added.
    ZeMessageRef seen = box.fetch("1.seen:2,S");
    msgOf(seen).setflag(ZeMessageFlags::DRAFT);
    EXPECT_EQ("1.seen:2,S", envOf(seen).name());

    // Value 0x10 tests position 16, which no letter sets: the envelope is
    // asked, and the name is rebuilt with sorted letters.
    ZeMessageRef unsorted = box.fetch("2.unsorted:2,SF");
    msgOf(unsorted).setflag(ZeMessageFlags::SEEN);
    EXPECT_EQ("2.unsorted:2,FS", envOf(unsorted).name());
    EXPECT_EQ(cur() + "2.unsorted:2,FS", msgOf(unsorted).getFileName());

    // Already present and sorted: nothing is renamed.
    ZeMessageRef sorted = box.fetch("3.sorted:2,FS");
    msgOf(sorted).setflag(ZeMessageFlags::SEEN);
    EXPECT_EQ("3.sorted:2,FS", envOf(sorted).name());

    // unsetflag acts only when the position is set: value 0x10 tests
    // position 16 and leaves \Seen alone.
    msgOf(sorted).unsetflag(ZeMessageFlags::SEEN);
    EXPECT_EQ("3.sorted:2,FS", envOf(sorted).name());
    EXPECT_EQ((std::vector<std::string>{"1.seen:2,S", "2.unsorted:2,FS", "3.sorted:2,FS"}),
              entries("cur"));
}

// --- opening and walking --------------------------------------------------

TEST_F(ZeMaildirTest, OpenMovesNewMailToCurAndTheWalkFollowsDirectoryOrder) {
    put("new", "1.new");
    put("new", ".hidden");
    put("cur", ".also-hidden");
    put("tmp", "3.tmp");
    for (int i = 0; i < 20; ++i) {
        put("cur", std::to_string(1000 + i * 37 % 20) + ".m:2,S");
    }
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    EXPECT_EQ(1, box.open());
    EXPECT_EQ(std::vector<std::string>{".hidden"}, entries("new"));
    EXPECT_EQ(std::vector<std::string>{"3.tmp"}, entries("tmp"));
    std::vector<std::string> listed = entries("cur", false);
    ASSERT_EQ(1, std::count(listed.begin(), listed.end(), "1.new"));  // under its own name
    ASSERT_EQ(1, std::count(listed.begin(), listed.end(), ".also-hidden"));
    listed.erase(std::find(listed.begin(), listed.end(), ".also-hidden"));
    EXPECT_EQ(21, box.total_messages());
    EXPECT_EQ(listed, walk(box));  // never sorted
    EXPECT_EQ(listed, walk(box));  // reset rewinds
    EXPECT_EQ(MAILBOX_OPEN_DIRECT, box.open_method());
}

TEST_F(ZeMaildirTest, MovingNewMailNeverReplacesACurFileOfTheSameName) {
    put("cur", "1700000000.M1.h", "the message in cur/");
    put("new", "1700000000.M1.h", "another one");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    EXPECT_EQ(1, box.open());
    EXPECT_EQ("the message in cur/", zetest::read_file(cur() + "1700000000.M1.h"));
    EXPECT_EQ("another one", zetest::read_file(root() + "/new/1700000000.M1.h"));
}

TEST_F(ZeMaildirTest, OpenWithoutCurOrCreatingTheMaildir) {
    ZeMaildir missing(ZeMUserRef(), root() + "/nothing-here", 0ul);
    EXPECT_EQ(1, missing.open());
    EXPECT_TRUE(missing.is_open());
    EXPECT_EQ(0, missing.next());
    EXPECT_TRUE(missing.fetch().isNull());
    EXPECT_EQ(0, missing.total_messages());

    ZeMaildir made(ZeMUserRef(), root() + "/.New", 1ul);
    EXPECT_EQ(1, made.open());
    struct stat st;
    EXPECT_EQ(0, ::stat((root() + "/.New/cur").c_str(), &st));
    EXPECT_EQ(0, ::stat((root() + "/.New/tmp").c_str(), &st));

    dir.write("plain-file", "x");
    ZeMaildir blocked(ZeMUserRef(), root() + "/plain-file/.Sub", false, true);
    EXPECT_EQ(0, blocked.open());
    EXPECT_FALSE(blocked.is_open());
    EXPECT_FALSE(blocked.option());
    EXPECT_TRUE(ZeMaildir(ZeMUserRef(), root(), true, false).option());
}

TEST_F(ZeMaildirTest, CloseWithoutFullKeepsItOpenWithoutStream) {
    put("cur", "1.a:2,S");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    box.reset();
    box.close(false);
    EXPECT_EQ(1, box.open());
    box.reset();
    EXPECT_EQ(0, box.next());
    box.close(true);
    EXPECT_EQ(std::vector<std::string>{"1.a:2,S"}, walk(box));
}

TEST_F(ZeMaildirTest, UidsComeFromTheFolderUidList) {
    put("cur", "1700000001.M1.h,S=55:2,S");
    put("cur", "1700000002.M2.h:2,");
    put("cur", "1700000003.M3.h,S=9");
    dir.write(".dovecot-uidlist",
              "3 V1 N4\n1 :1700000001.M1.h,S=55\n2 :1700000002.M2.h\n3 :1700000003.M3.h,S=9\n");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    std::map<std::string, unsigned long> uids;
    box.reset();
    while (box.next() == 1) {
        uids[box.fetch()->env()->msgID()] = box.fetch()->uid();
    }
    EXPECT_EQ(1u, uids["1700000001.M1.h,S=55:2,S"]);
    EXPECT_EQ(2u, uids["1700000002.M2.h:2,"]);  // no "," before ":2,"
    EXPECT_EQ(3u, uids["1700000003.M3.h,S=9"]);
    EXPECT_EQ(3u, box.uid_from_file("1700000003.M3.h,S=9:2,T"));
    EXPECT_EQ("1700000002.M2.h", box.file_from_uid(2));
    EXPECT_EQ("", box.file_from_uid(4));

    // By UID: the first file holding the list's base name for it.
    ZeMessageRef m = box.retrieve_message(2ul);
    ASSERT_FALSE(m.isNull());
    EXPECT_EQ("1700000002.M2.h:2,", m->env()->msgID());
    EXPECT_TRUE(box.retrieve_message(4ul).isNull());
    std::ostringstream body;
    EXPECT_EQ(0, box.retrieve_body(body, 2));
    EXPECT_EQ(kMessageWire, body.str());
    std::ostringstream none;
    EXPECT_EQ(4, box.retrieve_body(none, 4));
    EXPECT_EQ("", none.str());
}

// A scope that keeps envelopes whose name holds one text and messages whose
// base name holds another, and is done after a number of matches.
class NameScope : public ZeMScopeImpl {
public:
    NameScope(std::string envelopeText, std::string messageText, int limit)
        : m_envelope(std::move(envelopeText)), m_message(std::move(messageText)), m_limit(limit) {}
    std::string imap_criteria() const override { return ""; }
    bool match(ZeMessageEnv& envelope) override {
        return envelope.msgID().find(m_envelope) != std::string::npos;
    }
    bool match(ZeMessageBase& message) override {
        bool ok = message.basename().find(m_message) != std::string::npos;
        matched += ok ? 1 : 0;
        return ok;
    }
    bool done() const override { return m_limit > 0 && matched >= m_limit; }
    void reset() override {
        matched = 0;
        ++resets;
    }
    int matched = 0;
    int resets = 0;

private:
    std::string m_envelope;
    std::string m_message;
    int m_limit;
};

TEST_F(ZeMaildirTest, ScopeRejectsByEnvelopeThenByMessageAndEndsTheWalk) {
    put("cur", "1.keep-a:2,S");
    put("cur", "2.keep-b:2,S");
    put("cur", "3.drop-a:2,S");
    put("cur", "4.keep-a2:2,S");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    auto* scope = new NameScope("keep", "-a", 0);
    box.setScope(ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(scope)));
    std::vector<std::string> kept = walk(box);
    std::sort(kept.begin(), kept.end());
    EXPECT_EQ((std::vector<std::string>{"1.keep-a:2,S", "4.keep-a2:2,S"}), kept);
    EXPECT_EQ(1, scope->resets);

    auto* limited = new NameScope("", "", 1);
    box.setScope(ZeMScopeRef(Corvane::Ref<ZeMScopeImpl>::adopt(limited)));
    EXPECT_EQ(1u, walk(box).size());
    EXPECT_EQ(1u, walk(box).size());  // reset() rewinds the scope too
}

// --- lookups ------------------------------------------------------------------

TEST_F(ZeMaildirTest, FetchFindsAFileByNameOrARenamedOneByStablePrefix) {
    put("cur", "123.x:2,RS");
    put("cur", ".123.x:2,S");
    put("cur", "5.h,U7:2,FS");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    ZeMessageRef& byInfo = box.fetch("123.x:2,S");
    ASSERT_FALSE(byInfo.isNull());
    EXPECT_EQ("123.x:2,RS", byInfo->env()->msgID());
    EXPECT_EQ(byInfo.get(), box.fetch().get());
    EXPECT_EQ("5.h,U7:2,FS", box.fetch("5.h,U7:2,S")->env()->msgID());
    EXPECT_EQ("5.h,U7:2,FS", box.fetch("5.h,U7")->env()->msgID());

    // Misses leave no current message.
    EXPECT_TRUE(box.fetch("123.x").isNull());  // no marker, no such file
    EXPECT_TRUE(box.fetch().isNull());
    EXPECT_TRUE(box.fetch(":2,S").isNull());  // empty prefix
    EXPECT_TRUE(box.fetch("999.y:2,S").isNull());
    EXPECT_TRUE(box.fetch("").isNull());
    dir.write("outside:2,S", "x");
    EXPECT_TRUE(box.fetch("../outside:2,S").isNull());
}

TEST_F(ZeMaildirTest, RetrieveTakesFirstNameContainingTheKeyInDirectoryOrder) {
    put("cur", "1700000012.a:2,S");
    put("cur", "1700000099.b:2,S");
    put("cur", "1700000112.c:2,S");
    put("new", "1700000212.d");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    ZeMessageRef first = box.fetch("1700000099.b:2,S");

    ZeMessageRef found = box.retrieve_message("12");
    ASSERT_FALSE(found.isNull());
    std::string expected;
    for (const std::string& name : entries("cur", false)) {
        if (name.find("12") != std::string::npos) {
            expected = name;
            break;
        }
    }
    EXPECT_EQ(expected, found->env()->msgID());
    EXPECT_EQ(0u, found->env()->uid());
    EXPECT_EQ(first.get(), box.fetch().get());              // current unchanged on a hit
    EXPECT_FALSE(box.retrieve_message("0212.d").isNull());  // new/ was moved first

    EXPECT_TRUE(box.retrieve_message("").isNull());
    EXPECT_EQ(first.get(), box.fetch().get());
    EXPECT_TRUE(box.retrieve_message("nowhere").isNull());
    EXPECT_TRUE(box.fetch().isNull());  // a miss releases the current message
}

// --- expunge, clean, append -------------------------------------------------

TEST_F(ZeMaildirTest, ExpungeRemovesOnlyDeletedAndLeavesMailboxClosed) {
    put("cur", "1.a:2,ST");
    put("cur", "2.b:2,S");
    put("cur", "3.c:3,T");
    put("cur", "4.d,T");  // the letter outside an info part means nothing
    put("new", "5.e");
    dir.write(".dovecot-uidlist", "3 V1 N2\n1 :1.a\n");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    box.reset();
    EXPECT_EQ(0, box.expunge());
    EXPECT_FALSE(box.is_open());
    EXPECT_EQ((std::vector<std::string>{"2.b:2,S", "4.d,T", "5.e"}), entries("cur"));
    EXPECT_EQ("3 V1 N2\n1 :1.a\n", zetest::read_file(root() + "/.dovecot-uidlist"));

    ZeMessageRef m = box.fetch("2.b:2,S");
    EXPECT_EQ(0, m.direct_message()->permanent_remove());
    EXPECT_EQ((std::vector<std::string>{"4.d,T", "5.e"}), entries("cur"));
}

TEST_F(ZeMaildirTest, CleanEmptiesCurAndNewButNotTmp) {
    put("cur", "1.a:2,S");
    put("cur", ".keep");
    put("new", "2.b");
    put("tmp", "3.c");
    dir.write(".vt_folder_size", "0S\n10 1\n");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    EXPECT_EQ(0, box.clean());
    EXPECT_EQ(std::vector<std::string>{".keep"}, entries("cur"));
    EXPECT_TRUE(entries("new").empty());
    EXPECT_EQ(std::vector<std::string>{"3.c"}, entries("tmp"));
    EXPECT_NE(0, ::access((root() + "/.vt_folder_size").c_str(), F_OK));
    EXPECT_EQ(0, box.clean());  // nothing left, still fine
}

TEST_F(ZeMaildirTest, AppendOfAMessageIsRefusedWithTheQueueText) {
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    try {
        box.append(ZeMessageRef(), ZeMDirectMailBox::STATUS_KEEP, ZeMessageFlags());
        FAIL() << "append returned";
    } catch (const Corvane::Exception& e) {
        EXPECT_EQ(" ZeMQueue::append - Not Implimented", e.text());
        EXPECT_EQ(4, e.code());
        EXPECT_EQ("ZeMaildir", e.file());
        EXPECT_EQ(358, e.line());
    }
}

// --- sections -------------------------------------------------------------------
// Bytes, trees and part headers are compared with the server's for the whole
// corpus in ZeMaildirDovecotTest; here: keys, misses and decoded parts.

const char kMultipart[] =
    "From: Ann <ann@example.org>\n"
    "Subject: report\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=\"XX\"\n"
    "\n"
    "--XX\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "\n"
    "Hi Bob\n"
    "--XX\n"
    "Content-Type: application/pdf; name=\"report.pdf\"\n"
    "Content-Disposition: attachment; filename=\"report.pdf\"\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "JVBERi0xLjQK\n"
    "--XX--\n";

// Collects what foreach_sections hands out, and stops where told.
class Collector : public ZeMessageSectionVisitor {
public:
    explicit Collector(int stopAfter = 0) : m_stopAfter(stopAfter) {}
    int visit(ZeMessageRef&, const ZeImapMimeRef& part, Corvane::MediaIn& content) override {
        seen.push_back(part->section() + "=" + content.readAll());
        return m_stopAfter != 0 && static_cast<int>(seen.size()) == m_stopAfter ? 7 : 0;
    }
    std::vector<std::string> seen;

private:
    int m_stopAfter;
};

TEST_F(ZeMaildirTest, SectionsOfTheFileNamedByKeyOrUid) {
    put("cur", "1700000002.M2.h,U5:2,S", kMultipart);
    put("cur", "1700000003.M3.h,U6:2,S");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    std::ostringstream whole;
    EXPECT_EQ(0, box.retrieve_section(whole, std::string(",U6"), ""));
    EXPECT_EQ(kMessageWire, whole.str());
    Corvane::Buffer pdf;
    EXPECT_EQ(0, box.retrieve_section(pdf, 5ul, "2"));  // UID 5 becomes the key ",U5"
    EXPECT_EQ("JVBERi0xLjQK", pdf.str());
    std::ostringstream none;
    EXPECT_EQ(4, box.retrieve_section(none, std::string(",U7"), ""));
    EXPECT_EQ("", none.str());

    ZeImapMimeRef part = box.retrieve_section_mime(std::string(",U5"), "2");
    ASSERT_FALSE(part.isNull());
    EXPECT_EQ(Corvane::ContentType::APPLICATION, part->media_type());
    EXPECT_EQ(Corvane::ENCODING_BASE64, part->content_type().encoding);
    EXPECT_EQ(Corvane::ContentDisposition::ATTACHMENT, part->disposition().type);
    EXPECT_TRUE(box.retrieve_section_mime(std::string(",U5"), "9").isNull());
    EXPECT_TRUE(box.retrieve_section_mime(std::string(",U7"), "1").isNull());

    ZeMessageRef multipart = box.retrieve_message(",U5");
    ZeImapMimeRef tree = box.retrieve_mime(multipart);
    ASSERT_FALSE(tree.isNull());
    EXPECT_EQ(tree.get(), box.retrieve_mime(multipart).get());  // kept with the message
    Collector all;
    EXPECT_EQ(0, box.foreach_sections(multipart, &all));
    EXPECT_EQ((std::vector<std::string>{"=", "1=Hi Bob", "2=%PDF-1.4\n"}), all.seen);
    Collector first(2);
    EXPECT_EQ(7, box.foreach_sections(multipart, &first));
    EXPECT_EQ(2u, first.seen.size());
    ZeMessageRef single = box.retrieve_message(",U6");
    Collector one;
    EXPECT_EQ(0, box.foreach_sections(single, &one));
    EXPECT_EQ(std::vector<std::string>{"=body text\r\n"}, one.seen);
    ZeMessageRef nothing;
    EXPECT_EQ(0, box.foreach_sections(nothing, &all));
}

// --- bad input ------------------------------------------------------------------

// Every file below the Maildir with its bytes, so that a test can show that
// reading changed nothing.
std::map<std::string, std::string> snapshot(const std::string& top) {
    std::map<std::string, std::string> files;
    std::vector<std::string> pending{top};
    while (!pending.empty()) {
        const std::string at = pending.back();
        pending.pop_back();
        DIR* d = ::opendir(at.c_str());
        if (d == nullptr) {
            files[at.substr(top.size())] = zetest::read_file(at);
            continue;
        }
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") {
                pending.push_back(at + "/" + name);
            }
        }
        ::closedir(d);
    }
    return files;
}

// Hostile names and contents and a broken UID list: every message is still
// walked and answers without a crash, and the Maildir is left byte for byte
// as it was.
TEST_F(ZeMaildirTest, BadInputIsReadWithoutChangingAnything) {
    const std::string highName =
        "1700000001.M1.h\xe9st,S=9:2,S\xff\x80"
        "F";
    put("cur", highName, "Subject: 8-bit name\n\nx\n");
    put("cur", "1700000002.M2.h,S=7:2,", std::string("\0\x01\xfe\xff\n\x7f", 6));
    put("cur", "1700000003.M3.h:2,S",
        "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/pl");
    put("cur", "1700000004.M4.h:2,", zetest::nested_multipart(10000));
    put("cur", "1700000005.M5.h:2,", "");
    // A truncated record, then a malformed one: the list forgets everything.
    dir.write(".dovecot-uidlist", "3 V1 N9\n1 :1700000001.M1.h\xe9st\n2 :1700000002.M2.h\n3");
    const std::map<std::string, std::string> before = snapshot(root());

    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    std::map<std::string, std::string> seen;  // name -> tree shape
    box.reset();
    while (box.next() == 1) {
        ZeMessageRef m = box.fetch();
        const std::string name = m->env()->msgID();
        EXPECT_EQ(0u, m->uid()) << name;  // the list is unusable
        m->headers();
        ZeImapMimeRef tree = box.retrieve_mime(m);
        std::ostringstream whole;
        EXPECT_EQ(0, box.retrieve_section(whole, name, ""));
        EXPECT_GE(whole.str().size(), m->env()->size()) << name;
        std::size_t depth = 0;
        for (ZeImapMimeRef node = tree; !node.isNull() && !node->children().empty();
             node = node->children().front()) {
            ++depth;
        }
        seen[name] = std::to_string(depth);
    }
    ASSERT_EQ(5u, seen.size());
    // Letters above 127 are no flags; the name is kept as it is.
    EXPECT_EQ(ZeMessageFlags::SEEN | ZeMessageFlags::FLAGGED, box.fetch(highName)->flags().flags);
    // The deepest tree stops where the parser's nesting limit is.
    EXPECT_LE(std::stoul(seen["1700000004.M4.h:2,"]), 100u);
    EXPECT_GE(std::stoul(seen["1700000004.M4.h:2,"]), 50u);
    EXPECT_EQ(before, snapshot(root()));
}

// A file that goes between the directory read and its use: the message
// answers with nothing instead of failing.
TEST_F(ZeMaildirTest, FileThatVanishesMidWalkAnswersWithNothing) {
    put("cur", "1700000001.M1.h:2,S");
    ZeMaildir box(ZeMUserRef(), root(), 0ul);
    box.reset();
    ASSERT_EQ(1, box.next());
    ZeMessageRef m = box.fetch();
    ASSERT_EQ(0, ::unlink((cur() + "1700000001.M1.h:2,S").c_str()));
    EXPECT_EQ(sizeof kMessage - 1, m->env()->size());  // taken when the walk found it
    EXPECT_TRUE(m->headers().empty());
    EXPECT_TRUE(box.retrieve_mime(m).isNull());
    Collector never;
    EXPECT_EQ(4, box.foreach_sections(m, &never));
    EXPECT_TRUE(never.seen.empty());
    std::ostringstream out;
    EXPECT_EQ(4, box.retrieve_section(out, "1700000001.M1.h", "1"));
    EXPECT_TRUE(m.direct_message()->media().isNull());
    envOf(m).setflag(ZeMessageFlags::FLAGGED);
    EXPECT_EQ("1700000001.M1.h:2,S", m->env()->msgID());
    EXPECT_TRUE(entries("cur").empty());
    // The header is read once: the file back in place does not bring it.
    put("cur", "1700000001.M1.h:2,S");
    EXPECT_TRUE(m->headers().empty());
}

// --- folders of a tree ----------------------------------------------------------

TEST_F(ZeMaildirTest, ProcessorRegistersFoldersButNotMaildirPartsOrHiddenOnes) {
    for (const char* sub : {"cur", "new", "tmp", ".Sent/cur", ".Sent/new", "Work/cur",
                            "Work/2019/cur", ".deleted.1500000000.812.Old/cur"}) {
        ASSERT_EQ(0, ::system(("mkdir -p '" + root() + "/" + sub + "'").c_str()));
    }
    ASSERT_EQ(0, ::symlink(root().c_str(), (root() + "/loop").c_str()));
    ZeMUserRef user = ZeMUserRef::createDirect(MAILBOX_TYPE_MAILDIR, "tree@example.org");
    ASSERT_FALSE(user.isNull());
    MaildirProcessor(user, root()).process(root());

    std::map<std::string, std::string> parents;
    for (const ZeMFolderRef& folder : user->folders()) {
        parents[folder->name()] = folder->parent();
    }
    EXPECT_EQ(
        (std::map<std::string, std::string>{{".Sent", ""}, {"Work", ""}, {"Work/2019", "Work"}}),
        parents);
}

}  // namespace
