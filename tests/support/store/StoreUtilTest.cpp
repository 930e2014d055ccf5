// Store functions on throwaway Maildir trees: size files, folder sizes and
// walks, store tests, creation and removal, with hostile names and files.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/StoreUtil.h"
#include "support/TestUtil.h"

namespace {

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

void make_dirs(const std::string& path) {
    ASSERT_EQ(0, vtl_mkdir_maildir(path, 0)) << path;
}

// ---------------------------------------------------------------- system folders

TEST(StoreSystemFolders, RankOrderInboxFirst) {
    const std::pair<const char*, int> rows[] = {
        {"INBOX", 1}, {"inbox", 1},      {"Inbox", 1},   {"Drafts", 2},    {"DRAFTS", 2},
        {"Sent", 3},  {"sent", 3},       {"Trash", 4},   {"Junk", 5},      {"junk", 5},
        {"", 0},      {"INBOX ", 0},     {" Sent", 0},   {"Sent/2019", 0}, {"INBOX/Sent", 0},
        {"Work", 0},  {"Sent Items", 0}, {"Inbox\n", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.second, vtl_is_system_folder(row.first)) << '"' << row.first << '"';
        EXPECT_EQ(row.second, vtl_is_system_folder(std::string(row.first)));
    }
    EXPECT_EQ(0, vtl_is_system_folder(static_cast<const char*>(nullptr)));
}

// ---------------------------------------------------------------- size files

struct SizeRow {
    std::string text;
    int result;
    long long bytes;
    long long count;
};

TEST(StoreSizeFile, ParsesTheServerFormat) {
    const SizeRow rows[] = {
        // As the server writes it: limits, the recount, appended changes.
        {"104857600S\n12345 3\n", 0, 12345, 3},
        {"0S\n700 2\n-300 -1\n50 1\n", 0, 450, 2},
        {"1000S,50C\n1 1\n", 0, 1, 1},
        {"\n1 1\n", 0, 1, 1},       // empty definition line
        {"0S\n", 0, 0, 0},          // definition only
        {"0S\n5 1\n7 1", 0, 5, 1},  // unfinished append is ignored
        {"0S\n 5\t 1 \r\n+2 +1\n", 0, 7, 2},
        {"0S\n9223372036854775807 0\n", 0, LLONG_MAX, 0},
        {"0S\n5 1\n-5 -1\n", 0, 0, 0},
        // Broken: recount needed.
        {"", -2, 0, 0},
        {"104857600S", -2, 0, 0},   // no complete line at all
        {"0S\n5 1\n\n", -2, 0, 0},  // empty line
        {"0S\n5\n", -2, 0, 0},
        {"0S\n5 1 1\n", -2, 0, 0},
        {"0S\n5x 1\n", -2, 0, 0},
        {"0S\nfive 1\n", -2, 0, 0},
        {"0S\n+ 1\n", -2, 0, 0},
        {"0S\n+-5 1\n", -2, 0, 0},
        {"0S\n5 1\n-6 -1\n", -2, 0, 0},  // negative total
        {"0S\n5 1\n-5 -2\n", -2, 0, 0},
        {"0S\n9223372036854775808 1\n", -2, 0, 0},
        {"0S\n9223372036854775807 1\n1 0\n", -2, 0, 0},
        {std::string("0S\n5 1\n\0\n", 9), -2, 0, 0},
    };
    for (const SizeRow& row : rows) {
        long long bytes = -7;
        long long count = -7;
        EXPECT_EQ(row.result,
                  vtl_parse_mail_folder_size(row.text.data(), row.text.size(), &bytes, &count))
            << '"' << row.text << '"';
        EXPECT_EQ(row.result == 0 ? row.bytes : -7, bytes) << '"' << row.text << '"';
        EXPECT_EQ(row.result == 0 ? row.count : -7, count) << '"' << row.text << '"';
    }
    EXPECT_EQ(0, vtl_parse_mail_folder_size("0S\n3 1\n", 7, nullptr, nullptr));
    EXPECT_EQ(-2, vtl_parse_mail_folder_size(nullptr, 0, nullptr, nullptr));
}

TEST(StoreSizeFile, LengthLimit) {
    // 5119 bytes are read; a file of 5120 or more needs a recount.
    std::string text = "0S\n";
    while (text.size() + 4 <= 5119) {
        text += "1 1\n";
    }
    text.append(5119 - text.size(), ' ');  // an unfinished last line
    long long bytes = 0;
    ASSERT_EQ(5119u, text.size());
    EXPECT_EQ(0, vtl_parse_mail_folder_size(text.data(), text.size(), &bytes, nullptr));
    EXPECT_EQ(1279, bytes);
    text += "\n";
    EXPECT_EQ(-2, vtl_parse_mail_folder_size(text.data(), text.size(), &bytes, nullptr));

    zetest::TempDir dir;
    EXPECT_EQ(-2, vtl_read_mail_folder_size(dir.write("big", text), &bytes, nullptr));
    text.pop_back();
    EXPECT_EQ(0, vtl_read_mail_folder_size(dir.write("fits", text), &bytes, nullptr));
    const std::string huge = "0S\n" + std::string(1 << 20, '1') + " 1\n";
    EXPECT_EQ(-2, vtl_read_mail_folder_size(dir.write("huge", huge), &bytes, nullptr));
}

TEST(StoreSizeFile, ReadsOnlyRegularFiles) {
    zetest::TempDir dir;
    const std::string real = dir.write("maildirsize", "0S\n2048 2\n");
    const std::string link = dir.path() + "/.maildirsize";
    ASSERT_EQ(0, symlink("maildirsize", link.c_str()));
    long long bytes = 0;
    long long count = 0;
    EXPECT_EQ(0, vtl_read_mail_folder_size(link, &bytes, &count));  // links are followed
    EXPECT_EQ(2048, bytes);
    EXPECT_EQ(2, count);

    const std::string dangling = dir.path() + "/dangling";
    ASSERT_EQ(0, symlink("nowhere", dangling.c_str()));
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));  // nobody writes: a read would block
    for (const std::string& bad : {dir.path() + "/missing", dangling, fifo, dir.path(),
                                   std::string("/dev/null"), std::string()}) {
        bytes = -7;
        EXPECT_EQ(-1, vtl_read_mail_folder_size(bad, &bytes, &count)) << bad;
        EXPECT_EQ(-7, bytes);
    }
    EXPECT_EQ(-1, vtl_read_mail_folder_size(static_cast<const char*>(nullptr), &bytes, &count));
}

