// Walking a Maildir folder of 100,000 messages as the IMAP server leaves one,
// through ZeMaildir, against a bare C loop (maildir_walk_floor.c), Python's
// mailbox.Maildir (maildir_walk_python.py, in a child process), vmime's
// maildir store (MaildirWalkVmime.cpp, when libvmime-dev is installed) and
// libetpan's maildir driver (MaildirWalkEtpan.cpp, when libetpan-dev is).
//
// The folder: files in cur/ named
//   1700000000.M123456P4242.mail.example.org,S=<size>,W=<size with CRLF>:2,<letters>
// with the server's mix of letters (none, S, FS, RS, T, ST, DS, FRS, Sa),
// small plain-text messages of twelve header fields and a short body, and a
// ".dovecot-uidlist" ("3 V1700000000 N100001 G0123456789abcdef", then
// "<uid> :<name up to :2,>" or "<uid> W<size> :<name>", UIDs ascending in
// delivery order). It is written once into WALKBENCH_STORE (default:
// walk-store/ of this build folder) and kept there for later runs; a stamp
// file marks a complete folder. WALKBENCH_MESSAGES picks another size.
//
// What each benchmark does per iteration, one walk over the whole folder:
//   BM_Floor_Envelope        opendir/readdir cur/, base name cut at the first
//                            ",", UID from a hash table of the uidlist built
//                            before timing, letters after ":2,", leading
//                            digits as the date;
//   BM_Library_Envelope      a new ZeMaildir, reset(), next()/fetch(): uid(),
//                            env()->status(), env()->basename(), env()->date();
//   BM_Library_EnvelopeSize  the same plus env()->size();
//   BM_Floor_Headers         the floor plus open/read of each file's first
//                            8 KiB and a search for its Subject line;
//   BM_Library_Headers       the envelope walk plus headers() and the Subject;
//   BM_Floor_EnvelopeColdMap the floor with the uidlist read inside the time;
//   BM_Library_EnvelopeColdList the library walk with its UID list dropped
//                            from the process-wide cache before each walk
//                            (outside the time), so the walk reads it again;
//   BM_Python_*              see maildir_walk_python.py (Python's own
//                            perf_counter time, taken as manual time);
//   BM_Vmime_Envelope/Headers see MaildirWalkVmime.cpp;
//   BM_Etpan_EnvelopeSize    flags, size and libetpan's UID of every message,
//                            see MaildirWalkEtpan.cpp.
//
// Counters: per_msg is the CPU column per message (the manual time for
// Python); usr_ns and sys_ns split this process's CPU time per message into
// user and kernel time; py_cpu_ms is the Python process's CPU time per walk.
// On a shared machine the CPU times are the steadier comparison.
//
// Every walk is checked against the floor's answers (message count, UIDs,
// \Seen count, dates, base names, Subject count, sizes): a walk that
// disagrees stops with an error instead of a time.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/maildir_walk_floor.h"
#include "model/ZeMessageFlags.h"
#include "stores/ZeMaildir.h"
#include "stores/ZeUIDList.h"

#ifdef ZEMAIL_WALK_VMIME
long vmime_walk(const std::string& maildir, bool headers, unsigned long* seen, long* subjects);
#endif
#ifdef ZEMAIL_WALK_ETPAN
long etpan_walk(const std::string& maildir, unsigned long* seen, std::uint64_t* sizes,
                std::uint64_t* uidBytes);
#endif

namespace {

namespace fs = std::filesystem;

// Bump when the folder's layout changes: an older folder is then rebuilt.
const int kFormat = 1;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "MaildirWalkBench: %s\n", what.c_str());
    std::exit(1);
}

unsigned long messageCount() {
    const char* text = std::getenv("WALKBENCH_MESSAGES");
    const unsigned long count = text != nullptr ? std::strtoul(text, nullptr, 10) : 100000;
    if (count == 0 || count > 10000000) {
        fail("WALKBENCH_MESSAGES must be between 1 and 10000000");
    }
    return count;
}

// ------------------------------------------------------------- the folder

