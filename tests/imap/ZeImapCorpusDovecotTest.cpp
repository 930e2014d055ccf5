// Real messages against the real Dovecot: every message of the corpus (and
// the synthetic ones in tests/data/messages) is delivered to a throwaway
// Dovecot, its BODYSTRUCTURE is fetched through the engine (request, UID
// FETCH response, MIME parser), and the tree must agree with what Dovecot
// answers for each part on its own: BODY.PEEK[section] gives the size and
// line count, BODY.PEEK[section.MIME] the type, charset and disposition.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "imap/ZeImapMime.h"
#include "imap/ZeImapRequest.h"
#include "support/Paths.h"
#include "support/TestUtil.h"
#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentType.h"
#include "support/mime/Header.h"
#include "tests/support/DovecotServer.h"

using Corvane::ContentDisposition;
using Corvane::ContentType;

namespace {

const char kUser[] = "corpus";
const std::size_t kPerFolder = 100;

struct Message {
    std::string name;  // file name; "messages/<file>" for the synthetic ones
    std::string bytes;
    std::string folder;
    unsigned long uid = 0;
};

// Every file of dir except the ones listed in skip, in name order.
std::vector<std::string> file_names(const std::string& dir, const std::set<std::string>& skip) {
    std::vector<std::string> names;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) {
        return names;
    }
    while (dirent* entry = ::readdir(d)) {
        const std::string name = entry->d_name;
        if (name[0] != '.' && skip.count(name) == 0) {
            names.push_back(name);
        }
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

// How often needle occurs in text.
std::size_t count(const std::string& text, const std::string& needle) {
    std::size_t n = 0;
    for (std::size_t at = text.find(needle); at != std::string::npos;
         at = text.find(needle, at + needle.size())) {
        ++n;
    }
    return n;
}

// The FETCH answers of a raw session: UID -> item name -> value. A literal
// or quoted string gives its bytes, NIL gives "", an atom or a list its text
// as sent (literals in a list included).
using Items = std::map<std::string, std::string>;

class FetchReader {
public:
    explicit FetchReader(const std::string& out) : m_out(out) {}

    std::map<unsigned long, Items> answers() {
        std::map<unsigned long, Items> found;
        while ((m_p = m_out.find("* ", m_p)) != std::string::npos) {
            const std::size_t fetch = m_out.find(" FETCH (", m_p);
            const std::size_t eol = m_out.find("\r\n", m_p);
            if (fetch == std::string::npos || fetch > eol) {
                m_p = eol;
                continue;
            }
            m_p = fetch + 8;
            Items items;
            while (m_p < m_out.size() && m_out[m_p] != ')') {
                const std::size_t name_end = m_out.find(' ', m_p);
                const std::string name = m_out.substr(m_p, name_end - m_p);
                m_p = name_end + 1;
                items[name] = value();
                blanks();
            }
            found[std::stoul(items["UID"])] = items;
        }
        return found;
    }

private:
    void blanks() {
        while (m_p < m_out.size() && m_out[m_p] == ' ') {
            ++m_p;
        }
    }
    std::string value() {
        const std::size_t begin = m_p;
        if (m_out[m_p] == '{') {
            const std::size_t close = m_out.find('}', m_p);
            const std::size_t n = std::stoul(m_out.substr(m_p + 1, close - m_p - 1));
            m_p = close + 3 + n;  // "}\r\n" and the bytes
            return m_out.substr(close + 3, n);
        }
        if (m_out[m_p] == '"') {
            std::string text;
            for (++m_p; m_p < m_out.size() && m_out[m_p] != '"'; ++m_p) {
                m_p += m_out[m_p] == '\\' ? 1 : 0;
                text += m_out[m_p];
            }
            ++m_p;
            return text;
        }
        if (m_out[m_p] == '(') {
            for (++m_p; m_p < m_out.size() && m_out[m_p] != ')'; blanks()) {
                value();
            }
            ++m_p;
            return m_out.substr(begin, m_p - begin);
        }
        while (m_p < m_out.size() && m_out[m_p] != ' ' && m_out[m_p] != ')' && m_out[m_p] != '\r') {
            ++m_p;
        }
        const std::string atom = m_out.substr(begin, m_p - begin);
        // A line end between items (after a literal) is a blank.
        if (m_out.compare(m_p, 2, "\r\n") == 0) {
            m_p += 2;
        }
        return atom == "NIL" ? std::string() : atom;
    }

    const std::string& m_out;
    std::size_t m_p = 0;
};

// Collects the MIME tree of each FETCH answer by UID.
class Trees : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseUIDFetch& r) override {
        trees[r.data().uid] = r.data().mime;
        return 0;
    }
    std::map<unsigned long, ZeImapMimeRef> trees;
};

