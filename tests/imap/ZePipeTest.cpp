// ZePipeProgram and ZePipeIO against scripted children: small shell scripts,
// or this test program itself started in a child role (see ChildRole below).
#include "imap/ZePipe.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "imap/ZeImapClient.h"
#include "support/Buffer.h"
#include "support/MailUserId.h"
#include "support/Paths.h"
#include "support/Debug.h"
#include "support/TestUtil.h"

namespace {

// Started with ZEPIPE_CHILD=argv, this program prints its own argument vector
// and two variables, then exits: that is how the tests see exactly what the
// child was given.
const int kChildRole = [] {
    const char* role = std::getenv("ZEPIPE_CHILD");
    if (role == nullptr || std::string(role) != "argv") {
        return 0;
    }
    std::string args = zetest::read_file("/proc/self/cmdline");
    for (char& c : args) {
        c = c == '\0' ? '|' : c;
    }
    auto show = [](const char* name) {
        const char* value = std::getenv(name);
        return std::string(" ") + name + "=" + (value ? value : "(unset)");
    };
    std::printf("%s%s%s\n", args.c_str(), (show("VALUE") + show("NOEQ")).c_str(),
                std::getenv("USER") != nullptr ? (show("USER") + show("ZZINJECT")).c_str() : "");
    std::fflush(stdout);
    _exit(0);
}();

std::string self_path() {
    char path[4096] = {};
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string();
}

class PipeTest : public ::testing::Test {
protected:
    // Starts a shell script whose body is given; the io time-out is short so
    // that a silent child costs a second, not a minute.
    void start(const std::string& body, int timeout = 5) {
        std::string script = m_dir.write("child.sh", "#!/bin/sh\n" + body + "\n", true);
        ASSERT_EQ(0, m_program.open(script, "", ""));
        m_program.io().timeout(timeout);
    }
    std::string line() {
        Corvane::Buffer buffer;
        m_program.io().readline(buffer);
        return buffer.str();
    }

