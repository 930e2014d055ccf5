// ZePipeIO::readline(Buffer&) over a real pipe, against the floor of a bare
// read()-and-memchr line splitter over the same kind of pipe. A writer thread
// keeps the pipe full with whole lines for as long as the benchmark reads.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "imap/ZePipe.h"
#include "support/Buffer.h"

namespace {

// About 64 KB of untagged FETCH responses, 60 to 100 bytes a line.
std::string typical_lines() {
    std::string block;
    for (int i = 1; block.size() < 64 * 1024; ++i) {
        block += "* " + std::to_string(i) + " FETCH (UID " + std::to_string(40000 + i * 7) +
                 " FLAGS (\\Seen" + (i % 3 ? " \\Answered" : "") + ") RFC822.SIZE " +
                 std::to_string(1000 + (i * 7919) % 900000) + (i % 2 ? " MODSEQ (12345)" : "") +
                 ")\r\n";
    }
    return block;
}

// One 64 KB line, as a long BODYSTRUCTURE or header literal line would be.
std::string long_line() {
    std::string line = "* 1 FETCH (UID 2 BODY[TEXT] \"";
    while (line.size() < 64 * 1024 - 4) {
        line += "lorem ipsum dolor sit amet ";
    }
    line.resize(64 * 1024 - 4);
    return line + "\")\r\n";
}

std::size_t count_lines(const std::string& block) {
    std::size_t n = 0;
    for (char c : block) {
        n += c == '\n';
    }
    return n;
}

// A pipe whose write end a thread fills with block, over and over, until
// stopped. stop() drains the read end so that the writer can see the flag.
class Feed {
public:
    explicit Feed(const std::string& block) : m_block(block) {
        if (pipe2(m_fds, O_CLOEXEC) != 0) {
            m_fds[0] = m_fds[1] = -1;
            return;
        }
        m_writer = std::thread([this] {
            while (!m_stop.load(std::memory_order_relaxed)) {
                const char* p = m_block.data();
                std::size_t left = m_block.size();
                while (left > 0) {
                    ssize_t n = ::write(m_fds[1], p, left);
                    if (n <= 0) {
                        break;
                    }
                    p += n;
                    left -= static_cast<std::size_t>(n);
                }
            }
            ::close(m_fds[1]);
        });
    }
    bool ok() const { return m_fds[0] >= 0; }
    int read_fd() const { return m_fds[0]; }

    // Reads until the writer has finished and closed its end.
    void stop() {
        m_stop = true;
        std::vector<char> sink(64 * 1024);
        pollfd entry = {m_fds[0], POLLIN, 0};
        while (true) {
            ssize_t n = ::read(m_fds[0], sink.data(), sink.size());
            if (n == 0) {
                break;
            }
            if (n < 0) {
                poll(&entry, 1, 10);  // non-blocking and empty for the moment
            }
        }
        m_writer.join();
    }

private:
    std::string m_block;
    int m_fds[2] = {-1, -1};
    std::atomic<bool> m_stop{false};
    std::thread m_writer;
};

void run_readline(benchmark::State& state, const std::string& block) {
    Feed feed(block);
    if (!feed.ok()) {
        state.SkipWithError("pipe2 failed");
        return;
    }
    {
        ZePipeIO io;
        // The read end becomes non-blocking, each read() after a wait. The
        // wait gives up unless both descriptors are valid, so the write side
        // is /dev/null.
        io.read_fd(feed.read_fd());
        io.write_fd(open("/dev/null", O_WRONLY | O_CLOEXEC));
        Corvane::Buffer line;
        std::size_t bytes = 0;
        for (auto _ : state) {
            int length = io.readline(line);
            if (length <= 0) {
                state.SkipWithError("readline gave no line");
                break;
            }
            bytes += static_cast<std::size_t>(length) + 2;
        }
        state.SetBytesProcessed(static_cast<int64_t>(bytes));
        state.SetItemsProcessed(state.iterations());
        feed.stop();
    }  // io closes the read end and /dev/null
}

// The floor: read() as much as the pipe gives into a large buffer and cut
// lines with memchr, without waiting, carrying over or copying.
void run_floor(benchmark::State& state, const std::string& block) {
    Feed feed(block);
    if (!feed.ok()) {
        state.SkipWithError("pipe2 failed");
        return;
    }
    std::vector<char> buffer(256 * 1024);
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        const char* nl = nullptr;
        while ((nl = static_cast<const char*>(
                    std::memchr(buffer.data() + begin, '\n', end - begin))) == nullptr) {
            if (begin > 0) {  // keep the partial line, make room behind it
                std::memmove(buffer.data(), buffer.data() + begin, end - begin);
                end -= begin;
                begin = 0;
            }
            ssize_t n = ::read(feed.read_fd(), buffer.data() + end, buffer.size() - end);
            if (n <= 0) {
                state.SkipWithError("read failed");
                break;
            }
            end += static_cast<std::size_t>(n);
        }
        if (nl == nullptr) {
            break;
        }
        std::size_t length = static_cast<std::size_t>(nl - (buffer.data() + begin)) + 1;
        benchmark::DoNotOptimize(buffer.data() + begin);
        bytes += length;
        begin += length;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(state.iterations());
    feed.stop();
    ::close(feed.read_fd());
}

void BM_ReadlineTypical(benchmark::State& state) {
    static const std::string block = typical_lines();
    state.counters["avg_line_bytes"] =
        static_cast<double>(block.size()) / static_cast<double>(count_lines(block));
    run_readline(state, block);
}
void BM_FloorTypical(benchmark::State& state) {
    static const std::string block = typical_lines();
    run_floor(state, block);
}
void BM_Readline64K(benchmark::State& state) {
    static const std::string block = long_line();
    run_readline(state, block);
}
void BM_Floor64K(benchmark::State& state) {
    static const std::string block = long_line();
    run_floor(state, block);
}

BENCHMARK(BM_ReadlineTypical)->UseRealTime();
BENCHMARK(BM_FloorTypical)->UseRealTime();
BENCHMARK(BM_Readline64K)->UseRealTime();
BENCHMARK(BM_Floor64K)->UseRealTime();

}  // namespace