// The last part number of a section ("2.3" -> 3).
int part_number(const std::string& section) {
    return std::stoi(section.substr(section.rfind('.') + 1));
}

// Whether a Content-Type value has the form "type/subtype", then nothing or
// ";" and parameters (blanks and comments allowed between). Dovecot reports
// the type of any other value as well as it could read it ("" "" mostly) and
// does not read its parameters.
bool readable_type(const std::string& value) {
    static const std::regex comment(R"(\([^)]*\))");
    // A token: printable ASCII but blanks and the special characters.
    static const std::string token = R"([!#$%&'*+\-.0-9A-Z^_`a-z{|}~]+)";
    static const std::regex form(R"(\s*)" + token + R"(\s*/\s*)" + token + R"(\s*(;.*)?)");
    return std::regex_match(std::regex_replace(value, comment, " "), form);
}

const std::set<std::string> kMediaTypes = {"text",        "image",     "audio",  "video",
                                           "application", "multipart", "message"};

// A part's MIME header as Dovecot reads it: Content-* fields count in a
// MIME part only (any part of a multipart, or a message with a MIME-Version
// or Content-Type field); of a repeated field the first counts, but a
// Content-Disposition without parameters gives way to a later one.
class PartHeader {
public:
    PartHeader(const std::string& text, bool in_multipart) {
        m_fields.parse(text.data(), text.size());
        m_mime = in_multipart || has("MIME-Version") || has("Content-Type");
    }
    bool has(const std::string& name) const { return m_fields.find(name) != nullptr; }
    // The field that counts; "" when there is none or the part is not MIME.
    std::string content(const std::string& name) const {
        return m_mime ? m_fields.get(name) : std::string();
    }
    bool has_content(const std::string& name) const { return m_mime && has(name); }
    std::string disposition() const {
        std::string value;
        for (const std::string& field :
             m_mime ? m_fields.getAll("Content-Disposition") : std::vector<std::string>()) {
            value = field;
            if (!ContentDisposition(field).params().empty()) {
                break;
            }
        }
        return value;
    }
    std::string subject() const { return has("Subject") ? m_fields.get("Subject") : "NIL"; }

private:
    Corvane::HeaderContainer m_fields;
    bool m_mime = false;
};

// The differences between the tree and Dovecot that the parser's own rules
// or Dovecot's habits explain, by reason; each was checked against the
// part's header before it was counted here.
using Explained = std::map<std::string, std::vector<std::string>>;

const char kUnknownMedia[] =
    "no node for a part whose media type is unknown or unreadable and that has no file name";
const char kUnreadableType[] = "type of an unreadable Content-Type as Dovecot read it";
const char kMessageDisposition[] =
    "no disposition on a message part other than message/rfc822 (only rfc822 reads past "
    "the size)";
const char kCharsetRfc2231[] =
    "charset given only in RFC 2231 form: Dovecot ignores it and reports us-ascii";

// What one message's tree says, checked part by part against Dovecot.
class Agreement {
public:
    // How many parts past the last child of a multipart are asked for: a
    // part the tree lacks at the end shows up there.
    static constexpr int kPastLast = 3;

    Agreement(const Message& message, const ZeImapMimeRef& tree)
        : m_message(&message), m_tree(tree) {}

