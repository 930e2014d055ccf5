// Builds the demo's mail store: a Dovecot configuration with the X-FNAME
// plugin, a wrapper program that starts the IMAP server on it, and two users
// whose folders hold real messages from the corpus, some read, some flagged,
// some marked deleted. Prints the environment that points zemail at it.
//
//   zemail_demo_store <folder> <corpus folder> <plugin>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/DovecotServer.h"

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> corpus_messages(const fs::path& corpus) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(corpus)) {
        const std::string name = entry.path().filename().string();
        const std::string ext = entry.path().extension().string();
        if (entry.is_regular_file() && name.find("__") != std::string::npos && ext != ".mbox" &&
            ext != ".json" && ext != ".md") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// Where the i-th corpus message goes, and with which flags: most of Ann's
// mail in her inbox and list folders, a few for Bob.
struct Placement {
    std::string user;
    std::string folder;
    std::string flags;
};

Placement place(std::size_t i, const std::string& name) {
    static const char* const kFlags[] = {"", "S", "S", "FS", "", "S", "RS", "S", "", "ST"};
    Placement p{"ann@example.org", "INBOX", kFlags[i % 10]};
    if (name.rfind("flufl__", 0) == 0 || name.rfind("mailman", 0) == 0 ||
        name.rfind("hyperkitty__", 0) == 0) {
        p.folder = "Lists/Mailman";
    } else if (name.rfind("pylit__", 0) == 0) {
        p.folder = i % 3 == 0 ? "Archive/2025" : "Lists/Python";
    } else if (name.rfind("dkim__", 0) == 0 || name.rfind("pgpmail__", 0) == 0) {
        p.folder = "Work/Security";
    } else if (name.rfind("enmime-encode__", 0) == 0) {
        p.user = "bob@example.org";
        p.folder = i % 2 ? "INBOX" : "Receipts";
    }
    return p;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: zemail_demo_store <folder> <corpus folder> <X-FNAME plugin>\n";
        return 2;
    }
    try {
        zetest::DovecotServer server(argv[3], argv[1]);
        for (const char* user : {"ann@example.org", "bob@example.org"}) {
            server.add_user(user);
        }
        for (const char* folder :
             {"Work", "Work/Security", "Work/Projects", "Lists", "Lists/Mailman", "Lists/Python",
              "Archive", "Archive/2025", "Sent", "Trash", "Drafts"}) {
            server.add_folder("ann@example.org", folder);
        }
        for (const char* folder : {"Receipts", "Sent", "Trash"}) {
            server.add_folder("bob@example.org", folder);
        }
        std::size_t count = 0;
        const auto files = corpus_messages(argv[2]);
        for (std::size_t i = 0; i < files.size(); ++i) {
            const Placement p = place(i, files[i].filename().string());
            server.deliver(p.user, p.folder, read(files[i]), p.flags, !p.flags.empty());
            ++count;
        }
        server.fix_ownership();
        std::cout << "ZEMAIL_IMAP_PROGRAM=" << server.wrapper() << "\n"
                  << "ZEMAIL_MAIL_ROOT=" << server.root() << "\n"
                  << "DEMO_MESSAGES=" << count << "\n";
    } catch (const std::exception& e) {
        std::cerr << "zemail_demo_store: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
