// The engine against libetpan's IMAP parser on a real server's answer, and a
// NOOP round trip through ZeImapRequest against a bare write/read loop.
//
// The answer is Dovecot's reply to
//   UID FETCH 1:* (UID X-FNAME FLAGS RFC822.SIZE INTERNALDATE BODYSTRUCTURE)
// for a folder of 10,000 messages made by cycling through the corpus. It is
// recorded once into the build folder (bench/imap-fetch-10000.txt; delete it
// to record again) and read back from memory for every run: both parsers read
// it through their own stream code from a memory file, so what is measured is
// reading, splitting and parsing the records and building the structures.
//
// The NOOP pair runs on one Dovecot child started through ZeImapConnection:
// BM_NoopRequest sends through ZeImapRequest, BM_NoopBare writes the command
// line and polls and reads the child's pipe until the tagged line is in.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "imap/ZeImapClient.h"
#include "imap/ZeImapProcessor.h"
#include "imap/ZeImapRequest.h"
#include "imap/ZeImapResponse.h"
#include "support/DovecotServer.h"
#include "support/MailUserId.h"
#include "support/Paths.h"

extern "C" {
#include <libetpan/libetpan.h>
#include <libetpan/mailimap_extension.h>

// The response parser is exported by libetpan but its header is not installed.
int mailimap_response_parse(mailstream* fd, MMAPString* buffer,
                            struct mailimap_parser_context* parser_ctx, size_t* indx,
                            struct mailimap_response** result, size_t progr_rate,
                            progress_function* progr_fun);
int mailimap_astring_parse(mailstream* fd, MMAPString* buffer,
                           struct mailimap_parser_context* parser_ctx, size_t* indx, char** result,
                           size_t progr_rate, progress_function* progr_fun);
}

namespace {

namespace fs = std::filesystem;

constexpr int kMessages = 10000;
const char* const kFetchItems = "1:* (UID X-FNAME FLAGS RFC822.SIZE INTERNALDATE BODYSTRUCTURE)";
const char* const kUser = "bench";

// ---------------------------------------------------------------- transcript

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
        std::ifstream in(file, std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        messages.push_back(bytes.str());
    }
    if (messages.empty()) {
        throw std::runtime_error(std::string("no messages in ") + ZEMAIL_CORPUS_DIR);
    }
    return messages;
}

// The FETCH answers and the completion of the second command, its tag
// replaced by "Ze1" (the tag of a process's first request).
std::string cut_fetch_answer(const std::string& session) {
    const std::string::size_type begin = session.find("\r\n* 1 FETCH ");
    const std::string::size_type done = session.find("\r\nb2 OK ");
    if (begin == std::string::npos || done == std::string::npos || done < begin) {
        throw std::runtime_error("unexpected server answer:\n" + session.substr(0, 2000));
    }
    const std::string::size_type end = session.find("\r\n", done + 2);
    return session.substr(begin + 2, done - begin) + "Ze1" +
           session.substr(done + 4, end + 2 - (done + 4));
}

std::string record_transcript() {
    const std::vector<std::string> messages = corpus_messages();
    zetest::DovecotServer server;
    server.add_folder(kUser, "Bench");
    const char* const flags[] = {"", "S", "FS", "RS", "S", "DS"};
    for (int i = 0; i < kMessages; ++i) {
        const std::string flag = flags[i % 6];
        server.deliver(kUser, "Bench", messages[i % messages.size()], flag, !flag.empty());
    }
    const std::string session =
        server.run_imap(kUser, std::string("b1 SELECT Bench\nb2 UID FETCH ") + kFetchItems + "\n",
                        std::chrono::minutes(10));
    return cut_fetch_answer(session);
}