    zetest::TempDir m_dir;
    ZePipeProgram m_program;
};

using PipeBadInput = PipeTest;

// --- starting the child -------------------------------------------------

TEST_F(PipeTest, ChildGetsBaseNameArgsAndEnvironmentSplitAtFirstEquals) {
    ASSERT_EQ(0,
              m_program.open(self_path(), "one  two three", "ZEPIPE_CHILD=argv VALUE=a=b=c NOEQ"));
    std::string name = self_path().substr(self_path().rfind('/') + 1);
    EXPECT_EQ(name + "|one|two|three| VALUE=a=b=c NOEQ=(unset)", line());
    EXPECT_EQ(0, m_program.close());
    EXPECT_TRUE(zetest::zombie_children().empty());
}

// Each variable is one string end to end: a user whose name holds blanks (a
// path user's) cannot set variables of its own in the server's environment.
TEST_F(PipeTest, EnvironmentInjectionThroughABlankInTheUserName) {
    ASSERT_EQ(0, m_program.open(self_path(), std::vector<std::string>{"a b"},
                                {{"ZEPIPE_CHILD", "argv"}, {"USER", "/tmp/x ZZINJECT=yes"}}));
    const std::string name = self_path().substr(self_path().rfind('/') + 1);
    EXPECT_EQ(name + "|a b| VALUE=(unset) NOEQ=(unset) USER=/tmp/x ZZINJECT=yes ZZINJECT=(unset)",
              line());
    m_program.close();
    // Texts that could not reach the child intact start nothing.
    for (const ZePipeProgram::Variables& bad :
         {ZePipeProgram::Variables{{"A=B", "c"}}, ZePipeProgram::Variables{{"", "c"}},
          ZePipeProgram::Variables{{"A", std::string("c\0d", 3)}}}) {
        EXPECT_EQ(-1, m_program.open(self_path(), std::vector<std::string>(), bad));
        EXPECT_FALSE(m_program.is_open());
    }

    // The connection starts the server for such a user with the name whole.
    setenv("ZEPIPE_CHILD", "argv", 1);
    const std::string saved_program = zemail::paths::imap_program();
    zemail::paths::set_imap_program(self_path());
    ZeImapConnection* connection = ZeImapConnection::instance();
    ZePipeIO& io = connection->get_io(ZeMailUserId(MAILBOX_TYPE_PATH, "/tmp/x ZZINJECT=yes"));
    Corvane::Buffer answer;
    io.readline(answer);
    connection->close();
    zemail::paths::set_imap_program(saved_program);
    unsetenv("ZEPIPE_CHILD");
    EXPECT_NE(std::string::npos, answer.str().find(" USER=/tmp/x ZZINJECT=yes ZZINJECT=(unset)"))
        << answer.str();
}

TEST_F(PipeTest, OpenSetsDescriptorsNonBlockingReadAndDefaultTimeout) {
    ASSERT_EQ(0, m_program.open("/bin/cat", "", ""));
    ZePipeIO& io = m_program.io();
    EXPECT_TRUE(m_program.is_open());
    EXPECT_GT(m_program.pid(), 0);
    EXPECT_EQ(60, io.timeout());
    EXPECT_NE(0, fcntl(io.read_fd(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, fcntl(io.write_fd(), F_GETFL) & O_NONBLOCK);
    io << "hello"
       << " " << 42 << "\n";
    EXPECT_EQ("hello 42", line());
}

TEST_F(PipeTest, MissingProgramGivesEndOfInputAndIsReaped) {
    auto before = zetest::open_descriptors();
    testing::internal::CaptureStderr();
    ASSERT_EQ(0, m_program.open(m_dir.path() + "/no-such-program", "", ""));
    Corvane::Buffer buffer;
    EXPECT_EQ(0, m_program.io().readline(buffer));
    m_program.close();
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("no-such-program"));
    EXPECT_EQ(before, zetest::open_descriptors());
    EXPECT_TRUE(zetest::zombie_children().empty());
}

// Pipe creation failures, provoked by lowering the descriptor limit so that
// the first or the second pipe cannot be made. Standard error goes to a file
// opened beforehand: nothing else may need a descriptor meanwhile.
TEST_F(PipeTest, PipeCreationFailureReportsWhichPipeAndLeaksNothing) {
    std::string err_path = m_dir.path() + "/stderr";
    rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct Case {
        int extra;  // descriptors left free below the limit
        const char* text;
    } cases[] = {{0, "write pipe"}, {2, "read pipe"}};
    for (const Case& c : cases) {
        int capture = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int saved_err = dup(2);
        ASSERT_GE(capture, 0);
        ASSERT_GE(saved_err, 0);
        auto before = zetest::open_descriptors();
        int probe = dup(0);  // the lowest free descriptor
        ASSERT_GE(probe, 0);
        close(probe);
        fflush(stderr);
        dup2(capture, 2);
        rlimit lowered = saved;
        lowered.rlim_cur = static_cast<rlim_t>(probe + c.extra);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lowered));
        int result = m_program.open("/bin/cat", "", "");
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
        fflush(stderr);
        dup2(saved_err, 2);
        auto after = zetest::open_descriptors();
        close(saved_err);
        close(capture);
        EXPECT_EQ(-1, result) << c.text;
        std::string err = zetest::read_file(err_path);
        EXPECT_EQ(0u, err.find(c.text)) << err;
        EXPECT_FALSE(m_program.is_open());
        EXPECT_EQ(before, after) << c.text;
    }
}

// --- reading ------------------------------------------------------------

// Lines as the child writes them, one row per shape of output. A child that
// exits leaves end of input (0) after its last line.
TEST_F(PipeTest, ReadlineAssemblesLinesWhateverTheChunksAndStripsTheLineEnd) {
    const std::string kStay = "; while read -r x; do :; done";
    struct Case {
        std::string script;
        std::vector<std::string> lines;
        bool ends;
    } cases[] = {
        // Several lines from one write come from the carry-over buffer.
        {"printf 'one\\r\\ntwo\\nthree\\r\\n'" + kStay, {"one", "two", "three"}, false},
        // Every trailing line end goes.
        {"printf 'text\\r\\r\\n'" + kStay, {"text"}, false},
        {"head -c 5000 /dev/zero | tr '\\0' a; printf '\\nnext\\n'" + kStay,
         {std::string(5000, 'a'), "next"},
         false},
        // A line split after its CR is completed by the next write.
        {"printf 'abc\\r'; sleep 0.3; printf '\\nnext\\n'" + kStay, {"abc", "next"}, false},
        // A child dying mid-line: the read ends with what arrived.
        {"printf '* OK partial'; exit 0", {"* OK partial"}, true},
        // Last words before exit are not lost.
        {"printf '* BYE\\r\\na1 OK done\\r\\n'; exit 0", {"* BYE", "a1 OK done"}, true},
        {"head -c 1048576 /dev/zero | tr '\\0' x; exit 0", {std::string(1048576, 'x')}, true},
    };
    for (const Case& c : cases) {
        const std::string script = m_dir.write("child.sh", "#!/bin/sh\n" + c.script + "\n", true);
        ZePipeProgram program;
        ASSERT_EQ(0, program.open(script, "", ""));
        program.io().timeout(5);
        for (const std::string& expected : c.lines) {
            Corvane::Buffer buffer;
            EXPECT_EQ(static_cast<int>(expected.size()), program.io().readline(buffer)) << c.script;
            // The text is followed by a zero byte.
            EXPECT_EQ(expected, std::string(buffer.data())) << c.script.substr(0, 60);
        }
        if (c.ends) {
            Corvane::Buffer buffer;
            EXPECT_EQ(0, program.io().readline(buffer)) << c.script.substr(0, 60);
        }
        program.close();
    }
}

