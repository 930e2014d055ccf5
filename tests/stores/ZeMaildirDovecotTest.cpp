// The Maildir read directly next to the real Dovecot serving the same store:
// UIDs and flags must agree with what the server reports, and a change made
// on one side must be seen by the other.
#include "stores/ZeMaildir.h"

#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <map>
#include <regex>

#include <gtest/gtest.h>

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

TEST_F(ZeMaildirDovecotTest, UidsAndFlagsAgreeWithTheServer) {
    deliver(1, "S");
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
}

TEST_F(ZeMaildirDovecotTest, FlagsSetHereAreSeenByTheServer) {
    std::string base = deliver(1, "");
    deliver(2, "S");
    auto before = serverView();
    ASSERT_EQ(2u, before.size());

    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    ZeMessageRef m = box.retrieve_message(base);
    ASSERT_FALSE(m.isNull());
    auto& env = dynamic_cast<ZeMaildirMsgEnv&>(*m->env());
    env.setflag(ZeMessageFlags::SEEN);
    env.setflag(ZeMessageFlags::FLAGGED);
    EXPECT_EQ(base + ",S=" + std::to_string(sizeof kMessage - 1) + ":2,FS", env.name());

    auto after = serverView();
    ASSERT_EQ(2u, after.size());
    unsigned long uid = box.uid_from_file(env.name());
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

TEST_F(ZeMaildirDovecotTest, ExpungeHereRemovesTheMessageForTheServer) {
    std::string gone = deliver(1, "S");
    deliver(2, "S");
    deliver(3, "");
    ASSERT_EQ(3u, serverView().size());

    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    ZeMessageRef m = box.retrieve_message(gone);
    ASSERT_FALSE(m.isNull());
    dynamic_cast<ZeMaildirMsgEnv&>(*m->env()).setflag(ZeMessageFlags::DELETED);
    EXPECT_EQ(0, box.expunge());

    auto after = serverView();
    ASSERT_EQ(2u, after.size());
    EXPECT_EQ(0u, after.count(1));
    EXPECT_EQ((std::vector<unsigned long>{2, 3}),
              (std::vector<unsigned long>{after.begin()->first, after.rbegin()->first}));
}

// The value of "BODY[<section>] " at or after pos in a FETCH answer: a
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
        std::size_t close = out.find("}\r\n", at);
        std::size_t length = std::stoul(out.substr(at + 1, close - at - 1));
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

// Every real message of the corpus, delivered to the server and read from
// the same file here: each section the tree names (and the whole message,
// its header, its text and every part's MIME header) has the bytes the
// server sends for it.
TEST_F(ZeMaildirDovecotTest, SectionsAgreeWithTheServerForTheCorpus) {
    std::vector<std::string> files = corpusFiles();
    if (files.empty()) {
        GTEST_SKIP() << "no corpus at " << ZEMAIL_CORPUS_DIR;
    }
    std::map<std::string, std::string> sourceOf;  // base name -> corpus file
    for (const std::string& file : files) {
        sourceOf[server->deliver(kUser, "INBOX", zetest::read_file(file))] = file;
    }
    auto view = serverView();
    ASSERT_EQ(files.size(), view.size()) << server->log();

    ZeMaildir box(ZeMUserRef(), maildir, 0ul);
    std::size_t compared = 0;
    std::size_t mismatched = 0;
    std::vector<std::string> withoutTree;
    for (const auto& entry : view) {
        const std::string& source =
            sourceOf[entry.second.name.substr(0, entry.second.name.find(','))];
        ZeMessageRef m = box.retrieve_message(entry.second.name);
        ASSERT_FALSE(m.isNull()) << source;
        // The MIME tree converter gives no tree for some messages (an
        // unreadable Content-Type): those are compared by their whole
        // message, header, text and first part only.
        ZeImapMimeRef tree = box.retrieve_mime(m);
        std::vector<std::string> sections{"", "HEADER", "TEXT"};
        std::vector<ZeImapMimeRef> pending;
        if (tree.isNull()) {
            withoutTree.push_back(source);
            sections.push_back("1");
        } else {
            pending.push_back(tree);
        }
        while (!pending.empty()) {
            ZeImapMimeRef node = pending.back();
            pending.pop_back();
            if (!node->section().empty()) {
                sections.push_back(node->section());
                sections.push_back(node->section() + ".MIME");
            }
            for (const ZeImapMimeRef& child : node->children()) {
                pending.push_back(child);
            }
        }
        std::string script;
        for (std::size_t i = 0; i < sections.size(); ++i) {
            script += "f" + std::to_string(i) + " UID FETCH " + std::to_string(entry.first) +
                      " (BODY.PEEK[" + sections[i] + "])\n";
        }
        std::string out = server->run_imap(kUser, "a SELECT INBOX\n" + script);
        std::size_t pos = 0;
        for (const std::string& section : sections) {
            std::string theirs;
            bool served = serverSection(out, section, pos, theirs);
            std::ostringstream ours;
            int code = box.retrieve_section(ours, entry.second.name, section);
            ++compared;
            if (served != (code == 0) || (served && theirs != ours.str())) {
                ++mismatched;
                ADD_FAILURE() << source << " section [" << section << "]: server "
                              << (served ? std::to_string(theirs.size()) + " bytes" : "nothing")
                              << ", ours "
                              << (code == 0 ? std::to_string(ours.str().size()) + " bytes"
                                            : "code " + std::to_string(code));
            }
        }
    }
    EXPECT_EQ(0u, mismatched) << "of " << compared << " sections";
    std::string list;
    for (const std::string& file : withoutTree) {
        list += "\n  " + file;
    }
    RecordProperty("messages_without_tree", static_cast<int>(withoutTree.size()));
    EXPECT_LE(withoutTree.size(), 5u) << "messages without a MIME tree:" << list;
    std::cout << compared << " sections compared; messages without a MIME tree:" << list << "\n";
    EXPECT_GT(compared, files.size() * 4);
}

}  // namespace
