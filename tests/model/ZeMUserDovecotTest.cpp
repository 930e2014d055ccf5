// Users and folders against the real Dovecot: the folder list in display
// order, STATUS counters, folder changes on the server, quota and usage,
// logging out, and users the server cannot serve.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "imap/ZeImapRequest.h"
#include "model/ZeMFolder.h"
#include "model/ZeMUser.h"
#include "support/Paths.h"
#include "support/StoreUtil.h"
#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

bool is_dir(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

class ImapUser : public ::testing::Test {
protected:
    void SetUp() override {
        zemail::paths::set_mail_root(m_server.root());
        zemail::paths::set_imap_program(m_server.wrapper());
        m_server.add_user("ann");
    }
    void TearDown() override {
        ZeImapConnection::instance()->close();
        EXPECT_TRUE(zetest::zombie_children().empty());
    }

    // name<parent>children for every folder of the user, in list order.
    static std::vector<std::string> listing(ZeMUserRef& user) {
        std::vector<std::string> out;
        for (const ZeMFolderRef& folder : user->folders()) {
            out.push_back(folder->name() + "<" + folder->parent() + ">" +
                          std::to_string(folder->children()));
        }
        return out;
    }

    ZeMFolderRef folder(const std::string& name, const std::string& user = "ann") {
        return ZeMFolderRef::create(ZeMailUserId(MAILBOX_TYPE_DEFAULT, user), name, 0);
    }

    zetest::DovecotServer m_server;
};

// ------------------------------------------------------------ listing

TEST_F(ImapUser, NestedFoldersAreListedInTheFixedOrderWithoutParents) {
    // Children made before their parents, on purpose.
    for (const char* name : {"Work/2020", "Zeta", "Work/2019/Q1", "abc", "Trash", "Sent", "archive",
                             "Work/2019", "Drafts", "Junk", "b", "Work"}) {
        m_server.add_folder("ann", name);
    }
    ZeMUserRef ann = ZeMUserRef::createImap("ann");
    EXPECT_TRUE(ann->folders().empty());  // nothing is read before init_folders
    ann->init_folders();
    // The listed folders get no parent, so no folder counts children.
    EXPECT_EQ((std::vector<std::string>{"Inbox<>0", "Drafts<>0", "Sent<>0", "Trash<>0", "Junk<>0",
                                        "abc<>0", "archive<>0", "b<>0", "Work<>0", "Work/2019<>0",
                                        "Work/2019/Q1<>0", "Work/2020<>0", "Zeta<>0"}),
              listing(ann));
    ZeMFolderRef first;
    ASSERT_TRUE(ann->next_folder(first));
    EXPECT_EQ("Inbox", first->name());
    EXPECT_NE(nullptr, dynamic_cast<ZeMFolderImap*>(first.get()));
}

TEST_F(ImapUser, TwoUsersAreListedOneAfterTheOther) {
    m_server.add_folder("ann", "Work");
    m_server.add_folder("bob", "Play");
    ZeMUserRef ann = ZeMUserRef::createImap("ann");
    ZeMUserRef bob = ZeMUserRef::createImap("bob");
    ann->init_folders();
    bob->init_folders();
    EXPECT_EQ((std::vector<std::string>{"Inbox<>0", "Work<>0"}), listing(ann));
    EXPECT_EQ((std::vector<std::string>{"Inbox<>0", "Play<>0"}), listing(bob));
    EXPECT_EQ("bob", ZeImapConnection::instance()->user().address());
    // A folder of ann's after bob was served goes to ann's server.
    EXPECT_EQ(0, folder("Later")->create());
    EXPECT_TRUE(is_dir(m_server.folder_path("ann", "Later")));
}

// ------------------------------------------------------------ folder changes

TEST_F(ImapUser, StatusFillsEveryCounter) {
    m_server.deliver("ann", "Work", "Subject: a\n\none\n");
    m_server.deliver("ann", "Work", "Subject: b\n\ntwo\n");
    m_server.deliver("ann", "Work", "Subject: c\n\nthree\n", "S", true);
    ZeMFolderRef work = folder("Work");
    EXPECT_EQ(0, work->get_status());
    EXPECT_EQ(3, work->messages());
    EXPECT_EQ(3, work->recent());  // new to every session so far
    EXPECT_EQ(2, work->unseen());
    EXPECT_EQ(4, work->uidnext());
    // Bytes as the server counts them: every line end a CRLF.
    EXPECT_EQ(static_cast<long long>(16 + 16 + 18 + 3 * 3), work->x_size());

    // A failed query answers 0 and keeps what was known.
    ZeMFolderRef missing = folder("Missing");
    auto* imap = dynamic_cast<ZeMFolderImap*>(missing.get());
    imap->set(1, 2, 3, 4, 5);
    EXPECT_EQ(0, missing->get_status());
    EXPECT_EQ(1, missing->messages());
    EXPECT_EQ(5, missing->x_size());
}

TEST_F(ImapUser, FoldersAreCreatedRenamedAndRemovedOnTheServer) {
    ZeMFolderRef made = folder("Projects/New");
    EXPECT_EQ(0, made->create());
    EXPECT_TRUE(is_dir(m_server.folder_path("ann", "Projects/New")));
    EXPECT_EQ(1, made->create());  // exists already: NO

    EXPECT_EQ(0, made->rename("Projects/Renamed"));
    EXPECT_FALSE(is_dir(m_server.folder_path("ann", "Projects/New")));
    EXPECT_TRUE(is_dir(m_server.folder_path("ann", "Projects/Renamed")));
    EXPECT_EQ("Projects/New", made->name());  // the record keeps its name
    EXPECT_EQ(1, made->rename("Other"));      // it no longer exists

    ZeMFolderRef renamed = folder("Projects/Renamed");
    EXPECT_EQ(0, renamed->remove());
    EXPECT_FALSE(is_dir(m_server.folder_path("ann", "Projects/Renamed")));
    EXPECT_EQ(1, renamed->remove());
}

// Deferred removal renames the folder to a ".deleted." name, which needs a
// server that takes "." in folder names as the production server does.
TEST_F(ImapUser, DeferredRemovalHidesTheFolderWithItsMessages) {
    m_server.deliver("ann", "Work/2019", "Subject: kept\n\nbody\n");
    std::ofstream(m_server.maildir("ann") + "/maildirsize") << "0S\n";
    ZeMFolderRef work = folder("Work/2019");
    const long long before = static_cast<long long>(std::time(nullptr));
    EXPECT_EQ(0, work->remove_deferred());
    EXPECT_FALSE(is_dir(m_server.folder_path("ann", "Work/2019")));
    EXPECT_NE(0, ::access((m_server.maildir("ann") + "/maildirsize").c_str(), F_OK));  // recounted

    ZeMUserRef ann = ZeMUserRef::createImap("ann");
    ann->init_folders();
    std::string hidden;
    for (const ZeMFolderRef& one : ann->folders()) {
        if (one->name().compare(0, 9, ".deleted.") == 0) {
            hidden = one->name();
        }
    }
    const std::string suffix = "." + std::to_string(getpid()) + ".Work.2019";
    ASSERT_GT(hidden.size(), suffix.size()) << testing::PrintToString(listing(ann));
    EXPECT_EQ(suffix, hidden.substr(hidden.size() - suffix.size()));
    EXPECT_GE(std::atoll(hidden.c_str() + 9), before);
    ZeMFolderRef kept = folder(hidden);
    EXPECT_EQ(0, kept->get_status());
    EXPECT_EQ(1, kept->messages());
}

// ------------------------------------------------------------ quota and usage

TEST_F(ImapUser, QuotaAndUsageComeFromTheServer) {
    m_server.deliver("ann", "", "Subject: big\n\n" + std::string(5000, 'x') + "\n");
    ZeMUserRef ann = ZeMUserRef::createImap("ann");
    long long limit = 0;
    long long used = 0;
    EXPECT_EQ(0, ann->get_quota(&limit, &used));
    EXPECT_EQ(102400, limit);
    EXPECT_GE(used, 5);
    EXPECT_EQ(0, ann->get_quota(nullptr, nullptr));

    // The server wrote its size file: usage is read from it.
    const std::string size_file = m_server.maildir("ann") + "/maildirsize";
    ASSERT_TRUE(is_dir(m_server.maildir("ann")));
    long long bytes = 0;
    ASSERT_EQ(0, vtl_read_mail_folder_size(size_file, &bytes, nullptr));
    EXPECT_EQ((bytes + 1023) / 1024, ann->get_usage());

    // calculateSize leaves an existing file alone unless forced, also under
    // the stock server's name alone.
    ZeImapConnection::instance()->close();
    ASSERT_EQ(0, ::unlink((m_server.maildir("ann") + "/.maildirsize").c_str()));
    EXPECT_EQ(0, ann->calculateSize(false));
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());
    EXPECT_EQ(0, ann->calculateSize(true));
    EXPECT_TRUE(ZeImapConnection::instance()->program().is_open());

    // reset_quota forgets the file and has the server count again.
    EXPECT_EQ(0, ann->reset_quota());
    EXPECT_EQ(0, vtl_read_mail_folder_size(size_file, &bytes, nullptr));

    // A folder's usage comes from its size cache only.
    m_server.add_folder("ann", "Work");
    EXPECT_EQ(0, ann->get_folder_usage("Work"));
    std::ofstream(m_server.folder_path("ann", "Work") + "/.vt_folder_size") << "0S\n4097 2\n";
    EXPECT_EQ(5, ann->get_folder_usage("Work"));
    EXPECT_EQ(0, ann->get_folder_usage("Nowhere"));
}

