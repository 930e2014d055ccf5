// User identity: where each kind of user keeps its mail, and the names that
// must not turn into paths.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/MailUserId.h"
#include "support/Paths.h"
#include "support/TestUtil.h"

namespace {

class MailUserIdTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_old_root = zemail::paths::mail_root();
        m_old_spool = zemail::paths::spool_dir();
        zemail::paths::set_mail_root("/store");
        zemail::paths::set_spool_dir("/spool");
    }
    void TearDown() override {
        zemail::paths::set_mail_root(m_old_root);
        zemail::paths::set_spool_dir(m_old_spool);
    }

private:
    std::string m_old_root;
    std::string m_old_spool;
};

TEST_F(MailUserIdTest, ServerLayout) {
    const ZeMailUserId ann(MAILBOX_TYPE_DEFAULT, "ann@example.org");
    EXPECT_TRUE(ann.valid());
    EXPECT_EQ(1, ann.type());
    EXPECT_EQ(1, ann.userType());
    EXPECT_EQ("ann@example.org", ann.address());
    EXPECT_EQ("ann@example.org", ann.address(true));
    EXPECT_EQ("/store/example.org/ann", ann.homepath());
    EXPECT_EQ("/store/example.org/ann/Maildir", ann.mailpath());
    EXPECT_EQ("~ann", ann.tilde_name());
    EXPECT_EQ(ann.mailpath(), ann.mailfolder(""));
    EXPECT_EQ(ann.mailpath(), ann.mailfolder("iNbOx"));
    EXPECT_EQ(ann.mailpath() + "/.Work", ann.mailfolder("Work"));
    EXPECT_EQ(ann.mailpath() + "/.Work.2019.Q1", ann.mailfolder("Work/2019/Q1"));
    EXPECT_EQ(ann.mailpath() + "/.INBOX.Sub", ann.mailfolder("INBOX/Sub"));
    EXPECT_EQ(ann.mailpath() + "/.a\"b\\c", ann.mailfolder("a\"b\\c"));
    EXPECT_EQ(ann.mailpath() + "/.line\nbreak", ann.mailfolder("line\nbreak"));

    const ZeMailUserId bob(static_cast<MailBoxType>(7), "bob");
    EXPECT_EQ("/store/localhost/bob", bob.homepath());
    EXPECT_EQ("bob", bob.address());
    EXPECT_EQ("bob@localhost", bob.address(true));
    const ZeMailUserId at_end(MAILBOX_TYPE_DEFAULT, "carl@");
    EXPECT_EQ("/store/localhost/carl", at_end.homepath());
}

TEST_F(MailUserIdTest, OtherLayouts) {
    const ZeMailUserId archive(MAILBOX_TYPE_ARCHIVE, "ann@example.org");
    EXPECT_EQ("/spool/archive/example.org/ann", archive.homepath());
    EXPECT_EQ(archive.homepath(), archive.mailpath());
    EXPECT_EQ(archive.mailpath() + "/2019/Q1", archive.mailfolder("2019/Q1"));

    const ZeMailUserId tree(MAILBOX_TYPE_MAILDIR, "ann@example.org");
    EXPECT_EQ("/store/example.org/ann/Maildir", tree.mailpath());
    EXPECT_EQ(tree.mailpath() + "/Work/2019", tree.mailfolder("Work/2019"));
    EXPECT_EQ(tree.mailpath(), tree.mailfolder("INBOX"));

    const ZeMailUserId path(MAILBOX_TYPE_PATH, "/var/mail/box");
    EXPECT_EQ("/var/mail/box", path.homepath());
    EXPECT_EQ("/var/mail/box", path.mailpath());
    EXPECT_EQ("/var/mail/box", path.mailfolder("/var/mail/box/"));
    EXPECT_EQ("/elsewhere/f", path.mailfolder("/elsewhere/f"));
    EXPECT_EQ("/var/mail/box/sub", path.mailfolder("sub"));
    EXPECT_EQ("", path.mailfolder("/"));
    EXPECT_EQ("", path.mailfolder("/a/../b"));

    const ZeMailUserId rotated(MAILBOX_TYPE_ROTATED, "quarantine");
    EXPECT_EQ("/store/localhost/quarantine/rotate", rotated.mailpath());
    EXPECT_EQ(rotated.mailpath() + "/current", rotated.mailfolder("current"));
}