    // The items to ask Dovecot for: the message's header and text, every
    // node's section and MIME header, and the parts up to kPastLast past
    // the last child of each multipart.
    std::vector<std::string> items() const {
        std::vector<std::string> out = {"BODY.PEEK[HEADER]", "BODY.PEEK[TEXT]"};
        if (m_tree) {
            walk(m_tree, [&](const ZeImapMime& node) {
                const std::string& s = node.section();
                if (!s.empty()) {
                    out.push_back("BODY.PEEK[" + s + "]");
                    out.push_back("BODY.PEEK[" + s + ".MIME]");
                }
                if (node.media_type() == ContentType::MULTIPART) {
                    const int last = node.children().empty()
                                         ? 0
                                         : part_number(node.children().back()->section());
                    for (int n = 1; n <= last + kPastLast; ++n) {
                        out.push_back("BODY.PEEK[" + sectionAsString(s, n) + "]");
                        out.push_back("BODY.PEEK[" + sectionAsString(s, n) + ".MIME]");
                    }
                }
            });
        }
        std::sort(out.begin(), out.end());
        out.erase(std::unique(out.begin(), out.end()), out.end());
        return out;
    }

    // Compares the tree with Dovecot's answer for the message. Returns the
    // disagreements nothing explains, one line each; the explained ones go
    // to explained.
    std::vector<std::string> check(const Items& answer, Explained& explained) {
        m_answer = &answer;
        m_explained = &explained;
        m_problems.clear();
        if (!m_tree) {
            missing("");
        } else {
            check_node(*m_tree, nullptr);
        }
        return m_problems;
    }

    std::size_t leaves() const { return m_leaves; }
    std::size_t nodes() const { return m_nodes; }
    std::size_t invented() const { return m_invented; }

private:
    template <class F>
    static void walk(const ZeImapMimeRef& node, F f) {
        f(*node);
        for (const ZeImapMimeRef& c : node->children()) {
            walk(c, f);
        }
    }

    // Dovecot's bytes for a section; the message's own text and header for
    // the root. An item that was not asked for reads as "<missing>".
    std::string body(const std::string& section) const {
        return item(section.empty() ? "BODY[TEXT]" : "BODY[" + section + "]");
    }
    std::string mime(const std::string& section) const {
        return item(section.empty() ? "BODY[HEADER]" : "BODY[" + section + ".MIME]");
    }
    std::string item(const std::string& name) const {
        auto it = m_answer->find(name);
        return it == m_answer->end() ? std::string("<missing>") : it->second;
    }
    std::string where(const std::string& section) const {
        return m_message->name + " [" + section + "]";
    }
    void problem(const std::string& section, const std::string& what) {
        m_problems.push_back(where(section) + " " + what);
    }
    void explain(const char* reason, const std::string& section) {
        (*m_explained)[reason].push_back(where(section));
    }

    void check_node(const ZeImapMime& node, const ZeImapMime* parent) {
        ++m_nodes;
        const std::string& s = node.section();
        const ZeContentType& ct = node.content_type();
        const PartHeader h(mime(s), parent != nullptr);

        // Type and subtype as the header names them: a part without a
        // Content-Type is text/plain (us-ascii), or message/rfc822 in a
        // digest; a text part without charset is us-ascii as well.
        const std::string value = h.content("Content-Type");
        const bool readable = !h.has_content("Content-Type") || readable_type(value);
        const ContentType header_type(value);
        std::string type = "text", subtype = "plain", charset = "us-ascii";
        if (h.has_content("Content-Type")) {
            type = header_type.typeName();
            subtype = header_type.subTypeName();
            charset = readable ? header_type.charset() : std::string();
            if (charset.empty() && readable && type == "text") {
                charset = "us-ascii";
            }
        } else if (parent != nullptr && parent->content_type().subtype_name == "digest") {
            type = "message";
            subtype = "rfc822";
            charset.clear();
        }
        if (ct.type_name != type || ct.subtype_name != subtype) {
            if (readable) {
                problem(s, "type " + ct.type_name + "/" + ct.subtype_name + ", header says " +
                               type + "/" + subtype);
            } else {
                explain(kUnreadableType, s);
            }
        }

        if (node.media_type() == ContentType::MULTIPART) {
            check_parts(node);
            // Only a mixed multipart keeps its charset.
            const std::string own = node.sub_type() == ContentType::MIXED ? charset : "";
            if (ct.charset != own) {
                problem(s, "charset '" + ct.charset + "', header says '" + own + "'");
            }
            return;
        }

        ++m_leaves;
        const std::string bytes = body(s);
        if (node.size() != bytes.size()) {
            problem(s, "size " + std::to_string(node.size()) + ", Dovecot sends " +
                           std::to_string(bytes.size()));
        }
        // A line count leaves out a last line without a line end.
        if (node.media_type() == ContentType::TEXT || node.sub_type() == ContentType::RFC822) {
            const std::size_t lines = count(bytes, "\n");
            if (node.lines() != lines) {
                problem(s, "lines " + std::to_string(node.lines()) + ", body has " +
                               std::to_string(lines));
            }
        }
        if (ct.charset != charset) {
            if (ct.charset == "us-ascii" && count(lower(value), "charset*") > 0 &&
                count(lower(value), "charset=") == 0) {
                explain(kCharsetRfc2231, s);
            } else {
                problem(s, "charset '" + ct.charset + "', header says '" + charset + "'");
            }
        }
        const std::string method = readable ? header_type.param("method") : "";
        if (ct.method != method) {
            problem(s, "method '" + ct.method + "', header says '" + method + "'");
        }
        // The body-id as the header gives it, NIL kept as a word.
        const std::string id = h.has_content("Content-ID") ? h.content("Content-ID") : "NIL";
        if (ct.content_id != id) {
            problem(s, "content id '" + ct.content_id + "', header says '" + id + "'");
        }
        const std::string encoding = h.has_content("Content-Transfer-Encoding")
                                         ? h.content("Content-Transfer-Encoding")
                                         : "7bit";
        if (ct.encoding != Corvane::stringAsEncoding(encoding)) {
            problem(s, "encoding " + Corvane::encodingAsString(ct.encoding) + ", header says " +
                           encoding);
        }
        check_disposition(node, h, bytes);
    }