// The letters of message i, in the server's order (upper case sorted, then
// keyword letters): mostly seen, some unseen, flagged, answered, trashed,
// drafts, one keyword.
const char* lettersOf(unsigned long i) {
    static const char* const kMix[] = {"",   "S",  "S",  "S",  "S", "S",  "S",  "S",   "S",  "S",
                                       "FS", "FS", "RS", "RS", "T", "ST", "DS", "FRS", "Sa", ""};
    return kMix[i % (sizeof kMix / sizeof kMix[0])];
}

std::string rfcDate(time_t when) {
    struct tm parts;
    gmtime_r(&when, &parts);
    char text[64];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &parts);
    return text;
}

std::string messageText(unsigned long i, time_t when) {
    const unsigned long sender = i * 7 % 977;
    const unsigned long relay = i % 23 + 1;
    const std::string date = rfcDate(when);
    char id[17];
    std::snprintf(id, sizeof id, "%08lX", (i * 2654435761ul) & 0xfffffffful);
    std::string text;
    text += "Return-Path: <sender" + std::to_string(sender) + "@example.net>\n";
    text += "Delivered-To: ann@example.org\n";
    text += "Received: from mx" + std::to_string(relay) + ".example.net (mx" +
            std::to_string(relay) + ".example.net [192.0.2." + std::to_string(relay) + "])\n";
    text += "\tby mail.example.org with ESMTPS id " + std::string(id) + "\n";
    text += "\tfor <ann@example.org>; " + date + "\n";
    text += "Date: " + date + "\n";
    text += "From: \"Sender " + std::to_string(sender) + "\" <sender" + std::to_string(sender) +
            "@example.net>\n";
    text += "To: Ann Example <ann@example.org>\n";
    text += "Subject: Report " + std::to_string(i) + ": figures for the quarter and next steps\n";
    text += "Message-ID: <" + std::to_string(when) + "." + std::to_string(i) + "@example.net>\n";
    text += "MIME-Version: 1.0\n";
    text += "Content-Type: text/plain; charset=utf-8\n";
    text += "Content-Transfer-Encoding: 7bit\n";
    text += "X-Mailer: Example Mail 4.2\n";
    text += "\n";
    text += "Hello Ann,\n\n";
    for (unsigned long line = 0; line < 3 + i % 12; ++line) {
        text += "Line " + std::to_string(line) +
                " of the report: the numbers are in the attached sheet as agreed.\n";
    }
    text += "\nRegards,\nSender " + std::to_string(sender) + "\n";
    return text;
}

void writeFile(const std::string& path, const std::string& text) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
        ::close(fd) != 0) {
        fail("cannot write " + path + ": " + std::strerror(errno));
    }
}

// The folder, built on first use. bytes is the sum of the files' sizes.
struct Folder {
    std::string path;
    unsigned long messages = 0;
    std::uint64_t bytes = 0;
    std::string firstName;  // a file of cur/, to load the UID list
};

Folder buildFolder() {
    Folder folder;
    folder.messages = messageCount();
    const char* store = std::getenv("WALKBENCH_STORE");
    const std::string root = store != nullptr ? store : ZEMAIL_WALKBENCH_STORE;
    folder.path = root + "/Walk" + std::to_string(folder.messages);
    const std::string stampPath = folder.path + "/.walkbench-stamp";
    const std::string want =
        "format " + std::to_string(kFormat) + " messages " + std::to_string(folder.messages);

    std::ifstream stampIn(stampPath);
    std::string have;
    std::getline(stampIn, have);
    std::uint64_t bytes = 0;
    if (have == want && (stampIn >> bytes)) {
        folder.bytes = bytes;
    } else {
        std::printf("MaildirWalkBench: writing %lu messages into %s\n", folder.messages,
                    folder.path.c_str());
        std::fflush(stdout);
        fs::remove_all(folder.path);
        for (const char* sub : {"/cur", "/new", "/tmp"}) {
            fs::create_directories(folder.path + sub);
        }
        std::string uidlist =
            "3 V1700000000 N" + std::to_string(folder.messages + 1) + " G0123456789abcdef\n";
        for (unsigned long i = 0; i < folder.messages; ++i) {
            const time_t when = 1700000000 + static_cast<time_t>(i) * 25;
            const std::string text = messageText(i, when);
            unsigned long lines = 0;
            for (char c : text) {
                lines += c == '\n';
            }
            const std::string size = std::to_string(text.size());
            const std::string wsize = std::to_string(text.size() + lines);
            const std::string base = std::to_string(when) + ".M" +
                                     std::to_string((i * 7919 + 13) % 1000000) + "P" +
                                     std::to_string(1000 + i * 37 % 30000) + ".mail.example.org";
            const std::string stem = base + ",S=" + size + ",W=" + wsize;
            writeFile(folder.path + "/cur/" + stem + ":2," + lettersOf(i), text);
            uidlist +=
                std::to_string(i + 1) + (i % 3 == 2 ? " W" + wsize + " :" : " :") + stem + "\n";
            folder.bytes += text.size();
        }
        writeFile(folder.path + "/.dovecot-uidlist", uidlist);
        writeFile(stampPath, want + "\n" + std::to_string(folder.bytes) + "\n");
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(folder.path + "/cur")) {
        folder.firstName = entry.path().filename().string();
        break;
    }
    return folder;
}

