// Fuzz target for the mbox reader: the input is an mbox file. It goes
// through ZeMboxParser::Scanner (whole, and again in pieces whose size the
// input chooses) and through a ZeMbox opened on it, whose every message is
// walked: envelope, flags, look-ups by UID and key, MIME tree, sections.
//
// Properties checked for any input:
// - the pieces give the same index as the whole;
// - the file is tiled: the bytes before the first From_ line, then per
//   message its separator (a line end, except before the first, and the
//   From_ line with its LF) and its bytes, then at most one blank line;
// - no message is lost: there are as many messages as lines beginning with
//   "From ", and no message holds such a line;
// - a message's bytes are its stored bytes unquoted by the plain rule (one
//   ">" less on lines of ">"s followed by "From "), as long as its size;
// - UIDs are unique and not 0, and each finds its message again, by UID
//   and by key; flags hold only bits of mbox status letters.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "stores/ZeMbox.h"
#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"

namespace {

using ZeMboxParser::Entry;

const std::size_t kMaxInput = 64 * 1024;
const std::size_t kMaxSections = 16;
const unsigned long kLetterBits = 0x2 | 0x8 | 0x10 | 0x20 | 0x40;

class MemoryFile {
public:
    MemoryFile() : m_fd(memfd_create("mbox", 0)) {
        FUZZ_CHECK(m_fd >= 0);
        m_path = "/proc/self/fd/" + std::to_string(m_fd);
    }
    const std::string& path() const { return m_path; }
    void write(const std::string& bytes) {
        FUZZ_CHECK(ftruncate(m_fd, 0) == 0);
        FUZZ_CHECK(pwrite(m_fd, bytes.data(), bytes.size(), 0) ==
                   static_cast<ssize_t>(bytes.size()));
    }

private:
    int m_fd;
    std::string m_path;
};

// The unquoting rule, line by line.
std::string unquote(const std::string& stored) {
    std::string out;
    std::size_t at = 0;
    while (at < stored.size()) {
        std::size_t nl = stored.find('\n', at);
        nl = nl == std::string::npos ? stored.size() : nl + 1;
        const std::string line = stored.substr(at, nl - at);
        const std::size_t gt = line.find_first_not_of('>');
        const bool quoted = gt != 0 && gt != std::string::npos && line.compare(gt, 5, "From ") == 0;
        out += quoted ? line.substr(1) : line;
        at = nl;
    }
    return out;
}

bool startsFromLine(const std::string& data, std::size_t at) {
    return data.compare(at, 5, "From ") == 0;
}

void checkIndex(const std::string& data, const std::vector<Entry>& entries) {
    std::size_t fromLines = 0;
    std::size_t firstFrom = data.size();
    for (std::size_t at = 0; at < data.size();) {
        if (startsFromLine(data, at)) {
            firstFrom = std::min(firstFrom, at);
            ++fromLines;
        }
        const std::size_t nl = data.find('\n', at);
        at = nl == std::string::npos ? data.size() : nl + 1;
    }
    FUZZ_CHECK(fromLines == entries.size());

    std::uint64_t at = firstFrom;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const Entry& e = entries[i];
        FUZZ_CHECK(e.separator == at);
        const std::string lineEnd = data.substr(e.separator, e.fromLine - e.separator);
        FUZZ_CHECK(lineEnd.empty() || lineEnd == "\n" || lineEnd == "\r\n");
        // Only the first message and one after an empty message (two From_
        // lines in a row) have no line end in their separator.
        FUZZ_CHECK(!lineEnd.empty() || i == 0 || entries[i - 1].begin == e.fromLine);
        FUZZ_CHECK(i != 0 || lineEnd.empty());
        FUZZ_CHECK(startsFromLine(data, e.fromLine));
        FUZZ_CHECK(e.fromLine < e.begin && e.begin <= e.end && e.end <= data.size());
        const std::size_t nl = data.find('\n', e.fromLine);
        FUZZ_CHECK(e.begin == (nl == std::string::npos ? data.size() : nl + 1));
        const std::string stored = data.substr(e.begin, e.end - e.begin);
        FUZZ_CHECK(!startsFromLine(stored, 0) && stored.find("\nFrom ") == std::string::npos);
        FUZZ_CHECK(e.size == unquote(stored).size());
        FUZZ_CHECK((e.flags & ~kLetterBits) == 0);
        at = e.end;
    }
    const std::string tail = data.substr(at);
    FUZZ_CHECK(entries.empty() || tail.empty() || tail == "\n" || tail == "\r\n");
}

