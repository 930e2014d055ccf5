#ifndef ZEMAIL_TESTS_SUPPORT_PIPE_FEED_H
#define ZEMAIL_TESTS_SUPPORT_PIPE_FEED_H

#include <string>
#include <thread>

#include "imap/ZePipe.h"

namespace zetest {

// Server output for parser tests: the given bytes arrive on a real pipe,
// written by a thread (so any size fits), then the pipe is closed and the
// reader sees end of input. Writes of the code under test go to /dev/null.
// The io's time-out is one second, so a parser that waits for more than the
// text holds fails fast instead of hanging.
class PipeFeed {
public:
    explicit PipeFeed(const std::string& server_output);
    ~PipeFeed();
    PipeFeed(const PipeFeed&) = delete;
    PipeFeed& operator=(const PipeFeed&) = delete;

    ZePipeIO& io() { return m_io; }

private:
    ZePipeIO m_io;
    int m_write_end = -1;
    std::thread m_writer;
};

}  // namespace zetest

#endif