TEST_F(MailUserIdTest, UnsafeNamesResolveToNothing) {
    for (const std::string& name :
         {std::string(), std::string("../../etc"), std::string(".."), std::string("."),
          std::string("a/b"), std::string("ann@../x"), std::string("ann@a/b"),
          std::string("@example.org"), std::string("ann@.."), std::string("a b"),
          std::string("ann\n"), std::string("ann\r@x"), std::string("a\tb"),
          std::string("ann\0x", 5), std::string("del\x7f")}) {
        const ZeMailUserId id(MAILBOX_TYPE_DEFAULT, name);
        EXPECT_FALSE(id.valid()) << name;
        EXPECT_EQ(name, id.name());
        EXPECT_EQ("", id.address()) << name;
        EXPECT_EQ("", id.address(true)) << name;
        EXPECT_EQ("", id.homepath()) << name;
        EXPECT_EQ("", id.mailpath()) << name;
        EXPECT_EQ("", id.mailfolder("Work")) << name;
        EXPECT_EQ("", id.mailfolder("INBOX")) << name;
        EXPECT_EQ("", id.tilde_name()) << name;
        EXPECT_EQ(-1, id.quota_reset()) << name;
    }
    for (const std::string& path :
         {std::string(), std::string("/a/../b"), std::string(".."), std::string("/x\0y", 4)}) {
        EXPECT_FALSE(ZeMailUserId(MAILBOX_TYPE_PATH, path).valid()) << path;
    }
    EXPECT_TRUE(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "o'brien+tag@ex-ample.org").valid());
    EXPECT_TRUE(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "a..b").valid());
}

TEST_F(MailUserIdTest, UnsafeFolderNamesAreRefused) {
    for (int type : {1, 3, 4, 9, 10}) {
        const ZeMailUserId id(static_cast<MailBoxType>(type),
                              type == 9 ? std::string("/m") : std::string("ann"));
        ASSERT_TRUE(id.valid());
        for (const std::string& folder :
             {std::string("../x"), std::string("a/../x"), std::string("a../b"), std::string(".."),
              std::string("."), std::string("a/./b"), std::string("a/.."), std::string("a//b"),
              std::string("a/"), std::string("a\0b", 3)}) {
            EXPECT_EQ("", id.mailfolder(folder)) << "type " << type << " " << folder;
        }
        EXPECT_NE("", id.mailfolder("a..b")) << type;  // dots inside a level are fine
    }
    const ZeMailUserId ann(MAILBOX_TYPE_DEFAULT, "ann");
    EXPECT_EQ("", ann.mailfolder("/abs"));  // an empty first level
}

TEST_F(MailUserIdTest, TypesTheServerKeeps) {
    std::string served;
    for (int type = -1; type <= 13; ++type) {
        served += ZeMailUserId::imap_served(type) ? 'y' : '.';
    }
    EXPECT_EQ(".yy....yy...y..", served);  // 0, 1, 6, 7, 11
}

TEST_F(MailUserIdTest, EqualityComparesEveryField) {
    const ZeMailUserId a(MAILBOX_TYPE_DEFAULT, "ann");
    EXPECT_EQ(a, ZeMailUserId(MAILBOX_TYPE_DEFAULT, "ann"));
    EXPECT_NE(a, ZeMailUserId(static_cast<MailBoxType>(6), "ann"));
    EXPECT_NE(a, ZeMailUserId(MAILBOX_TYPE_DEFAULT, "ann@localhost"));  // same home, other name
    zemail::paths::set_mail_root("/other");
    EXPECT_NE(a, ZeMailUserId(MAILBOX_TYPE_DEFAULT, "ann"));  // resolved elsewhere
    EXPECT_EQ(ZeMailUserId(), ZeMailUserId());
    EXPECT_NE(ZeMailUserId(), a);
}

TEST_F(MailUserIdTest, QuotaResetRemovesTheCacheButKeepsLinks) {
    zetest::TempDir dir;
    zemail::paths::set_mail_root(dir.path());
    const ZeMailUserId ann(MAILBOX_TYPE_DEFAULT, "ann");
    const std::string plain = dir.write("localhost/ann/Maildir/maildirsize", "0S\n1 1\n");
    const std::string dotted = ann.mailpath() + "/.maildirsize";
    ASSERT_EQ(0, symlink("maildirsize", dotted.c_str()));
    EXPECT_EQ(0, ann.quota_reset());
    struct stat st;
    EXPECT_NE(0, lstat(plain.c_str(), &st));
    EXPECT_EQ(0, lstat(dotted.c_str(), &st));
    EXPECT_EQ(0, ann.quota_reset());  // nothing left to remove is no error

    ASSERT_EQ(0, unlink(dotted.c_str()));
    dir.write("localhost/ann/Maildir/.maildirsize", "0S\n1 1\n");
    EXPECT_EQ(0, ann.quota_reset());
    EXPECT_NE(0, lstat(dotted.c_str(), &st));
}

}  // namespace
