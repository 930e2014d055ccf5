// Header blocks: unfolding, lookup, defects, streams, size, and the corpus of
// real messages.

#include <gtest/gtest.h>
#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/mime/ContentType.h"
#include "support/mime/Header.h"

using Corvane::Header;
using Corvane::HeaderContainer;
using Corvane::MediaIn;

namespace {

HeaderContainer parsed(const std::string& text) {
    HeaderContainer h;
    h.parse(text.data(), text.size());
    return h;
}

std::vector<std::string> names(const HeaderContainer& h) {
    std::vector<std::string> out;
    for (const Header& field : h.headers()) {
        out.push_back(field.name());
    }
    return out;
}

}  // namespace

// --- fields and unfolding -----------------------------------------------------

TEST(MimeHeaders, UnfoldsContinuationLinesAndKeepsRawBytes) {
    const std::string text =
        "Subject: first\r\n second\r\n\tthird  \r\n"
        "To:\r\n  a@b.example\r\n"
        "\r\n"
        "Body: not a header\r\n";
    HeaderContainer h = parsed(text);
    ASSERT_EQ(2u, h.size());
    EXPECT_EQ("first second\tthird  ", h.get("Subject"));
    EXPECT_EQ("Subject: first\r\n second\r\n\tthird  \r\n", h.headers()[0].raw());
    EXPECT_EQ("a@b.example", h.get("to"));  // value starting on the next line
    EXPECT_EQ(text.find("Body:"), h.parsedLength());
    EXPECT_EQ("", h.get("Body"));
}

TEST(MimeHeaders, LfOnlyAndOddSpacing) {
    HeaderContainer h = parsed("A:x\nB :  y\n\nC: z\n");
    EXPECT_EQ((std::vector<std::string>{"A", "B"}), names(h));
    EXPECT_EQ("x", h.get("a"));
    EXPECT_EQ("y", h.get("b"));  // blanks before the colon are not part of the name
    EXPECT_EQ("", parsed("Empty:\r\n\r\n").get("Empty"));
    EXPECT_EQ(1u, parsed("Empty:\r\n\r\n").size());
    EXPECT_EQ("a\rb", parsed("X: a\rb\n").get("X"));  // a lone CR is data
}

TEST(MimeHeaders, LookupIsCaseInsensitiveAndKeepsOrderAndDuplicates) {
    HeaderContainer h =
        parsed("Received: one\nX-Mailer: m\nreceived: two\nRECEIVED: three\nSubject: s\n\n");
    EXPECT_EQ((std::vector<std::string>{"Received", "X-Mailer", "received", "RECEIVED", "Subject"}),
              names(h));
    EXPECT_EQ("one", h.get("RECEIVED"));
    EXPECT_EQ((std::vector<std::string>{"one", "two", "three"}), h.getAll("Received"));
    EXPECT_TRUE(h.getAll("Cc").empty());
    EXPECT_EQ(nullptr, h.find("Cc"));
    EXPECT_EQ("", h.get("Cc"));
    EXPECT_EQ("X-Mailer", h.find("x-mailer")->name());
}

// --- defects --------------------------------------------------------------------

TEST(MimeHeaders, MalformedLinesAreSkippedWithTheirContinuations) {
    HeaderContainer h = parsed(
        "A: 1\n"
        "this line has no colon\n"
        "  nor does its continuation\n"
        "bad name: spaces in the name\n"
        ": no name\n"
        "B: 2\n"
        "\n");
    EXPECT_EQ((std::vector<std::string>{"A", "B"}), names(h));
    EXPECT_EQ("1", h.get("A"));
    // A continuation with nothing above it belongs to nothing.
    EXPECT_EQ((std::vector<std::string>{"C"}), names(parsed("  stray\nC: 3\n")));
}

