// The Maildir read directly next to the real Dovecot serving the same store:
// UIDs and flags must agree with what the server reports, and a change made
// on one side must be seen by the other.
#include "stores/ZeMaildir.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sstream>
#include <map>
#include <regex>
#include <set>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "imap/ZeImapClient.h"
#include "model/ZeMScopes.h"
#include "support/Paths.h"
#include "support/StoreUtil.h"
#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

const char kMessage[] = "From: a@example.org\nTo: b@example.org\nSubject: s\n\nbody\n";

struct ServerMessage {
    std::string name;  // X-FNAME: the base name with its ",S=" part
    std::string flags;
};

class ZeMaildirDovecotTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (zetest::DovecotServer::default_xfname_plugin().empty()) {
            GTEST_SKIP() << "the X-FNAME plugin was not built";
        }
        server.reset(new zetest::DovecotServer());
        server->add_user(kUser);
        maildir = server->maildir(kUser);
    }
    void TearDown() override { ZeImapConnection::instance()->close(); }

    // A message as the appliance's delivery names it, in cur/ with letters
    // (or in new/ without). Returns the base name.
    std::string deliver(int n, const std::string& letters, bool inNew = false) {
        std::string base =
            "17000000" + std::to_string(10 + n) + ".M" + std::to_string(n) + "P42.host";
        std::string name = base + ",S=" + std::to_string(sizeof kMessage - 1);
        std::string path =
            inNew ? maildir + "/new/" + name : maildir + "/cur/" + name + ":2," + letters;
        std::ofstream(path) << kMessage;
        server->fix_ownership();
        return base;
    }

    // UID -> what the server reports, after the script's commands.
    std::map<unsigned long, ServerMessage> serverView(const std::string& before = "") {
        std::string out = server->run_imap(
            kUser, "a SELECT INBOX\n" + before + "z UID FETCH 1:* (UID X-FNAME FLAGS)\n");
        EXPECT_NE(std::string::npos, out.find("z OK")) << out << server->log();
        std::map<unsigned long, ServerMessage> view;
        std::regex fetch(R"(\* \d+ FETCH \(UID (\d+) X-FNAME (\S+) FLAGS \(([^)]*)\)\))");
        for (std::sregex_iterator it(out.begin(), out.end(), fetch), end; it != end; ++it) {
            view[std::stoul((*it)[1])] = ServerMessage{(*it)[2], (*it)[3]};
        }
        return view;
    }

    // The server's flags as our flag bits (the ones both sides spell alike).
    static unsigned long bits(const std::string& flags) {
        ZeMessageFlags value;
        value.set(flags);
        return value.flags & ~ZeMessageFlags::RECENT;
    }

    const std::string kUser = "box@example.org";
    std::unique_ptr<zetest::DovecotServer> server;
    std::string maildir;
};

// Names as the appliance's delivery writes them, flags with the Deleted
// letter the corpus comparison leaves out, and a change made here.
TEST_F(ZeMaildirDovecotTest, UidsAndFlagsAgreeWithTheServerBothWays) {
    const std::string unflagged = deliver(1, "");
    deliver(2, "FS");
    deliver(3, "DT");
    deliver(4, "", true);
    auto view = serverView();
    ASSERT_EQ(4u, view.size()) << server->log();

    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    std::map<unsigned long, unsigned long> ours;  // uid -> flag bits
    box.reset();
    while (box.next() == 1) {
        ZeMessageRef& m = box.fetch();
        ours[m->uid()] = m->flags().flags;
        ASSERT_TRUE(view.count(m->uid())) << m->env()->msgID();
        EXPECT_EQ(view[m->uid()].name.substr(0, view[m->uid()].name.find(',')), m->basename());
    }
    ASSERT_EQ(4u, ours.size());
    for (const auto& entry : view) {
        EXPECT_EQ(bits(entry.second.flags), ours[entry.first]) << entry.second.flags;
    }
    EXPECT_EQ(4, box.total_messages());

    ZeMessageRef m = box.retrieve_message(unflagged);
    ASSERT_FALSE(m.isNull());
    auto& env = dynamic_cast<ZeMaildirMsgEnv&>(*m->env());
    env.setflag(ZeMessageFlags::SEEN);
    env.setflag(ZeMessageFlags::FLAGGED);
    EXPECT_EQ(unflagged + ",S=" + std::to_string(sizeof kMessage - 1) + ":2,FS", env.name());
    auto after = serverView();
    const unsigned long uid = box.uid_from_file(env.name());
    ASSERT_TRUE(after.count(uid));
    EXPECT_EQ(ZeMessageFlags::SEEN | ZeMessageFlags::FLAGGED, bits(after[uid].flags));
}

