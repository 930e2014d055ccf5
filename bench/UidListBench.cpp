// Reading a ".dovecot-uidlist" of 1,000,000 records into a ZeUIDListImpl,
// against the floor of reading the same file's bytes (read() in large chunks
// plus a memchr walk over the lines), and the lookups on a loaded list.
//
// The file looks like what the server writes for a large folder:
//   3 V1700000000 N1000001 G...
//   1 :1700000000.M1P4242.mail.example.org,S=2345,W=2401
//   2 W2401 :1700000001.M2P4242.mail.example.org,S=2346
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "stores/ZeUIDList.h"

namespace {

const unsigned kRecords = 1000000;

std::string recordName(unsigned uid) {
    return std::to_string(1700000000u + uid) + ".M" + std::to_string(uid) +
           "P4242.mail.example.org";
}

// One file for the whole program, removed at exit.
class UidListFile {
public:
    UidListFile() {
        char dir[] = "/tmp/zemail-uidlist-bench.XXXXXX";
        if (::mkdtemp(dir) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        m_dir = dir;
        m_path = m_dir + "/.dovecot-uidlist";
        std::string text = "3 V1700000000 N" + std::to_string(kRecords + 1) +
                           " G3085f01b8a2c0b6564f2000083ecc375\n";
        for (unsigned uid = 1; uid <= kRecords; ++uid) {
            std::string size = std::to_string(2000 + uid % 5000);
            if (uid % 2 == 0) {
                text += std::to_string(uid) + " W" + size + " :" + recordName(uid) + ",S=" + size +
                        "\n";
            } else {
                text += std::to_string(uid) + " :" + recordName(uid) + ",S=" + size + ",W=" + size +
                        "\n";
            }
        }
        std::FILE* out = std::fopen(m_path.c_str(), "w");
        if (out == nullptr || std::fwrite(text.data(), 1, text.size(), out) != text.size()) {
            std::perror("write");
            std::exit(1);
        }
        std::fclose(out);
        m_bytes = text.size();
    }
    ~UidListFile() {
        ::unlink(m_path.c_str());
        ::rmdir(m_dir.c_str());
    }
    const std::string& path() const { return m_path; }
    std::size_t bytes() const { return m_bytes; }

private:
    std::string m_dir;
    std::string m_path;
    std::size_t m_bytes = 0;
};

const UidListFile& file() {
    static UidListFile made;
    return made;
}

// The floor: every byte of the file read and every line found.
void BM_ReadFileBytes(benchmark::State& state) {
    std::vector<char> buffer(256 * 1024);
    for (auto _ : state) {
        int fd = ::open(file().path().c_str(), O_RDONLY);
        std::size_t lines = 0;
        ssize_t got;
        while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) {
            const char* p = buffer.data();
            const char* end = p + got;
            while ((p = static_cast<const char*>(std::memchr(p, '\n', end - p))) != nullptr) {
                ++lines;
                ++p;
            }
        }
        ::close(fd);
        benchmark::DoNotOptimize(lines);
    }
    state.SetBytesProcessed(state.iterations() * file().bytes());
    state.counters["lines"] = kRecords + 1;
}
BENCHMARK(BM_ReadFileBytes)->Unit(benchmark::kMillisecond);

// The grammar alone: the same lines cut and parsed as the list does, without
// filling any map. Shows how much of a load is parsing and how much the maps.
void BM_ParseOnly(benchmark::State& state) {
    std::vector<char> buffer(256 * 1024);
    for (auto _ : state) {
        int fd = ::open(file().path().c_str(), O_RDONLY);
        std::string carry;
        std::size_t records = 0;
        bool header = true;
        ssize_t got;
        while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) {
            carry.append(buffer.data(), static_cast<std::size_t>(got));
            std::size_t start = 0;
            const char* feed;
            while ((feed = static_cast<const char*>(std::memchr(
                        carry.data() + start, '\n', carry.size() - start))) != nullptr) {
                std::size_t length = static_cast<std::size_t>(feed - carry.data()) - start;
                std::uint64_t uid;
                const char* name;
                std::size_t nameLength;
                if (!header && ZeUIDListImpl::parseRecord(carry.data() + start, length, &uid, &name,
                                                          &nameLength)) {
                    ++records;
                }
                header = false;
                start += length + 1;
            }
            carry.erase(0, start);
        }
        ::close(fd);
        if (records != kRecords) {
            state.SkipWithError("wrong record count");
        }
    }
    state.SetBytesProcessed(state.iterations() * file().bytes());
}
BENCHMARK(BM_ParseOnly)->Unit(benchmark::kMillisecond);

// A fresh list answering its first lookup: the whole file parsed into both
// maps. Freeing the list is left out of the time.
void BM_LoadUidList(benchmark::State& state) {
    const std::string probe = recordName(kRecords / 2) + ",S=1:2,S";
    for (auto _ : state) {
        auto list = std::make_unique<ZeUIDListImpl>(file().path());
        unsigned long uid = list->uid(probe);
        if (uid != kRecords / 2) {
            state.SkipWithError("wrong UID");
        }
        state.PauseTiming();
        list.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * file().bytes());
}
BENCHMARK(BM_LoadUidList)->Unit(benchmark::kMillisecond);

// Lookups on a loaded list: each one checks the file's time, then searches.
void BM_LookupUid(benchmark::State& state) {
    ZeUIDListImpl list(file().path());
    list.uid("");
    unsigned uid = 1;
    for (auto _ : state) {
        uid = uid * 1103515245u % kRecords + 1;
        benchmark::DoNotOptimize(list.uid(recordName(uid)));
    }
}
BENCHMARK(BM_LookupUid);

void BM_LookupBasename(benchmark::State& state) {
    ZeUIDListImpl list(file().path());
    list.uid("");
    unsigned uid = 1;
    for (auto _ : state) {
        uid = uid * 1103515245u % kRecords + 1;
        benchmark::DoNotOptimize(list.basename(uid));
    }
}
BENCHMARK(BM_LookupBasename);

}  // namespace