TEST(MimeHeaders, MboxSeparatorOnlyAtTheTop) {
    HeaderContainer h = parsed("From someone@example.com Mon Jan  1 00:00:00 2024\nFrom: a@b\n\n");
    EXPECT_EQ((std::vector<std::string>{"From"}), names(h));
    EXPECT_EQ("a@b", h.get("From"));
    EXPECT_EQ((std::vector<std::string>{"X", "Y"}),
              names(parsed("X: 1\nFrom someone Mon Jan  1\nY: 2\n")));
}

TEST(MimeHeaders, BlockWithoutBlankLineEndsWithTheInput) {
    const std::string text = "A: 1\r\nB: 2\r\n continued";
    HeaderContainer h = parsed(text);
    EXPECT_EQ(2u, h.size());
    EXPECT_EQ("2 continued", h.get("B"));
    EXPECT_EQ(text.size(), h.parsedLength());
    EXPECT_FALSE(HeaderContainer().parse("", 0));
    EXPECT_FALSE(HeaderContainer().parse("\r\nA: 1\r\n", 8));  // empty block
    EXPECT_FALSE(HeaderContainer().parse(nullptr, 10));
}

TEST(MimeHeaders, EightBitAndNulBytesAreKept) {
    const std::string text("Subject: caf\xE9 \xC3\xA9\0x\nX: y\n\n", 25);
    HeaderContainer h = parsed(text);
    EXPECT_EQ(std::string("caf\xE9 \xC3\xA9\0x", 9), h.get("Subject"));
    EXPECT_EQ("y", h.get("X"));
}

TEST(MimeHeaders, ParseReplacesThePreviousContent) {
    HeaderContainer h = parsed("A: 1\n\n");
    h.parse("B: 2\n", 5);
    EXPECT_EQ((std::vector<std::string>{"B"}), names(h));
}

// --- streams ----------------------------------------------------------------------

TEST(MimeHeaders, StreamStopsRightAfterTheBlankLine) {
    const std::string head = "From x@y Sat\nSubject: s\r\n t\r\nTo: u\r\n\r\n";
    MediaIn in = MediaIn::fromString(head + "body\r\n\r\nmore: x\r\n");
    HeaderContainer h;
    ASSERT_TRUE(h.parse(in));
    EXPECT_EQ("s t", h.get("subject"));
    EXPECT_EQ(head.size(), h.parsedLength());
    EXPECT_EQ("body\r\n\r\nmore: x\r\n", in.readAll());

    MediaIn only = MediaIn::fromString("A: 1\nB: 2");
    ASSERT_TRUE(h.parse(only));
    EXPECT_EQ(2u, h.size());
    MediaIn none;
    EXPECT_FALSE(h.parse(none));
    EXPECT_EQ(0u, h.size());
}

// A stream that hands out at most a few bytes per read.
class TrickleIn : public Corvane::MediaInImpl {
public:
    TrickleIn(std::string text, std::size_t step) : m_text(std::move(text)), m_step(step) {}
    long read(void* buf, std::size_t n) override {
        const std::size_t got = std::min({n, m_step, m_text.size() - m_at});
        m_text.copy(static_cast<char*>(buf), got, m_at);
        m_at += got;
        return static_cast<long>(got);
    }
    bool eof() const override { return m_at == m_text.size(); }

private:
    std::string m_text;
    std::size_t m_step;
    std::size_t m_at = 0;
};

// Reading in chunks finds the blank line wherever the chunks cut it, and
// gives what the byte-wise read gives.
TEST(MimeHeaders, ChunkedReadFindsTheBlankLineAcrossChunks) {
    for (const std::string text : {"Subject: s\r\n t\r\nTo: u\r\n\r\nbody\r\n\r\nX: y\r\n",
                                   "A: 1\nB: 2\n\nC: 3\n", "\r\nA: 1\n", "A: 1\nB: 2"}) {
        HeaderContainer whole = parsed(text);
        for (std::size_t step = 1; step <= 8; ++step) {
            MediaIn in = MediaIn::adopt(new TrickleIn(text, step));
            HeaderContainer h;
            h.parseHead(in);
            EXPECT_EQ(names(whole), names(h)) << step << " " << text;
            EXPECT_EQ(whole.parsedLength(), h.parsedLength()) << step << " " << text;
        }
    }
}