TEST_F(ZeMaildirDovecotTest, FileRenamedByTheServerIsFoundByItsOldName) {
    deliver(1, "S");
    auto view = serverView();
    ASSERT_EQ(1u, view.size());
    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    box.reset();
    ASSERT_EQ(1, box.next());
    const std::string oldName = box.fetch()->env()->msgID();

    serverView("b UID STORE 1 +FLAGS (\\Flagged \\Answered)\n");
    ZeMessageRef& again = box.fetch(oldName);
    ASSERT_FALSE(again.isNull()) << oldName;
    EXPECT_NE(oldName, again->env()->msgID());
    EXPECT_TRUE(again->flags().test(ZeMessageFlags::FLAGGED));
    EXPECT_EQ(view.begin()->first, again->uid());
}

TEST_F(ZeMaildirDovecotTest, ExpungesOnEitherSideAreSeenByTheOther) {
    const std::string gone = deliver(1, "S");
    const std::string second = deliver(2, "S");
    deliver(3, "");
    ASSERT_EQ(3u, serverView().size());

    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    ZeMessageRef m = box.retrieve_message(gone);
    ASSERT_FALSE(m.isNull());
    dynamic_cast<ZeMaildirMsgEnv&>(*m->env()).setflag(ZeMessageFlags::DELETED);
    EXPECT_EQ(0, box.expunge());
    auto after = serverView();
    ASSERT_EQ(2u, after.size());
    EXPECT_EQ(2u, after.begin()->first);
    EXPECT_EQ(3u, after.rbegin()->first);
    ASSERT_EQ(second, box.file_from_uid(2));

    // The server's expunge rewrites its UID list (a second later, so that the
    // file's time shows it). The list read here keeps the expunged file's
    // mapping (mappings are never dropped on a re-read) and learns the UID
    // of a file delivered since.
    time_t start = ::time(nullptr);
    while (::time(nullptr) == start) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::string fourth = deliver(4, "");
    serverView("b UID STORE 2 +FLAGS (\\Deleted)\nc EXPUNGE\n");
    after = serverView();
    ASSERT_EQ(2u, after.size());
    ASSERT_EQ(fourth, after.rbegin()->second.name.substr(0, fourth.size()));
    ASSERT_EQ(std::string::npos, zetest::read_file(maildir + "/.dovecot-uidlist").find(second));
    EXPECT_EQ(second, box.file_from_uid(2));
    EXPECT_EQ(after.rbegin()->first, box.uid_from_file(fourth));
}

// --- faults around the library's renames and unlinks -------------------------

// The messages of a Maildir by base name: how many files hold each (cur/ and
// new/) and the bytes of the last one seen.
std::map<std::string, std::pair<int, std::string>> messagesOnDisk(const std::string& maildir) {
    std::map<std::string, std::pair<int, std::string>> found;
    for (const char* sub : {"/cur/", "/new/"}) {
        DIR* d = ::opendir((maildir + sub).c_str());
        while (const dirent* e = d != nullptr ? ::readdir(d) : nullptr) {
            if (e->d_name[0] != '.') {
                auto& entry = found[ZeMaildirName::basename(e->d_name)];
                ++entry.first;
                entry.second = zetest::read_file(maildir + sub + e->d_name);
            }
        }
        if (d != nullptr) {
            ::closedir(d);
        }
    }
    return found;
}

// Delivers n messages of distinct bytes, a quarter of them to new/; base
// name -> bytes.
std::map<std::string, std::string> deliverDistinct(zetest::DovecotServer& server,
                                                   const std::string& user, int n) {
    std::map<std::string, std::string> bytesOf;
    for (int i = 0; i < n; ++i) {
        const std::string bytes = std::string(kMessage) + "message " + std::to_string(i) + "\n";
        bytesOf[server.deliver(user, "INBOX", bytes, i % 2 == 0 ? "S" : "", i % 4 == 1)] = bytes;
    }
    return bytesOf;
}