TEST(StoreSizeFile, CacheFileName) {
    char buffer[4096];
    EXPECT_EQ(0, vtl_get_maildir_cache_file("/m/.Work", buffer, sizeof buffer));
    EXPECT_STREQ("/m/.Work/.vt_folder_size", buffer);

    const std::string dir = "/d";  // the name is 18 bytes
    char small[19];
    EXPECT_EQ(0, vtl_get_maildir_cache_file(dir, small, 19));
    EXPECT_STREQ("/d/.vt_folder_size", small);
    std::memset(small, 'x', sizeof small);
    EXPECT_EQ(-1, vtl_get_maildir_cache_file(dir, small, 18));
    EXPECT_STREQ("", small);
    EXPECT_EQ(-1, vtl_get_maildir_cache_file("", buffer, sizeof buffer));
    EXPECT_EQ(-1, vtl_get_maildir_cache_file(static_cast<const char*>(nullptr), buffer, 10));
    EXPECT_EQ(-1, vtl_get_maildir_cache_file("/d", nullptr, 10));
    EXPECT_EQ(-1, vtl_get_maildir_cache_file("/d", buffer, 0));
}

// ---------------------------------------------------------------- folder sizes

TEST(StoreMailboxSize, CountsMessagesOfCurAndNew) {
    zetest::TempDir dir;
    const std::string box = dir.path() + "/box";
    make_dirs(box);
    dir.write("box/cur/1.a:2,S", std::string(100, 'a'));
    dir.write("box/new/2.b", std::string(50, 'b'));
    dir.write("box/cur/3.c,S=1000:2,S", "short");             // size from the name
    dir.write("box/cur/4.d,S=7,W=9", "x");                    // ",S=" ends at ","
    dir.write("box/cur/5.e,S=12x:2,", std::string(30, 'e'));  // malformed: file length
    dir.write("box/cur/6.f,S=99999999999999999999999:2,", std::string(3, 'f'));
    dir.write("box/cur/7.g,S=:2,", std::string(4, 'g'));
    dir.write("box/tmp/8.h", std::string(500, 'h'));      // not delivered yet
    dir.write("box/cur/.hidden", std::string(500, 'h'));  // not a message
    dir.write("box/outside", std::string(500, 'o'));
    dir.write("box/.Sub/cur/9.i", std::string(500, 'i'));  // a subfolder's
    ASSERT_EQ(0, symlink((dir.path() + "/box/outside").c_str(), (box + "/cur/10.link").c_str()));
    ASSERT_EQ(0, mkdir((box + "/cur/11.dir").c_str(), 0700));

    long long count = -1;
    EXPECT_EQ(100 + 50 + 1000 + 7 + 30 + 3 + 4, vtl_get_mailbox_size(box, &count));
    EXPECT_EQ(7, count);
    EXPECT_EQ(1194, vtl_get_mailbox_size(box.c_str(), nullptr));
}