// ------------------------------------------------------------ sessions

TEST_F(ImapUser, LogoutGoesOnTheUsersOwnChannelAndEndsTheSession) {
    ZeMUserRef ann = ZeMUserRef::createImap("ann");
    ann->init_folders();
    ASSERT_TRUE(ZeImapConnection::instance()->program().is_open());
    EXPECT_EQ(0, ann->logout());
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());
    EXPECT_TRUE(zetest::zombie_children().empty());
    // LOGOUT goes on the user's own channel, started for it when needed;
    // the session is ended either way.
    EXPECT_EQ(0, ann->logout());
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());
    EXPECT_EQ(0, folder("Fresh")->create());
    EXPECT_TRUE(ZeImapConnection::instance()->program().is_open());
    const std::string before = m_server.log();
    ZeMUserRef bob = ZeMUserRef::createImap("bob");
    EXPECT_EQ(0, bob->logout());
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());
    const std::string after = m_server.log().substr(before.size());
    EXPECT_NE(std::string::npos, after.find("imap(ann)")) << after;  // ann's session ended
    EXPECT_NE(std::string::npos, after.find("imap(bob)")) << after;  // bob's logged out
    EXPECT_TRUE(zetest::zombie_children().empty());
}

TEST_F(ImapUser, UsersTheServerCannotServeGetCodesNotCrashes) {
    const std::size_t descriptors = zetest::open_descriptors().size();
    ZeMUserRef nobody = ZeMUserRef::createImap("no/body");
    ASSERT_FALSE(nobody.isNull());
    nobody->init_folders();
    EXPECT_TRUE(nobody->folders().empty());
    EXPECT_EQ(4, nobody->open());
    long long limit = -1;
    EXPECT_EQ(4, nobody->get_quota(&limit, nullptr));
    EXPECT_EQ(-1, limit);
    EXPECT_EQ(0, nobody->get_usage());
    EXPECT_EQ(4, ZeMFolderRef::create(nobody->id(), "Work", 0)->create());
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());
    EXPECT_EQ(descriptors, zetest::open_descriptors().size());

    // A user the server has never seen gets an empty store of its own.
    ZeMUserRef carol = ZeMUserRef::createImap("carol");
    carol->init_folders();
    EXPECT_EQ((std::vector<std::string>{"Inbox<>0"}), listing(carol));
}

}  // namespace