// Changes flags through the library: walks the folder again and again and
// renames one message per step, until it has made `steps` changes and the
// parent has closed `until` (the other end of a pipe). Run in a child.
[[noreturn]] void changeFlagsUntilClosed(const std::string& maildir, int seed, int steps,
                                         int until) {
    const unsigned flags[] = {ZeMessageFlags::SEEN, ZeMessageFlags::FLAGGED,
                              ZeMessageFlags::ANSWERED, ZeMessageFlags::DRAFT,
                              ZeMessageFlags::LABEL1};
    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    int done = 0;
    for (char c; done < steps || ::read(until, &c, 1) != 0;) {
        box.close(true);
        box.reset();
        while (box.next() == 1) {
            auto& env = dynamic_cast<ZeMaildirMsgEnv&>(*box.fetch()->env());
            const unsigned flag = flags[(seed + done) % 5];
            (seed + done) / 5 % 2 == 0 ? env.setflag(flag) : env.unsetflag(flag);
            ++done;
        }
    }
    ::_exit(0);
}

// Two processes change flags on the same Maildir directly, 10,000 changes at
// the least, while the server selects, fetches and stores flags on it in one
// session: afterwards every message is there exactly once with its bytes,
// on disk and for the server.
TEST_F(ZeMaildirDovecotTest, TwoProcessesChangingFlagsBesideTheServerLoseNothing) {
    const std::map<std::string, std::string> bytesOf = deliverDistinct(*server, kUser, 40);
    ASSERT_EQ(bytesOf.size(), serverView().size());
    int running[2];
    ASSERT_EQ(0, ::pipe(running));
    // The children read the pipe without blocking: a step never waits.
    ASSERT_EQ(0, ::fcntl(running[0], F_SETFL, O_NONBLOCK));
    std::vector<pid_t> children;
    for (int seed : {0, 3}) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(running[1]);
            changeFlagsUntilClosed(maildir, seed, 5000, running[0]);
        }
        ASSERT_GT(pid, 0);
        children.push_back(pid);
    }
    ::close(running[0]);
    std::string script = "a SELECT INBOX\n";
    for (int round = 0; round < 40; ++round) {
        script +=
            "f FETCH 1:* (FLAGS)\ns STORE 1:* +FLAGS (\\Flagged $label2)\n"
            "u STORE 1:* -FLAGS (\\Flagged $label2)\nn NOOP\n";
    }
    const std::string out = server->run_imap(kUser, script, std::chrono::seconds(120));
    ::close(running[1]);
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    // The session ran to its end: every FETCH and STORE was answered OK.
    std::size_t answered = 0;
    for (std::size_t at = 0; (at = out.find("\r\n", at)) != std::string::npos; at += 2) {
        answered += out.compare(at + 2, 5, "f OK ") == 0 || out.compare(at + 2, 5, "s OK ") == 0 ||
                    out.compare(at + 2, 5, "u OK ") == 0;
    }
    EXPECT_EQ(40u * 3, answered) << server->log();

    const auto onDisk = messagesOnDisk(maildir);
    ASSERT_EQ(bytesOf.size(), onDisk.size());
    for (const auto& [base, bytes] : bytesOf) {
        ASSERT_TRUE(onDisk.count(base)) << base;
        EXPECT_EQ(1, onDisk.at(base).first) << base;
        EXPECT_EQ(bytes, onDisk.at(base).second) << base;
    }
    std::set<std::string> served;
    for (const auto& entry : serverView()) {
        served.insert(entry.second.name.substr(0, entry.second.name.find(',')));
    }
    EXPECT_EQ(bytesOf.size(), served.size());
    EXPECT_TRUE(std::all_of(served.begin(), served.end(),
                            [&](const std::string& base) { return bytesOf.count(base) == 1; }));
}

// A tmpfs of `bytes` mounted over dir in a mount namespace of this process's
// own, unmounted when the object goes. mounted() is false where the process
// may not mount (no CAP_SYS_ADMIN).
class PrivateTmpfs {
public:
    PrivateTmpfs(const std::string& dir, std::size_t bytes) : m_dir(dir) {
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0700";
        m_mounted = ::unshare(CLONE_NEWNS) == 0 &&
                    ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                    ::mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) == 0;
    }
    ~PrivateTmpfs() {
        if (m_mounted) {
            ::umount2(m_dir.c_str(), MNT_DETACH);
        }
    }
    bool mounted() const { return m_mounted; }