TEST(StoreMailboxSize, MissingPartsAndBadPaths) {
    zetest::TempDir dir;
    long long count = -1;
    EXPECT_EQ(0, vtl_get_mailbox_size(dir.path(), &count));  // no cur, no new
    EXPECT_EQ(0, count);
    const std::string file = dir.write("file", "x");
    count = -1;
    EXPECT_EQ(-1, vtl_get_mailbox_size(file, &count));
    EXPECT_EQ(-1, count);
    EXPECT_EQ(-1, vtl_get_mailbox_size(dir.path() + "/missing", &count));
    EXPECT_EQ(-1, vtl_get_mailbox_size("", &count));
    EXPECT_EQ(-1, vtl_get_mailbox_size(static_cast<const char*>(nullptr), &count));
}

TEST(StoreMailboxSize, HugeSizesSaturate) {
    zetest::TempDir dir;
    make_dirs(dir.path() + "/box");
    dir.write("box/cur/1,S=9223372036854775807:2,", "");
    dir.write("box/cur/2,S=9223372036854775807:2,", "");
    EXPECT_EQ(LLONG_MAX, vtl_get_mailbox_size(dir.path() + "/box", nullptr));
}

// ---------------------------------------------------------------- whole store

TEST(StoreMaildirSize, ServerUsersReadTheQuotaFile) {
    zetest::TempDir dir;
    make_dirs(dir.path() + "/Maildir");
    dir.write("Maildir/cur/1", std::string(10, 'x'));
    long long bytes = -7;
    long long count = -7;
    // The server keeps the file for IMAP users: without it, ask the server.
    EXPECT_EQ(-1, vtl_get_maildirsize(1, dir.path() + "/Maildir", &bytes, &count));
    // A stock server's "maildirsize" serves while ".maildirsize" is missing.
    dir.write("Maildir/maildirsize", "0S\n900 1\n");
    EXPECT_EQ(0, vtl_get_maildirsize(1, dir.path() + "/Maildir", &bytes, &count));
    EXPECT_EQ(900, bytes);
    dir.write("Maildir/.maildirsize", "0S\n5000 4\n-1000 -1\nbroken");
    EXPECT_EQ(0, vtl_get_maildirsize(1, dir.path() + "/Maildir", &bytes, &count));
    EXPECT_EQ(4000, bytes);
    EXPECT_EQ(3, count);
    dir.write("Maildir/.maildirsize", "0S\n5000 4\n-6000 -1\n");
    bytes = -7;
    EXPECT_EQ(-2, vtl_get_maildirsize(0, dir.path() + "/Maildir", &bytes, &count));
    EXPECT_EQ(-7, bytes);
    EXPECT_EQ(-1, vtl_get_maildirsize(1, "", &bytes, &count));
}

TEST(StoreMaildirSize, OtherUsersCountTheStore) {
    zetest::TempDir dir;
    const std::string store = dir.path() + "/Maildir";
    make_dirs(store);
    make_dirs(store + "/.Work");
    make_dirs(store + "/.Work.2019");
    dir.write("Maildir/cur/1", std::string(10, 'x'));
    dir.write("Maildir/.Work/new/2", std::string(20, 'x'));
    dir.write("Maildir/.Work.2019/cur/3,S=300:2,S", "");
    dir.write("Maildir/..deleted.1.2.Old/cur/4", std::string(4000, 'x'));  // hidden folder
    long long bytes = 0;
    long long count = 0;
    EXPECT_EQ(0, vtl_get_maildirsize(4, store, &bytes, nullptr));
    EXPECT_EQ(330, bytes);
    // A broken quota file does not stop the count; a good one is believed.
    dir.write("Maildir/.maildirsize", "0S\nx\n");
    EXPECT_EQ(0, vtl_get_maildirsize(10, store, nullptr, &count));
    EXPECT_EQ(3, count);
    dir.write("Maildir/.maildirsize", "0S\n77 7\n");
    EXPECT_EQ(0, vtl_get_maildirsize(4, store, &bytes, &count));
    EXPECT_EQ(77, bytes);
    EXPECT_EQ(-1, vtl_get_maildirsize(4, dir.path() + "/missing", &bytes, &count));
}

