// The exchange against scripted servers: small shell scripts that answer each
// command line the way a broken, hostile or silent server would. Everything a
// real server answers is tested against Dovecot (ZeImapDovecotTest).
#include "imap/ZeImapRequest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Debug.h"
#include "support/Paths.h"
#include "support/TestUtil.h"

namespace {

class Exchange : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = m_dir.path() + "/debug.log";
        basepp::dbg::set_debug_output(m_log);
        basepp::dbg::set_debug_zone(basepp::dbg::kZoneImap | basepp::dbg::kLevelTrace);
        m_descriptors = descriptors();
    }
    // Whatever the server did, closing the connection leaves no descriptor
    // open and no child unreaped.
    void TearDown() override {
        ZeImapConnection::instance()->close();
        EXPECT_EQ(m_descriptors, descriptors());
        EXPECT_TRUE(zetest::zombie_children().empty());
        basepp::dbg::set_debug_zone(0);
        basepp::dbg::set_debug_output("");
    }

    // Starts, through the connection, a server that greets and then runs
    // reply (shell) for each command line, with $tag, $cmd and $rest set.
    ZePipeIO& serve(const std::string& reply, int timeout = 5) {
        const std::string script =
            m_dir.write("server.sh",
                        "#!/bin/sh\ncd '" + m_dir.path() +
                            "'\nprintf '* PREAUTH ready\\r\\n'\n"
                            "while IFS= read -r line; do\n  printf '%s\\n' \"$line\" >> lines.txt\n"
                            "  tag=${line%% *}; rest=${line#* }; cmd=${rest%% *}\n" +
                            reply + "\ndone\n",
                        true);
        zemail::paths::set_imap_program(script);
        static int users = 0;
        ZePipeIO& io = ZeImapConnection::instance()->get_io(
            ZeMailUserId(MAILBOX_TYPE_DEFAULT, "u" + std::to_string(++users)));
        io.timeout(timeout);
        Corvane::Buffer greeting;
        io.readline(greeting);
        return io;
    }
    int pid() { return ZeImapConnection::instance()->program().pid(); }
    std::string log() { return zetest::read_file(m_log); }
    std::string received() { return zetest::read_file(m_dir.path() + "/lines.txt"); }

    // Open descriptors, without the syslog socket that the first syslog
    // record opens for the rest of the process.
    static std::vector<std::string> descriptors() {
        std::vector<std::string> out;
        for (const std::string& one : zetest::open_descriptors()) {
            if (one.find("socket:") == std::string::npos) {
                out.push_back(one);
            }
        }
        return out;
    }

    // Puts a descriptor opened on path in place of the io's read end, so
    // that the next read() fails the way reads fail on it.
    static void replace_read_end(ZePipeIO& io, const char* path, int flags) {
        const int fd = open(path, flags | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(io.read_fd(), dup2(fd, io.read_fd()));
        close(fd);
    }

    zetest::TempDir m_dir;
    std::string m_log;
    std::vector<std::string> m_descriptors;
};

// --- framing --------------------------------------------------------------

TEST_F(Exchange, CommandLinesAreFramedWithIncreasingTags) {
    ZePipeIO& io = serve("printf '%s OK done\\r\\n' \"$tag\"");
    ZeImapRequest request(io);
    EXPECT_EQ(0, request.request(ImapRequestNoop, ""));
    const unsigned first = ZeImapTag::m_instance.m_counter;
    EXPECT_EQ(0, request << ImapRequestList << "\"\" " << '*' << REQUEST_SEND);
    EXPECT_EQ(0, request.request(ImapRequestUnknown, ""));
    EXPECT_EQ(0, request.request(ZeImapCommand(static_cast<ZeImapCommand::COMMAND>(99)), "x"));
    EXPECT_EQ(0, request << ImapRequestNoop << static_cast<REQUEST_CMD>(1));  // not the send marker
    const std::string n = std::to_string(first);
    EXPECT_EQ("Ze" + n + " NOOP\nZe" + std::to_string(first + 1) + " LIST \"\" *\nZe" +
                  std::to_string(first + 2) + " \nZe" + std::to_string(first + 3) + "  x\n",
              received());
}