// What a walk found; compared field by field with the floor's answers.
struct Totals {
    unsigned long messages = 0;
    unsigned long known = 0;  // messages with a UID
    std::uint64_t uidSum = 0;
    std::uint64_t baseBytes = 0;
    unsigned long seen = 0;
    std::uint64_t dateSum = 0;
    unsigned long subjects = 0;
    std::uint64_t sizeSum = 0;
};

Totals fromFloor(const walk_totals& t) {
    Totals out;
    out.messages = t.messages;
    out.known = t.known;
    out.uidSum = t.uid_sum;
    out.baseBytes = t.base_bytes;
    out.seen = t.seen;
    out.dateSum = t.date_sum;
    out.subjects = t.subjects;
    return out;
}

struct Data {
    Folder folder;
    walk_uidmap map{};
    Totals expected;  // the floor's headers walk
};

const Data& data() {
    static Data* made = [] {
        auto* d = new Data;
        d->folder = buildFolder();
        if (walk_uidmap_load(&d->map, (d->folder.path + "/.dovecot-uidlist").c_str()) != 0) {
            fail("cannot read the uidlist of " + d->folder.path);
        }
        // Also brings every file into the page cache.
        walk_totals t;
        if (walk_floor_headers((d->folder.path + "/cur").c_str(), &d->map, &t) != 0) {
            fail("cannot walk " + d->folder.path);
        }
        d->expected = fromFloor(t);
        d->expected.sizeSum = d->folder.bytes;
        if (t.messages != d->folder.messages || t.known != t.messages || t.subjects != t.messages) {
            fail("the floor does not see the folder it wrote; remove " + d->folder.path);
        }
        return d;
    }();
    return *made;
}

// Which fields a walk reported; the others are not compared.
enum Fields : unsigned {
    kCount = 1,
    kUids = 2,
    kBase = 4,
    kSeen = 8,
    kDate = 16,
    kSubject = 32,
    kSize = 64,
};

bool checkTotals(benchmark::State& state, const Totals& got, unsigned fields) {
    const Totals& want = data().expected;
    std::string wrong;
    if ((fields & kCount) && got.messages != want.messages) {
        wrong = "message count " + std::to_string(got.messages);
    } else if ((fields & kUids) && (got.known != want.known || got.uidSum != want.uidSum)) {
        wrong = "UIDs (" + std::to_string(got.known) + " known)";
    } else if ((fields & kBase) && got.baseBytes != want.baseBytes) {
        wrong = "base names";
    } else if ((fields & kSeen) && got.seen != want.seen) {
        wrong = "\\Seen count " + std::to_string(got.seen);
    } else if ((fields & kDate) && got.dateSum != want.dateSum) {
        wrong = "dates";
    } else if ((fields & kSubject) && got.subjects != want.subjects) {
        wrong = "Subject count " + std::to_string(got.subjects);
    } else if ((fields & kSize) && got.sizeSum != want.sizeSum) {
        wrong = "sizes";
    }
    if (!wrong.empty()) {
        state.SkipWithError(("the walk disagrees with the floor: " + wrong).c_str());
        return false;
    }
    return true;
}

// The process's user and system CPU time so far, in seconds.
struct CpuTimes {
    double user = 0;
    double system = 0;

