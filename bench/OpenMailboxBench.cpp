// Opening an IMAP mailbox the way a webmail front page does: SELECT the
// folder, find the newest 25 undeleted messages, fetch their envelope data,
// walk them reading From and Subject. Three clients send the same commands
// to the same Dovecot, each on its own server child kept for the whole run:
//
//   BM_OpenLibrary         ZeMailBoxImap through ZeMailBoxRef (method 1)
//   BM_OpenFloor           a bare pipe client: writes the command lines and
//                          reads until the tagged answer, nothing else
//   BM_OpenImaplib         Python's imaplib (IMAP4_stream on the same server
//                          program), in a child process that times each open
//                          itself with time.perf_counter(); the benchmark
//                          takes that figure as the iteration's time
//   BM_OpenImaplibParsed   the same, also parsing each fetched header block
//                          with email.parser and reading From and Subject
//
// The command lines are those the library sent in a recorded open: its
// server program is replaced for one open by a script that copies its input
// into a file, and the lines between two NOOP markers are kept.
//
// After the timings, the heap taken per loaded message is measured on
// mailboxes opened with a range scope of 1,000 and of 10,000 messages.
//
// The store (folders of 10,000 and 100,000 messages cycled from the corpus
// with varied flags, indexed by Dovecot) is built once and kept in the build
// folder (bench/openbench-store); a later run links it into its own server.
// OPENBENCH_SIZES=1000,5000 picks other folder sizes (each is a store of its
// own), e.g. for a quick run under the sanitizers; OPENBENCH_PAIRED_SECONDS
// sets the time given to the paired rounds of each folder (30 s; 0 skips
// them); OPENBENCH_MEMORY=0 leaves out the heap measurement (for profiling
// the opens alone).
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "imap/ZeImapClient.h"
#include "imap/ZeImapRequest.h"
#include "model/ZeMImapSession.h"
#include "model/ZeMScopes.h"
#include "model/ZeMUser.h"
#include "model/ZeMailBox.h"
#include "support/Paths.h"
#include "tests/support/DovecotServer.h"

// ---------------------------------------------------------------- allocation count

// Every operator new of the program is counted, so that an open can report
// how many allocations it made. Only the count is kept; the bytes come from
// mallinfo2().
namespace {
std::atomic<unsigned long> g_allocations{0};
}  // namespace

// Kept out of line: inlined into a caller, free() on memory from new would
// look mismatched to the compiler.
__attribute__((noinline)) void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) {
        return p;
    }
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* p) noexcept {
    std::free(p);
}

void* operator new[](std::size_t size) {
    return ::operator new(size);
}

void operator delete[](void* p) noexcept {
    ::operator delete(p);
}

void operator delete(void* p, std::size_t) noexcept {
    ::operator delete(p);
}

void operator delete[](void* p, std::size_t) noexcept {
    ::operator delete(p);
}

