// The zemail program end to end: every command against the real Dovecot and
// directly on the same store, JSON output parsed back, and the error paths.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

namespace fs = std::filesystem;
using boost::property_tree::ptree;

struct Result {
    int code = -1;
    std::string out;
    std::string err;
};

std::string quote(const std::string& word) {
    std::string q = "'";
    for (char c : word) {
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return q + "'";
}

const char kMultipart[] =
    "From: Ann <ann@example.org>\n"
    "To: bob@example.org\n"
    "Subject: =?utf-8?q?Caf=C3=A9_report?=\n"
    "Date: Mon, 2 Mar 2026 10:00:00 +0000\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=\"XX\"\n"
    "\n"
    "--XX\n"
    "Content-Type: text/plain; charset=iso-8859-1\n"
    "Content-Transfer-Encoding: quoted-printable\n"
    "\n"
    "Gr=FC=DFe, the report is attached.\n"
    "--XX\n"
    "Content-Type: application/pdf; name=\"report.pdf\"\n"
    "Content-Disposition: attachment; filename=\"report.pdf\"\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "JVBERi0xLjQK\n"
    "--XX--\n";

class Zemail : public ::testing::Test {
protected:
    void SetUp() override {
        m_server.add_folder(kAnn, "Work");
        m_server.add_folder(kAnn, "Work/Projects");
        m_server.deliver(kAnn, "INBOX", "From: Bob <bob@example.org>\nSubject: first\n\nhello\n",
                         "S", true);
        m_server.deliver(kAnn, "INBOX", "From: Carl <carl@example.org>\nSubject: second\n\nhi\n");
        m_server.deliver(kAnn, "INBOX", kMultipart, "F", true);
        m_server.deliver(kAnn, "Work", "From: Dee <dee@example.org>\nSubject: plan\n\nplan\n");
    }

    Result zemail(const std::vector<std::string>& args) const {
        std::string command = std::string(ZEMAIL_PROGRAM) + " --imap-program " +
                              quote(m_server.wrapper()) + " --mail-root " + quote(m_server.root());
        for (const auto& arg : args) {
            command += " " + quote(arg);
        }
        const std::string err_file = m_dir.path() + "/stderr";
        command += " 2>" + quote(err_file);
        Result r;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (pipe == nullptr) {
            return r;
        }
        char chunk[4096];
        std::size_t got;
        while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) {
            r.out.append(chunk, got);
        }
        const int status = ::pclose(pipe);
        r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.err = zetest::read_file(err_file);
        return r;
    }

    ptree json(const std::vector<std::string>& args) const {
        const Result r = zemail(args);
        EXPECT_EQ(0, r.code) << r.err;
        ptree doc;
        std::istringstream in(r.out);
        try {
            boost::property_tree::read_json(in, doc);
        } catch (const std::exception& e) {
            ADD_FAILURE() << "not JSON: " << e.what() << "\n" << r.out;
        }
        return doc;
    }

    static std::vector<std::string> with(std::vector<std::string> args, bool direct) {
        args.insert(args.begin(), {"--user", kAnn, "--json"});
        if (direct) {
            args.insert(args.begin(), "--direct");
        }
        return args;
    }

    static constexpr const char* kAnn = "ann@example.org";
    zetest::DovecotServer m_server;
    zetest::TempDir m_dir;
};

TEST_F(Zemail, FoldersAndMessagesReadTheSameThroughTheServerAndOnDisk) {
    for (const bool direct : {false, true}) {
        SCOPED_TRACE(direct ? "direct" : "imap");
        const ptree folders = json(with({"folders"}, direct));
        std::vector<std::string> names;
        for (const auto& f : folders.get_child("folders")) {
            names.push_back(f.second.get<std::string>("name"));
        }
        ASSERT_EQ(3u, names.size());
        EXPECT_EQ("Work", names[1]);
        EXPECT_EQ("Work/Projects", names[2]);
        EXPECT_EQ(3, folders.get_child("folders").front().second.get<int>("messages"));

        const ptree list = json(with({"list", "INBOX"}, direct));
        EXPECT_EQ(3, list.get<int>("total"));
        std::vector<std::string> subjects;
        for (const auto& m : list.get_child("messages")) {
            subjects.push_back(m.second.get<std::string>("subject"));
        }
        EXPECT_EQ((std::vector<std::string>{"Caf\xc3\xa9 report", "second", "first"}), subjects);
        // Over IMAP the first session also reports \\Recent.
        EXPECT_NE(
            std::string::npos,
            list.get_child("messages").front().second.get<std::string>("flags").find("Flagged"));

        const ptree page = json(with({"list", "INBOX", "--per-page", "2", "--page", "2"}, direct));
        ASSERT_EQ(1u, page.get_child("messages").size());
        EXPECT_EQ("first", page.get_child("messages").front().second.get<std::string>("subject"));
        const ptree found = json(with({"list", "INBOX", "--search", "SECOND"}, direct));
        ASSERT_EQ(1u, found.get_child("messages").size());
    }
}

