// Feeds arbitrary server output to the UID FETCH response, through a real
// feeder, the way the request does: for each untagged line parse(), then the
// caller's streaming of a body literal left unread, then cleanup().
//
// The first byte picks how a body literal is taken: bits 0-1 give the reader
// (0 none: cleanup() skips it; 1 retrieve_literal; 2 retrieve_line; 3
// retrieve_literal for half of it, then cleanup()), bits 2-7 the buffer size
// (1 to 3907 bytes). The rest is what the server sends.
#include <cstdint>
#include <string>

#include "fuzz/ServerBytes.h"
#include "imap/ZeImapClient.h"
#include "imap/ZeImapMime.h"
#include "imap/ZeImapResponse.h"
#include "support/Buffer.h"

namespace {

enum Reader { kNone = 0, kLiteral = 1, kLine = 2, kHalf = 3 };

// Sections below a node extend the node's own by one component.
void check_sections(const ZeImapMimeRef& node) {
    FUZZ_CHECK(node);
    const std::string& section = node->section();
    for (const ZeImapMimeRef& child : node->children()) {
        const std::string& below = child->section();
        FUZZ_CHECK(!below.empty());
        FUZZ_CHECK(section.empty() ? below.find('.') == std::string::npos
                                   : below.compare(0, section.size() + 1, section + ".") == 0);
        check_sections(child);
    }
}

void check_record(const ZeImapResponseUIDFetch::data_t& record) {
    FUZZ_CHECK(record.uid != 0);
    FUZZ_CHECK(record.fname.find(',') == std::string::npos);
    FUZZ_CHECK(record.literal_size >= -1);
    if (record.mime) {
        check_sections(record.mime);
    }
}

// Streams what the caller would take of the literal; every piece fits the
// buffer and what was left, and a line piece holds at most one line feed,
// at its end.
void stream_literal(const ZeImapResponseUIDFetch& fetch, Reader reader, std::size_t room) {
    const long size = fetch.data().literal_size;
    if (reader == kNone || size <= 0) {
        return;
    }
    unsigned long remaining = static_cast<unsigned long>(reader == kHalf ? size / 2 : size);
    Corvane::Buffer piece;
    piece.reserve(room);
    while (true) {
        const unsigned long before = remaining;
        const long got = reader == kLine ? fetch.retrieve_line(piece, remaining)
                                         : fetch.retrieve_literal(piece, remaining);
        FUZZ_CHECK(got >= 0);
        if (got == 0) {
            break;
        }
        FUZZ_CHECK(static_cast<unsigned long>(got) <= before);
        FUZZ_CHECK(static_cast<std::size_t>(got) <= room);
        FUZZ_CHECK(remaining == before - static_cast<unsigned long>(got));
        FUZZ_CHECK(piece.length() == static_cast<std::size_t>(got));
        if (reader == kLine) {
            const std::string text = piece.str();
            const std::string::size_type feed = text.find('\n');
            FUZZ_CHECK(feed == std::string::npos || feed + 1 == text.size());
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zefuzz::log_everything_to_null();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > zefuzz::kMaxServerBytes) {
        return 0;
    }
    const auto reader = static_cast<Reader>(data[0] & 3);
    const std::size_t room = 1 + 62 * static_cast<std::size_t>(data[0] >> 2);
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    zefuzz::ServerBytes server(bytes);
    ZeImapFeeder feeder(server.io());
    ZeImapResponseUIDFetch fetch(feeder);
    unsigned long last_uid = 0;
    server.each_untagged_line(feeder, [&] {
        const int taken = fetch.parse();
        FUZZ_CHECK(taken == 1 || taken == 2);
        if (taken == 1) {
            check_record(fetch.data());
            last_uid = fetch.data().uid;
            stream_literal(fetch, reader, room);
        } else {
            // A line that is not a usable answer leaves the last record.
            FUZZ_CHECK(fetch.data().uid == last_uid);
        }
        fetch.dump();
        fetch.cleanup();
        FUZZ_CHECK(!fetch.in_fetch());
    });
    return 0;
}