    // The parts of a multipart: numbered 1, 2, 3 ... without gaps, none
    // left out at the end, and Dovecot invents one empty text/plain part
    // when it finds none.
    void check_parts(const ZeImapMime& node) {
        const std::string& s = node.section();
        if (node.children().empty()) {
            problem(s, "multipart without parts");
        }
        int expected = 1;
        for (const ZeImapMimeRef& c : node.children()) {
            for (; expected < part_number(c->section()); ++expected) {
                missing(sectionAsString(s, expected));
            }
            ++expected;
            check_node(*c, &node);
        }
        // Dovecot answers empty bytes for a part that does not exist.
        for (;; ++expected) {
            const std::string next = sectionAsString(s, expected);
            if (body(next).empty() && mime(next).empty()) {
                break;
            }
            if (body(next) == "<missing>") {
                problem(next, "more parts are missing than were asked for");
                break;
            }
            missing(next);
        }
        if (node.children().size() == 1 && node.children().front()->size() == 0 &&
            mime(sectionAsString(s, 1)).empty()) {
            ++m_invented;
        }
    }

    void check_disposition(const ZeImapMime& node, const PartHeader& h, const std::string& bytes) {
        const std::string& s = node.section();
        const ContentDisposition disposition(h.disposition());
        const ZeContentDisposition& d = node.disposition();
        // An attached message without a file name is named after its
        // subject as the envelope gives it: NIL when it has none.
        std::string filename = disposition.utf8fileName();
        if (filename.empty() && node.sub_type() == ContentType::RFC822) {
            filename = PartHeader(bytes, false).subject() + ".eml";
        }
        if (node.media_type() == ContentType::MESSAGE && node.sub_type() != ContentType::RFC822 &&
            d.type == ContentDisposition::NONE && d.filename.empty() &&
            (disposition.type() != ContentDisposition::NONE || !filename.empty())) {
            explain(kMessageDisposition, s);
            return;
        }
        if (d.type != disposition.type()) {
            problem(s, "disposition " + Corvane::dispositionAsString(d.type) + ", header says '" +
                           h.disposition() + "'");
        }
        if (d.filename != filename) {
            problem(s, "file name '" + d.filename + "', header says '" + filename + "'");
        }
    }

    // A part Dovecot has and the tree lacks: right only for a part of a
    // media type the parser does not know (or cannot read) that has no file
    // name.
    void missing(const std::string& section) {
        const PartHeader h(mime(section), !section.empty());
        const std::string value = h.content("Content-Type");
        const bool unknown =
            h.has_content("Content-Type") &&
            (!readable_type(value) || kMediaTypes.count(ContentType(value).typeName()) == 0);
        const bool named = ContentDisposition(h.disposition()).params().count("filename") != 0;
        if (unknown && !named) {
            explain(kUnknownMedia, section);
        } else {
            problem(section, "part missing from the tree (Content-Type: " + value + ")");
        }
    }

