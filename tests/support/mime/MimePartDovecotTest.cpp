// The message parser against the real IMAP server, message by message: every
// message of the corpus, of tests/data and a set of odd messages made here
// is delivered to Dovecot, and for each one
//   - the BODYSTRUCTURE text must equal ours byte for byte, except for the
//     six address fields of attached messages' envelopes, which we write as
//     NIL;
//   - the ZeImapMime tree the IMAP engine builds from the server's answer
//     must equal toImapMime() of our tree, field by field;
//   - BODY[section] must equal our section bytes for every part, its MIME
//     header, the header and text of every attached message, the whole
//     message, and a few sections that do not exist.

#include <gtest/gtest.h>
#include <dirent.h>
#include <strings.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "imap/ZeImapRequest.h"
#include "support/Paths.h"
#include "support/TestUtil.h"
#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"
#include "tests/support/DovecotServer.h"

using Corvane::MimePart;

namespace {

struct Message {
    std::string name;
    std::string bytes;
    std::unique_ptr<MimePart> root;
    std::string fname;  // the Maildir base name Dovecot reports as X-FNAME
    unsigned long uid = 0;
};

// ---- the messages ----------------------------------------------------------------------

void addFolder(std::vector<Message>& out, const std::string& dir, bool emlOnly) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return;
    }
    std::vector<std::string> names;
    while (dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        const bool eml = name.size() > 4 && name.compare(name.size() - 4, 4, ".eml") == 0;
        if (name[0] == '.' || name == "SOURCES.md" || name == "manifest.json" || name == "README" ||
            (emlOnly && !eml)) {
            continue;
        }
        names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        out.push_back(
            Message{dir + "/" + name, zetest::read_file(dir + "/" + name), nullptr, "", 0});
    }
}

std::string nestedMultipart(int n, const std::string& leafHeader,
                            const std::string& innermost = "mixed") {
    std::string text = "Subject: deep\n";
    for (int i = 0; i < n; ++i) {
        const std::string b = "=_b" + std::to_string(i) + "_=";
        text += "Content-Type: multipart/" + (i == n - 1 ? innermost : std::string("mixed")) +
                "; boundary=\"" + b + "\"\n\n--" + b + "\n";
    }
    text += leafHeader + "\nleaf line\n";
    for (int i = n - 1; i >= 0; --i) {
        text += "--=_b" + std::to_string(i) + "_=--\n";
    }
    return text;
}

std::string nestedMessages(int n) {
    std::string text = "Subject: r0\n";
    for (int i = 0; i < n; ++i) {
        text += "Content-Type: message/rfc822\n\nSubject: r" + std::to_string(i + 1) + "\n";
    }
    return text + "Content-Type: text/plain\n\nleaf\n";
}

std::string manyParts(int n, const std::string& last) {
    std::string text = "Subject: many\nContent-Type: multipart/mixed; boundary=\"QQ\"\n\n";
    for (int i = 0; i < n; ++i) {
        text += "--QQ\nContent-Type: text/plain\n\n" + std::to_string(i) + "\n";
    }
    return text + last + "--QQ--\nepilogue\n";
}