TEST(StoreMaildirSize, PlainTreesAreCountedWithoutFollowingLinks) {
    zetest::TempDir dir;
    const std::string tree = dir.path() + "/tree";
    make_dirs(tree + "/Work/2019");
    make_dirs(tree + "/Work/2019/Q1");
    make_dirs(dir.path() + "/elsewhere");
    dir.write("tree/Work/2019/cur/1", std::string(100, 'x'));
    dir.write("tree/Work/2019/Q1/new/2", std::string(20, 'x'));
    dir.write("tree/Work/notes", std::string(999, 'x'));  // not in a Maildir
    dir.write("elsewhere/cur/3", std::string(5000, 'x'));
    ASSERT_EQ(0, symlink((dir.path() + "/elsewhere").c_str(), (tree + "/Linked").c_str()));
    long long bytes = 0;
    long long count = 0;
    EXPECT_EQ(0, vtl_get_maildirsize(3, tree, &bytes, &count));
    EXPECT_EQ(120, bytes);
    EXPECT_EQ(2, count);
}

// ---------------------------------------------------------------- folder walk

std::vector<std::string> visit_all(const std::string& path, int options, int* result) {
    std::vector<std::string> names;
    *result = vtl_visit_folders(
        path, options,
        [](const char* folder, void* context) {
            static_cast<std::vector<std::string>*>(context)->push_back(folder);
            return 1;
        },
        &names);
    return names;
}

TEST(StoreVisitFolders, ReportsMaildirPlusPlusFolders) {
    zetest::TempDir dir;
    const std::string store = dir.path() + "/Maildir";
    make_dirs(store);
    for (const char* folder :
         {".Work", ".Work.2019", ".Archive", ".a\"b", ".back\\slash", ".line\nbreak", ".Sent"}) {
        make_dirs(store + "/" + folder);
    }
    // Not folders: no cur, a file, a link, empty levels, deferred deletion.
    ASSERT_EQ(0, mkdir((store + "/.NoCur").c_str(), 0700));
    dir.write("Maildir/.file", "x");
    ASSERT_EQ(0, symlink((store + "/.Work").c_str(), (store + "/.Linked").c_str()));
    for (const char* folder : {"..Hidden", ".A..B", ".Trail.", ".deleted.1500000000.812.Work",
                               "..deleted.1500000000.812.Work.2019"}) {
        make_dirs(store + "/" + folder);
    }
    make_dirs(store + "/.deleted.notes");  // an ordinary folder "deleted/notes"

    int result = 0;
    const std::vector<std::string> expected = {"INBOX",       "Archive",       "Sent",
                                               "Work",        "Work/2019",     "a\"b",
                                               "back\\slash", "deleted/notes", "line\nbreak"};
    EXPECT_EQ(expected, visit_all(store, 0, &result));
    EXPECT_EQ(9, result);

    std::vector<std::string> without_inbox(expected.begin() + 1, expected.end());
    EXPECT_EQ(without_inbox, visit_all(store, VTL_VISIT_NO_INBOX, &result));
    EXPECT_EQ(8, result);
}

TEST(StoreVisitFolders, StopsWhenTheVisitorSaysSo) {
    zetest::TempDir dir;
    make_dirs(dir.path() + "/.A");
    make_dirs(dir.path() + "/.B");
    std::vector<std::string> seen;
    const int result = vtl_visit_folders(
        dir.path(), 0,
        [](const char* folder, void* context) {
            auto* names = static_cast<std::vector<std::string>*>(context);
            names->push_back(folder);
            return names->size() < 2 ? 1 : 0;
        },
        &seen);
    EXPECT_EQ(2, result);
    EXPECT_EQ((std::vector<std::string>{"INBOX", "A"}), seen);
}

TEST(StoreVisitFolders, BadArguments) {
    zetest::TempDir dir;
    int result = 0;
    EXPECT_TRUE(visit_all(dir.path() + "/missing", 0, &result).empty());
    EXPECT_EQ(-1, result);
    EXPECT_TRUE(visit_all(dir.write("file", "x"), 0, &result).empty());
    EXPECT_EQ(-1, result);
    EXPECT_EQ(-1, vtl_visit_folders(dir.path(), 0, nullptr, nullptr));
    EXPECT_EQ((std::vector<std::string>{"INBOX"}), visit_all(dir.path(), 0, &result));
}

