// The IMAP engine against the real Dovecot: the connection, the request, the
// response parsers and the processors, on a throwaway store. LIST and GETQUOTA
// answers are read through the user model in ZeMUserDovecotTest.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "imap/ZeImapMime.h"
#include "imap/ZeImapRequest.h"
#include "support/Paths.h"
#include "support/TestUtil.h"
#include "tests/support/DovecotServer.h"

namespace {

// Keeps every UID FETCH record, and the bytes of a streamed section.
class Collector : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& r) override {
        records.push_back(r.data());
        if (stream_body && r.data().literal_size > 0) {
            Corvane::Buffer piece;
            piece.reserve(1000);
            unsigned long remaining = static_cast<unsigned long>(r.data().literal_size);
            while (r.retrieve_literal(piece, remaining) > 0) {
                body += piece.str();
            }
        }
        return 0;
    }
    std::vector<ZeImapResponseUIDFetch::data_t> records;
    bool stream_body = false;
    std::string body;
};

const char kMultipart[] =
    "From: Ann <ann@example.org>\n"
    "To: bob@example.org\n"
    "Subject: hello there\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=\"XX\"\n"
    "\n"
    "--XX\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "\n"
    "Hi Bob,\nthe report is attached.\n"
    "--XX\n"
    "Content-Type: application/pdf; name=\"report.pdf\"\n"
    "Content-Disposition: attachment; filename=\"report.pdf\"\n"
    "Content-Transfer-Encoding: base64\n"
    "\n"
    "JVBERi0xLjQKJcfsj6IK\n"
    "--XX--\n";

class DovecotEngine : public ::testing::Test {
protected:
    void SetUp() override {
        zemail::paths::set_mail_root(m_server.root());
        zemail::paths::set_imap_program(m_server.wrapper());
    }
    void TearDown() override { ZeImapConnection::instance()->close(); }

    // The pipes of the child serving user, greeting read.
    ZePipeIO& io(const std::string& user) {
        const bool fresh = !ZeImapConnection::instance()->program().is_open() ||
                           ZeImapConnection::instance()->user().address() != user;
        ZePipeIO& pipes =
            ZeImapConnection::instance()->get_io(ZeMailUserId(MAILBOX_TYPE_DEFAULT, user));
        if (fresh) {
            Corvane::Buffer greeting;
            pipes.readline(greeting);
            EXPECT_EQ(0u, greeting.str().find("* PREAUTH")) << greeting.str() << m_server.log();
        }
        return pipes;
    }
    // Sends cmd with args and a fresh collector attached.
    int send(ZeImapRequest& request, ZeImapCommand::COMMAND cmd, const std::string& args,
             Collector** collector = nullptr) {
        ZeImapCommand command(cmd);
        auto processor = ZeImapProcessorRef::make<Collector>();
        command.set_processor(processor);
        m_last = processor;
        if (collector != nullptr) {
            *collector = dynamic_cast<Collector*>(processor.get());
        }
        return request.request(command, args);
    }

    zetest::DovecotServer m_server;
    ZeImapProcessorRef m_last;
};

TEST_F(DovecotEngine, UserSwitchingStartsOneChildPerUserAndTagsKeepIncreasing) {
    m_server.add_user("ann");
    m_server.add_user("bob");
    ZePipeIO& first = io("ann");
    const int ann = ZeImapConnection::instance()->program().pid();
    ZeImapRequest request(first);
    EXPECT_EQ(0, request.request(ImapRequestNoop, ""));
    const unsigned tag = ZeImapTag::m_instance.m_counter;
    io("ann");
    EXPECT_EQ(ann, ZeImapConnection::instance()->program().pid());
    ZeImapRequest again(io("bob"));
    EXPECT_NE(ann, ZeImapConnection::instance()->program().pid());
    EXPECT_GT(ZeImapTag::m_instance.m_counter, tag);  // the LOGOUT took one
    EXPECT_EQ(0, again.request(ImapRequestNoop, ""));
    EXPECT_EQ(tag + 2, ZeImapTag::m_instance.m_counter);
    EXPECT_TRUE(zetest::zombie_children().empty());
}

