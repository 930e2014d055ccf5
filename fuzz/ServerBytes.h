// Server output for the fuzz targets of the response parsers: the bytes are
// written into a pipe before parsing starts and the write end is closed, so
// every read finds data or the end of input at once and no input ever waits
// for a time-out. Writes of the code under test go to /dev/null.
#ifndef ZEMAIL_FUZZ_SERVER_BYTES_H
#define ZEMAIL_FUZZ_SERVER_BYTES_H

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "imap/ZeImapClient.h"
#include "imap/ZePipe.h"
#include "support/Debug.h"

namespace zefuzz {

// An empty pipe takes 64 KiB without a reader: larger inputs are skipped.
constexpr std::size_t kMaxServerBytes = 60000;

class ServerBytes {
public:
    explicit ServerBytes(const std::string& bytes) : m_lines(1) {
        int ends[2];
        FUZZ_CHECK(bytes.size() <= kMaxServerBytes);
        FUZZ_CHECK(pipe2(ends, O_CLOEXEC) == 0);
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(ends[1], bytes.data() + done, bytes.size() - done);
            FUZZ_CHECK(n > 0);
            done += static_cast<std::size_t>(n);
        }
        ::close(ends[1]);
        m_io.read_fd(ends[0]);
        m_io.write_fd(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        m_io.timeout(1);
        for (char c : bytes) {
            m_lines += c == '\n';
        }
    }

    ZePipeIO& io() { return m_io; }

    // Reads the lines through feeder the way the request does and hands each
    // untagged one to take(), the iterator standing on the token after "*";
    // other lines are skipped. Parsers read literals and continuation lines
    // themselves, so there are never more lines than line feeds, plus the
    // unterminated rest.
    template <class Take>
    void each_untagged_line(ZeImapFeeder& feeder, Take take) {
        for (std::size_t n = m_lines; n > 0; --n) {
            if (feeder.nextline() < 0) {
                return;
            }
            TokenIterator& token = feeder.token();
            if (token && token.token()[0] == '*') {
                token.next();
                take();
            }
        }
    }

private:
    ZePipeIO m_io;  // closes both descriptors
    std::size_t m_lines;
};

// Every debug record is formatted (dumps included) and thrown away.
inline void log_everything_to_null() {
    basepp::dbg::set_debug_output("/dev/null");
    basepp::dbg::set_debug_zone(basepp::dbg::kZoneImap | basepp::dbg::kLevelTrace);
}

}  // namespace zefuzz

#endif