    static CpuTimes now() {
        struct rusage usage;
        ::getrusage(RUSAGE_SELF, &usage);
        CpuTimes t;
        t.user = static_cast<double>(usage.ru_utime.tv_sec) +
                 static_cast<double>(usage.ru_utime.tv_usec) / 1e6;
        t.system = static_cast<double>(usage.ru_stime.tv_sec) +
                   static_cast<double>(usage.ru_stime.tv_usec) / 1e6;
        return t;
    }
};

// Time per message, and (for walks made in this process) how the CPU time
// since start splits into user and kernel time per message (usr_ns,
// sys_ns), which tells the file system's share from the code's.
void perMessage(benchmark::State& state, const CpuTimes* start = nullptr) {
    const auto n = static_cast<double>(data().folder.messages);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(data().folder.messages));
    state.counters["per_msg"] = benchmark::Counter(
        n, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    if (start != nullptr) {
        const CpuTimes end = CpuTimes::now();
        const double walked = n * static_cast<double>(state.iterations());
        state.counters["usr_ns"] = (end.user - start->user) * 1e9 / walked;
        state.counters["sys_ns"] = (end.system - start->system) * 1e9 / walked;
    }
}

// ------------------------------------------------------------- the floor

void BM_Floor_Envelope(benchmark::State& state) {
    const Data& d = data();
    const std::string cur = d.folder.path + "/cur";
    walk_totals t{};
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        walk_floor_envelope(cur.c_str(), &d.map, &t);
        benchmark::DoNotOptimize(t);
    }
    if (checkTotals(state, fromFloor(t), kCount | kUids | kBase | kSeen | kDate)) {
        perMessage(state, &start);
    }
}

void BM_Floor_EnvelopeColdMap(benchmark::State& state) {
    const Data& d = data();
    const std::string cur = d.folder.path + "/cur";
    const std::string list = d.folder.path + "/.dovecot-uidlist";
    walk_totals t{};
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        walk_uidmap map;
        walk_uidmap_load(&map, list.c_str());
        walk_floor_envelope(cur.c_str(), &map, &t);
        benchmark::DoNotOptimize(t);
        walk_uidmap_free(&map);
    }
    if (checkTotals(state, fromFloor(t), kCount | kUids | kBase | kSeen | kDate)) {
        perMessage(state, &start);
    }
}

void BM_Floor_Headers(benchmark::State& state) {
    const Data& d = data();
    const std::string cur = d.folder.path + "/cur";
    walk_totals t{};
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        walk_floor_headers(cur.c_str(), &d.map, &t);
        benchmark::DoNotOptimize(t);
    }
    if (checkTotals(state, fromFloor(t), kCount | kUids | kBase | kSeen | kDate | kSubject)) {
        perMessage(state, &start);
    }
}

// ----------------------------------------------------------- the library

enum Extra : unsigned { kNone = 0, kWithSize = 1, kWithHeaders = 2 };

// One walk as a caller writes it.
Totals libraryWalk(const std::string& path, unsigned extra) {
    static const unsigned long seenBit = ZeMessageFlags::getMaildirFlagRev('S');
    Totals t;
    ZeMaildir box(ZeMUserRef(), path, 0ul);
    box.reset();
    while (box.next() == 1) {
        ZeMessageRef& m = box.fetch();
        const unsigned long uid = m->uid();
        Corvane::Ref<ZeMessageEnv>& env = m->env();
        const ZeMessageFlags status = env->status();
        const std::string base = env->basename();
        const time_t date = env->date();
        ++t.messages;
        if (uid != 0) {
            ++t.known;
            t.uidSum += uid;
        }
        t.baseBytes += base.size();
        t.seen += (status.flags & seenBit) != 0;
        t.dateSum += static_cast<std::uint64_t>(date);
        if (extra & kWithSize) {
            t.sizeSum += env->size();
        }
        if (extra & kWithHeaders) {
            const Corvane::Header* subject = m->headers().find("Subject");
            t.subjects += subject != nullptr && !subject->value().empty();
        }
    }
    return t;
}

// Loads the folder's UID list into the process-wide cache, as the first walk
// of a process would, so that the timed walks find it there.
void warmUidList() {
    const Data& d = data();
    ZeUIDListManager__::instance()->GetUIDList(d.folder.path)->uid(d.folder.firstName);
}