TEST_F(DovecotEngine, StatusSelectAndSearch) {
    m_server.add_folder("ann", "Work/Projects");
    for (const char* subject : {"alpha", "beta", "gamma"}) {
        m_server.deliver("ann", "Work", std::string("Subject: ") + subject + "\n\nbody\n");
    }
    m_server.deliver("ann", "Work", "Subject: seen\n\nbody\n", "S", true);
    ZeImapRequest request(io("ann"));
    EXPECT_EQ(
        0, request.request(ImapRequestStatus, "\"Work\" (MESSAGES UNSEEN RECENT UIDNEXT X-SIZE)"));
    auto* status = dynamic_cast<ZeImapResponseStatus*>(request.responser().get());
    ASSERT_NE(nullptr, status);
    EXPECT_EQ("Work", status->name());
    EXPECT_EQ(4, status->messages());
    EXPECT_EQ(3, status->unseen());
    EXPECT_EQ(5, status->uidnext());
    EXPECT_GT(status->size(), 4 * 15);
    const long long folder_size = status->size();  // the next request replaces the parser

    EXPECT_EQ(0, request.request(ImapRequestSelect, "\"Work\""));
    auto* select = dynamic_cast<ZeImapResponseSelect*>(request.responser().get());
    ASSERT_NE(nullptr, select);
    EXPECT_EQ(4u, select->exists());
    EXPECT_EQ(5, select->uidnext());
    EXPECT_NE(0u, select->uidvalidity());

    Collector* sizes = nullptr;
    EXPECT_EQ(0, send(request, ZeImapCommand::UID_FETCH, "1:* (UID RFC822.SIZE)", &sizes));
    long long total = 0;
    for (const auto& record : sizes->records) {
        total += record.size;
    }
    EXPECT_EQ(total, folder_size);

    EXPECT_EQ(0, request.request(ImapRequestUidSearch, "SUBJECT \"a\""));
    auto* search = dynamic_cast<ZeImapResponseUIDSearch*>(request.responser().get());
    ASSERT_NE(nullptr, search);
    EXPECT_EQ("1,2,3", search->result());  // alpha, beta, gamma
    EXPECT_EQ(0, request.request(ImapRequestUidSearch, "SEEN"));
    EXPECT_EQ("4", dynamic_cast<ZeImapResponseUIDSearch*>(request.responser().get())->result());

    EXPECT_EQ(1, request.request(ImapRequestSelect, "\"Nope\""));
    EXPECT_NE(std::string::npos, request.last_error().find("doesn't exist"))
        << request.last_error();
}

TEST_F(DovecotEngine, AppendThroughTheProcessorThenFetchItBack) {
    m_server.add_user("ann");
    zetest::TempDir files;
    const std::string message = std::string(kMultipart);
    const std::string path = files.write("m.eml", message);
    ZeImapRequest request(io("ann"));
    ZeImapCommand append(ZeImapCommand::APPEND);
    append.set_processor(ZeImapProcessorRef::make<ZeImapProcessAppend>(path));
    EXPECT_EQ(0,
              request.request(append, "INBOX (\\Seen) {" + std::to_string(message.size()) + "}"));
    EXPECT_FALSE(request.has_error()) << request.last_error();

    EXPECT_EQ(0, request.request(ImapRequestSelect, "INBOX"));
    Collector* fetched = nullptr;
    EXPECT_EQ(0, send(request, ZeImapCommand::UID_FETCH,
                      "1:* (UID X-FNAME FLAGS RFC822.SIZE INTERNALDATE BODY.PEEK[HEADER.FIELDS "
                      "(FROM SUBJECT)] BODYSTRUCTURE)",
                      &fetched));
    ASSERT_EQ(1u, fetched->records.size());
    const auto& record = fetched->records[0];
    EXPECT_EQ(1u, record.uid);
    EXPECT_EQ("\\Seen \\Recent", record.flags);  // new in this session
    // The server counts line ends as CRLF.
    EXPECT_EQ(static_cast<long>(message.size() + std::count(message.begin(), message.end(), '\n')),
              record.size);
    EXPECT_FALSE(record.fname.empty());
    EXPECT_EQ(std::string::npos, record.fname.find(','));
    EXPECT_GT(record.received, 0);
    EXPECT_NE(std::string::npos, record.headers.str().find("Subject: hello there"))
        << record.headers.str();
    ASSERT_FALSE(record.mime.isNull());
    EXPECT_EQ(2u, record.mime->children().size());

    // A section streamed from its literal, in pieces.
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    auto processor = ZeImapProcessorRef::make<Collector>();
    auto* again = dynamic_cast<Collector*>(processor.get());
    again->stream_body = true;
    fetch.set_processor(processor);
    EXPECT_EQ(0, request.request(fetch, "1 (UID BODY.PEEK[1])"));
    // The line end before the boundary belongs to the boundary.
    EXPECT_EQ("Hi Bob,\r\nthe report is attached.", again->body);
}

}  // namespace