    static std::string lower(std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return text;
    }

    const Message* m_message;
    ZeImapMimeRef m_tree;
    const Items* m_answer = nullptr;
    Explained* m_explained = nullptr;
    std::vector<std::string> m_problems;
    std::size_t m_leaves = 0;
    std::size_t m_nodes = 0;
    std::size_t m_invented = 0;
};

// The size Dovecot reports for a message: line ends counted as CR LF.
std::size_t crlf_size(const std::string& bytes) {
    std::size_t size = bytes.size();
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (bytes[i] == '\n' && (i == 0 || bytes[i - 1] != '\r')) {
            ++size;
        }
    }
    return size;
}

class CorpusDovecot : public ::testing::Test {
protected:
    void SetUp() override {
        zemail::paths::set_mail_root(m_server.root());
        zemail::paths::set_imap_program(m_server.wrapper());
    }
    void TearDown() override { ZeImapConnection::instance()->close(); }

    // The corpus (empty when it is not there) and the synthetic messages.
    static std::vector<Message> load(const std::string& corpus) {
        std::vector<Message> messages;
        for (const std::string& name : file_names(corpus, {"SOURCES.md", "manifest.json"})) {
            messages.push_back({name, zetest::read_file(corpus + "/" + name), "", 0});
        }
        const std::string own = std::string(ZEMAIL_TEST_DATA_DIR) + "/messages";
        for (const std::string& name : file_names(own, {"README"})) {
            messages.push_back({"messages/" + name, zetest::read_file(own + "/" + name), "", 0});
        }
        return messages;
    }

    // Delivers kPerFolder messages to a folder, in order, so that each
    // folder's UIDs count from 1.
    void deliver(std::vector<Message>& messages) {
        for (std::size_t i = 0; i < messages.size(); ++i) {
            Message& m = messages[i];
            m.folder = "Corpus" + std::to_string(i / kPerFolder + 1);
            m.uid = i % kPerFolder + 1;
            m_server.deliver(kUser, m.folder, m.bytes, "S");
        }
    }

    // The trees of one folder's messages, through the engine: one record per
    // message, whether or not it has a tree.
    std::map<unsigned long, ZeImapMimeRef> engine_trees(ZeImapRequest& request,
                                                        const std::string& folder) {
        EXPECT_EQ(0, request.request(ImapRequestSelect, "\"" + folder + "\""))
            << request.last_error();
        ZeImapCommand fetch(ZeImapCommand::UID_FETCH);
        auto processor = ZeImapProcessorRef::make<Trees>();
        fetch.set_processor(processor);
        EXPECT_EQ(0, request.request(fetch, "1:* (UID BODYSTRUCTURE)")) << request.last_error();
        return dynamic_cast<Trees*>(processor.get())->trees;
    }

    // Dovecot's own answers for each message, from a raw session: its size,
    // its structure as sent, and the items the agreement asks for.
    std::vector<Items> reference(const std::vector<Message>& messages,
                                 const std::vector<Agreement>& agreements) {
        std::string script;
        std::string folder;
        for (std::size_t i = 0; i < messages.size(); ++i) {
            if (messages[i].folder != folder) {
                folder = messages[i].folder;
                script += "s" + std::to_string(i) + " SELECT \"" + folder + "\"\n";
            }
            std::string items = "UID RFC822.SIZE BODYSTRUCTURE";
            for (const std::string& item : agreements[i].items()) {
                items += " " + item;
            }
            script += "f" + std::to_string(i) + " UID FETCH " + std::to_string(messages[i].uid) +
                      " (" + items + ")\n";
        }
        const std::string out = m_server.run_imap(kUser, script);
        // The answers of each folder follow its SELECT's completion.
        std::vector<Items> answers;
        std::map<unsigned long, Items> in_folder;
        folder.clear();
        for (std::size_t i = 0; i < messages.size(); ++i) {
            if (messages[i].folder != folder) {
                folder = messages[i].folder;
                const std::string done = "\r\ns" + std::to_string(i) + " OK ";
                const std::size_t begin = out.find(done);
                const std::size_t end = out.find(" OK [READ-WRITE]", begin + done.size());
                const std::string part =
                    begin == std::string::npos ? std::string() : out.substr(begin, end - begin);
                in_folder = FetchReader(part).answers();
            }
            answers.push_back(in_folder[messages[i].uid]);
        }
        return answers;
    }