void libraryBench(benchmark::State& state, unsigned extra, unsigned fields) {
    const Data& d = data();
    warmUidList();
    Totals t;
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        t = libraryWalk(d.folder.path, extra);
        benchmark::DoNotOptimize(t);
    }
    if (checkTotals(state, t, fields)) {
        perMessage(state, &start);
    }
}

const unsigned kEnvelopeFields = kCount | kUids | kBase | kSeen | kDate;

void BM_Library_Envelope(benchmark::State& state) {
    libraryBench(state, kNone, kEnvelopeFields);
}

void BM_Library_EnvelopeSize(benchmark::State& state) {
    libraryBench(state, kWithSize, kEnvelopeFields | kSize);
}

void BM_Library_Headers(benchmark::State& state) {
    libraryBench(state, kWithHeaders, kEnvelopeFields | kSubject);
}

void BM_Library_EnvelopeColdList(benchmark::State& state) {
    const Data& d = data();
    Totals t;
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        state.PauseTiming();
        // The manager keeps ten folders: asking for ten others drops ours.
        for (int other = 0; other < 10; ++other) {
            ZeUIDListManager__::instance()->GetUIDList(d.folder.path + "/evict" +
                                                       std::to_string(other));
        }
        state.ResumeTiming();
        t = libraryWalk(d.folder.path, kNone);
        benchmark::DoNotOptimize(t);
    }
    if (checkTotals(state, t, kEnvelopeFields)) {
        perMessage(state, &start);
    }
}

// --------------------------------------------------------------- Python

// maildir_walk_python.py in a child process for the whole program.
class PythonWalker {
public:
    PythonWalker(const std::string& python, const std::string& script, const std::string& dir) {
        int toChild[2];
        int fromChild[2];
        if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) {
            fail("pipe");
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(toChild[0], 0);
            ::dup2(fromChild[1], 1);
            ::execl(python.c_str(), python.c_str(), script.c_str(), dir.c_str(),
                    static_cast<char*>(nullptr));
            std::perror(python.c_str());
            ::_exit(127);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        m_in = toChild[1];
        m_out = fromChild[0];
        if (m_pid < 0) {
            fail("fork");
        }
        m_ready = _line();
    }