// Messages that take the parser through its odd corners.
std::vector<std::pair<std::string, std::string>> oddMessages() {
    std::vector<std::pair<std::string, std::string>> out;
    const char* const types[] = {
        "text",
        "text/plain foo",
        "text/",
        "/plain",
        "text/plain;;charset=x",
        "TEXT/PLAIN; CHARSET=UTF-8",
        "text/plain; charset=\"iso-8859-1\"; format=flowed",
        "text/plain (comment) ; charset=utf-8 (c2)",
        "text / plain",
        "text/plain; charset=utf-8; name*0=\"a\"; name*1=\"b.txt\"",
        "application/pdf; name*=utf-8''r%C3%A9sum%C3%A9.pdf",
        "application/pdf; name*0*=utf-8''r%C3%A9; name*1=sum.pdf; name=plain.pdf",
        "application/pdf; name*1=b; name*0=a",
        "application/pdf; name*0=a; name*2=c",
        "application/pdf; Name*0=a; name*1=b",
        "text/plain; a*1=x; name*=utf-8''y",
        "application/octet-stream; name=\"=?utf-8?B?w6kucGRm?=\"",
        "application/octet-stream; name==?utf-8?B?w6kucGRm?=",
        "application/octet-stream; name=caf\xe9.txt",
        "text/plain; charset=\"a\\\"b\"",
        "text/plain; name=\"\\\"\\\"\\\"\\\"\\\"five\"",
        "text/plain; charset=",
        "text/plain; =x; charset=y",
        "text/plain; foo",
        "text/plain; charset=utf-8;",
        "image/png; Name=\"A.PNG\"",
        "text/html; charset=utf-8; charset=latin1",
        "message/delivery-status",
        "multipart/alternative",
        "x-unknown/x-type; a=b",
        "text/plain;\n charset=utf-8",
        "text/plain; charset=utf-8 garbage",
        "\"text/plain\"",
        "text/plain; charset=\"unterminated",
        "text/plain (unterminated",
        "message/global",
    };
    int n = 0;
    for (const char* type : types) {
        out.emplace_back("type " + std::to_string(n++),
                         std::string("Subject: t\nMIME-Version: 1.0\n"
                                     "Content-Type: ") +
                             type + "\n\nbody line\n");
    }
    const char* const messages[] = {
        // headers
        "Subject: h\nthis is not a header\nContent-Type: text/html\n\nbody\n",
        "Subject: h\r\nContent-Type: text/plain\r\n\r\nline1\r\nline2\nline3\r\n",
        "From someone Mon Jan  1 00:00:00 2024\nSubject: h\n\nbody\n",
        "Subject: h\nContent-Type: text/plain",
        "Subject: h\nContent-Type: text/plain\n",
        "\nbody only\n",
        "Subject: h\r\r\nContent-Type: text/plain\r\n\r\nx\r",
        "Subject: h\n\nline1\nline2",
        "Subject: h\n \nContent-Type: text/html\n\nx\n",
        " Subject: h\nContent-Type: text/html\n\nx\n",
        "Subject: h\nContent-Type: text/html\nContent-Type: multipart/mixed; "
        "boundary=XX\n\n--XX\n\nx"
        "\n--XX--\n",
        "Subject: h\nContent-Type : text/html\n\nx\n",
        "Subject: h\ncontent-type: TEXT/HTML; Charset=UTF-8\n\nx\n",
        "Subject: x\nContent-Disposition: attachment; filename=a.txt\nContent-ID: <x>\n\nbody\n",
        "Subject: g\nMIME-Version: 1.0\nContent-Type: text/plain\nContent-ID: <id@x>\nContent-ID: "
        "second\nContent-Description: a\n desc\nContent-MD5: abc==\nContent-Language: en, de-CH "
        "(x)\nContent-Location: http://x/y\nContent-Disposition: inline\nContent-Disposition: "
        "attachment; filename=\"a.txt\"; size=3\nContent-Transfer-Encoding: 8bit garbage\n"
        "Content-Transfer-Encoding: Quoted-Printable\n\nbody\n",
        "Subject: g\nContent-Type: text/plain\nContent-Disposition: ; "
        "filename=x\nContent-Language: "
        "\nContent-Transfer-Encoding:\n\nbody\n",
        "Subject: g\nContent-Type: text/plain\nContent-Disposition: "
        "ATTACHMENT;\n\tFILENAME=\"A.TXT\""
        "\nContent-Transfer-Encoding: \"base64\"\nContent-Description: caf\xe9\n\nbody\n",
        // boundaries
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX  \nContent-Type: text/plain\n\nA\n--XX "
        "\t\n\nB\n--XX--garbage\nepi\n",
        "Content-Type: multipart/mixed; boundary=AB\n\n--AB\nContent-Type: multipart/mixed; "
        "boundary=A\n\n--A\n\ninner\n--AB\n\nouter2\n--AB--\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\n\none\n--XX",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\n\none\n--XX\n",
        "Content-Type: multipart/mixed; boundary=S\n\n--S\nContent-Type: multipart/mixed; "
        "boundary=S\n\n--S\n\ninner\n--S--\nafter\n--S\n\nlast\n--S--\n",
        "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: multipart/mixed; "
        "boundary=b--\n\n--b--\n\nin\n--b----\n--b--\n",
        "Content-Type: multipart/mixed; boundary=XX\r\n\r\npre\r\n--XX\r\nContent-Type: "
        "text/plain\r\n\r\nline\r\n--XX\r\n\r\n--XX--\r\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: text/plain\nX-A: "
        "b\n--XX\n"
        "Content-Type: text/html\n\nh\n--XX--\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: text/plain\n\n--XX--\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\n--XX\n\nb\n--XX--\n",
        "Content-Type: multipart/mixed;\n boundary=XX\n\n--XX\n\na\n--XX--\n",
        "Content-Type: multipart/mixed; boundary=\"\"\n\n--\n\nx\n--\n\ny\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: multipart/related; "
        "boundary=YY\n\n--YY\n\nr1\n--XX\n\nafter inner without end\n--XX--\n",
        // attached messages and digests
        "Content-Type: multipart/digest; boundary=D\n\n--D\n\nSubject: d1\n\nbody1\n--D\n"
        "Content-Type: text/plain\n\nplain\n--D--\n",
        "Content-Type: message/rfc822\n\nDate: first\nDate: second\nIn-Reply-To: <a@b>\n <c@d>\n"
        "Message-ID:  <m@x>  \nSubject:   \n\nx\n",
        "Subject: outer\nContent-Type: message/rfc822\n\nSubject: folded\n  subject\tline\nDate:   "
        "spaced  \n\nx\n",
        "Subject: outer\nContent-Type: message/rfc822\n\nSubject: caf\xe9 \"q\" \\ b\n\nx\n",
        "Subject: outer\nContent-Type: message/rfc822\n\nSubject: =?utf-8?q?caf=C3=A9?=\n\nx\n",
        "Subject: outer\nContent-Type: message/rfc822\n\n",
        "Subject: outer\nContent-Type: message/rfc822\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: "
        "message/rfc822\n\n--XX--\n",
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: message/rfc822; "
        "foo=bar\n"
        "Content-Disposition: attachment; filename=m.eml\n\nSubject: s\n\nb\n--XX--\n",
        "Content-Type: message/rfc822\n\nSubject: in\nContent-Type: multipart/mixed; boundary=I\n\n"
        "--I\n\none\n--I\nContent-Type: message/rfc822\n\nSubject: deeper\n\ntwo\n--I--\n",
    };
    for (const char* message : messages) {
        out.emplace_back("odd " + std::to_string(n++), message);
    }
    out.emplace_back("zero bytes",
                     std::string("Subject: h\0x\nContent-Type: text/plain\n\nbo\0dy\n", 46));
    out.emplace_back("empty", "");
    // limits
    for (int depth : {98, 99, 100, 101}) {
        out.emplace_back("multipart depth " + std::to_string(depth),
                         nestedMultipart(depth, "Content-Type: text/plain\n"));
        out.emplace_back("message depth " + std::to_string(depth), nestedMessages(depth));
    }
    for (const char* leaf :
         {"Content-Type: message/rfc822; x=y\n", "Content-Type: multipart/mixed\n",
          "Content-Type: Multipart/X; boundary=z\n", "Content-Type: text/html\n"}) {
        out.emplace_back(std::string("overflow ") + leaf, nestedMultipart(99, leaf));
    }
    // A message without type in a digest at the last level.
    out.emplace_back("overflow in a digest",
                     nestedMultipart(99, "Subject: in a digest\n", "digest"));
    out.emplace_back("10005 parts", manyParts(10005, ""));
    out.emplace_back(
        "message as section 9999",
        manyParts(9998, "--QQ\nContent-Type: message/rfc822\n\nSubject: inner\n\nbody\n"));
    out.emplace_back("multipart as section 9999",
                     manyParts(9998,
                               "--QQ\nContent-Type: multipart/alternative; boundary=RR\n\n"
                               "--RR\n\nx\n--RR--\n"));
    return out;
}