namespace {

namespace fs = std::filesystem;

const char kUser[] = "bench";
const char kStamp[] = "READY";
constexpr long kPage = 25;  // the mailbox's default page
const std::chrono::seconds kIndexTimeout(1800);

struct Folder {
    std::string name;  // "Open10000"
    long messages = 0;
    long loaded = 0;                    // messages one open loads
    std::vector<std::string> commands;  // one open's command lines, without tags
};

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

[[noreturn]] void fail_errno(const std::string& what) {
    fail(what + ": " + std::strerror(errno));
}

std::string read_whole(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

void write_whole(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) {
        fail("cannot write " + path.string());
    }
}

// The heap in use now: the arenas' allocated chunks plus mmapped blocks.
std::size_t heap_in_use() {
    const struct mallinfo2 info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}

// ---------------------------------------------------------------- child processes

// A program on two pipes: we write its standard input and read its standard
// output. Standard error is inherited. Closing its input ends it.
class Child {
public:
    Child(const std::string& program, const std::vector<std::string>& args,
          const std::vector<std::string>& env) {
        std::vector<std::string> argv_text = {program};
        argv_text.insert(argv_text.end(), args.begin(), args.end());
        std::vector<std::string> env_text = env;
        std::vector<char*> argv;
        for (std::string& item : argv_text) {
            argv.push_back(item.data());
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (std::string& item : env_text) {
            envp.push_back(item.data());
        }
        envp.push_back(nullptr);

        int to_child[2];
        int from_child[2];
        if (::pipe2(to_child, O_CLOEXEC) != 0) {
            fail_errno("pipe");
        }
        if (::pipe2(from_child, O_CLOEXEC) != 0) {
            ::close(to_child[0]);
            ::close(to_child[1]);
            fail_errno("pipe");
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(to_child[0], 0);
            ::dup2(from_child[1], 1);
            ::execve(argv[0], argv.data(), envp.data());
            std::perror(argv[0]);
            ::_exit(127);
        }
        ::close(to_child[0]);
        ::close(from_child[1]);
        m_in = to_child[1];
        m_out = from_child[0];
        if (m_pid < 0) {
            const int saved = errno;
            close();
            errno = saved;
            fail_errno("fork");
        }
    }

    ~Child() { close(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Writes all of text; throws when the child has gone.
    void write_all(const std::string& text) {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t n = ::write(m_in, text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                fail_errno("write to child");
            }
            done += static_cast<std::size_t>(n);
        }
    }

    // One read() of at most size bytes; 0 at end of input.
    std::size_t read_some(char* out, std::size_t size) {
        while (true) {
            const ssize_t n = ::read(m_out, out, size);
            if (n >= 0) {
                return static_cast<std::size_t>(n);
            }
            if (errno != EINTR) {
                fail_errno("read from child");
            }
        }
    }

    // Closes its input, drains its output, reaps it.
    void close() {
        if (m_in >= 0) {
            ::close(m_in);
            m_in = -1;
        }
        if (m_out >= 0) {
            char sink[4096];
            while (::read(m_out, sink, sizeof sink) > 0) {
            }
            ::close(m_out);
            m_out = -1;
        }
        if (m_pid > 0) {
            while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
            }
            m_pid = -1;
        }
    }

private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
};

// The environment the server program needs for the user, as a list.
std::vector<std::string> server_env(const zetest::DovecotServer& server) {
    std::vector<std::string> env;
    std::istringstream words(server.env(kUser));
    for (std::string word; words >> word;) {
        env.push_back(word);
    }
    env.push_back("PATH=/usr/sbin:/usr/bin:/sbin:/bin");
    return env;
}

// ---------------------------------------------------------------- the floor

// The least a client can do: write each command line in one write() and read
// the server's answer in large blocks until a line starts with the command's
// tag. Tags and line ends are the library's ("Ze<n> ", "\n").
class BareImapClient {
public:
    BareImapClient(const zetest::DovecotServer& server)
        : m_child(server.wrapper(), {}, server_env(server)), m_buffer(1 << 18) {
        _read_until("* ");  // the greeting
    }

    // Sends the commands one after the other; the bytes read in all.
    std::size_t run(const std::vector<std::string>& commands) {
        std::size_t total = 0;
        for (const std::string& command : commands) {
            const std::string tag = "Ze" + std::to_string(++m_counter) + " ";
            m_child.write_all(tag + command + "\n");
            total += _read_until(tag);
        }
        return total;
    }

private:
    // Reads until a whole line starting with prefix has come in; the bytes
    // read. Only the first bytes of each line are looked at.
    std::size_t _read_until(const std::string& prefix) {
        std::size_t total = 0;
        std::string head;  // the first bytes of the line being read
        while (true) {
            const std::size_t got = m_child.read_some(m_buffer.data(), m_buffer.size());
            if (got == 0) {
                fail("the server ended while answering");
            }
            total += got;
            const char* p = m_buffer.data();
            const char* const end = p + got;
            while (p < end) {
                const char* nl = static_cast<const char*>(std::memchr(p, '\n', end - p));
                const char* stop = nl != nullptr ? nl : end;
                if (head.size() < prefix.size()) {
                    head.append(p, std::min<std::size_t>(stop - p, prefix.size() - head.size()));
                }
                if (nl == nullptr) {
                    break;
                }
                if (head == prefix) {
                    return total;  // the tagged line is the last of the answer
                }
                head.clear();
                p = nl + 1;
            }
        }
    }

