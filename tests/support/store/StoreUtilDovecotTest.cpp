// The store functions against a store kept by the real Dovecot: its quota
// file, its folders, and the changes each side makes seen by the other.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "support/StoreUtil.h"
#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

class StoreUtilDovecotTest : public ::testing::Test {
protected:
    // The used storage of GETQUOTA "", in KiB as the server rounds it.
    long long server_kib() {
        const std::string out = m_server.run_imap("ann", "q GETQUOTA \"\"\n");
        std::smatch match;
        if (!std::regex_search(out, match,
                               std::regex("\\* QUOTA \"\" \\(STORAGE (\\d+) \\d+\\)"))) {
            ADD_FAILURE() << out;
            return -1;
        }
        return std::stoll(match[1]);
    }

    std::vector<std::string> visited() {
        std::vector<std::string> names;
        vtl_visit_folders(
            m_server.maildir("ann"), 0,
            [](const char* folder, void* context) {
                static_cast<std::vector<std::string>*>(context)->push_back(folder);
                return 1;
            },
            &names);
        return names;
    }

    // The folder names of LIST "" "*", in the server's order.
    std::vector<std::string> listed() {
        const std::string out = m_server.run_imap("ann", "l LIST \"\" \"*\"\n");
        std::vector<std::string> names;
        const std::regex line("\\* LIST \\([^)]*\\) \"/\" (\"([^\"]*)\"|(\\S+))\r\n");
        for (std::sregex_iterator it(out.begin(), out.end(), line), end; it != end; ++it) {
            names.push_back((*it)[2].matched ? (*it)[2].str() : (*it)[3].str());
        }
        return names;
    }

    std::string message_in(const std::string& folder) {
        const std::string dir = m_server.folder_path("ann", folder) + "/cur";
        DIR* stream = opendir(dir.c_str());
        std::string found;
        while (stream != nullptr && found.empty()) {
            const dirent* entry = readdir(stream);
            if (entry == nullptr) {
                break;
            }
            if (entry->d_name[0] != '.') {
                found = dir + "/" + entry->d_name;
            }
        }
        if (stream != nullptr) {
            closedir(stream);
        }
        return found;
    }

    zetest::DovecotServer m_server;
};

TEST_F(StoreUtilDovecotTest, QuotaFileAgreesWithTheServer) {
    m_server.add_folder("ann", "Work");
    m_server.add_folder("ann", "Work/2019");
    const struct {
        const char* folder;
        std::size_t size;
        const char* flags;
    } deliveries[] = {
        {"INBOX", 1000, ""}, {"INBOX", 2500, "S"},     {"Work", 70000, "FS"},
        {"Work", 1, ""},     {"Work/2019", 4097, "S"},
    };
    long long expected = 0;
    for (const auto& d : deliveries) {
        m_server.deliver("ann", d.folder, std::string(d.size, 'x'), d.flags);
        expected += static_cast<long long>(d.size);
    }
    const long long kib = server_kib();  // the server writes its quota file now

    long long bytes = -1;
    long long count = -1;
    ASSERT_EQ(0, vtl_get_maildirsize(1, m_server.maildir("ann"), &bytes, &count))
        << zetest::read_file(m_server.maildir("ann") + "/maildirsize");
    EXPECT_EQ(expected, bytes);
    EXPECT_EQ(5, count);
    EXPECT_EQ(kib, (bytes + 1023) / 1024);

    // Our own count of the folders gives the same figures.
    long long scanned = 0;
    long long messages = 0;
    for (const std::string& folder : visited()) {
        long long in_folder = 0;
        scanned += vtl_get_mailbox_size(
            folder == "INBOX" ? m_server.maildir("ann") : m_server.folder_path("ann", folder),
            &in_folder);
        messages += in_folder;
    }
    EXPECT_EQ(expected, scanned);
    EXPECT_EQ(5, messages);
}

TEST_F(StoreUtilDovecotTest, RemovalsOnEitherSideAreCounted) {
    m_server.add_folder("ann", "Work");
    m_server.deliver("ann", "Work", std::string(3000, 'a'), "S");
    m_server.deliver("ann", "Work", std::string(5000, 'b'), "S");
    m_server.deliver("ann", "INBOX", std::string(9000, 'c'), "S");
    EXPECT_EQ(17, server_kib());

    // The server expunges: it appends a line, which we add up.
    m_server.run_imap("ann", "s SELECT INBOX\nt STORE 1 +FLAGS (\\Deleted)\ne EXPUNGE\n");
    long long bytes = -1;
    ASSERT_EQ(0, vtl_get_maildirsize(1, m_server.maildir("ann"), &bytes, nullptr));
    EXPECT_EQ(8000, bytes);

    // We remove a message: the server reads our line, also after it noticed
    // the file is gone (no second subtraction).
    const std::string victim = message_in("Work");
    ASSERT_FALSE(victim.empty());
    const long long size = vtl_get_mailbox_size(m_server.folder_path("ann", "Work"), nullptr);
    ASSERT_EQ(0, vtl_maildir_unlink_mail(victim, 0));
    const long long left =
        size - vtl_get_mailbox_size(m_server.folder_path("ann", "Work"), nullptr);
    EXPECT_TRUE(left == 3000 || left == 5000) << left;
    ASSERT_EQ(0, vtl_get_maildirsize(1, m_server.maildir("ann"), &bytes, nullptr));
    EXPECT_EQ(8000 - left, bytes);
    EXPECT_EQ((bytes + 1023) / 1024, server_kib());
    m_server.run_imap("ann", "s SELECT Work\n");
    EXPECT_EQ((bytes + 1023) / 1024, server_kib());
}

TEST_F(StoreUtilDovecotTest, FoldersMatchTheServerList) {
    m_server.add_user("ann");
    m_server.run_imap("ann",
                      "1 CREATE Work\n2 CREATE Work/2019\n3 CREATE \"My Folder\"\n"
                      "4 CREATE Sent\n5 CREATE Trash\n");
    // A folder we make ourselves is one the server can use.
    ASSERT_EQ(0, vtl_mkdir_maildir(m_server.maildir("ann") + "/.Made", 0));
    m_server.fix_ownership();
    const std::string out = m_server.run_imap("ann", "a APPEND Made {5}\nhello\ns SELECT Made\n");
    EXPECT_NE(std::string::npos, out.find("a OK")) << out;
    EXPECT_NE(std::string::npos, out.find("* 1 EXISTS")) << out;

    std::vector<std::string> server = listed();
    std::sort(server.begin(), server.end());
    std::vector<std::string> ours = visited();
    ASSERT_FALSE(ours.empty());
    EXPECT_EQ("INBOX", ours.front());
    std::sort(ours.begin(), ours.end());
    EXPECT_EQ(server, ours);
    EXPECT_EQ(7u, ours.size());
}

}  // namespace