// --- size -------------------------------------------------------------------------

TEST(MimeHeaders, MillionContinuationLinesParseInLinearTime) {
    // A quadratic unfolding would copy the growing value once per line:
    // about 10^12 bytes here, far beyond the test's time limit.
    std::string text = "X-Long: start\n";
    std::string line = " ab\n";
    text.reserve(text.size() + line.size() * 1000000 + 32);
    for (int i = 0; i < 1000000; ++i) {
        text += line;
    }
    text += "Subject: end\n\n";
    HeaderContainer h = parsed(text);
    ASSERT_EQ(2u, h.size());
    EXPECT_EQ(5u + 3u * 1000000u, h.get("x-long").size());
    EXPECT_EQ("end", h.get("subject"));

    MediaIn in = MediaIn::fromString(text);
    HeaderContainer streamed;
    ASSERT_TRUE(streamed.parse(in));
    EXPECT_EQ(h.get("x-long").size(), streamed.get("x-long").size());
}

// --- building ---------------------------------------------------------------------

TEST(MimeHeaders, AddSetRemoveAndWriteBack) {
    HeaderContainer h = parsed("Received: a\nSubject: old\nreceived: b\nX: 1");
    h.set("RECEIVED", "c");
    EXPECT_EQ((std::vector<std::string>{"RECEIVED", "Subject", "X"}), names(h));
    h.add("To", "u@v");
    h.set("Cc", "w@v");
    EXPECT_EQ(1u, h.remove("subject"));
    EXPECT_EQ(0u, h.remove("subject"));
    EXPECT_EQ("RECEIVED: c\nX: 1\nTo: u@v\nCc: w@v\n", h.asString());
    HeaderContainer again = parsed(h.asString());
    EXPECT_EQ(names(h), names(again));
    EXPECT_EQ("c", again.get("received"));
}

// --- real messages ------------------------------------------------------------------

TEST(MimeHeadersCorpus, EveryFileParsesAndMessagesHaveTheirFields) {
    DIR* dir = ::opendir(ZEMAIL_CORPUS_DIR);
    if (dir == nullptr) {
        GTEST_SKIP() << "corpus not found at " << ZEMAIL_CORPUS_DIR;
    }
    std::size_t files = 0;
    std::size_t messages = 0;
    std::size_t typed = 0;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name[0] == '.' || name == "SOURCES.md" || name == "manifest.json") {
            continue;
        }
        std::ifstream file(std::string(ZEMAIL_CORPUS_DIR) + "/" + name, std::ios::binary);
        std::stringstream content;
        content << file.rdbuf();
        const std::string text = content.str();
        ++files;

        HeaderContainer h = parsed(text);
        EXPECT_LE(h.parsedLength(), text.size()) << name;
        for (const Header& field : h.headers()) {
            EXPECT_EQ(std::string::npos, field.value().find('\n')) << name << " " << field.name();
            EXPECT_NE(std::string::npos, text.find(field.raw())) << name;
        }
        // The stream reader stops at the same place.
        MediaIn in = MediaIn::fromString(text);
        HeaderContainer streamed;
        streamed.parse(in);
        EXPECT_EQ(h.size(), streamed.size()) << name;
        EXPECT_EQ(h.parsedLength(), streamed.parsedLength()) << name;

        if (h.find("From") || h.find("Date") || h.find("Subject")) {
            ++messages;
        }
        if (Corvane::ContentType(h.get("Content-Type")).mediaType() != 0) {
            ++typed;
        }
    }
    ::closedir(dir);
    // 306 files, among them bare MIME parts and deliberately broken input
    // from the projects' test suites: 228 of them have a From, Date or
    // Subject field.
    EXPECT_EQ(306u, files);
    EXPECT_EQ(228u, messages);
    EXPECT_GT(typed, 150u);
}
