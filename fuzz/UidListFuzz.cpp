// ZeUIDListImpl on arbitrary ".dovecot-uidlist" contents. The input is cut in
// two versions of the file (the first byte says where); the list reads the
// first, then the second after its modification time changed. Every answer is
// compared with a plain reference reading of the same bytes, including the
// rule that mappings from the first version stay and the first one seen wins.
// A last byte below 64 also lowers the list's byte cap to a few bytes, so
// that reading stops part way through the file.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "stores/ZeUIDList.h"

namespace {

const unsigned long kUnknown = static_cast<unsigned long>(-1);

// A file name's base the obvious way: up to the first ",", ":2," or ":3,",
// whichever comes first.
std::string baseOf(const std::string& name) {
    std::size_t end = name.find(',');
    for (const char* marker : {":2,", ":3,"}) {
        end = std::min(end, name.find(marker));
    }
    return name.substr(0, end);
}

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "check failed: %s\n", what);
        std::abort();
    }
}

struct Reference {
    std::map<std::uint64_t, std::string> byUid;
    std::map<std::string, std::uint64_t> byName;

    void clear() {
        byUid.clear();
        byName.clear();
    }

    // The file read the slow and obvious way, its first cap bytes only: a
    // line they cut is dropped.
    void read(std::string text, std::size_t cap) {
        if (text.size() >= cap) {
            text.resize(cap);
            text.erase(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
        }
        std::vector<std::string> lines;
        std::size_t pos = 0;
        while (pos < text.size()) {
            std::size_t feed = text.find('\n', pos);
            std::size_t withFeed = feed == std::string::npos ? text.size() - pos : feed - pos + 1;
            if (withFeed > 1023) {
                break;
            }
            lines.push_back(
                text.substr(pos, feed == std::string::npos ? std::string::npos : feed - pos));
            pos = feed == std::string::npos ? text.size() : feed + 1;
        }
        for (std::size_t i = 1; i < lines.size(); ++i) {
            const std::string& line = lines[i];
            std::size_t digits = 0;
            while (digits < line.size() && line[digits] >= '0' && line[digits] <= '9') {
                ++digits;
            }
            bool ok =
                digits > 0 && digits < line.size() && (line[digits] == ' ' || line[digits] == '\t');
            std::uint64_t uid = 0;
            if (ok) {
                std::string number = line.substr(0, digits);
                std::size_t firstNonZero = number.find_first_not_of('0');
                std::string significant =
                    firstNonZero == std::string::npos ? "" : number.substr(firstNonZero);
                ok = !significant.empty() &&
                     (significant.size() < 20 ||
                      (significant.size() == 20 && significant <= "18446744073709551615"));
                if (ok) {
                    uid = std::strtoull(significant.c_str(), nullptr, 10);
                }
            }
            std::size_t colon = ok ? line.find(':', digits + 1) : std::string::npos;
            if (colon == std::string::npos) {
                clear();
                return;
            }
            std::string name = baseOf(line.substr(colon + 1));
            if (!name.empty()) {
                byUid.emplace(uid, name);
                byName.emplace(name, uid);
            }
        }
    }
};

void compare(ZeUIDListImpl& list, const Reference& ref, const std::string& probes) {
    for (const auto& entry : ref.byUid) {
        check(list.basename(entry.first) == entry.second, "basename");
    }
    auto uidOf = [&ref](const std::string& name) {
        auto found = ref.byName.find(baseOf(name));
        return found == ref.byName.end() ? kUnknown : found->second;
    };
    for (const auto& entry : ref.byName) {
        check(list.uid(entry.first) == entry.second, "uid");
        for (const char* tail : {",S=1:2,S", ":2,S", ":3,"}) {
            check(list.uid(entry.first + tail) == uidOf(entry.first + tail),
                  "uid of a full file name");
        }
    }
    // Names and UIDs that may or may not be there, taken from the input.
    for (std::size_t at = 0; at + 4 <= probes.size() && at < 64; at += 4) {
        std::string piece = probes.substr(at, 4);
        auto byName = ref.byName.find(baseOf(piece));
        check(list.uid(piece) == (byName == ref.byName.end() ? kUnknown : byName->second),
              "uid probe");
        unsigned long expected = kUnknown;
        for (const auto& entry : ref.byName) {
            if (entry.first.find(piece) != std::string::npos) {
                expected = entry.second;
                break;
            }
        }
        check(list.match(piece) == expected, "match probe");
        std::uint64_t number = static_cast<unsigned char>(piece[0]) % 16;
        auto byUid = ref.byUid.find(number);
        check(list.basename(number) == (byUid == ref.byUid.end() ? "" : byUid->second),
              "basename probe");
    }
}

class MemoryFile {
public:
    MemoryFile() : m_fd(memfd_create("uidlist", 0)) {
        check(m_fd >= 0, "memfd_create");
        m_path = "/proc/self/fd/" + std::to_string(m_fd);
    }
    const std::string& path() const { return m_path; }
    void write(const std::string& text, time_t when) {
        check(ftruncate(m_fd, 0) == 0, "ftruncate");
        check(pwrite(m_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
              "pwrite");
        struct timespec times[2] = {{when, 0}, {when, 0}};
        check(futimens(m_fd, times) == 0, "futimens");
    }

private:
    int m_fd;
    std::string m_path;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    if (size == 0 || size > 64 * 1024) {
        return 0;
    }
    std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::size_t cut = input.size() * data[0] / 255;
    std::string first = input.substr(0, cut);
    std::string second = input.substr(cut);

    const std::size_t cap =
        data[size - 1] < 64 ? 1u + data[size - 1] * 13u : ZeUIDListImpl::kMaxFileBytes;

    ZeUIDListImpl list(file.path(), cap);
    Reference ref;
    file.write(first, 1000);
    ref.read(first, cap);
    compare(list, ref, second);

    // The second version adds to what the first left; a bad line in it
    // empties everything, the first version's mappings included.
    file.write(second, 2000);
    Reference merged = ref;
    merged.read(second, cap);
    compare(list, merged, first);
    return 0;
}