// ---- reading the server's answers ------------------------------------------------------

// One value of an IMAP answer: an atom (NIL included), a string (quoted or
// literal, its bytes undone) or a list, with where it lies in the text.
struct Value {
    enum Kind { ATOM, STRING, LIST } kind = ATOM;
    std::string text;
    std::vector<Value> items;
    std::size_t begin = 0;
    std::size_t end = 0;
};

// Reads the value at pos in text; pos ends after it.
Value readValue(const std::string& text, std::size_t& pos) {
    while (pos < text.size() && text[pos] == ' ') {
        ++pos;
    }
    Value v;
    v.begin = pos;
    if (pos >= text.size()) {
        v.end = pos;
        return v;
    }
    const char c = text[pos];
    if (c == '(') {
        v.kind = Value::LIST;
        ++pos;
        for (;;) {
            while (pos < text.size() && text[pos] == ' ') {
                ++pos;
            }
            if (pos >= text.size() || text[pos] == ')') {
                break;
            }
            v.items.push_back(readValue(text, pos));
        }
        ++pos;
    } else if (c == '"') {
        v.kind = Value::STRING;
        for (++pos; pos < text.size() && text[pos] != '"'; ++pos) {
            if (text[pos] == '\\') {
                ++pos;
            }
            v.text += text[pos];
        }
        ++pos;
    } else if (c == '{') {
        v.kind = Value::STRING;
        const std::size_t close = text.find('}', pos);
        const std::size_t length = std::stoul(text.substr(pos + 1, close - pos - 1));
        pos = close + 3;  // "}\r\n"
        v.text = text.substr(pos, length);
        pos += length;
    } else {
        const std::size_t stop = text.find_first_of(" ()\r\n", pos + (c == '[' ? 1 : 0));
        pos = stop == std::string::npos ? text.size() : stop;
        v.text = text.substr(v.begin, pos - v.begin);
    }
    v.end = pos;
    return v;
}