// --- completions ----------------------------------------------------------

TEST_F(Exchange, TaggedNoKeepsTheTextAfterNoWithItsResponseCode) {
    ZePipeIO& io = serve(
        "case \"$rest\" in\n"
        "  'SELECT Nope') printf '%s NO [TRYCREATE] Mailbox does not exist\\r\\n' \"$tag\" ;;\n"
        "  *) printf '%s NO\\r\\n' \"$tag\" ;;\nesac");
    ZeImapRequest request(io);
    EXPECT_EQ(1, request.request(ImapRequestSelect, "Nope"));
    EXPECT_TRUE(request.has_error());
    EXPECT_EQ("[TRYCREATE] Mailbox does not exist", request.last_error());
    EXPECT_NE(std::string::npos, log().find(":COMMAND NO! (SELECT)"));
    // A bare NO has no text after " NO ": the code alone tells the failure.
    EXPECT_EQ(1, request.request(ImapRequestSelect, "Other"));
    EXPECT_FALSE(request.has_error());
}

TEST_F(Exchange, BadAndUnknownStatusWordsGiveTwo) {
    ZePipeIO& io = serve(
        "case \"$rest\" in\n"
        "  'NOOP 1') printf '%s BAD Error in IMAP command\\r\\n' \"$tag\" ;;\n"
        "  'NOOP 2') printf '%s WHATEVER\\r\\n' \"$tag\" ;;\n"
        "  'NOOP 3') printf '%s\\r\\n' \"$tag\" ;;\n"
        "  'NOOP 4') printf '%s ok done\\r\\n' \"$tag\" ;;\n"
        "  'NOOP 5') printf '%s no way\\r\\n' \"$tag\" ;;\n"
        "  'NOOP 6') printf '%s bye now\\r\\n' \"$tag\" ;;\n"
        "  *) printf '%s OK\\r\\n' \"$tag\" ;;\nesac");
    ZeImapRequest request(io);
    const int child = pid();
    // Status words are read as written: lower case is not understood.
    for (const char* which : {"1", "2", "3", "4", "5", "6"}) {
        EXPECT_EQ(2, request.request(ImapRequestNoop, which)) << which;
    }
    EXPECT_EQ(child, pid());  // "bye" did not reconnect
    EXPECT_FALSE(request.has_error());
}

TEST_F(Exchange, UntaggedNoIsRecordedAndANoopWithItReconnects) {
    ZePipeIO& io = serve("printf '* NO [ALERT] disk is full\\r\\n%s OK done\\r\\n' \"$tag\"");
    ZeImapRequest request(io);
    EXPECT_EQ(0, request.request(ImapRequestSelect, "INBOX"));
    EXPECT_TRUE(request.has_error());
    EXPECT_EQ("* NO [ALERT] disk is full", request.last_error());
    const int before = pid();
    EXPECT_EQ(0, request.request(ImapRequestNoop, ""));
    EXPECT_NE(before, pid());
    EXPECT_NE(std::string::npos, log().find("NOOP: unknown imap server error, Reconnecting imap!"));
    // The request goes on working on the new child.
    Corvane::Buffer greeting;
    io.readline(greeting);
    EXPECT_EQ("* PREAUTH ready", greeting.str());
}

TEST_F(Exchange, ByeAsCompletionOrInPlaceOfATagReconnects) {
    struct Case {
        const char* reply;
        int code;
        bool drops_response;  // a tagged BYE ends the command: no response is kept
    } cases[] = {
        {"printf '* BYE going\\r\\n%s BYE shutting down\\r\\n' \"$tag\"", 3, true},
        {"printf 'BYE\\r\\n'", 4, false},
    };
    for (const Case& c : cases) {
        ZeImapRequest request(serve(c.reply));
        const int before = pid();
        EXPECT_EQ(c.code, request.request(ImapRequestNoop, "")) << c.reply;
        EXPECT_NE(before, pid()) << c.reply;
        if (c.drops_response) {
            EXPECT_TRUE(request.responser().isNull()) << c.reply;
        }
    }
    EXPECT_NE(std::string::npos, log().find(":Reconnecting imap!"));
}

