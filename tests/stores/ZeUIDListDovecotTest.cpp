// The UID list against the ".dovecot-uidlist" files the real Dovecot writes:
// every UID the server reports must be the one the list gives for the file.
#include "stores/ZeUIDList.h"

#include <dirent.h>

#include <chrono>
#include <map>
#include <regex>
#include <thread>

#include <gtest/gtest.h>

#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

const unsigned long kUnknown = static_cast<unsigned long>(-1);
const char kMessage[] = "From: a@example.org\nTo: b@example.org\nSubject: s\n\nbody\n";

class ZeUIDListDovecotTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (zetest::DovecotServer::default_xfname_plugin().empty()) {
            GTEST_SKIP() << "the X-FNAME plugin was not built";
        }
        server.reset(new zetest::DovecotServer());
        server->add_user(kUser);
    }

    // UID -> file base name, as the server reports them for one folder.
    std::map<unsigned long, std::string> serverUids(const std::string& folder) {
        std::string out = server->run_imap(
            kUser, "a SELECT \"" + folder + "\"\nb UID FETCH 1:* (UID X-FNAME)\nc LOGOUT\n");
        std::map<unsigned long, std::string> uids;
        // The server names a message by its file name without the flags; the
        // base name ends at the first ",".
        std::regex fetch(R"(\* \d+ FETCH \(UID (\d+) X-FNAME ([^ ,)\r]+)[^ )\r]*\))");
        for (std::sregex_iterator it(out.begin(), out.end(), fetch), end; it != end; ++it) {
            uids[std::stoul((*it)[1])] = (*it)[2];
        }
        EXPECT_NE(std::string::npos, out.find("b OK")) << out << server->log();
        return uids;
    }

    // Waits for the next second so that the server's next write of the file
    // gets a different modification time.
    static void nextSecond() {
        time_t start = ::time(nullptr);
        while (::time(nullptr) == start) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    const std::string kUser = "uid@example.org";
    std::unique_ptr<zetest::DovecotServer> server;
};

std::string cutAtComma(const std::string& name) {
    return name.substr(0, name.find(','));
}

// The files of a directory.
std::vector<std::string> files(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            if (e->d_name[0] != '.') {
                names.push_back(e->d_name);
            }
        }
        ::closedir(d);
    }
    return names;
}

TEST_F(ZeUIDListDovecotTest, ListAgreesWithServerForInboxAndFolder) {
    const std::string inboxDir = server->maildir(kUser);
    std::string plain = server->deliver(kUser, "INBOX", kMessage);
    server->deliver(kUser, "INBOX", kMessage, "S", true);
    server->deliver(kUser, "INBOX", kMessage, "FS", true);
    server->deliver(kUser, "INBOX", kMessage);
    std::string sent = server->deliver(kUser, "Sent", kMessage, "S", true);

    auto uids = serverUids("INBOX");
    ASSERT_EQ(4u, uids.size()) << server->log();
    auto list = ZeUIDListManager__::instance()->GetUIDList(inboxDir + "/cur");
    std::map<std::string, unsigned long> byBase;
    for (const auto& entry : uids) {
        EXPECT_EQ(entry.first, list->uid(entry.second)) << entry.second;
        EXPECT_EQ(cutAtComma(entry.second), list->basename(entry.first));
        byBase[cutAtComma(entry.second)] = entry.first;
    }
    // Every file name in cur/ (",S=<size>:2,<flags>" after the base) finds
    // the UID the server gives it.
    std::vector<std::string> names = files(inboxDir + "/cur");
    ASSERT_EQ(4u, names.size());
    for (const std::string& name : names) {
        EXPECT_EQ(byBase[cutAtComma(name)], list->uid(name)) << name;
    }
    // A name is cut at its first comma, so one without a comma before its
    // ":2," part is looked up as "<base>:2" and is not found.
    EXPECT_EQ(kUnknown, list->uid(plain + ":2,S"));
    EXPECT_EQ(byBase[plain], list->match(plain.substr(10)));

    auto sentUids = serverUids("Sent");
    ASSERT_EQ(1u, sentUids.size());
    EXPECT_EQ(sent, cutAtComma(sentUids.begin()->second));
    auto sentList =
        ZeUIDListManager__::instance()->GetUIDList(server->folder_path(kUser, "Sent") + "/");
    EXPECT_EQ(sentUids.begin()->first,
              sentList->uid(files(server->folder_path(kUser, "Sent") + "/cur").at(0)));
    EXPECT_EQ(kUnknown, sentList->uid(plain));
}

TEST_F(ZeUIDListDovecotTest, ExpungedMessageKeepsItsMappingNewOneIsAdded) {
    std::string first = server->deliver(kUser, "INBOX", kMessage);
    std::string second = server->deliver(kUser, "INBOX", kMessage);
    auto uids = serverUids("INBOX");
    ASSERT_EQ(2u, uids.size());
    auto list = ZeUIDListManager__::instance()->GetUIDList(server->maildir(kUser));
    ASSERT_EQ(first, list->basename(uids.begin()->first));

    nextSecond();
    std::string third = server->deliver(kUser, "INBOX", kMessage);
    std::string out = server->run_imap(kUser,
                                       "a SELECT INBOX\n"
                                       "b UID STORE 1 +FLAGS (\\Deleted)\n"
                                       "c EXPUNGE\n"
                                       "d NOOP\n"
                                       "e LOGOUT\n");
    ASSERT_NE(std::string::npos, out.find("c OK")) << out;
    auto after = serverUids("INBOX");
    ASSERT_EQ(2u, after.size()) << out;
    EXPECT_EQ(third, after.rbegin()->second);

    // The server's file no longer names the first message; the list still
    // does (mappings are never dropped on a re-read) and knows the new one.
    std::string raw = zetest::read_file(server->maildir(kUser) + "/.dovecot-uidlist");
    EXPECT_EQ(std::string::npos, raw.find(first)) << raw;
    EXPECT_EQ(first, list->basename(1));
    EXPECT_EQ(after.rbegin()->first, list->uid(third));
}

}  // namespace