// The item lists of every "* n FETCH (...)" answer in a session's output.
std::vector<Value> fetchAnswers(const std::string& out) {
    std::vector<Value> answers;
    std::size_t pos = 0;
    while (pos < out.size()) {
        const std::size_t eol = out.find("\r\n", pos);
        const std::size_t line_end = eol == std::string::npos ? out.size() : eol;
        const std::size_t fetch = out.find(" FETCH (", pos);
        if (out.compare(pos, 2, "* ") == 0 && fetch != std::string::npos && fetch < line_end) {
            std::size_t at = fetch + 7;
            answers.push_back(readValue(out, at));
            pos = at;
        }
        const std::size_t next = out.find("\r\n", pos);
        pos = next == std::string::npos ? out.size() : next + 2;
    }
    return answers;
}

// The value after item name in a FETCH item list, or nullptr.
const Value* item(const Value& list, const std::string& name) {
    for (std::size_t i = 0; i + 1 < list.items.size(); i += 2) {
        if (strcasecmp(list.items[i].text.c_str(), name.c_str()) == 0) {
            return &list.items[i + 1];
        }
    }
    return nullptr;
}

bool isString(const Value& v, const char* text) {
    return v.kind == Value::STRING && strcasecmp(v.text.c_str(), text) == 0;
}

// Where the six address fields of every attached message's envelope lie.
void addressSpans(const Value& v, std::vector<std::pair<std::size_t, std::size_t>>& spans) {
    if (v.kind != Value::LIST) {
        return;
    }
    if (v.items.size() >= 8 && isString(v.items[0], "message") && isString(v.items[1], "rfc822") &&
        v.items[7].kind == Value::LIST && v.items[7].items.size() == 10) {
        for (int i = 2; i < 8; ++i) {
            spans.emplace_back(v.items[7].items[i].begin, v.items[7].items[i].end);
        }
    }
    for (const Value& child : v.items) {
        addressSpans(child, spans);
    }
}

// BODYSTRUCTURE text with the envelope addresses replaced by NIL.
std::string withoutAddresses(const std::string& text) {
    std::size_t pos = 0;
    const Value v = readValue(text, pos);
    std::vector<std::pair<std::size_t, std::size_t>> spans;
    addressSpans(v, spans);
    std::sort(spans.begin(), spans.end());
    std::string out = text.substr(0, v.end);
    for (auto it = spans.rbegin(); it != spans.rend(); ++it) {
        out.replace(it->first, it->second - it->first, "NIL");
    }
    return out;
}

// ---- the IMAP engine's tree ----------------------------------------------------------------

class Collector : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& r) override {
        trees[r.data().fname] = r.data().mime;
        return 0;
    }
    std::map<std::string, ZeImapMimeRef> trees;
};

// ---- sections --------------------------------------------------------------------------------