TEST_F(PipeTest, ReceiveStopsAtMaxAndKeepsTheRest) {
    start("printf 'abcdef\\nXY\\n'");
    unsigned char out[16] = {};
    ZePipeIO& io = m_program.io();
    EXPECT_EQ(4, io.receive(out, 4, '\n'));
    EXPECT_EQ("abcd", std::string(reinterpret_cast<char*>(out), 4));
    EXPECT_EQ(3, io.receive(out, 16, '\n'));
    EXPECT_EQ("ef\n", std::string(reinterpret_cast<char*>(out), 3));
    // Without a delimiter a receive fills up to max, or to the end of input.
    EXPECT_EQ(3, io.receive(out, 16, 0));
    EXPECT_EQ("XY\n", std::string(reinterpret_cast<char*>(out), 3));
}

TEST_F(PipeTest, ReceiveWithZeroMaxDropsTheCarriedBytes) {
    start("printf 'first\\nsecond\\n'; sleep 0.3; printf 'third\\n'; while read -r x; do :; done");
    EXPECT_EQ("first", line());
    unsigned char out[8];
    EXPECT_EQ(0, m_program.io().receive(out, 0, '\n'));
    EXPECT_EQ("third", line());
}

TEST_F(PipeTest, LongLineIsAssembledFromManyReceives) {
    start("head -c 5000 /dev/zero | tr '\\0' a; printf '\\nnext\\n'; while read -r x; do :; done");
    EXPECT_EQ(std::string(5000, 'a'), line());
    EXPECT_EQ("next", line());
}

TEST_F(PipeTest, LineSplitAfterCarriageReturnIsCompleted) {
    start("printf 'abc\\r'; sleep 0.3; printf '\\nnext\\n'; while read -r x; do :; done");
    EXPECT_EQ("abc", line());
    EXPECT_EQ("next", line());
}

TEST_F(PipeTest, ReadlineStripsEveryTrailingLineEndAndKeepsAZeroAfterIt) {
    start("printf 'text\\r\\r\\n'; while read -r x; do :; done");
    Corvane::Buffer buffer;
    EXPECT_EQ(4, m_program.io().readline(buffer));
    EXPECT_STREQ("text", buffer.data());
}

// --- writing ------------------------------------------------------------

TEST_F(PipeTest, WriteSendsTheWholeBufferAndEmptyWritesNothing) {
    ASSERT_EQ(0, m_program.open("/bin/cat", "", ""));
    Corvane::Buffer empty;
    EXPECT_EQ(0, m_program.io().write(empty));
    Corvane::Buffer data(std::string("a1 NOOP\r\n"));
    EXPECT_EQ(9, m_program.io().write(data));
    EXPECT_EQ("a1 NOOP", line());
}

TEST_F(PipeBadInput, WriteToAChildThatHasGoneFailsWithoutSignal) {
    start("exit 0");
    Corvane::Buffer buffer;
    EXPECT_EQ(0, m_program.io().readline(buffer));                     // end of input
    ASSERT_EQ(m_program.pid(), waitpid(m_program.pid(), nullptr, 0));  // and gone for sure
    Corvane::Buffer data(std::string("a1 NOOP\r\n"));
    EXPECT_EQ(-1, m_program.io().write(data));
    EXPECT_EQ(EPIPE, errno);
    m_program.io() << "still alive\n";  // ignored result, no SIGPIPE either
}

// --- failures -----------------------------------------------------------

