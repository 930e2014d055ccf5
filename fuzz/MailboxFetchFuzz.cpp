// What the IMAP mailbox makes of a server's answers: arbitrary bytes are the
// answer to its envelope fetch (through the request, the UID FETCH parser and
// the header processor into the mailbox), and each of their lines is also a
// tagged APPEND answer, a SEARCH result to cut and a UID list to write as a
// set.
//
// The first byte picks the range of positions for the cut (bits 0-3 the
// start, 4-7 the length); the rest is what the server sends. Inputs that do
// not fit an empty pipe are skipped.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "fuzz/FuzzCheck.h"
#include "imap/ZeImapRequest.h"
#include "stores/ZeMailImap.h"

namespace {

constexpr std::size_t kMaxServerBytes = 60000;

// The items of a comma-separated list that are not empty.
std::multiset<std::string> items(const std::string& list) {
    std::multiset<std::string> out;
    std::string::size_type start = 0;
    while (start <= list.size()) {
        std::string::size_type comma = list.find(',', start);
        if (comma == std::string::npos) {
            comma = list.size();
        }
        if (comma > start) {
            out.insert(list.substr(start, comma - start));
        }
        start = comma + 1;
    }
    return out;
}

void check_pure(const std::string& line, long start, long end) {
    const unsigned long uid = ze_appended_uid(line);
    FUZZ_CHECK(uid == 0 || line.find("[APPENDUID ") != std::string::npos);

    const std::string cut = ze_cut_uid_list(line, start, end);
    const std::multiset<std::string> kept = items(cut);
    const std::multiset<std::string> all = items(line);
    FUZZ_CHECK(static_cast<long>(kept.size()) <= (end > start ? end - start : 0));
    for (const std::string& one : kept) {
        FUZZ_CHECK(all.count(one) >= kept.count(one));
    }

    const std::string set = ze_uid_set(line);
    FUZZ_CHECK(set.find_first_not_of("0123456789,:") == std::string::npos);
    FUZZ_CHECK(set.empty() || (set.front() != ',' && set.back() != ',' && set.back() != ':'));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size - 1 > kMaxServerBytes) {
        return 0;
    }
    const long start = data[0] & 0x0f;
    const long end = start + (data[0] >> 4);
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    std::string::size_type from = 0;
    while (from <= bytes.size()) {
        std::string::size_type eol = bytes.find('\n', from);
        if (eol == std::string::npos) {
            eol = bytes.size();
        }
        check_pure(bytes.substr(from, eol - from), start, end);
        from = eol + 1;
    }

    // The server's bytes wait in a pipe whose write end is closed, so every
    // read finds data or the end of input at once.
    int ends[2];
    FUZZ_CHECK(pipe2(ends, O_CLOEXEC) == 0);
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(ends[1], bytes.data() + done, bytes.size() - done);
        FUZZ_CHECK(n > 0);
        done += static_cast<std::size_t>(n);
    }
    ::close(ends[1]);
    ZePipeIO io;
    io.read_fd(ends[0]);
    io.write_fd(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    io.timeout(1);

    ZeMailBoxImap mailbox(ZeMUserRef(), "Inbox", false, false);
    ZeImapRequest request(io);
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    fetch.set_processor(ZeImapProcessorRef::make<ZeImapFetchHeaders>(&mailbox));
    request.request(fetch, std::string("1:*") + ZeMailBoxImap::INTERESTED_MESSAGED_INFO);

    for (const ZeMessageRef& message : mailbox.messages()) {
        FUZZ_CHECK(!message.isNull());
        FUZZ_CHECK(message->uid() != 0);
        FUZZ_CHECK(!message->flags().test(ZeMessageFlags::DELETED));
        FUZZ_CHECK(message->env()->uid() == message->uid());
        FUZZ_CHECK(message->basename().find(',') == std::string::npos);
    }
    return 0;
}