std::vector<std::string> sectionsOf(const MimePart& root) {
    std::set<std::string> seen;
    std::vector<std::string> out{"", "HEADER", "TEXT"};
    std::vector<const MimePart*> pending{&root};
    while (!pending.empty()) {
        const MimePart* part = pending.back();
        pending.pop_back();
        const std::string s = part == &root ? "1" : part->section();
        if (seen.insert(s).second) {
            out.push_back(s);
            out.push_back(s + ".MIME");
        }
        if (part->isMessage()) {
            out.push_back(s + ".HEADER");
            out.push_back(s + ".TEXT");
        }
        if (part->isMultipart() && part->children().empty()) {
            out.push_back(part == &root ? "1" : s + ".1");  // the reported empty part
        }
        if (part->isMultipart()) {
            const std::string next = std::to_string(part->children().size() + 1);
            out.push_back(part == &root ? next : s + "." + next);  // none
        }
        for (const auto& child : part->children()) {
            pending.push_back(child.get());
        }
    }
    return out;
}

class MimePartDovecot : public ::testing::Test {
protected:
    void SetUp() override {
        addFolder(m_messages, ZEMAIL_CORPUS_DIR, false);
        addFolder(m_messages, std::string(ZEMAIL_TEST_DATA_DIR) + "/messages", true);
        addFolder(m_messages, std::string(ZEMAIL_TEST_DATA_DIR) + "/bodystructure", true);
        m_corpus = m_messages.size();
        for (auto& odd : oddMessages()) {
            m_messages.push_back(Message{odd.first, odd.second, nullptr, "", 0});
        }
        m_server.add_user("ann");
        for (Message& m : m_messages) {
            m.root = Corvane::Rfc822MsgParser().parse(m.bytes);
            m.fname = m_server.deliver("ann", "", m.bytes, "S", true);
        }
    }
    void TearDown() override { ZeImapConnection::instance()->close(); }

    // By X-FNAME, which may carry ",S=<size>" after the base name.
    Message* byName(const std::string& fname) {
        const std::string base = fname.substr(0, fname.find(','));
        for (Message& m : m_messages) {
            if (m.fname == base) {
                return &m;
            }
        }
        return nullptr;
    }

    zetest::DovecotServer m_server;
    std::vector<Message> m_messages;
    std::size_t m_corpus = 0;
};

// Every corpus file must be one that SOURCES.md attributes and the manifest
// lists, so that nothing enters the corpus without its origin and licence.
TEST(Corpus, EveryFileIsListedInTheSourcesAndTheManifest) {
    std::vector<Message> files;
    addFolder(files, ZEMAIL_CORPUS_DIR, false);
    if (files.empty()) {
        GTEST_SKIP() << "no corpus at " << ZEMAIL_CORPUS_DIR;
    }
    const std::string dir = std::string(ZEMAIL_CORPUS_DIR) + "/";
    const std::string sources = zetest::read_file(dir + "SOURCES.md");
    const std::string manifest = zetest::read_file(dir + "manifest.json");
    auto count = [](const std::string& text, const std::string& needle) {
        std::size_t n = 0;
        for (std::size_t at = text.find(needle); at != std::string::npos;
             at = text.find(needle, at + 1)) {
            ++n;
        }
        return n;
    };
    EXPECT_EQ(files.size(), count(manifest, "\"name\": "));
    for (const Message& m : files) {
        const std::string name = m.name.substr(dir.size());
        EXPECT_EQ(1u, count(sources, "| " + name + " |")) << name;
        EXPECT_EQ(1u, count(manifest, "\"" + name + "\"")) << name;
    }
}