void walkMessage(ZeMbox& box, ZeMessageRef& message, const std::string& data, const Entry& entry) {
    Corvane::Ref<ZeMessageEnv>& env = message->env();
    const std::string bytes = message.media().readAll();
    FUZZ_CHECK(bytes == unquote(data.substr(entry.begin, entry.end - entry.begin)));
    FUZZ_CHECK(bytes.size() == env->size());
    FUZZ_CHECK(env->uid() == entry.uid && message->uid() == entry.uid);
    FUZZ_CHECK(env->basename() == ",U" + std::to_string(entry.uid));
    FUZZ_CHECK(env->status().flags == entry.flags && env->date() == entry.date);
    env->msgID();
    env->from();
    message->headers();

    ZeMessageRef byUid = box.retrieve_message(entry.uid);
    ZeMessageRef byKey = box.retrieve_message(env->basename());
    FUZZ_CHECK(!byUid.isNull() && !byKey.isNull());
    FUZZ_CHECK(byUid->env()->size() == env->size() && byKey->uid() == entry.uid);

    // The tree is the one the message's bytes give read as a single file.
    // (toImapMime has none for a Content-Type it cannot read back, such as
    // "Content-Type: ;": then neither has the mailbox.)
    ZeImapMimeRef tree = box.retrieve_mime(message);
    const ZeImapMimeRef direct = toImapMime(*Corvane::Rfc822MsgParser().parse(bytes));
    FUZZ_CHECK(tree.isNull() == direct.isNull());
    std::vector<ZeImapMimeRef> pending;
    if (!tree.isNull()) {
        pending.push_back(tree);
    }
    std::vector<std::string> sections{"", "HEADER", "TEXT"};
    while (!pending.empty() && sections.size() < kMaxSections) {
        ZeImapMimeRef node = pending.back();
        pending.pop_back();
        if (!node->section().empty()) {
            sections.push_back(node->section());
            sections.push_back(node->section() + ".MIME");
        }
        for (const ZeImapMimeRef& child : node->children()) {
            pending.push_back(child);
        }
    }
    for (const std::string& section : sections) {
        std::ostringstream out;
        FUZZ_CHECK(box.retrieve_section(out, env->basename(), section) == 0);
        box.retrieve_section_mime(env->basename(), section);
    }
    class Visitor : public ZeMessageSectionVisitor {
    public:
        int visit(ZeMessageRef&, const ZeImapMimeRef&, Corvane::MediaIn& content) override {
            content.readAll();
            return 0;
        }
    } visitor;
    FUZZ_CHECK(box.foreach_sections(message, &visitor) == (tree.isNull() ? 4 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    static MemoryFile file;
    if (size > kMaxInput) {
        return 0;
    }
    const std::string data(reinterpret_cast<const char*>(input), size);

    ZeMboxParser::Scanner whole;
    whole.feed(data.data(), data.size());
    std::vector<Entry> entries = whole.finish();
    checkIndex(data, entries);

    ZeMboxParser::Scanner pieces;
    const std::size_t piece = size == 0 ? 1 : 1 + input[size - 1] % 13;
    for (std::size_t at = 0; at < size; at += piece) {
        pieces.feed(data.data() + at, std::min(piece, size - at));
    }
    const std::vector<Entry> again = pieces.finish();
    FUZZ_CHECK(again.size() == entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        FUZZ_CHECK(again[i].separator == entries[i].separator && again[i].end == entries[i].end &&
                   again[i].size == entries[i].size && again[i].flags == entries[i].flags &&
                   again[i].xuid == entries[i].xuid && again[i].date == entries[i].date);
    }

    file.write(data);
    ZeMbox box(file.path(), false, false);
    FUZZ_CHECK(box.open() == 1);
    FUZZ_CHECK(box.total_messages() == static_cast<long>(entries.size()));
    ZeMboxParser::assignUids(entries);
    std::set<unsigned long> uids;
    std::size_t i = 0;
    box.reset();
    while (box.next() == 1) {
        FUZZ_CHECK(i < entries.size());
        FUZZ_CHECK(box.fetch()->uid() != 0 && uids.insert(box.fetch()->uid()).second);
        walkMessage(box, box.fetch(), data, entries[i]);
        ++i;
    }
    FUZZ_CHECK(i == entries.size());
    return 0;
}