    Child m_child;
    std::vector<char> m_buffer;
    unsigned long m_counter = 0;
};

// ---------------------------------------------------------------- imaplib

// The Python side (bench/open_mailbox_imaplib.py) in a child process, started
// with the user's environment so that its IMAP4_stream starts the same
// server program for the same user.
class ImaplibClient {
public:
    ImaplibClient(const std::string& python, const std::string& script,
                  const zetest::DovecotServer& server)
        : m_child(python, {script, server.wrapper()}, server_env(server)) {}

    void load(const Folder& folder) {
        std::string text =
            "load " + folder.name + " " + std::to_string(folder.commands.size()) + "\n";
        for (const std::string& command : folder.commands) {
            text += command + "\n";
        }
        m_child.write_all(text);
        _expect_ok();
    }

    struct Times {
        double wall = 0;  // seconds
        double cpu = 0;   // seconds of the Python process
    };

    // One open over imaplib: the times Python measured for it, and the number
    // of header blocks it received.
    Times open(const Folder& folder, bool parse, long* messages) {
        m_child.write_all("open " + folder.name + (parse ? " parse\n" : " wire\n"));
        std::istringstream reply(_expect_ok());
        Times times;
        reply >> times.wall >> *messages >> times.cpu;
        return times;
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
            const std::size_t got = m_child.read_some(chunk, sizeof chunk);
            if (got == 0) {
                fail("the imaplib client ended");
            }
            m_pending.append(chunk, got);
        }
    }

    // The rest of an "ok ..." answer; throws with the text of any other.
    std::string _expect_ok() {
        const std::string line = _line();
        if (line.compare(0, 2, "ok") != 0) {
            fail("imaplib client: " + line);
        }
        return line.size() > 3 ? line.substr(3) : std::string();
    }