// ---------------------------------------------------------------- store tests

TEST(StoreKinds, MaildirAndMbox) {
    zetest::TempDir dir;
    make_dirs(dir.path() + "/md");
    ASSERT_EQ(0, mkdir((dir.path() + "/only-new").c_str(), 0700));
    ASSERT_EQ(0, mkdir((dir.path() + "/only-new/new").c_str(), 0700));
    dir.write("cur-is-file/cur", "x");
    const std::string mbox = dir.write("mbox", "From ann@example.org Mon Jan  1 00:00:00 2024\n");
    const std::string empty = dir.write("empty", "");
    const std::string almost = dir.write("almost", "From:ann");
    const std::string shorter = dir.write("short", "From");
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(0, symlink(mbox.c_str(), link.c_str()));

    EXPECT_NE(0, vtl_is_maildir_folder(dir.path() + "/md"));
    EXPECT_EQ(0, vtl_is_maildir_folder(dir.path() + "/only-new"));
    EXPECT_EQ(0, vtl_is_maildir_folder(dir.path() + "/cur-is-file"));
    EXPECT_EQ(0, vtl_is_maildir_folder(mbox));
    EXPECT_EQ(0, vtl_is_maildir_folder(dir.path() + "/missing"));
    EXPECT_EQ(0, vtl_is_maildir_folder(""));

    EXPECT_NE(0, vtl_is_mbox(mbox));
    EXPECT_NE(0, vtl_is_mbox(empty));
    EXPECT_NE(0, vtl_is_mbox(link));
    EXPECT_EQ(0, vtl_is_mbox(almost));
    EXPECT_EQ(0, vtl_is_mbox(shorter));
    EXPECT_EQ(0, vtl_is_mbox(fifo));  // must not block
    EXPECT_EQ(0, vtl_is_mbox(dir.path() + "/md"));
    EXPECT_EQ(0, vtl_is_mbox(dir.path() + "/missing"));
    EXPECT_EQ(0, vtl_is_mbox(static_cast<const char*>(nullptr)));
}

// ---------------------------------------------------------------- creation

TEST(StoreMkdirMaildir, CreatesTheTreeOnce) {
    zetest::TempDir dir;
    const std::string folder = dir.path() + "/a/b/Maildir/.Work";
    ASSERT_EQ(0, vtl_mkdir_maildir(folder + "/", 0750));
    for (const char* sub : {"/cur", "/new", "/tmp"}) {
        struct stat st;
        ASSERT_EQ(0, stat((folder + sub).c_str(), &st)) << sub;
        EXPECT_EQ(0750u, st.st_mode & 0777u) << sub;
    }
    EXPECT_TRUE(exists(folder + "/maildirfolder"));
    EXPECT_FALSE(exists(dir.path() + "/a/b/Maildir/maildirfolder"));  // the inbox is no folder
    dir.write("a/b/Maildir/.Work/cur/1", "keep");
    EXPECT_EQ(0, vtl_mkdir_maildir(folder, 0));  // existing parts stay
    EXPECT_EQ("keep", zetest::read_file(folder + "/cur/1"));
}

TEST(StoreMkdirMaildir, RefusesWhatItCannotMake) {
    zetest::TempDir dir;
    dir.write("file", "x");
    dir.write("box/cur", "a file where a directory belongs");
    EXPECT_EQ(-1, vtl_mkdir_maildir(dir.path() + "/file", 0));
    EXPECT_EQ(-1, vtl_mkdir_maildir(dir.path() + "/file/box", 0));
    EXPECT_EQ(-1, vtl_mkdir_maildir(dir.path() + "/box", 0));
    EXPECT_EQ(-1, vtl_mkdir_maildir(dir.path() + "/x/../y", 0));
    EXPECT_EQ(-1, vtl_mkdir_maildir(dir.path() + "/..", 0));
    EXPECT_FALSE(exists(dir.path() + "/x"));
    EXPECT_EQ(-1, vtl_mkdir_maildir("", 0));
    EXPECT_EQ(-1, vtl_mkdir_maildir(static_cast<const char*>(nullptr), 0));
    EXPECT_EQ(0, vtl_mkdir_maildir(dir.path() + "/x..y/..z", 0));  // not parent references
}

// ---------------------------------------------------------------- removal