    zetest::DovecotServer m_server;
};

TEST_F(CorpusDovecot, EveryTreeAgreesWithDovecotPartByPart) {
    const std::string corpus = ZEMAIL_CORPUS_DIR;
    std::vector<Message> messages = load(corpus);
    const std::size_t own =
        file_names(std::string(ZEMAIL_TEST_DATA_DIR) + "/messages", {"README"}).size();
    ASSERT_GE(own, 7u);
    if (messages.size() == own) {
        std::cout << "corpus not found at " << corpus << ": only tests/data/messages checked\n";
    } else {
        // Every corpus file is one the sources name and the manifest lists.
        const std::string sources = zetest::read_file(corpus + "/SOURCES.md");
        const std::string manifest = zetest::read_file(corpus + "/manifest.json");
        EXPECT_EQ(count(manifest, "\"name\": "), messages.size() - own);
        for (std::size_t i = 0; i + own < messages.size(); ++i) {
            EXPECT_EQ(1u, count(sources, "| " + messages[i].name + " |")) << messages[i].name;
            EXPECT_EQ(1u, count(manifest, "\"" + messages[i].name + "\"")) << messages[i].name;
        }
    }
    deliver(messages);

    ZePipeIO& io = ZeImapConnection::instance()->get_io(ZeMailUserId(MAILBOX_TYPE_DEFAULT, kUser));
    Corvane::Buffer greeting;
    io.readline(greeting);
    ASSERT_EQ(0u, greeting.str().find("* PREAUTH")) << greeting.str() << m_server.log();
    ZeImapRequest request(io);
    std::map<std::string, std::map<unsigned long, ZeImapMimeRef>> trees;
    std::vector<Agreement> agreements;
    for (const Message& m : messages) {
        if (trees.count(m.folder) == 0) {
            trees[m.folder] = engine_trees(request, m.folder);
            EXPECT_EQ(trees[m.folder].size(),
                      static_cast<std::size_t>(std::count_if(
                          messages.begin(), messages.end(),
                          [&](const Message& other) { return other.folder == m.folder; })))
                << m.folder;
        }
        agreements.emplace_back(m, trees[m.folder][m.uid]);
    }

    const std::vector<Items> answers = reference(messages, agreements);
    std::size_t leaves = 0, nodes = 0, invented = 0, literals = 0;
    std::vector<std::string> problems;
    Explained explained;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const Message& m = messages[i];
        const Items& answer = answers[i];
        // The answer is this message's: Dovecot's size is the file's with
        // CR LF line ends.
        ASSERT_EQ(std::to_string(m.uid), answer.count("UID") ? answer.at("UID") : "")
            << m.name << "\n"
            << m_server.log();
        EXPECT_EQ(std::to_string(crlf_size(m.bytes)), answer.at("RFC822.SIZE")) << m.name;
        literals += answer.at("BODYSTRUCTURE").find("}\r\n") != std::string::npos ? 1 : 0;
        std::vector<std::string> found = agreements[i].check(answer, explained);
        problems.insert(problems.end(), found.begin(), found.end());
        leaves += agreements[i].leaves();
        nodes += agreements[i].nodes();
        invented += agreements[i].invented();
    }
    for (const std::string& p : problems) {
        ADD_FAILURE() << p;
    }
    // The cases the synthetic messages are there for were met.
    EXPECT_GE(literals, 2u);
    EXPECT_GE(invented, 1u);

    std::cout << messages.size() << " messages (" << own << " synthetic), " << nodes
              << " nodes and " << leaves << " leaves compared; " << literals
              << " structures with literals, " << invented << " invented empty parts; "
              << problems.size() << " disagreements unexplained\n";
    for (const auto& reason : explained) {
        std::cout << reason.second.size() << " x " << reason.first << ":\n";
        for (const std::string& part : reason.second) {
            std::cout << "    " << part << "\n";
        }
    }
}

}  // namespace