    Child m_child;
    std::string m_pending;
};

// ---------------------------------------------------------------- the library

// One open as a caller makes it: a new mailbox handle, open(), the walk.
// Returns the number of messages walked.
long open_with_library(const ZeMUserRef& user, const std::string& folder,
                       const ZeMScopeRef& scope = ZeMScopeRef()) {
    ZeMailBoxRef box(user, folder, MAILBOX_OPEN_IMAP);
    if (box.isNull()) {
        fail("no mailbox for " + folder);
    }
    if (!scope.isNull()) {
        box->setScope(scope);
    }
    if (box->open() != 1) {
        fail("open() of " + folder + " failed");
    }
    long walked = 0;
    for (MailIterator it(box); it.next();) {
        benchmark::DoNotOptimize(ZeMessageRef::headerValue(it.message(), "From"));
        benchmark::DoNotOptimize(ZeMessageRef::headerValue(it.message(), "Subject"));
        ++walked;
    }
    return walked;
}

// ---------------------------------------------------------------- the store

std::vector<std::string> corpus_messages() {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(ZEMAIL_CORPUS_DIR)) {
        const std::string name = entry.path().filename().string();
        if (entry.is_regular_file() && name != "SOURCES.md" && name != "manifest.json") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    std::vector<std::string> messages;
    for (const fs::path& file : files) {
        messages.push_back(read_whole(file));
    }
    if (messages.empty()) {
        fail(std::string("no messages in ") + ZEMAIL_CORPUS_DIR);
    }
    return messages;
}

// The Maildir flags of the i-th message of a folder: most are seen, some
// answered, flagged, forwarded or drafts, every eighth is unseen and still in
// new/, and every 37th is deleted but not expunged (the open pages over it).
std::string flags_of(long i) {
    static const char* const kCycle[] = {"", "S", "RS", "S", "FS", "S", "PS", "DS"};
    std::string flags = kCycle[i % 8];
    if (i % 37 == 36) {
        flags += "T";
    }
    return flags;
}

// What a kept store must have been built from to be used again.
std::string store_stamp(const std::vector<Folder>& folders, std::size_t corpus_size) {
    std::ostringstream stamp;
    stamp << "store 1; corpus " << corpus_size << ";";
    for (const Folder& folder : folders) {
        stamp << " " << folder.name << "=" << folder.messages;
    }
    stamp << "\n";
    return stamp.str();
}

// Makes the user's store available to the server: the kept one when its stamp
// matches, else one built now (and kept afterwards). The server's home of the
// user becomes a link to the kept store.
void provide_store(zetest::DovecotServer& server, const std::vector<Folder>& folders) {
    const std::vector<std::string> corpus = corpus_messages();
    const std::string stamp = store_stamp(folders, corpus.size());
    std::string kept_name = "store";
    for (const Folder& folder : folders) {
        kept_name += "-" + std::to_string(folder.messages);
    }
    const fs::path kept = fs::path(ZEMAIL_OPENBENCH_STORE) / kept_name;
    const fs::path home = server.home(kUser);
    if (read_whole(kept / kStamp) != stamp) {
        std::fprintf(stderr, "building the store in %s\n", kept.c_str());
        fs::remove_all(kept);
        const auto start = std::chrono::steady_clock::now();
        server.add_user(kUser);
        std::string script;
        int tag = 0;
        for (const Folder& folder : folders) {
            server.add_folder(kUser, folder.name);
            for (long i = 0; i < folder.messages; ++i) {
                const std::string flags = flags_of(i);
                server.deliver(kUser, folder.name,
                               corpus[static_cast<std::size_t>(i) % corpus.size()], flags,
                               !flags.empty());
            }
            script += "s" + std::to_string(++tag) + " SELECT \"" + folder.name + "\"\n";
            std::fprintf(stderr, "  %s: %ld messages delivered\n", folder.name.c_str(),
                         folder.messages);
        }
        // The first SELECT moves new/ to cur/ and indexes every message.
        const std::string answer = server.run_imap(kUser, script + "z LOGOUT\n", kIndexTimeout);
        if (answer.find("z OK") == std::string::npos) {
            fail("indexing the store failed: " + answer.substr(0, 2000));
        }
        fs::create_directories(kept);
        fs::rename(home, kept / "home");
        write_whole(kept / kStamp, stamp);
        const auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start);
        std::fprintf(stderr, "store built and indexed in %.1f s\n", took.count());
    }
    fs::create_directories(home.parent_path());
    fs::create_directory_symlink(kept / "home", home);
}

// ---------------------------------------------------------------- capture

// The command lines of one library open of the folder, tags removed. The
// server program is replaced for the while by a script that copies the
// library's output into a file; NOOPs before and after the open mark its
// commands.
std::vector<std::string> capture_open(const zetest::DovecotServer& server, const ZeMUserRef& user,
                                      Folder& folder) {
    const std::string copy = server.dir() + "/sent-" + folder.name + ".txt";
    const std::string tee = server.dir() + "/imap-tee";
    write_whole(tee,
                "#!/bin/sh\n# Copies the client's commands into a file on their way.\n"
                "tee -a " +
                    copy + " | exec " + server.wrapper() + "\n");
    fs::permissions(tee, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                             fs::perms::others_read | fs::perms::others_exec);

    ZeImapConnection* connection = ZeImapConnection::instance();
    connection->close();
    zemail::paths::set_imap_program(tee);
    {
        ZeImapRequest marker(connection->program().io());
        ze_imap_session(user->id());
        ze_imap_noop(marker, user->id());
        folder.loaded = open_with_library(user, folder.name);
        ze_imap_noop(marker, user->id());
    }
    connection->close();
    zemail::paths::set_imap_program(server.wrapper());

    std::vector<std::string> lines;
    std::istringstream sent(read_whole(copy));
    int noops = 0;
    for (std::string line; std::getline(sent, line);) {
        const std::size_t blank = line.find(' ');
        if (line.compare(0, 2, "Ze") != 0 || blank == std::string::npos) {
            fail("unexpected line sent by the library: " + line);
        }
        const std::string command = line.substr(blank + 1);
        if (command == "NOOP") {
            ++noops;
        } else if (noops == 1) {
            lines.push_back(command);
        }
    }
    if (noops < 2 || lines.empty()) {
        fail("no open recorded in " + copy);
    }
    return lines;
}

