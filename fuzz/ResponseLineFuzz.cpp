// Feeds arbitrary server output to the untagged-line parsers, through a real
// feeder, the way the request does: line by line, the iterator standing on
// the token after "*", then dump() and cleanup().
//
// The first byte picks the response: NOOP, LIST, STATUS, SELECT, GETQUOTA,
// UID SEARCH or APPEND; or (7) whole exchanges through ZeImapRequest, for the
// command named by the second byte, every exchange tagged "Ze1" so that the
// input can complete it. The debug log is on (to /dev/null) so that every
// dump and log record is formatted.
#include <cstdint>
#include <string>

#include "fuzz/ServerBytes.h"
#include "imap/ZeImapClient.h"
#include "imap/ZeImapRequest.h"
#include "imap/ZeImapResponse.h"

namespace {

const ZeImapCommand::COMMAND kParsers[] = {
    ZeImapCommand::NOOP,   ZeImapCommand::LIST,     ZeImapCommand::STATUS,
    ZeImapCommand::SELECT, ZeImapCommand::GETQUOTA, ZeImapCommand::UID_SEARCH,
    ZeImapCommand::APPEND,
};
constexpr unsigned kExchangeMode = 7;
constexpr int kExchanges = 3;

// What holds for any line a parser accepted.
void check(const ZeImapResponse& response) {
    if (auto* list = dynamic_cast<const ZeImapResponseList*>(&response)) {
        FUZZ_CHECK(list->name() != "INBOX");
    } else if (auto* search = dynamic_cast<const ZeImapResponseUIDSearch*>(&response)) {
        FUZZ_CHECK(search->count() >= 0);
        FUZZ_CHECK(search->count() > 0 || search->result().empty());
        FUZZ_CHECK(search->result().size() + 1 >= static_cast<std::size_t>(search->count()));
    }
}

void parse_lines(ZeImapCommand::COMMAND command, const std::string& bytes) {
    zefuzz::ServerBytes server(bytes);
    ZeImapFeeder feeder(server.io());
    ZeImapResponseRef response(command, feeder);
    FUZZ_CHECK(!response.isNull());
    server.each_untagged_line(feeder, [&response] {
        const int taken = response->parse();
        FUZZ_CHECK(taken == 0 || taken == 2);
        if (taken == 0) {
            check(*response);
        }
        response->dump();
        response->cleanup();
    });
}

void run_exchanges(ZeImapCommand::COMMAND command, const std::string& bytes) {
    zefuzz::ServerBytes server(bytes);
    ZeImapRequest request(server.io());
    for (int i = 0; i < kExchanges; ++i) {
        ZeImapTag::m_instance.m_counter = 0;
        const int code = request.request(ZeImapCommand(command), "");
        FUZZ_CHECK(code >= 0 && code <= 4);
        FUZZ_CHECK(code != 3 || request.responser().isNull());
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zefuzz::log_everything_to_null();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 || size > zefuzz::kMaxServerBytes) {
        return 0;
    }
    const unsigned mode = data[0] % 8;
    if (mode == kExchangeMode) {
        const auto command =
            static_cast<ZeImapCommand::COMMAND>(data[1] % 23);  // 22: off the table
        run_exchanges(command, std::string(reinterpret_cast<const char*>(data) + 2, size - 2));
    } else {
        parse_lines(kParsers[mode], std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    }
    return 0;
}