TEST_F(Zemail, ShowDecodesTheBodyAndDescribesTheStructure) {
    for (const bool direct : {false, true}) {
        SCOPED_TRACE(direct ? "direct" : "imap");
        const ptree shown = json(with({"show", "INBOX", "3"}, direct));
        EXPECT_EQ("Caf\xc3\xa9 report", shown.get<std::string>("headers.Subject"));
        EXPECT_EQ("1", shown.get<std::string>("body_section"));
        EXPECT_EQ(
            "Gr\xc3\xbc\xc3\x9f"
            "e, the report is attached.",
            shown.get<std::string>("body"));
        const ptree& parts = shown.get_child("structure.parts");
        ASSERT_EQ(2u, parts.size());
        EXPECT_EQ("application/pdf", parts.back().second.get<std::string>("type"));
        EXPECT_EQ("report.pdf", parts.back().second.get<std::string>("filename"));
    }
    const Result text = zemail({"--user", kAnn, "show", "INBOX", "3"});
    EXPECT_EQ(0, text.code) << text.err;
    EXPECT_NE(std::string::npos, text.out.find("Subject: Caf\xc3\xa9 report"));
    EXPECT_NE(std::string::npos, text.out.find("application/pdf"));
}

TEST_F(Zemail, ChangesThroughTheServerAreSeenOnDisk) {
    EXPECT_EQ(
        "Flagged Seen",
        json(with({"flag", "INBOX", "2", "+Seen", "+Flagged"}, false)).get<std::string>("flags"));
    std::string direct_flags = "(UID 2 not listed)";
    const ptree listed = json(with({"list", "INBOX"}, true));
    for (const auto& m : listed.get_child("messages")) {
        if (m.second.get<unsigned long>("uid") == 2) {
            direct_flags = m.second.get<std::string>("flags");
        }
    }
    EXPECT_EQ("Flagged Seen", direct_flags);
    bool on_disk = false;
    for (const auto& entry : fs::directory_iterator(m_server.maildir(kAnn) + "/cur")) {
        const std::string name = entry.path().filename().string();
        on_disk = on_disk || (name.size() > 5 && name.compare(name.size() - 5, 5, ":2,FS") == 0);
    }
    EXPECT_TRUE(on_disk);

    // And the other way: a flag set on disk is what the server reports.
    EXPECT_EQ("Draft Seen",
              json(with({"flag", "INBOX", "1", "+Draft"}, true)).get<std::string>("flags"));
    const ptree served = json(with({"list", "INBOX"}, false));
    std::string served_flags = "(UID 1 not listed)";
    for (const auto& m : served.get_child("messages")) {
        if (m.second.get<unsigned long>("uid") == 1) {
            served_flags = m.second.get<std::string>("flags");
        }
    }
    EXPECT_NE(std::string::npos, served_flags.find("Draft Seen")) << served_flags;

    // Removing on disk: marked, then gone with the expunge.
    json(with({"delete", "INBOX", "1"}, true));
    EXPECT_NE(std::string::npos,
              json(with({"show", "INBOX", "1"}, true)).get<std::string>("flags").find("Deleted"));
    json(with({"flag", "INBOX", "1", "-Deleted"}, true));

    json(with({"move", "INBOX", "1", "Work"}, false));
    EXPECT_EQ(2, json(with({"list", "Work"}, true)).get<int>("total"));
    json(with({"delete", "INBOX", "2"}, false));
    json(with({"expunge", "INBOX"}, false));
    EXPECT_EQ(1, json(with({"list", "INBOX"}, false)).get<int>("total"));

    const std::string file =
        m_dir.write("new.eml", "From: Eve <eve@example.org>\nSubject: added\n\nx\n");
    json(with({"append", "Work/Projects", file, "--flags", "Seen"}, false));
    const ptree projects = json(with({"list", "Work/Projects"}, false));
    ASSERT_EQ(1u, projects.get_child("messages").size());
    EXPECT_EQ("Seen", projects.get_child("messages").front().second.get<std::string>("flags"));

    const ptree quota = json(with({"quota"}, false));
    EXPECT_EQ(102400, quota.get<long>("limit_kib"));
    const long used = quota.get<long>("used_kib");
    EXPECT_GT(used, 0);
    EXPECT_LT(used, 100);  // five small messages
    const ptree direct_quota = json(with({"quota"}, true));
    EXPECT_EQ(used, direct_quota.get<long>("used_kib"));
    EXPECT_GT(direct_quota.get<long>("messages"), 0);
}

TEST_F(Zemail, FailuresExitNonZeroWithOneLineNamingTheProblem) {
    const auto one_line = [](const Result& r, const std::string& part) {
        EXPECT_NE(0, r.code);
        EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(part)) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
    };
    one_line(zemail({"--user", "nobody@example.org", "folders"}),
             "unknown user 'nobody@example.org'");
    one_line(zemail({"--user", kAnn, "list", "Nope"}), "cannot open folder 'Nope'");
    one_line(zemail({"--user", kAnn, "--direct", "list", "../Work"}),
             "cannot open folder '../Work'");
    one_line(zemail({"--user", kAnn, "show", "INBOX", "99"}), "no message with UID 99");
    one_line(zemail({"--user", kAnn, "--imap-program", "/nonexistent/imap", "folders"}),
             "IMAP server cannot be started");
    one_line(zemail({"--user", kAnn, "flag", "INBOX", "1", "+Bogus"}), "unknown flag 'Bogus'");
    one_line(zemail({"--user", kAnn, "frobnicate"}), "unknown command 'frobnicate'");
    one_line(zemail({"--user", kAnn, "--direct", "move", "INBOX", "1", "Work"}),
             "moving needs the IMAP server");
    const Result help = zemail({"list", "--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_NE(std::string::npos, help.out.find("usage: zemail [options] list FOLDER"));
    EXPECT_TRUE(zetest::zombie_children().empty());
}

}  // namespace