// ---------------------------------------------------------------- paired rounds

// The four ways of opening, for the paired comparison.
enum Client { kLibrary, kFloor, kImaplib, kImaplibParsed, kClients };
const char* const kClientNames[kClients] = {"library", "floor", "imaplib", "imaplib+parse"};

struct Sample {
    double wall_ms = 0;
    double cpu_ms = 0;  // of the client's own process
};

double cpu_now_ms() {
    timespec now = {};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return now.tv_sec * 1e3 + now.tv_nsec / 1e6;
}

// The p-quantile (0..1) of values, by the nearest rank.
double quantile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[rank];
}

// Everything the clients need for one open each.
struct Clients {
    const ZeMUserRef& user;
    BareImapClient& bare;
    ImaplibClient* imaplib;  // null without Python
};

Sample open_once(Clients& clients, const Folder& folder, Client client) {
    Sample sample;
    if (client == kImaplib || client == kImaplibParsed) {
        long messages = 0;
        const ImaplibClient::Times times =
            clients.imaplib->open(folder, client == kImaplibParsed, &messages);
        if (messages != folder.loaded) {
            fail("imaplib received " + std::to_string(messages) + " messages instead of " +
                 std::to_string(folder.loaded));
        }
        sample.wall_ms = times.wall * 1e3;
        sample.cpu_ms = times.cpu * 1e3;
        return sample;
    }
    const double cpu = cpu_now_ms();
    const auto start = std::chrono::steady_clock::now();
    if (client == kLibrary) {
        if (open_with_library(clients.user, folder.name) != folder.loaded) {
            fail("the library walked a different number of messages");
        }
    } else {
        clients.bare.run(folder.commands);
    }
    sample.wall_ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    sample.cpu_ms = cpu_now_ms() - cpu;
    return sample;
}

// Rounds of one open per client, the order turning by one place each round,
// so that the load of a shared machine falls on all clients alike; ratios are
// taken within a round, between opens made moments apart.
// Rounds go on for about budget_seconds, at least 10 and at most 2,000.
void paired_rounds(Clients& clients, const Folder& folder, double budget_seconds) {
    const int used = clients.imaplib != nullptr ? kClients : kImaplib;
    std::vector<std::vector<Sample>> samples(used);
    const auto start = std::chrono::steady_clock::now();
    auto spent = [&start] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    int rounds = 0;
    for (int round = 0; round < 2000 && (round < 10 || spent() < budget_seconds); ++round) {
        ++rounds;
        for (int k = 0; k < used; ++k) {
            const auto client = static_cast<Client>((round + k) % used);
            samples[client].push_back(open_once(clients, folder, client));
        }
    }
    auto walls = [&](int client) {
        std::vector<double> out;
        for (const Sample& sample : samples[client]) {
            out.push_back(sample.wall_ms);
        }
        return out;
    };
    auto cpus = [&](int client) {
        std::vector<double> out;
        for (const Sample& sample : samples[client]) {
            out.push_back(sample.cpu_ms);
        }
        return out;
    };
    auto ratios = [&](int a, int b) {
        std::vector<double> out;
        for (int round = 0; round < rounds; ++round) {
            out.push_back(samples[a][round].wall_ms / samples[b][round].wall_ms);
        }
        return out;
    };

    std::printf("\n%s: %d paired rounds (ms per open; quartiles in brackets)\n",
                folder.name.c_str(), rounds);
    std::printf("  %-14s %28s %12s\n", "client", "wall", "own CPU");
    for (int client = 0; client < used; ++client) {
        const std::vector<double> wall = walls(client);
        std::printf("  %-14s %8.3f [%7.3f, %7.3f] %12.3f\n", kClientNames[client],
                    quantile(wall, 0.5), quantile(wall, 0.25), quantile(wall, 0.75),
                    quantile(cpus(client), 0.5));
    }
    const std::pair<int, int> pairs[] = {
        {kLibrary, kFloor}, {kImaplib, kLibrary}, {kImaplibParsed, kLibrary}};
    for (const auto& pair : pairs) {
        if (pair.first >= used) {
            continue;
        }
        const std::vector<double> r = ratios(pair.first, pair.second);
        std::printf("  %s / %s: median %.3f [%.3f, %.3f]\n", kClientNames[pair.first],
                    kClientNames[pair.second], quantile(r, 0.5), quantile(r, 0.25),
                    quantile(r, 0.75));
    }
}