TEST_F(Exchange, ForeignTagGivesFourAndLeavesTheRestUnread) {
    ZePipeIO& io = serve("printf 'Ze0 OK stale\\r\\n* 3 EXISTS\\r\\n%s OK done\\r\\n' \"$tag\"");
    ZeImapRequest request(io);
    EXPECT_EQ(4, request.request(ImapRequestNoop, ""));
    usleep(100 * 1000);
    ZeImapConnection::instance()->close();
    const std::string text = log();
    EXPECT_NE(std::string::npos, text.find(":FOUND ANOTHER COMMAND:Ze0 .vs. Ze")) << text;
    EXPECT_NE(std::string::npos, text.find("!!! Unhandled IMAP response: * 3 EXISTS")) << text;
}

TEST_F(Exchange, OlderTagOfThisProcessIsForeignToo) {
    // Ze1 begins the text of a newer tag such as Ze12: tags are compared whole.
    ZePipeIO& io = serve("printf 'Ze1 OK late answer\\r\\n'");
    ZeImapRequest request(io);
    for (int i = 0; i < 11; ++i) {
        ZeImapTag::m_instance.next();
    }
    EXPECT_EQ(4, request.request(ImapRequestNoop, ""));
}

TEST_F(Exchange, UntaggedByeAndHangUpEndWithZeroAndLaterRequestsFailQuietly) {
    // The server says goodbye and exits without completing the command: a
    // missing answer. The next command goes to a child that has gone (the
    // write fails with EPIPE, not SIGPIPE) and ends the same way.
    ZePipeIO& io = serve("printf '* BYE Server shutting down.\\r\\n'; exit 0");
    ZeImapRequest request(io);
    EXPECT_EQ(0, request.request(ImapRequestSelect, "INBOX"));
    EXPECT_FALSE(request.has_error());
    EXPECT_EQ(0, request.request(ImapRequestNoop, ""));
    EXPECT_EQ(0, request.request(ImapRequestLogout, ""));
}

// --- silence and truncation -----------------------------------------------

// Each case ends after at most one time-out of two seconds, however many
// reads the answer still wanted.
constexpr int kShortTimeout = 2;
constexpr long kOneTimeoutMs = kShortTimeout * 1000 + 900;

long milliseconds_since(std::chrono::steady_clock::time_point begin) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - begin)
                                 .count());
}

// A command that timed out leaves its answer to come: the next command
// must get its own answer, not the late one (a foreign tag, code 4, and the
// other command's data), and so must every later command.
TEST_F(Exchange, ALateAnswerIsNeverCreditedToTheNextCommand) {
    ZePipeIO& io = serve(
        "case \"$rest\" in\n"
        "  'NOOP slow') sleep 3; printf '* 9 EXISTS\\r\\n%s OK late\\r\\n' \"$tag\" ;;\n"
        "  *) printf '* %s EXISTS\\r\\n%s OK own\\r\\n' \"${rest#NOOP }\" \"$tag\" ;;\nesac",
        kShortTimeout);
    ZeImapRequest request(io);
    EXPECT_EQ(0, request.request(ImapRequestNoop, "slow"));
    EXPECT_FALSE(request.answered());
    const int child = pid();
    for (const unsigned exists : {2u, 3u}) {
        EXPECT_EQ(0, request.request(ImapRequestNoop, std::to_string(exists)));
        EXPECT_TRUE(request.answered());
        auto* noop = dynamic_cast<ZeImapResponseNoop*>(request.responser().get());
        ASSERT_NE(nullptr, noop);
        EXPECT_EQ(exists, noop->exists());
    }
    EXPECT_NE(child, pid());  // the server with the late answer was replaced
    EXPECT_NE(std::string::npos, log().find("an earlier answer is still unread, reconnecting"));
}

TEST_F(Exchange, SilentServerEndsWithZeroAfterTheTimeOut) {
    ZePipeIO& io = serve(":", kShortTimeout);
    ZeImapRequest request(io);
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, request.request(ImapRequestSelect, "INBOX"));
    EXPECT_LT(milliseconds_since(begin), kOneTimeoutMs);
    EXPECT_FALSE(request.has_error());
    auto* select = dynamic_cast<ZeImapResponseSelect*>(request.responser().get());
    ASSERT_NE(nullptr, select);
    EXPECT_EQ(0u, select->exists());
}

