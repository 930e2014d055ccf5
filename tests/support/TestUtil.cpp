#include "support/TestUtil.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace zetest {

TempDir::TempDir(const std::string& prefix) {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/" + prefix + ".XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp(" + pattern + ") failed");
    }
    m_path = name.data();
}

TempDir::~TempDir() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

std::string TempDir::write(const std::string& relative, const std::string& content,
                           bool executable) const {
    fs::path file = fs::path(m_path) / relative;
    fs::create_directories(file.parent_path());
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << content;
        if (!out) {
            throw std::runtime_error("cannot write " + file.string());
        }
    }
    if (executable) {
        chmod(file.c_str(), 0755);
    }
    return file.string();
}

std::vector<std::string> open_descriptors() {
    std::vector<std::string> out;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return out;
    }
    int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == ".." || std::atoi(name.c_str()) == own) {
            continue;
        }
        char target[512] = {};
        ssize_t n = readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target - 1);
        out.push_back(name + " -> " + (n > 0 ? std::string(target, n) : std::string("?")));
    }
    closedir(dir);
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<int> zombie_children() {
    std::vector<int> out;
    std::string me = std::to_string(getpid());
    for (const auto& entry : fs::directory_iterator("/proc")) {
        std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line)) {
            continue;
        }
        // pid (comm) state ppid ...: comm may hold blanks, so read after ')'.
        auto close = line.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        std::istringstream rest(line.substr(close + 1));
        std::string state, ppid;
        rest >> state >> ppid;
        if (ppid == me && state == "Z") {
            out.push_back(std::atoi(name.c_str()));
        }
    }
    return out;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

std::string describe_tree(ZeImapMimeRef tree) {
    std::string out;
    std::vector<std::pair<ZeImapMime*, int>> pending;
    if (tree) {
        pending.emplace_back(tree.get(), 0);
    }
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        const ZeContentType& t = node->content_type();
        out += std::string(static_cast<std::size_t>(depth), ' ') + "[" + node->section() + "] " +
               std::to_string(t.media) + "/" + std::to_string(t.subtype) + " " + t.type_name + "/" +
               t.subtype_name + " enc=" + std::to_string(t.encoding) + " name=" + t.name +
               " charset=" + t.charset + " boundary=" + t.boundary + " id=" + t.content_id +
               " desc=" + t.description + " method=" + t.method + " extra=" + t.extra +
               " size=" + std::to_string(node->size()) + " lines=" + std::to_string(node->lines()) +
               " disp=" + std::to_string(node->disposition().type) + ":" +
               node->disposition().filename +
               " children=" + std::to_string(node->children().size()) + "\n";
        for (auto it = node->children().rbegin(); it != node->children().rend(); ++it) {
            pending.emplace_back(it->get(), depth + 1);
        }
    }
    return out;
}

std::string nested_multipart(int depth) {
    std::string text = "Subject: deep\n";
    for (int i = 0; i < depth; ++i) {
        text += "Content-Type: multipart/mixed; boundary=\"=_" + std::to_string(i) +
                "_=\"\n\n--=_" + std::to_string(i) + "_=\n";
    }
    text += "Content-Type: text/plain\n\nleaf\n";
    for (int i = depth - 1; i >= 0; --i) {
        text += "--=_" + std::to_string(i) + "_=--\n";
    }
    return text;
}

}  // namespace zetest