// Heap taken by mailboxes opened with a range scope of n messages, measured
// while the mailbox is open, and after it is gone.
void print_memory(const ZeMUserRef& user, const Folder& folder) {
    std::printf("\nheap per loaded message (%s, range scopes from the newest)\n",
                folder.name.c_str());
    std::printf("%8s %8s %12s %12s %12s %12s %14s\n", "scope", "loaded", "heap bytes", "bytes/msg",
                "allocs", "allocs/msg", "left after");
    struct Point {
        long loaded;
        double bytes;
    };
    std::vector<Point> points;
    for (long n : {1000L, 10000L}) {
        if (n > folder.messages) {
            continue;
        }
        const std::size_t before = heap_in_use();
        const unsigned long allocations = g_allocations.load();
        std::size_t during = 0;
        long loaded = 0;
        {
            ZeMailBoxRef box(user, folder.name, MAILBOX_OPEN_IMAP);
            box->setScope(ZeMScopeRange::create(0, n));
            box->open();
            for (MailIterator it(box); it.next();) {
                benchmark::DoNotOptimize(ZeMessageRef::headerValue(it.message(), "Subject"));
                ++loaded;
            }
            during = heap_in_use();
        }
        const std::size_t after = heap_in_use();
        const unsigned long made = g_allocations.load() - allocations;
        const double bytes = static_cast<double>(during) - static_cast<double>(before);
        points.push_back({loaded, bytes});
        std::printf("%8ld %8ld %12.0f %12.1f %12lu %12.1f %14.0f\n", n, loaded, bytes,
                    loaded > 0 ? bytes / loaded : 0.0, made,
                    loaded > 0 ? static_cast<double>(made) / loaded : 0.0,
                    static_cast<double>(after) - static_cast<double>(before));
    }
    if (points.size() == 2 && points[1].loaded > points[0].loaded) {
        std::printf("marginal: %.1f bytes per message between the two scopes\n",
                    (points[1].bytes - points[0].bytes) / (points[1].loaded - points[0].loaded));
    }
}

std::vector<Folder> folders_to_use() {
    std::vector<long> sizes = {10000, 100000};
    if (const char* text = std::getenv("OPENBENCH_SIZES")) {
        sizes.clear();
        std::stringstream list(text);
        for (std::string item; std::getline(list, item, ',');) {
            const long size = std::atol(item.c_str());
            if (size < 1 || size > 1000000) {
                fail("OPENBENCH_SIZES: sizes from 1 to 1000000, comma-separated");
            }
            sizes.push_back(size);
        }
    }
    std::vector<Folder> folders;
    for (long size : sizes) {
        Folder folder;
        folder.name = "Open" + std::to_string(size);
        folder.messages = size;
        folders.push_back(folder);
    }
    return folders;
}

void check(bool ok, benchmark::State& state, const char* what) {
    if (!ok) {
        state.SkipWithError(what);
    }
}