TEST_F(Exchange, HangUpInsideALiteralEndsTheExchange) {
    ZePipeIO& io = serve(
        "case \"$rest\" in\n"
        "  *HEADER*) printf '* 1 FETCH (UID 5 BODY[HEADER.FIELDS (TO)] {100}\\r\\nabc' ;;\n"
        "  *) printf '* 1 FETCH (UID 6 BODY[] {100}\\r\\nabc' ;;\nesac; exit 0");
    ZeImapRequest request(io);
    EXPECT_EQ(0, request.request(ImapRequestUidFetch, "5 BODY.PEEK[HEADER]"));
    auto* fetch = dynamic_cast<ZeImapResponseUIDFetch*>(request.responser().get());
    ASSERT_NE(nullptr, fetch);
    EXPECT_EQ(5u, fetch->data().uid);
    EXPECT_EQ("abc", fetch->data().headers.str());

    // A body literal nobody streams is skipped as far as it goes.
    serve("printf '* 1 FETCH (UID 6 BODY[] {100}\\r\\nabc'; exit 0");
    EXPECT_EQ(0, request.request(ImapRequestUidFetch, "6 BODY.PEEK[]"));
    fetch = dynamic_cast<ZeImapResponseUIDFetch*>(request.responser().get());
    ASSERT_NE(nullptr, fetch);
    EXPECT_EQ(6u, fetch->data().uid);
    EXPECT_EQ(100, fetch->data().literal_size);
    EXPECT_FALSE(fetch->in_fetch());
}

TEST_F(Exchange, LiteralLargerThanWhatFollowsTimesOutOnce) {
    for (const char* item : {"BODY[HEADER.FIELDS (TO)]", "BODY[1.MIME]", "BODY[]"}) {
        ZePipeIO& io = serve(std::string("printf '* 1 FETCH (UID 5 ") + item +
                                 " {5000}\\r\\nshort\\r\\n)\\r\\n%s OK done\\r\\n' \"$tag\"",
                             kShortTimeout);
        ZeImapRequest request(io);
        auto begin = std::chrono::steady_clock::now();
        const int code = request.request(ImapRequestUidFetch, "5 BODY.PEEK[HEADER]");
        EXPECT_LT(milliseconds_since(begin), kOneTimeoutMs) << item;
        auto* fetch = dynamic_cast<ZeImapResponseUIDFetch*>(request.responser().get());
        ASSERT_NE(nullptr, fetch);
        // The completion line is swallowed as literal bytes; the read then
        // times out, which ends the exchange as a missing answer: code 0, and
        // the literal's partial bytes are not taken for headers.
        EXPECT_EQ(0, code) << item;
        EXPECT_EQ(5u, fetch->data().uid) << item;
        EXPECT_TRUE(fetch->data().headers.empty()) << item;
        EXPECT_TRUE(fetch->data().mime_headers.empty()) << item;
        EXPECT_FALSE(request.has_error()) << item;

        // The next command waits for its own answer again.
        ZeImapConnection::instance()->close();
    }
}

TEST_F(Exchange, SilenceInsideAMultiLineStructureTimesOutOnce) {
    ZePipeIO& io = serve(
        "printf '* 1 FETCH (UID 5 BODYSTRUCTURE (\"application\" \"pdf\" (\"name\" {4}\\r\\n'",
        kShortTimeout);
    ZeImapRequest request(io);
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, request.request(ImapRequestUidFetch, "5 BODYSTRUCTURE"));
    EXPECT_LT(milliseconds_since(begin), kOneTimeoutMs);
}

// --- read errors --------------------------------------------------------------