TEST_F(PipeBadInput, SilentChildTimesOutInWholeSeconds) {
    start("while read -r x; do :; done", 1);
    unsigned char out[64];
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, m_program.io().receive(out, sizeof out, '\n'));
    auto waited = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(waited, std::chrono::seconds(3));
    Corvane::Buffer buffer(std::string("stale"));
    EXPECT_EQ(0, m_program.io().readline(buffer));
    EXPECT_EQ(0u, buffer.length());
}

TEST_F(PipeBadInput, EndlessLineGivesUpAtTheTimeOut) {
    start("head -c 1048576 /dev/zero | tr '\\0' x; while read -r x; do :; done");
    m_program.io().timeout(2);
    Corvane::Buffer buffer;
    // The line never ends: the read gives up at the time-out with nothing.
    EXPECT_EQ(0, m_program.io().readline(buffer));
}

TEST_F(PipeBadInput, WaitFailsAtOnceWhenADescriptorIsClosed) {
    ASSERT_EQ(0, m_program.open("/bin/cat", "", ""));
    ZePipeIO& io = m_program.io();
    int write_end = io.write_fd();
    io.write_fd(-1);
    EXPECT_EQ(-1, io.wait_io_event(io.read_fd(), 60));
    io.write_fd(write_end);
}

// --- closing ------------------------------------------------------------

class PipeCloseTest : public PipeTest {
protected:
    void SetUp() override {
        m_saved_mask = basepp::dbg::nCfg_debug_zone();
        m_log = m_dir.path() + "/debug.log";
        ASSERT_TRUE(basepp::dbg::set_debug_output(m_log));
        basepp::dbg::set_debug_zone(basepp::dbg::kZoneImap | basepp::dbg::kLevelTrace);
    }
    void TearDown() override {
        basepp::dbg::set_debug_zone(m_saved_mask);
        basepp::dbg::set_debug_output("");
    }
    std::string log() { return zetest::read_file(m_log); }

    std::uint32_t m_saved_mask = 0;
    std::string m_log;
};

TEST_F(PipeCloseTest, CloseLogsUnreadOutputAsOneRecordAndReaps) {
    auto before = zetest::open_descriptors();
    start("printf 'first\\nx1\\nx2\\n'; while read -r x; do :; done");
    EXPECT_EQ("first", line());
    usleep(100 * 1000);
    EXPECT_EQ(0, m_program.close());
    EXPECT_FALSE(m_program.is_open());
    std::string text = log();
    EXPECT_NE(std::string::npos, text.find("ZePipe::close:"));
    EXPECT_NE(std::string::npos, text.find("ZePipeProgram::close() is called"));
    EXPECT_NE(std::string::npos, text.find("ZePipe::trace_residual_data:")) << text;
    EXPECT_NE(std::string::npos, text.find("!!! Unhandled IMAP response: x1\nx2\n")) << text;
    EXPECT_EQ(before, zetest::open_descriptors());
    EXPECT_TRUE(zetest::zombie_children().empty());
    EXPECT_EQ(0, m_program.close());  // closing twice is harmless
}

TEST_F(PipeCloseTest, CloseByPidLogsLineByLineAndLeavesTheChildUnreaped) {
    start("printf 'x1\\nx2\\n'; while read -r x; do :; done");
    usleep(100 * 1000);
    EXPECT_EQ(0, m_program.close(m_program.pid() + 1));  // not ours: nothing happens
    EXPECT_TRUE(m_program.is_open());
    int pid = m_program.pid();
    EXPECT_EQ(0, m_program.close(pid));
    EXPECT_FALSE(m_program.is_open());
    EXPECT_EQ(-1, m_program.io().read_fd());
    std::string text = log();
    EXPECT_NE(std::string::npos, text.find("!!! Unhandled IMAP response: x1\n")) << text;
    EXPECT_NE(std::string::npos, text.find("!!! Unhandled IMAP response: x2\n")) << text;
    int status = 0;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));  // still ours to reap
}

TEST_F(PipeCloseTest, DescriptorZeroIsNeverClosed) {
    ZePipeIO io;
    io.write_fd(0);
    io.close();
    EXPECT_NE(-1, fcntl(0, F_GETFD));
    EXPECT_EQ(-1, io.write_fd());
}

TEST_F(PipeCloseTest, NothingIsLoggedWhenTheMaskLacksABit) {
    basepp::dbg::set_debug_zone(basepp::dbg::kZoneImap);
    start("printf 'x1\\n'; while read -r x; do :; done");
    usleep(100 * 1000);
    m_program.close();
    EXPECT_EQ("", log());
}

}  // namespace
