// Fuzz target for the message parser (Rfc822MsgParser) and what is built
// from its tree: the BODYSTRUCTURE text in both forms, the IMAP-side tree,
// the decoded content type and disposition, and the section bytes.
//
// Besides "no crash, no leak, no overrun, no deep recursion" it checks
// properties that must hold for any input:
// - the root covers the whole input; every part's header is followed by its
//   body, and a part lies inside its parent's body, after its elder sibling;
// - sizes: a part's size is its length plus its bare line feeds, so never
//   less than its length, and it has no more lines than bytes;
// - the tree keeps the limits: no deeper than kMaxNesting - 1, at most
//   kMaxParts parts;
// - every part with a number of its own is found by it, and its section
//   bytes are as long as the server would say (its size);
// - the input parsed from a stream gives the same structure.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/Media.h"
#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"

using namespace Corvane;

namespace {

void fail(const char* what, int line) {
    std::fprintf(stderr, "check failed: %s (line %d)\n", what, line);
    std::abort();
}

#define check(ok) ((ok) ? (void)0 : fail(#ok, __LINE__))

void checkExtent(const MimeExtent& e, std::size_t size) {
    check(e.end() <= size);
    check(e.size >= e.length);
    check(e.size <= 2 * e.length);
    check(e.lines <= e.length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* bytes = reinterpret_cast<const char*>(data);
    const Rfc822MsgParser parser;
    std::unique_ptr<MimePart> root = parser.parse(bytes, size);
    check(root != nullptr);
    check(root->header().offset == 0);
    check(root->body().end() == size);

    std::size_t parts = 0;
    std::vector<const MimePart*> pending{root.get()};
    while (!pending.empty()) {
        const MimePart* part = pending.back();
        pending.pop_back();
        ++parts;
        check(part->depth() < Rfc822MsgParser::kMaxNesting);
        checkExtent(part->header(), size);
        checkExtent(part->body(), size);
        check(part->header().end() == part->body().offset);
        check(!part->isMessage() || part->children().size() == 1);
        check(part->isMultipart() || part->isMessage() || part->children().empty());
        std::uint64_t floor = part->body().offset;
        for (const auto& child : part->children()) {
            check(child->parent() == part);
            check(child->header().offset >= floor);
            check(child->body().end() <= part->body().end());
            floor = child->body().end();
            pending.push_back(child.get());
        }
        const bool numbered =
            part->parent() == nullptr || !part->parent()->isMessage() || !part->isMultipart();
        if (numbered) {
            check(root->find(part->section()) == part);
        }
        if (part != root.get() && numbered) {
            std::string out;
            check(readSection(bytes, size, *root, part->section(), out));
            check(out.size() == part->body().size);
            check(readSection(bytes, size, *root, part->section() + ".MIME", out,
                              SectionForm::STORED));
            check(out.size() == part->header().length);
        }
        part->contentType();
        part->contentDisposition();
        part->charset();
        part->encoding();
    }
    check(parts == root->count());
    check(parts <= Rfc822MsgParser::kMaxParts);

    const std::string wire = bodyStructure(*root, BodyStructureForm::WIRE);
    const std::string quoted = bodyStructure(*root, BodyStructureForm::QUOTED);
    check(!wire.empty() && wire.front() == '(' && wire.back() == ')');
    check(!quoted.empty() && quoted.front() == '(' && quoted.back() == ')');
    ZeImapMimeRef tree = toImapMime(*root);
    check(static_cast<bool>(tree) || !root->isMultipart());

    std::string whole;
    check(readSection(bytes, size, *root, "", whole, SectionForm::STORED));
    check(whole.size() == size);

    MediaIn in = MediaIn::fromString(std::string(bytes, size));
    check(bodyStructure(*parser.parse(in)) == wire);
    return 0;
}