TEST_F(Exchange, BadDescriptorGivesOneAndReconnectsExceptOnLogout) {
    ZePipeIO& io = serve("printf '%s OK\\r\\n' \"$tag\"");
    ZeImapRequest request(io);
    replace_read_end(io, "/dev/null", O_WRONLY);  // read() fails with EBADF
    int before = pid();
    EXPECT_EQ(1, request.request(ImapRequestNoop, ""));
    EXPECT_EQ(std::strerror(EBADF), request.last_error());
    EXPECT_NE(before, pid());
    EXPECT_EQ(0, request.request(ImapRequestNoop, ""));  // the new child answers
    EXPECT_FALSE(request.has_error());

    replace_read_end(io, "/dev/null", O_WRONLY);
    before = pid();
    EXPECT_EQ(0, request.request(ImapRequestLogout, ""));
    EXPECT_EQ(before, pid());
}

TEST_F(Exchange, OtherReadErrorsPropagate) {
    ZePipeIO& io = serve("printf '%s OK\\r\\n' \"$tag\"");
    ZeImapRequest request(io);
    replace_read_end(io, m_dir.path().c_str(), O_RDONLY | O_DIRECTORY);  // EISDIR
    for (const ZeImapCommand& command : {ImapRequestNoop, ImapRequestLogout}) {
        try {
            request.request(command, "");
            ADD_FAILURE() << "no exception for " << command;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string("Internal error:") + std::strerror(EISDIR), error.what());
        }
    }
    EXPECT_NE(std::string::npos, log().find("Caught error:Internal error:"));
}

// --- APPEND literal ---------------------------------------------------------

TEST_F(Exchange, AppendSendsTheFileOnceAndEndsTheLine) {
    for (const std::string& content : {std::string("Subject: hi\r\n\r\nbody\r\n"), std::string()}) {
        const std::string message = m_dir.write("message.eml", content);
        ZePipeIO& io = serve(
            "case \"$cmd\" in\n"
            "  APPEND) n=${rest##*\\{}; n=${n%\\}}\n"
            "    printf '+ Ready\\r\\n'; head -c \"$n\" > literal.bin\n"
            "    printf '+ more?\\r\\n%s OK [APPENDUID 7 12] Append completed.\\r\\n' \"$tag\" ;;\n"
            "  NOOP) printf '%s OK\\r\\n' \"$tag\" ;;\nesac");
        ZeImapRequest request(io);
        ZeImapCommand append(ZeImapCommand::APPEND);
        auto processor = ZeImapProcessorRef::make<ZeImapProcessAppend>(message);
        append.set_processor(processor);
        EXPECT_EQ(0, request.request(append, "INBOX {" + std::to_string(content.size()) + "}"));
        EXPECT_TRUE(dynamic_cast<ZeImapProcessAppend*>(processor.get())->done());
        EXPECT_EQ(0, request.request(ImapRequestNoop, ""));  // the stream is still in step
        EXPECT_EQ(content, zetest::read_file(m_dir.path() + "/literal.bin"));
        ZeImapConnection::instance()->close();
    }
}

// --- connection -------------------------------------------------------------

TEST_F(Exchange, UserWithoutAddressStartsNoChild) {
    ZePipeIO& io = ZeImapConnection::instance()->get_io(ZeMailUserId());
    EXPECT_FALSE(ZeImapConnection::instance()->program().is_open());
    ZeImapRequest request(io);
    EXPECT_EQ(0, request.request(ImapRequestNoop, ""));
    const std::string text = log();
    EXPECT_NE(std::string::npos,
              text.find("ZeImapConnection::connect() - m_username.address() is empty. user=,pid=" +
                        std::to_string(getpid()) + ",cmdline="))
        << text;
    EXPECT_NE(std::string::npos, text.find("ZeImapRequestTest")) << text;
}

TEST_F(Exchange, SameUserKeepsTheChildAndAnotherUserReplacesIt) {
    serve("printf '%s OK\\r\\n' \"$tag\"");
    const ZeMailUserId first = ZeImapConnection::instance()->user();
    const int before = pid();
    ZeImapConnection::instance()->get_io(first);
    EXPECT_EQ(before, pid());
    ZeImapConnection::instance()->get_io(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "other"));
    EXPECT_NE(before, pid());
    EXPECT_NE(std::string::npos, received().find(" LOGOUT\n"));
    EXPECT_NE(std::string::npos, log().find("Leaving the previous imap instance..."));
    EXPECT_TRUE(zetest::zombie_children().empty());
}

}  // namespace