private:
    std::string m_dir;
    bool m_mounted = false;
};

// Writes into path until the file system refuses with ENOSPC; false when it
// refuses otherwise.
bool fillUp(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'f');
    ssize_t wrote = 0;
    while (fd >= 0 && (wrote = ::write(fd, block.data(), block.size())) > 0) {
    }
    const bool full = fd >= 0 && wrote < 0 && errno == ENOSPC;
    if (fd >= 0) {
        ::close(fd);
    }
    return full;
}

// The disk full while the library renames files for flags and expunges.
// Renames and unlinks need no free space, so they are made where writes
// fail: the Maildir on a tmpfs filled up (where this process may mount), in
// a child whose file-size limit lets the size file grow by 3 bytes only, so
// that the bookkeeping line of permanent_remove is written in part.
// Afterwards the server and the disk hold every message not expunged
// exactly once with its bytes and the flags set, the expunged ones are gone,
// and the size file is as it was, not cut short.
TEST_F(ZeMaildirDovecotTest, FullDiskDuringFlagRenamesAndExpungeLosesNoMessage) {
    PrivateTmpfs tmpfs(maildir, 1 << 20);
    if (tmpfs.mounted()) {
        ASSERT_EQ(0, vtl_mkdir_maildir(maildir, 0700));
        server->fix_ownership();
    }
    std::map<std::string, std::string> bytesOf = deliverDistinct(*server, kUser, 24);
    ASSERT_EQ(bytesOf.size(), serverView("q GETQUOTAROOT INBOX\n").size()) << server->log();
    const std::string sizeFile = zetest::read_file(maildir + "/maildirsize");
    if (tmpfs.mounted()) {
        ASSERT_TRUE(fillUp(maildir + "/filler"));
    }

    const pid_t pid = ::fork();
    if (pid == 0) {
        const rlim_t limit = sizeFile.size() + 3;
        const struct rlimit growth = {limit, limit};
        ::signal(SIGXFSZ, SIG_IGN);
        ::setrlimit(RLIMIT_FSIZE, &growth);
        ZeMaildir box(ZeMUserRef(), maildir, 0ul);
        int n = 0;
        box.reset();
        while (box.next() == 1) {
            auto& m = dynamic_cast<ZeMaildirMsg&>(*box.fetch());
            auto& env = dynamic_cast<ZeMaildirMsgEnv&>(*m.env());
            env.setflag(ZeMessageFlags::FLAGGED);
            env.unsetflag(ZeMessageFlags::SEEN);
            if (n++ % 3 == 0) {
                env.setflag(ZeMessageFlags::DELETED);
            }
        }
        box.expunge();
        box.reset();
        ::_exit(box.next() == 1 && box.fetch().direct_message()->permanent_remove() == 0 ? 0 : 3);
    }
    ASSERT_GT(pid, 0);
    int status = 0;
    ASSERT_EQ(pid, ::waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    if (tmpfs.mounted()) {
        ASSERT_EQ(0, ::unlink((maildir + "/filler").c_str()));
    }
    EXPECT_EQ(sizeFile, zetest::read_file(maildir + "/maildirsize"));

    const auto onDisk = messagesOnDisk(maildir);
    EXPECT_EQ(bytesOf.size() - 9, onDisk.size());  // 8 expunged, 1 removed
    for (const auto& [base, found] : onDisk) {
        ASSERT_TRUE(bytesOf.count(base)) << base;
        EXPECT_EQ(1, found.first) << base;
        EXPECT_EQ(bytesOf[base], found.second) << base;
    }
    const auto view = serverView();
    EXPECT_EQ(onDisk.size(), view.size()) << server->log();
    for (const auto& [uid, message] : view) {
        EXPECT_TRUE(onDisk.count(message.name.substr(0, message.name.find(',')))) << message.name;
        EXPECT_EQ(ZeMessageFlags::FLAGGED, bits(message.flags)) << uid;
    }
}

std::vector<std::string> corpusFiles() {
    std::vector<std::string> files;
    if (DIR* d = ::opendir(ZEMAIL_CORPUS_DIR)) {
        while (const dirent* e = ::readdir(d)) {
            std::string name = e->d_name;
            if (name[0] != '.' && name != "SOURCES.md" && name != "manifest.json") {
                files.push_back(std::string(ZEMAIL_CORPUS_DIR) + "/" + name);
            }
        }
        ::closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

// The corpus delivered into new/ under both shapes of name, with and without
// a "," before ":2,", into a folder that has only the stock server's file
// names ("dovecot-uidlist", "maildirsize": the fixture's dotted links are
// removed). Once the server has given every message its UID, the walk,
// uid_from_file and file_from_uid agree with its UID FETCH for every one, the
// sizes are the files' lengths, and the store's size is read from
// "maildirsize".
TEST_F(ZeMaildirDovecotTest, NamesWithoutCommaAndStockFileNamesAgreeWithTheServer) {
    const std::vector<std::string> files = corpusFiles();
    if (files.empty()) {
        GTEST_SKIP() << "no corpus at " << ZEMAIL_CORPUS_DIR;
    }
    for (const char* link : {"/.dovecot-uidlist", "/.maildirsize"}) {
        ASSERT_EQ(0, ::unlink((maildir + link).c_str())) << link;
    }
    std::map<std::string, std::string> bytesOf;  // base name -> contents
    long long total = 0;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string bytes = zetest::read_file(files[i]);
        const std::string base =
            std::to_string(1700000000 + i) + ".M" + std::to_string(i) + "P7.host";
        const std::string stem = i % 2 == 0 ? base : base + ",S=" + std::to_string(bytes.size());
        std::ofstream(maildir + "/new/" + stem + ":2," + (i % 3 == 0 ? "S" : "")) << bytes;
        bytesOf[base] = bytes;
        total += static_cast<long long>(bytes.size());
    }
    server->fix_ownership();
    auto view = serverView("q GETQUOTAROOT INBOX\n");
    ASSERT_EQ(files.size(), view.size()) << server->log();

    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    std::map<unsigned long, std::string> walked;  // UID -> base name
    box.reset();
    while (box.next() == 1) {
        ZeMessageRef& m = box.fetch();
        const std::string name = m->env()->msgID();
        ASSERT_TRUE(view.count(m->uid())) << name;
        const std::string& fname = view[m->uid()].name;
        EXPECT_EQ(fname.substr(0, fname.find(',')), m->basename()) << name;
        EXPECT_EQ(m->uid(), box.uid_from_file(name)) << name;
        EXPECT_EQ(m->basename(), box.file_from_uid(m->uid())) << name;
        EXPECT_EQ(bytesOf[m->basename()].size(), m->env()->size()) << name;
        walked[m->uid()] = m->basename();
    }
    EXPECT_EQ(files.size(), walked.size());

    long long bytes = 0;
    long long count = 0;
    ASSERT_EQ(0, vtl_get_maildirsize(1, maildir, &bytes, &count)) << server->log();
    EXPECT_EQ(total, bytes);
    EXPECT_EQ(static_cast<long long>(files.size()), count);
}

// What one mailbox says about one message: everything the two paths must
// agree on, as text, so that a difference shows where it lies.
struct Reading {
    unsigned long flags = 0;
    std::string tree;
    std::map<std::string, std::string> sections;  // section -> code and bytes
    std::string section_mimes;                    // each part's own header as a node
    std::string visited;                          // foreach_sections: part and decoded size
};

// Collects what foreach_sections hands out.
class SectionLog : public ZeMessageSectionVisitor {
public:
    int visit(ZeMessageRef&, const ZeImapMimeRef& part, Corvane::MediaIn& content) override {
        text += "[" + part->section() + "] " + std::to_string(content.readAll().size()) + "\n";
        return 0;
    }
    std::string text;
};

// The sections worth asking for: the whole message, its header and text,
// every part, every part's own header, the header and text of attached
// messages, and one part that does not exist.
std::vector<std::string> sectionsOf(const ZeImapMimeRef& tree) {
    std::vector<std::string> out{"", "HEADER", "TEXT", "99"};
    std::vector<ZeImapMimeRef> pending;
    if (tree.isNull()) {
        out.push_back("1");
    } else {
        pending.push_back(tree);
    }
    while (!pending.empty()) {
        ZeImapMimeRef node = pending.back();
        pending.pop_back();
        if (!node->section().empty()) {
            out.push_back(node->section());
            out.push_back(node->section() + ".MIME");
            if (node->media_type() == Corvane::ContentType::MESSAGE) {
                out.push_back(node->section() + ".HEADER");
                out.push_back(node->section() + ".TEXT");
            }
        }
        for (const ZeImapMimeRef& child : node->children()) {
            pending.push_back(child);
        }
    }
    return out;
}

bool isMimeSection(const std::string& section) {
    return section.size() > 5 && section.compare(section.size() - 5, 5, ".MIME") == 0;
}

// The value of "BODY[<section>] " at or after pos in the server's answers: a
// literal, a quoted string or NIL (false). pos moves past it.
bool serverSection(const std::string& out, const std::string& section, std::size_t& pos,
                   std::string& value) {
    const std::string item = "BODY[" + section + "] ";
    std::size_t at = out.find(item, pos);
    if (at == std::string::npos) {
        return false;
    }
    at += item.size();
    value.clear();
    if (out.compare(at, 1, "{") == 0) {
        const std::size_t close = out.find("}\r\n", at);
        const std::size_t length = std::stoul(out.substr(at + 1, close - at - 1));
        value = out.substr(close + 3, length);
        pos = close + 3 + length;
        return true;
    }
    if (out.compare(at, 1, "\"") == 0) {
        for (pos = at + 1; pos < out.size() && out[pos] != '"'; ++pos) {
            value += out[pos] == '\\' ? out[++pos] : out[pos];
        }
        return true;
    }
    pos = at;
    return false;
}

Reading read(ZeMailboxBase& box, ZeMessageRef& m, const std::vector<std::string>& sections) {
    Reading r;
    r.flags = m->flags().flags & ~ZeMessageFlags::RECENT;
    ZeImapMimeRef tree = box.retrieve_mime(m);
    r.tree = zetest::describe_tree(tree);
    for (const std::string& section : sections) {
        std::ostringstream bytes;
        const int code = box.retrieve_section(bytes, m->uid(), section);
        r.sections[section] = std::to_string(code) + ":" + bytes.str();
        if (isMimeSection(section)) {
            continue;
        }
        if (section.find_first_not_of("0123456789.") == std::string::npos && section != "99") {
            ZeImapMimeRef node = box.retrieve_section_mime(m->uid(), section);
            r.section_mimes += "[" + section + "] ";
            if (!node.isNull()) {
                const ZeContentType& t = node->content_type();
                r.section_mimes += std::to_string(t.media) + "/" + std::to_string(t.subtype) +
                                   " enc=" + std::to_string(t.encoding) +
                                   " disp=" + std::to_string(node->disposition().type) + ":" +
                                   node->disposition().filename;
            }
            r.section_mimes += "\n";
        }
    }
    SectionLog log;
    box.foreach_sections(m, &log);
    r.visited = log.text;
    return r;
}

// The whole corpus of real messages, delivered to the real server with a
// spread of flags, then read through the library twice: through the IMAP
// mailbox (the server's answers) and from the same Maildir on disk. Message
// by message the two readings must give the same UID, flags, MIME tree,
// section bytes, part headers and decoded parts. The IMAP mailbox keeps the
// bytes of a part's own header (BODY[n.MIME]) for typing the part instead of
// writing them out, so those bytes are compared with the server's answers
// directly, all in one session.
TEST_F(ZeMaildirDovecotTest, CorpusReadsTheSameThroughTheServerAndFromDisk) {
    const std::vector<std::string> files = corpusFiles();
    if (files.empty()) {
        GTEST_SKIP() << "no corpus at " << ZEMAIL_CORPUS_DIR;
    }
    zetest::TempDir spool("zemail-spool");
    zemail::paths::set_mail_root(server->root());
    zemail::paths::set_imap_program(server->wrapper());
    zemail::paths::set_spool_dir(spool.path());
    // Dovecot spells \Answered "R"; the appliance's Maildir letter for it is
    // "A". Messages delivered with "R" show that one known difference.
    // Messages marked deleted are left out: the IMAP mailbox never yields
    // them.
    const char* const kFlags[] = {"", "S", "FS", "DS", "R", "DFS"};
    std::map<std::string, std::string> sourceOf;  // base name -> corpus file
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string flags = kFlags[i % 6];
        sourceOf[server->deliver(kUser, "INBOX", zetest::read_file(files[i]), flags,
                                 !flags.empty())] = files[i];
    }

    // The server's first BODYSTRUCTURE answer for a plain 7-bit text message
    // shows its fields as written (charset "US-ASCII"), every later one, from
    // its cache, the defaults ("us-ascii"), as ours does: ask once first.
    server->run_imap(kUser, "a SELECT INBOX\nb UID FETCH 1:* (BODYSTRUCTURE)\n",
                     std::chrono::seconds(120));

    // The server's walk lists the messages newest first in pages; one page
    // as large as the folder holds them all.
    ZeMailBoxRef imap = ZeMailBoxRef::create(kUser, "INBOX", MAILBOX_OPEN_IMAP);
    ASSERT_FALSE(imap.isNull());
    imap->setScope(ZeMScopeRange::create(0, static_cast<long>(files.size())));
    ASSERT_EQ(1, imap->open()) << server->log();
    ZeMaildir disk(ZeMUserRef(), maildir, 0ul);

    std::map<unsigned long, ZeMessageRef> onDisk;
    disk.reset();
    while (disk.next() == 1) {
        ZeMessageRef m = disk.fetch();
        EXPECT_TRUE(onDisk.emplace(m->uid(), m).second) << "UID " << m->uid() << " twice";
    }
    ASSERT_EQ(files.size(), onDisk.size());
    std::vector<unsigned long> walked;
    std::vector<unsigned long> listed;
    imap->reset();
    while (imap->next() == 1) {
        walked.push_back(imap->fetch()->uid());
    }
    for (const auto& entry : onDisk) {
        listed.push_back(entry.first);
    }
    std::sort(walked.begin(), walked.end());
    EXPECT_EQ(listed, walked);

    std::size_t compared = 0;
    std::size_t answeredOnlyOnServer = 0;
    std::string mimeScript;
    std::vector<std::tuple<std::string, std::string, std::string>> mimeExpected;
    for (auto& [uid, ours] : onDisk) {
        ZeMessageRef theirs = imap->retrieve_message(uid);
        ASSERT_FALSE(theirs.isNull()) << "UID " << uid << " on disk, not on the server";
        const std::string& source = sourceOf[theirs->basename()];
        EXPECT_EQ(theirs->basename(), ours->basename()) << source;

        const std::vector<std::string> sections = sectionsOf(imap->retrieve_mime(theirs));
        Reading remote = read(*imap.get(), theirs, sections);
        Reading local = read(disk, ours, sections);
        if ((remote.flags & ZeMessageFlags::ANSWERED) != 0 &&
            (local.flags & ZeMessageFlags::ANSWERED) == 0) {
            ++answeredOnlyOnServer;
            remote.flags &= ~ZeMessageFlags::ANSWERED;
        }
        EXPECT_EQ(remote.flags, local.flags) << source;
        EXPECT_EQ(remote.tree, local.tree) << source;
        for (const std::string& section : sections) {
            const std::string& a = remote.sections[section];
            const std::string& b = local.sections[section];
            if (isMimeSection(section)) {
                mimeScript += "f UID FETCH " + std::to_string(theirs->uid()) + " (BODY.PEEK[" +
                              section + "])\n";
                mimeExpected.emplace_back(source + " [" + section + "]", section, b);
                continue;
            }
            EXPECT_TRUE(a == b) << source << " [" << section << "]: server " << a.size()
                                << " bytes, disk " << b.size() << " bytes";
        }
        EXPECT_EQ(remote.section_mimes, local.section_mimes) << source;
        EXPECT_EQ(remote.visited, local.visited) << source;
        ++compared;
    }
    EXPECT_EQ(files.size(), compared);
    EXPECT_EQ((files.size() + 1) / 6, answeredOnlyOnServer);

    const std::string out = server->run_imap(kUser, "a SELECT INBOX\n" + mimeScript);
    std::size_t pos = 0;
    for (const auto& [what, section, ours] : mimeExpected) {
        std::string theirs;
        const bool served = serverSection(out, section, pos, theirs);
        EXPECT_EQ(served ? "0:" + theirs : std::string("0:"), ours) << what;
    }
    EXPECT_GT(mimeExpected.size(), files.size());
}

}  // namespace
