#include "support/PipeFeed.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <stdexcept>

namespace zetest {

PipeFeed::PipeFeed(const std::string& server_output) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) {
        throw std::runtime_error("pipe failed");
    }
    m_write_end = ends[1];
    m_io.read_fd(ends[0]);
    m_io.write_fd(open("/dev/null", O_WRONLY | O_CLOEXEC));
    m_io.timeout(1);
    m_writer = std::thread([this, server_output] {
        // A reader that stops early must not kill the test with SIGPIPE.
        sigset_t pipe_only;
        sigemptyset(&pipe_only);
        sigaddset(&pipe_only, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_only, nullptr);
        std::size_t done = 0;
        while (done < server_output.size()) {
            ssize_t n =
                ::write(m_write_end, server_output.data() + done, server_output.size() - done);
            if (n <= 0) {
                break;
            }
            done += static_cast<std::size_t>(n);
        }
        ::close(m_write_end);
        m_write_end = -1;
    });
}

PipeFeed::~PipeFeed() {
    // Close our read end first: a writer blocked on a full pipe then fails
    // with EPIPE instead of waiting for ever.
    m_io.close();
    if (m_writer.joinable()) {
        m_writer.join();
    }
    if (m_write_end >= 0) {
        ::close(m_write_end);
    }
}

}  // namespace zetest