    ~PythonWalker() {
        ::close(m_in);
        ::close(m_out);
        while (m_pid > 0 && ::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

    // "ready <records>" when the child started, else what it said.
    const std::string& ready() const { return m_ready; }

    // One walk; its time in seconds as Python measured it (its process's
    // CPU time for the walk in *cpu), or a negative value with the child's
    // answer in *error.
    double walk(const std::string& mode, Totals* t, double* cpu, std::string* error) {
        const std::string request = "walk " + mode + "\n";
        if (::write(m_in, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
            *error = "the Python child has gone";
            return -1;
        }
        const std::string line = _line();
        std::istringstream in(line);
        std::string word;
        double seconds = -1;
        in >> word >> seconds >> *cpu >> t->messages >> t->known >> t->uidSum >> t->seen >>
            t->subjects;
        if (word != "ok" || !in) {
            *error = line.empty() ? "no answer from the Python child" : line;
            return -1;
        }
        return seconds;
    }

private:
    std::string _line() {
        while (true) {
            const std::size_t nl = m_pending.find('\n');
            if (nl != std::string::npos) {
                std::string line = m_pending.substr(0, nl);
                m_pending.erase(0, nl + 1);
                return line;
            }
            char chunk[4096];
            const ssize_t got = ::read(m_out, chunk, sizeof chunk);
            if (got < 0 && errno == EINTR) {
                continue;
            }
            if (got <= 0) {
                return std::string();
            }
            m_pending.append(chunk, static_cast<std::size_t>(got));
        }
    }

    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    std::string m_pending;
    std::string m_ready;
};

PythonWalker* python() {
    static std::unique_ptr<PythonWalker> walker = [] {
        const std::string interpreter = ZEMAIL_PYTHON;
        if (interpreter.empty()) {
            return std::unique_ptr<PythonWalker>();
        }
        return std::make_unique<PythonWalker>(interpreter, ZEMAIL_WALKBENCH_PYTHON_SCRIPT,
                                              data().folder.path);
    }();
    return walker.get();
}

void pythonBench(benchmark::State& state, const std::string& mode, unsigned fields) {
    data();
    PythonWalker* walker = python();
    if (walker == nullptr || walker->ready().compare(0, 6, "ready ") != 0) {
        state.SkipWithError(walker == nullptr ? "no Python interpreter was found at configure time"
                                              : ("Python: " + walker->ready()).c_str());
        return;
    }
    Totals t;
    double cpuTotal = 0;
    for (auto _ : state) {
        std::string error;
        double cpu = 0;
        const double seconds = walker->walk(mode, &t, &cpu, &error);
        if (seconds < 0) {
            state.SkipWithError(("Python: " + error).c_str());
            return;
        }
        state.SetIterationTime(seconds);
        cpuTotal += cpu;
    }
    if (checkTotals(state, t, fields)) {
        perMessage(state);
        // The Python process's own CPU time per walk, comparable with the
        // CPU column of the walks made in this process.
        state.counters["py_cpu_ms"] =
            benchmark::Counter(cpuTotal * 1e3, benchmark::Counter::kAvgIterations);
    }
}

void BM_Python_Toc(benchmark::State& state) {
    pythonBench(state, "toc", kCount | kUids | kSeen);
}

void BM_Python_Iterkeys(benchmark::State& state) {
    pythonBench(state, "iterkeys", kCount | kSeen);
}

void BM_Python_Headers(benchmark::State& state) {
    pythonBench(state, "headers", kCount | kUids | kSeen | kSubject);
}

void BM_Python_GetMessage(benchmark::State& state) {
    pythonBench(state, "message", kCount | kSeen | kSubject);
}

// ---------------------------------------------------------------- vmime

#ifdef ZEMAIL_WALK_VMIME
void vmimeBench(benchmark::State& state, bool headers) {
    const Data& d = data();
    Totals t;
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        long subjects = 0;
        try {
            t.messages =
                static_cast<unsigned long>(vmime_walk(d.folder.path, headers, &t.seen, &subjects));
        } catch (const std::exception& e) {
            state.SkipWithError((std::string("vmime: ") + e.what()).c_str());
            return;
        }
        t.subjects = static_cast<unsigned long>(subjects);
    }
    if (checkTotals(state, t, kCount | kSeen | (headers ? kSubject : 0u))) {
        perMessage(state, &start);
    }
}

void BM_Vmime_Envelope(benchmark::State& state) {
    vmimeBench(state, false);
}

void BM_Vmime_Headers(benchmark::State& state) {
    vmimeBench(state, true);
}
#endif

// -------------------------------------------------------------- libetpan

#ifdef ZEMAIL_WALK_ETPAN
void BM_Etpan_EnvelopeSize(benchmark::State& state) {
    const Data& d = data();
    Totals t;
    std::uint64_t uidBytes = 0;
    const CpuTimes start = CpuTimes::now();
    for (auto _ : state) {
        const long walked = etpan_walk(d.folder.path, &t.seen, &t.sizeSum, &uidBytes);
        if (walked < 0) {
            state.SkipWithError("libetpan refused the folder");
            return;
        }
        t.messages = static_cast<unsigned long>(walked);
        benchmark::DoNotOptimize(uidBytes);
    }
    if (checkTotals(state, t, kCount | kSeen | kSize)) {
        perMessage(state, &start);
    }
}
#endif

BENCHMARK(BM_Floor_Envelope)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Library_Envelope)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Library_EnvelopeSize)->Unit(benchmark::kMillisecond);
#ifdef ZEMAIL_WALK_ETPAN
BENCHMARK(BM_Etpan_EnvelopeSize)->Unit(benchmark::kMillisecond);
#endif
BENCHMARK(BM_Floor_EnvelopeColdMap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Library_EnvelopeColdList)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Floor_Headers)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Library_Headers)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Python_Toc)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Python_Iterkeys)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Python_Headers)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Python_GetMessage)->UseManualTime()->Unit(benchmark::kMillisecond);
#ifdef ZEMAIL_WALK_VMIME
BENCHMARK(BM_Vmime_Envelope)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Vmime_Headers)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