TEST(StoreUnlinkMail, KeepsTheSizesRight) {
    zetest::TempDir dir;
    const std::string store = dir.path() + "/Maildir";
    make_dirs(store);
    make_dirs(store + "/.Work");
    // A stock server's file, under its plain name only.
    dir.write("Maildir/maildirsize", "0S\n1300 2\n");
    dir.write("Maildir/.Work/.vt_folder_size", "0S\n1300 2\n");
    const std::string in_folder = dir.write("Maildir/.Work/cur/1.x,S=1000:2,S", "body");
    const std::string in_inbox = dir.write("Maildir/new/2.y", std::string(300, 'y'));

    EXPECT_EQ(0, vtl_maildir_unlink_mail(in_folder, 0));
    EXPECT_FALSE(exists(in_folder));
    EXPECT_FALSE(exists(store + "/.Work/.vt_folder_size"));
    EXPECT_EQ(0, vtl_maildir_unlink_mail(in_inbox, 0));
    EXPECT_EQ("0S\n1300 2\n-1000 -1\n-300 -1\n", zetest::read_file(store + "/maildirsize"));
    long long bytes = -1;
    EXPECT_EQ(0, vtl_get_maildirsize(1, store, &bytes, nullptr));
    EXPECT_EQ(0, bytes);
}

TEST(StoreUnlinkMail, RefusesWhatIsNoMessage) {
    zetest::TempDir dir;
    const std::string store = dir.path() + "/Maildir";
    make_dirs(store);
    dir.write("Maildir/.maildirsize", "0S\n10 1\n");
    const std::string target = dir.write("target", "not a message");
    const std::string link = store + "/cur/link";
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    EXPECT_EQ(-1, vtl_maildir_unlink_mail(link, 0));
    EXPECT_TRUE(exists(link));
    EXPECT_EQ("not a message", zetest::read_file(target));
    EXPECT_EQ(-1, vtl_maildir_unlink_mail(store + "/cur", 0));
    EXPECT_EQ(-1, vtl_maildir_unlink_mail(store + "/cur/missing", 0));
    EXPECT_EQ(-1, vtl_maildir_unlink_mail("", 0));

    // Without bookkeeping, or outside cur/ and new/, the size files stay.
    EXPECT_EQ(
        0, vtl_maildir_unlink_mail(dir.write("Maildir/cur/1", "abc"), VTL_UNLINK_NO_BOOKKEEPING));
    EXPECT_EQ(0, vtl_maildir_unlink_mail(dir.write("Maildir/tmp/2", "abc"), 0));
    EXPECT_EQ("0S\n10 1\n", zetest::read_file(store + "/.maildirsize"));
}

TEST(StoreCleanDir, RemovesTheTreeButNothingOutside) {
    zetest::TempDir dir;
    const std::string victim = dir.path() + "/victim";
    const std::string precious = dir.write("precious/file", "keep");
    dir.write("victim/a/b/c", "x");
    dir.write("victim/.hidden", "x");
    ASSERT_EQ(0, symlink((dir.path() + "/precious").c_str(), (victim + "/a/link").c_str()));
    ASSERT_EQ(0, symlink(precious.c_str(), (victim + "/filelink").c_str()));

    EXPECT_EQ(0, vantro_clean_dir(victim, VANTRO_CLEAN_KEEP_DIR));
    EXPECT_TRUE(exists(victim));
    EXPECT_FALSE(exists(victim + "/a"));
    EXPECT_FALSE(exists(victim + "/.hidden"));
    EXPECT_EQ("keep", zetest::read_file(precious));

    dir.write("victim/x/y", "x");
    EXPECT_EQ(0, vantro_clean_dir(victim, 0));
    EXPECT_FALSE(exists(victim));
    EXPECT_EQ(0, vantro_clean_dir(victim, 0));  // already clean
    EXPECT_EQ("keep", zetest::read_file(precious));
}

TEST(StoreCleanDir, RefusesWhatIsNoDirectoryTree) {
    zetest::TempDir dir;
    const std::string file = dir.write("file", "x");
    const std::string link = dir.path() + "/link";
    ASSERT_EQ(0, symlink(dir.path().c_str(), link.c_str()));
    EXPECT_EQ(-1, vantro_clean_dir(file, 0));
    EXPECT_EQ(-1, vantro_clean_dir(link, 0));
    EXPECT_TRUE(exists(file));
    EXPECT_EQ(-1, vantro_clean_dir("", 0));
    EXPECT_EQ(-1, vantro_clean_dir(static_cast<const char*>(nullptr), 0));
}

}  // namespace