TEST_F(MimePartDovecot, BodyStructureTreesAndSectionsMatchTheServer) {
    ASSERT_GT(m_corpus, 300u) << "the corpus was not found at " << ZEMAIL_CORPUS_DIR;

    // 1. BODYSTRUCTURE as text, twice: the server's first answer for a
    // plain 7-bit text message shows its fields as written, later ones (from
    // its cache) its defaults; ours is the later one.
    const std::string out =
        m_server.run_imap("ann",
                          "a SELECT INBOX\nb UID FETCH 1:* (UID X-FNAME BODYSTRUCTURE)\n"
                          "c UID FETCH 1:* (UID X-FNAME BODYSTRUCTURE)\n",
                          std::chrono::seconds(300));
    std::map<std::string, std::string> first;
    std::size_t compared = 0;
    std::size_t normalised = 0;
    for (const Value& answer : fetchAnswers(out)) {
        const Value* fname = item(answer, "X-FNAME");
        const Value* uid = item(answer, "UID");
        const Value* structure = item(answer, "BODYSTRUCTURE");
        ASSERT_TRUE(fname && uid && structure);
        Message* m = byName(fname->text);
        ASSERT_NE(nullptr, m) << fname->text;
        m->uid = std::stoul(uid->text);
        const std::string theirs = out.substr(structure->begin, structure->end - structure->begin);
        if (first.count(m->fname) == 0) {
            first[m->fname] = theirs;
            continue;
        }
        const std::string ours = Corvane::bodyStructure(*m->root);
        EXPECT_EQ(withoutAddresses(theirs), withoutAddresses(ours)) << m->name;
        EXPECT_EQ(ours, withoutAddresses(ours)) << m->name;  // ours has no addresses
        if (first[m->fname] != theirs) {
            ++normalised;
            EXPECT_EQ(0u,
                      ours.find("(\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" "))
                << m->name << " changed between answers: " << first[m->fname];
        }
        ++compared;
    }
    EXPECT_EQ(m_messages.size(), compared);

    // 2. The engine's tree from the server's answer against ours.
    zemail::paths::set_mail_root(m_server.root());
    zemail::paths::set_imap_program(m_server.wrapper());
    ZePipeIO& io = ZeImapConnection::instance()->get_io(ZeMailUserId(MAILBOX_TYPE_DEFAULT, "ann"));
    Corvane::Buffer greeting;
    io.readline(greeting);
    ZeImapRequest request(io);
    ASSERT_EQ(0, request.request(ImapRequestSelect, "INBOX"));
    ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
    auto processor = ZeImapProcessorRef::make<Collector>();
    auto* collector = dynamic_cast<Collector*>(processor.get());
    fetch.set_processor(processor);
    ASSERT_EQ(0, request.request(fetch, "1:* (UID X-FNAME BODYSTRUCTURE)"));
    EXPECT_EQ(m_messages.size(), collector->trees.size());
    for (const Message& m : m_messages) {
        auto found = collector->trees.find(m.fname);
        ASSERT_NE(collector->trees.end(), found) << m.name;
        EXPECT_EQ(zetest::describe_tree(found->second), zetest::describe_tree(toImapMime(*m.root)))
            << m.name;
    }

    // 3. The bytes of every section, 200 to a command.
    std::string script = "a SELECT INBOX\n";
    std::map<unsigned long, std::vector<std::string>> asked;
    int tag = 0;
    for (const Message& m : m_messages) {
        const std::vector<std::string> sections = sectionsOf(*m.root);
        for (std::size_t i = 0; i < sections.size(); i += 200) {
            script += "s" + std::to_string(tag++) + " UID FETCH " + std::to_string(m.uid) + " (UID";
            for (std::size_t j = i; j < std::min(sections.size(), i + 200); ++j) {
                script += " BODY.PEEK[" + sections[j] + "]";
            }
            script += ")\n";
        }
        asked[m.uid] = sections;
    }
    const std::string bodies = m_server.run_imap("ann", script, std::chrono::seconds(600));
    std::map<unsigned long, std::map<std::string, std::string>> got;
    for (const Value& answer : fetchAnswers(bodies)) {
        const Value* uid = item(answer, "UID");
        ASSERT_NE(nullptr, uid);
        auto& into = got[std::stoul(uid->text)];
        for (std::size_t i = 0; i + 1 < answer.items.size(); i += 2) {
            const std::string& key = answer.items[i].text;
            if (key.compare(0, 5, "BODY[") == 0) {
                into[key.substr(5, key.size() - 6)] = answer.items[i + 1].text;
            }
        }
    }
    std::size_t sections_compared = 0;
    std::size_t parts = 0;
    for (const Message& m : m_messages) {
        parts += m.root->count();
        for (const std::string& s : asked[m.uid]) {
            auto found = got[m.uid].find(s);
            ASSERT_NE(got[m.uid].end(), found) << m.name << " BODY[" << s << "]";
            std::string ours;
            Corvane::readSection(m.bytes.data(), m.bytes.size(), *m.root, s, ours);
            if (ours != found->second) {
                std::size_t at = 0;
                while (at < ours.size() && at < found->second.size() &&
                       ours[at] == found->second[at]) {
                    ++at;
                }
                ADD_FAILURE() << m.name << " BODY[" << s << "]: ours " << ours.size()
                              << " bytes, the server's " << found->second.size()
                              << ", first difference at " << at;
            }
            ++sections_compared;
        }
    }
    std::cout << "compared " << compared << " messages (" << m_corpus << " from files; "
              << normalised << " plain text ones answered differently the first time), " << parts
              << " parts, " << sections_compared << " sections\n";
}

}  // namespace
