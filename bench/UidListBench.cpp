// Reading a ".dovecot-uidlist" of 1,000,000 records into a ZeUIDListImpl,
// against the floor of reading the same file's bytes (read() in large chunks
// plus a memchr walk over the lines), a second floor that reads the file into
// one freshly allocated buffer (the page faults of new memory included), and
// the lookups on a loaded list. "faults" counts the minor page faults of one
// iteration (new memory touched for the first time), "B/record" the heap
// bytes a loaded list holds per record.
//
// The file looks like what the server writes for a large folder:
//   3 V1700000000 N1000001 G...
//   1 :1700000000.M1P4242.mail.example.org,S=2345,W=2401
//   2 W2401 :1700000001.M2P4242.mail.example.org,S=2346
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

// Made on first use, which each benchmark does before its timed loop.
const UidListFile& file() {
    static UidListFile made;
    return made;
}

long minorFaults() {
    struct rusage usage;
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// Heap bytes in use, the large blocks that malloc maps on their own included.
std::size_t heapInUse() {
    struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

void setFaults(benchmark::State& state, long before) {
    state.counters["faults"] = benchmark::Counter(static_cast<double>(minorFaults() - before),
                                                  benchmark::Counter::kAvgIterations);
}

// The floor: every byte of the file read and every line found.
void BM_ReadFileBytes(benchmark::State& state) {
    file();
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

// The second floor: the whole file read into one new buffer of its size,
// then the same walk over its lines. Freeing the buffer is not timed.
void BM_ReadFileFresh(benchmark::State& state) {
    file();
    long faults = minorFaults();
    for (auto _ : state) {
        int fd = ::open(file().path().c_str(), O_RDONLY);
        struct stat st;
        ::fstat(fd, &st);
        std::size_t size = static_cast<std::size_t>(st.st_size);
        std::unique_ptr<char[]> buffer(new char[size]);
        std::size_t have = 0;
        ssize_t got;
        while (have < size && (got = ::read(fd, buffer.get() + have, size - have)) > 0) {
            have += static_cast<std::size_t>(got);
        }
        ::close(fd);
        std::size_t lines = 0;
        const char* p = buffer.get();
        const char* end = p + have;
        while ((p = static_cast<const char*>(std::memchr(p, '\n', end - p))) != nullptr) {
            ++lines;
            ++p;
        }
        benchmark::DoNotOptimize(lines);
        state.PauseTiming();
        buffer.reset();
        state.ResumeTiming();
    }
    setFaults(state, faults);
    state.SetBytesProcessed(state.iterations() * file().bytes());
}
BENCHMARK(BM_ReadFileFresh)->Unit(benchmark::kMillisecond);

// The grammar alone: the same lines cut and parsed as the list does, without
// filling any map. Shows how much of a load is parsing and how much the maps.
void BM_ParseOnly(benchmark::State& state) {
    file();
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
// maps. Freeing the list is left out of the time. With `trim`, the heap's
// free memory is also given back to the system after each list (untimed),
// so that each load starts as the first one of a process does: every page
// it writes is new. Without it, memory a freed list leaves in malloc's heap
// is used again by the next one, without page faults.
void loadUidList(benchmark::State& state, bool trim) {
    file();
    const std::string probe = recordName(kRecords / 2) + ",S=1:2,S";
    long faults = minorFaults();
    std::size_t held = 0;
    for (auto _ : state) {
        std::size_t before = heapInUse();
        auto list = std::make_unique<ZeUIDListImpl>(file().path());
        unsigned long uid = list->uid(probe);
        if (uid != kRecords / 2) {
            state.SkipWithError("wrong UID");
        }
        state.PauseTiming();
        held = heapInUse() - before;
        list.reset();
        if (trim) {
            ::malloc_trim(0);
        }
        state.ResumeTiming();
    }
    setFaults(state, faults);
    state.counters["B/record"] = static_cast<double>(held) / kRecords;
    state.SetBytesProcessed(state.iterations() * file().bytes());
}
void BM_LoadUidList(benchmark::State& state) {
    loadUidList(state, false);
}
BENCHMARK(BM_LoadUidList)->Unit(benchmark::kMillisecond);
void BM_LoadUidListTrimmed(benchmark::State& state) {
    loadUidList(state, true);
}
BENCHMARK(BM_LoadUidListTrimmed)->Unit(benchmark::kMillisecond);

// A loaded list whose file got a new modification time, same contents:
// every record read again and merged into maps that already hold it.
void BM_RereadUidList(benchmark::State& state) {
    file();
    ZeUIDListImpl list(file().path());
    list.uid("");
    std::size_t before = heapInUse();
    time_t when = 1000000;
    long faults = minorFaults();
    for (auto _ : state) {
        state.PauseTiming();
        struct timespec times[2] = {{++when, 0}, {when, 0}};
        ::utimensat(AT_FDCWD, file().path().c_str(), times, 0);
        state.ResumeTiming();
        if (list.basename(kRecords) != recordName(kRecords)) {
            state.SkipWithError("wrong name");
        }
    }
    setFaults(state, faults);
    // What the list holds more after all the re-reads than before them.
    state.counters["grown B"] = static_cast<double>(heapInUse()) - static_cast<double>(before);
    state.SetBytesProcessed(state.iterations() * file().bytes());
}
BENCHMARK(BM_RereadUidList)->Unit(benchmark::kMillisecond);

// Lookups on a loaded list: each one checks the file's time, then searches.
void BM_LookupUid(benchmark::State& state) {
    file();
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
    file();
    ZeUIDListImpl list(file().path());
    list.uid("");
    unsigned uid = 1;
    for (auto _ : state) {
        uid = uid * 1103515245u % kRecords + 1;
        benchmark::DoNotOptimize(list.basename(uid));
    }
}
BENCHMARK(BM_LookupBasename);

// Not how the library runs: malloc is told to keep all freed memory in its
// heap (the setting stays for the rest of the program, so this comes last),
// and the lists' blocks come back already mapped. What is left is the load's
// own work, without the kernel's cost of handing out new pages.
void BM_LoadUidListPremapped(benchmark::State& state) {
    ::mallopt(M_MMAP_THRESHOLD, 1 << 30);
    ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
    {
        ZeUIDListImpl warmUp(file().path());
        warmUp.uid("");
    }
    loadUidList(state, false);
}
BENCHMARK(BM_LoadUidListPremapped)->Unit(benchmark::kMillisecond);

}  // namespace
