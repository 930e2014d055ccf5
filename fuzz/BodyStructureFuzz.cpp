// Feeds arbitrary bytes to the BODYSTRUCTURE parser.
//
// The first byte picks the mode:
//   even: the rest is the BODYSTRUCTURE value text, parsed with no feeder;
//   odd:  the rest is a first line (up to the first line feed), whose first
//         token is the value, and the bytes after it are what the server
//         sends next, read through a real feeder on a pipe (continuation
//         lines and literals).
// Every tree is checked against invariants that hold for any input, and the
// parse is repeated through the generic tree placement to check that the
// parser's section index gives the same tree. A broken invariant aborts with
// a message, which libFuzzer reports as a crash.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <sstream>
#include <string>

#include "foundation/TokenIterator.h"
#include "imap/ZeImapClient.h"
#include "imap/ZeImapMime.h"
#include "imap/ZePipe.h"

namespace {

// A pipe holds 64 KiB: the continuation bytes are written before parsing.
constexpr std::size_t kMaxInput = 60000;

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

std::string shape(const ZeImapMimeRef& ref) {
    if (!ref) {
        return "-";
    }
    const ZeImapMime& n = *ref;
    std::ostringstream out;
    out << n.section() << ":" << n.media_type() << "/" << n.sub_type() << ":" << n.size() << ":"
        << n.lines() << ":" << n.disposition().type << ":" << n.disposition().filename << ":"
        << n.content_type().name << "[";
    for (const ZeImapMimeRef& c : n.children()) {
        out << shape(c) << ",";
    }
    out << "]";
    return out.str();
}

int components(const std::string& section) {
    if (section.empty()) {
        return 0;
    }
    int n = 1;
    for (char c : section) {
        n += c == '.';
    }
    return n;
}

// Sections grow one component per level and stay below their parent's.
void check_tree(const ZeImapMimeRef& node, int depth, int& count) {
    FUZZ_CHECK(node);
    FUZZ_CHECK(++count <= ImapMimeParser::kMaxParts + 1);
    FUZZ_CHECK(depth <= ImapMimeParser::kMaxDepth);
    const std::string& section = node->section();
    FUZZ_CHECK(components(section) == depth);
    for (const ZeImapMimeRef& c : node->children()) {
        const std::string& child = c->section();
        FUZZ_CHECK(section.empty() ? child.find('.') == std::string::npos
                                   : child.compare(0, section.size() + 1, section + ".") == 0);
        check_tree(c, depth + 1, count);
    }
}

void exercise(ImapMimeParser& parser) {
    ZeImapMimeRef root = parser.root();
    if (!root) {
        return;
    }
    int count = 0;
    check_tree(root, 0, count);

    // The same text placed through ZeImapMime::add_section.
    const char* text = parser.text().c_str();
    while (*text == ' ' || *text == '\r' || *text == '\n') {
        ++text;
    }
    ImapMimeParser generic(nullptr);
    generic.parse_body(text, "", 0);
    FUZZ_CHECK(shape(generic.root()) == shape(root));

    // The look-ups and the display selection on whatever came out.
    std::list<ZeImapMimeRef> parts;
    root->get_printable(Corvane::ContentType::PLAIN, parts, true);
    root->get_printable(Corvane::ContentType::HTML, parts, false, ZeImapMime::CONVERT_PLAIN_ONLY);
    for (const ZeImapMimeRef& p : parts) {
        FUZZ_CHECK(root.find(p->section()));
    }
    root->findRelatedPart();
    root->printable(Corvane::ContentType::PLAIN);
    root.findCid("<a@b>");
    std::ostringstream out;
    root->set_boundaries("B");
    root->mime_header(out);
    root->create_email(out);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > kMaxInput) {
        return 0;
    }
    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if ((data[0] & 1) == 0) {
        TokenIterator value(input);
        ImapMimeParser parser(nullptr);
        FUZZ_CHECK(parser.parse(value) == 0);
        exercise(parser);
        return 0;
    }

    std::string::size_type eol = input.find('\n');
    const std::string first = input.substr(0, eol);
    const std::string rest = eol == std::string::npos ? std::string() : input.substr(eol + 1);
    int ends[2];
    if (pipe(ends) != 0) {
        return 0;
    }
    if (!rest.empty() &&
        write(ends[1], rest.data(), rest.size()) != static_cast<ssize_t>(rest.size())) {
        std::abort();
    }
    close(ends[1]);
    ZePipeIO io;
    io.read_fd(ends[0]);
    io.write_fd(open("/dev/null", O_WRONLY | O_CLOEXEC));
    io.timeout(1);
    ZeImapFeeder feeder(io);
    TokenIterator value(first);
    ImapMimeParser parser(&feeder);
    FUZZ_CHECK(parser.parse(value) == 0);
    FUZZ_CHECK(parser.text().length() <= ImapMimeParser::kMaxText + 2 * kMaxInput);
    exercise(parser);
    return 0;
}