// The recorded answer in a memory file; each parse reads it through a
// descriptor of its own, from the start.
class Transcript {
public:
    Transcript() {
        const std::string path = std::string(ZEMAIL_BENCH_DATA_DIR) + "/imap-fetch-10000.txt";
        if (!fs::exists(path)) {
            std::fprintf(stderr, "recording %s from Dovecot (%d messages)...\n", path.c_str(),
                         kMessages);
            const std::string text = record_transcript();
            std::ofstream(path, std::ios::binary) << text;
        }
        std::ifstream in(path, std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        m_text = bytes.str();
        m_fd = memfd_create("imap-fetch", MFD_CLOEXEC);
        if (m_fd < 0 ||
            ::write(m_fd, m_text.data(), m_text.size()) != static_cast<ssize_t>(m_text.size())) {
            throw std::runtime_error("cannot fill the memory file");
        }
    }
    ~Transcript() { ::close(m_fd); }

    // A new descriptor reading the transcript from its start.
    int reopen() const {
        const std::string path = "/proc/self/fd/" + std::to_string(m_fd);
        return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    std::size_t size() const { return m_text.size(); }

private:
    std::string m_text;
    int m_fd = -1;
};

const Transcript& transcript() {
    static const Transcript the_transcript;
    return the_transcript;
}

// Messages and bytes per second, the time per message and the trees made.
void report(benchmark::State& state, const Transcript& answer, int trees) {
    state.SetItemsProcessed(state.iterations() * kMessages);
    state.SetBytesProcessed(state.iterations() * static_cast<long>(answer.size()));
    state.counters["per_message"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * kMessages,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["trees"] = trees;
}

// ---------------------------------------------------------------- engine

// Takes each record the way a mailbox does: keeps the MIME tree and the
// fields it reads.
class RecordTaker : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& response) override {
        const ZeImapResponseUIDFetch::data_t& record = response.data();
        ++m_records;
        m_parts += record.mime ? 1 : 0;
        m_bytes += record.size + static_cast<long>(record.fname.size() + record.flags.size());
        m_last = record.mime;
        return 0;
    }
    void reset() { m_records = m_parts = 0; }

    int m_records = 0;
    int m_parts = 0;
    long m_bytes = 0;
    ZeImapMimeRef m_last;
};

void BM_EngineUidFetch(benchmark::State& state) {
    const Transcript& answer = transcript();
    ZeImapProcessorRef processor = ZeImapProcessorRef::make<RecordTaker>();
    auto& taker = static_cast<RecordTaker&>(*processor);
    ZeImapCommand command(ZeImapCommand::UID_FETCH);
    command.set_processor(processor);
    // No tree is made for a structure whose media type is empty or unknown
    // (the server's answer for an unparsable Content-Type): every run must
    // make as many as the first.
    int trees = -1;
    for (auto _ : state) {
        taker.reset();
        ZePipeIO io;
        io.read_fd(answer.reopen());
        io.write_fd(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        ZeImapRequest request(io);
        ZeImapTag::m_instance.m_counter = 0;
        const int code = request.request(command, kFetchItems);
        if (trees < 0) {
            trees = taker.m_parts;
        }
        if (code != 0 || taker.m_records != kMessages || taker.m_parts != trees) {
            state.SkipWithError(("engine: code " + std::to_string(code) + ", " +
                                 std::to_string(taker.m_records) + " records, " +
                                 std::to_string(taker.m_parts) + " trees")
                                    .c_str());
            break;
        }
    }
    report(state, answer, trees);
}
BENCHMARK(BM_EngineUidFetch)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------- libetpan

// X-FNAME is our server's own fetch item: without a parser for it libetpan
// refuses the whole answer. This one reads its value as an astring.
int xfname_parse(int calling_parser, mailstream* fd, MMAPString* buffer,
                 struct mailimap_parser_context* parser_ctx, size_t* indx,
                 struct mailimap_extension_data** result, size_t progr_rate,
                 progress_function* progr_fun);
void xfname_free(struct mailimap_extension_data* data) {
    std::free(data->ext_data);
    std::free(data);
}
char xfname_name[] = "X-FNAME";
struct mailimap_extension_api xfname_extension = {xfname_name, -1, xfname_parse, xfname_free};

int xfname_parse(int calling_parser, mailstream* fd, MMAPString* buffer,
                 struct mailimap_parser_context* parser_ctx, size_t* indx,
                 struct mailimap_extension_data** result, size_t progr_rate,
                 progress_function* progr_fun) {
    static const char kItem[] = "X-FNAME ";
    const std::size_t length = sizeof kItem - 1;
    if (calling_parser != MAILIMAP_EXTENDED_PARSER_FETCH_DATA || buffer->len < *indx + length ||
        strncasecmp(buffer->str + *indx, kItem, length) != 0) {
        return MAILIMAP_ERROR_PARSE;
    }
    std::size_t at = *indx + length;
    char* name = nullptr;
    const int r = mailimap_astring_parse(fd, buffer, parser_ctx, &at, &name, progr_rate, progr_fun);
    if (r != MAILIMAP_NO_ERROR) {
        return r;
    }
    *result = mailimap_extension_data_new(&xfname_extension, 0, name);
    *indx = at;
    return MAILIMAP_NO_ERROR;
}

int count_fetch_answers(const struct mailimap_response* response, int& with_structure) {
    int records = 0;
    with_structure = 0;
    for (clistiter* it = clist_begin(response->rsp_cont_req_or_resp_data_list); it != nullptr;
         it = clist_next(it)) {
        auto* item = static_cast<struct mailimap_cont_req_or_resp_data*>(clist_content(it));
        if (item->rsp_type != MAILIMAP_RESP_RESP_DATA ||
            item->rsp_data.rsp_resp_data->rsp_type != MAILIMAP_RESP_DATA_TYPE_MESSAGE_DATA) {
            continue;
        }
        const auto* message = item->rsp_data.rsp_resp_data->rsp_data.rsp_message_data;
        if (message->mdt_type != MAILIMAP_MESSAGE_DATA_FETCH) {
            continue;
        }
        ++records;
        for (clistiter* a = clist_begin(message->mdt_msg_att->att_list); a != nullptr;
             a = clist_next(a)) {
            auto* att = static_cast<struct mailimap_msg_att_item*>(clist_content(a));
            with_structure += att->att_type == MAILIMAP_MSG_ATT_ITEM_STATIC &&
                              att->att_data.att_static->att_type == MAILIMAP_MSG_ATT_BODYSTRUCTURE;
        }
    }
    return records;
}

void BM_LibetpanUidFetch(benchmark::State& state) {
    const Transcript& answer = transcript();
    static const bool registered = mailimap_extension_register(&xfname_extension) == 0;
    if (!registered) {
        state.SkipWithError("libetpan: cannot register X-FNAME");
    }
    mailimap* session = mailimap_new(0, nullptr);
    struct mailimap_parser_context* context = mailimap_parser_context_new(session);
    for (auto _ : state) {
        mailstream* stream = mailstream_socket_open(answer.reopen());
        mailstream_socket_set_use_read(stream, 1);
        MMAPString* buffer = mmap_string_new("");
        std::size_t index = 0;
        struct mailimap_response* response = nullptr;
        int r = mailstream_read_line(stream, buffer) != nullptr ? MAILIMAP_NO_ERROR : -1;
        if (r == MAILIMAP_NO_ERROR) {
            r = mailimap_response_parse(stream, buffer, context, &index, &response, 0, nullptr);
        }
        int trees = 0;
        const int records = r == MAILIMAP_NO_ERROR ? count_fetch_answers(response, trees) : 0;
        if (response != nullptr) {
            mailimap_response_free(response);
        }
        mmap_string_free(buffer);
        mailstream_close(stream);
        if (records != kMessages || trees != kMessages) {
            state.SkipWithError(("libetpan: result " + std::to_string(r) + ", " +
                                 std::to_string(records) + " records, " + std::to_string(trees) +
                                 " trees")
                                    .c_str());
            break;
        }
    }
    mailimap_parser_context_free(context);
    mailimap_free(session);
    report(state, answer, kMessages);
}
BENCHMARK(BM_LibetpanUidFetch)->Unit(benchmark::kMillisecond);

// ---------------------------------------------------------------- NOOP

// One Dovecot child for user "bench", started through the connection.
class NoopServer {
public:
    NoopServer() {
        m_server.add_user(kUser);
        zemail::paths::set_mail_root(m_server.root());
        zemail::paths::set_imap_program(m_server.wrapper());
        m_io = &ZeImapConnection::instance()->get_io(ZeMailUserId(MAILBOX_TYPE_DEFAULT, kUser));
        Corvane::Buffer greeting;
        m_io->readline(greeting);
    }
    ~NoopServer() { ZeImapConnection::instance()->close(); }
    ZePipeIO& io() { return *m_io; }

private:
    zetest::DovecotServer m_server;
    ZePipeIO* m_io = nullptr;
};

NoopServer& noop_server() {
    static NoopServer the_server;
    return the_server;
}

void BM_NoopRequest(benchmark::State& state) {
    ZeImapRequest request(noop_server().io());
    for (auto _ : state) {
        if (request.request(ImapRequestNoop, "") != 0) {
            state.SkipWithError("NOOP failed");
            break;
        }
    }
}
BENCHMARK(BM_NoopRequest)->Unit(benchmark::kMicrosecond);

// The floor: one write of the command line, then poll and read until the
// answer's last line (the tagged one) has arrived. False when no answer came.
bool bare_noop(ZePipeIO& io) {
    static const char command[] = "b1 NOOP\n";
    char answer[4096];
    if (::write(io.write_fd(), command, sizeof command - 1) != sizeof command - 1) {
        return false;
    }
    std::size_t length = 0;
    while (true) {
        pollfd entry = {io.read_fd(), POLLIN, 0};
        if (poll(&entry, 1, 5000) != 1) {
            return false;
        }
        const ssize_t got = ::read(io.read_fd(), answer + length, sizeof answer - length);
        if (got <= 0) {
            return false;
        }
        length += static_cast<std::size_t>(got);
        // Complete once the last line is in and it is the tagged one.
        if (length >= 2 && answer[length - 1] == '\n') {
            const char* last = static_cast<const char*>(memrchr(answer, '\n', length - 1));
            last = last != nullptr ? last + 1 : answer;
            if (std::strncmp(last, "b1 ", 3) == 0) {
                return true;
            }
        }
        if (length == sizeof answer) {
            length = 0;
        }
    }
}

void BM_NoopBare(benchmark::State& state) {
    ZePipeIO& io = noop_server().io();
    for (auto _ : state) {
        if (!bare_noop(io)) {
            state.SkipWithError("no answer");
            break;
        }
    }
}
BENCHMARK(BM_NoopBare)->Unit(benchmark::kMicrosecond);

// Both round trips in turn, each timed on its own, so that a change in the
// machine's load falls on both alike. The iteration time is the pair's.
void BM_NoopPaired(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    ZePipeIO& io = noop_server().io();
    ZeImapRequest request(io);
    Clock::duration through_request{}, bare{};
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const int code = request.request(ImapRequestNoop, "");
        const Clock::time_point middle = Clock::now();
        const bool answered = bare_noop(io);
        const Clock::time_point end = Clock::now();
        if (code != 0 || !answered) {
            state.SkipWithError("NOOP failed");
            break;
        }
        through_request += middle - start;
        bare += end - middle;
    }
    const double n = static_cast<double>(state.iterations());
    const double request_us = std::chrono::duration<double, std::micro>(through_request).count();
    const double bare_us = std::chrono::duration<double, std::micro>(bare).count();
    state.counters["request_us"] = request_us / n;
    state.counters["bare_us"] = bare_us / n;
    state.counters["overhead_pct"] = bare_us > 0 ? 100.0 * (request_us - bare_us) / bare_us : 0;
}
BENCHMARK(BM_NoopPaired)->Unit(benchmark::kMicrosecond);

}  // namespace
