// ZePipeProgram against the real Dovecot: the child is started the way the
// connection starts it (pre-authenticated through HOME, USER and MAIL), spoken
// to with bare line feeds, and closed and reaped without leaving anything.
#include <gtest/gtest.h>

#include <signal.h>

#include <string>

#include "imap/ZePipe.h"
#include "support/Buffer.h"
#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

class DovecotPipe : public ::testing::Test {
protected:
    // Sends one command and reads up to its tagged completion; returns every
    // line, each followed by "\n".
    std::string exchange(ZePipeIO& io, const std::string& tag, const std::string& command) {
        io << tag << " " << command << "\n";
        std::string lines;
        Corvane::Buffer line;
        while (io.readline(line) > 0) {
            lines += line.str() + "\n";
            if (line.str().compare(0, tag.size() + 1, tag + " ") == 0) {
                break;
            }
        }
        return lines;
    }

    zetest::DovecotServer m_server;
};

TEST_F(DovecotPipe, PreauthNoopAndXFnameThenCleanClose) {
    const std::string user = "alice@example.org";
    const std::string base =
        m_server.deliver(user, "", "From: a@example.org\nSubject: hi\n\nbody\n");
    auto fds_before = zetest::open_descriptors();

    ZePipeProgram program;
    ASSERT_EQ(0, program.open(m_server.wrapper(), "", m_server.env(user)));
    ZePipeIO& io = program.io();
    io.timeout(20);

    Corvane::Buffer greeting;
    ASSERT_GT(io.readline(greeting), 0) << m_server.log();
    EXPECT_EQ(0u, greeting.str().find("* PREAUTH")) << greeting.str();

    EXPECT_NE(std::string::npos, exchange(io, "Ze1", "NOOP").find("Ze1 OK"));
    std::string select = exchange(io, "Ze2", "SELECT INBOX");
    EXPECT_NE(std::string::npos, select.find("* 1 EXISTS")) << select;
    std::string fetch = exchange(io, "Ze3", "UID FETCH 1:* (UID X-FNAME)");
    EXPECT_NE(std::string::npos, fetch.find("* 1 FETCH (UID 1 X-FNAME " + base + ",S=")) << fetch;
    EXPECT_NE(std::string::npos, fetch.find("Ze3 OK")) << fetch;

    // Unread output at close time is drained, then the child ends on the end
    // of its input and is reaped.
    io << "Ze4 NOOP\n";
    const int pid = program.pid();
    EXPECT_EQ(0, program.close());
    EXPECT_FALSE(program.is_open());
    EXPECT_EQ(-1, kill(pid, 0));  // gone, not a zombie
    EXPECT_TRUE(zetest::zombie_children().empty());
    EXPECT_EQ(fds_before, zetest::open_descriptors());
}

}  // namespace