int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    ::signal(SIGPIPE, SIG_IGN);

    std::vector<Folder> folders = folders_to_use();
    const char* budget = std::getenv("OPENBENCH_PAIRED_SECONDS");
    const double paired_seconds = budget != nullptr ? std::atof(budget) : 30.0;
    zetest::DovecotServer server;
    provide_store(server, folders);
    zemail::paths::set_mail_root(server.root());
    zemail::paths::set_imap_program(server.wrapper());
    const ZeMUserRef user = ZeMUserRef::create(kUser, MAILBOX_OPEN_IMAP);
    if (user.isNull()) {
        fail("no user");
    }

    for (Folder& folder : folders) {
        folder.commands = capture_open(server, user, folder);
        std::printf("one open of %s (%ld messages loaded) sends:\n", folder.name.c_str(),
                    folder.loaded);
        for (const std::string& command : folder.commands) {
            std::printf("  %s\n", command.c_str());
        }
    }

    BareImapClient bare(server);
    std::unique_ptr<ImaplibClient> imaplib;
    const std::string python = ZEMAIL_PYTHON;
    if (!python.empty()) {
        imaplib = std::make_unique<ImaplibClient>(python, ZEMAIL_OPENBENCH_SCRIPT, server);
        for (const Folder& folder : folders) {
            imaplib->load(folder);
        }
    } else {
        std::printf("no Python interpreter was found at configure time: imaplib left out\n");
    }

    // Every client opens every folder twice before timing, so that all of them
    // find Dovecot's caches and the page cache in the same state.
    for (int round = 0; round < 2; ++round) {
        for (const Folder& folder : folders) {
            open_with_library(user, folder.name);
            bare.run(folder.commands);
            long messages = 0;
            if (imaplib) {
                imaplib->open(folder, true, &messages);
                if (messages != folder.loaded) {
                    fail("imaplib received " + std::to_string(messages) + " messages instead of " +
                         std::to_string(folder.loaded));
                }
            }
        }
    }

    for (const Folder& folder : folders) {
        benchmark::RegisterBenchmark(
            ("BM_OpenLibrary/" + folder.name).c_str(),
            [&user, &folder](benchmark::State& state) {
                const unsigned long start = g_allocations.load();
                for (auto _ : state) {
                    check(open_with_library(user, folder.name) == folder.loaded, state,
                          "wrong number of messages");
                }
                state.counters["allocs/open"] =
                    benchmark::Counter(static_cast<double>(g_allocations.load() - start),
                                       benchmark::Counter::kAvgIterations);
            })
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("BM_OpenFloor/" + folder.name).c_str(),
                                     [&bare, &folder](benchmark::State& state) {
                                         std::size_t bytes = 0;
                                         for (auto _ : state) {
                                             bytes += bare.run(folder.commands);
                                         }
                                         state.counters["bytes/open"] =
                                             benchmark::Counter(static_cast<double>(bytes),
                                                                benchmark::Counter::kAvgIterations);
                                     })
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        if (!imaplib) {
            continue;
        }
        for (bool parse : {false, true}) {
            const std::string name =
                std::string(parse ? "BM_OpenImaplibParsed/" : "BM_OpenImaplib/") + folder.name;
            benchmark::RegisterBenchmark(
                name.c_str(),
                [&imaplib, &folder, parse](benchmark::State& state) {
                    for (auto _ : state) {
                        long messages = 0;
                        state.SetIterationTime(imaplib->open(folder, parse, &messages).wall);
                        check(messages == folder.loaded, state, "wrong number of messages");
                    }
                })
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    }

    benchmark::RunSpecifiedBenchmarks();
    Clients clients{user, bare, imaplib.get()};
    for (const Folder& folder : folders) {
        if (paired_seconds > 0) {
            paired_rounds(clients, folder, paired_seconds);
        }
    }
    const char* memory = std::getenv("OPENBENCH_MEMORY");
    if (memory == nullptr || std::strcmp(memory, "0") != 0) {
        print_memory(user, folders.back());
    }

    imaplib.reset();
    ZeImapConnection::instance()->close();
    benchmark::Shutdown();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "OpenMailboxBench: %s\n", error.what());
        return 1;
    }
}
