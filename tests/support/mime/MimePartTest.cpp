// The message parser and what is built from its tree: extents, the limits,
// section numbers and bytes, files, and the IMAP-side tree. What the real
// IMAP server can answer for the same bytes (BODYSTRUCTURE text, section
// bytes, the tree of its answer) is compared live in MimePartDovecotTest, for
// the corpus and for a list of odd messages (boundaries, defaults, malformed
// and repeated fields, parameters, envelopes of attached messages); the
// expected texts below are what Dovecot 2.3 answered.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"
#include "support/TestUtil.h"

using Corvane::BodyStructureForm;
using Corvane::MimeExtent;
using Corvane::MimePart;
using Corvane::Rfc822MsgParser;
using Corvane::SectionForm;

namespace {

std::unique_ptr<MimePart> parse(const std::string& bytes) {
    return Rfc822MsgParser().parse(bytes);
}

std::string structure(const std::string& bytes) {
    return Corvane::bodyStructure(*parse(bytes));
}

std::string section(const std::string& bytes, const std::string& which,
                    SectionForm form = SectionForm::STORED) {
    auto root = parse(bytes);
    std::string out;
    EXPECT_TRUE(Corvane::readSection(bytes.data(), bytes.size(), *root, which, out, form)) << which;
    return out;
}

// A text/plain part as the server reports it, without extension data.
std::string plain(std::uint64_t size, std::uint64_t lines) {
    return "(\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" " +
           std::to_string(size) + " " + std::to_string(lines) + " NIL NIL NIL NIL)";
}

const char kMixed[] =
    "Subject: sections\n"
    "Content-Type: multipart/mixed; boundary=\"OUT\"\n"
    "\n"
    "preamble\n"
    "--OUT\n"
    "Content-Type: text/plain\n"
    "\n"
    "one\n"
    "--OUT\n"
    "Content-Type: message/rfc822\n"
    "\n"
    "Subject: inner\n"
    "\n"
    "inner body\n"
    "--OUT\n"
    "Content-Type: message/rfc822\n"
    "\n"
    "Subject: inner3\n"
    "Content-Type: multipart/alternative; boundary=\"IN\"\n"
    "\n"
    "--IN\n"
    "\n"
    "alt1\n"
    "--IN\n"
    "Content-Type: text/html\n"
    "\n"
    "<p>alt2</p>\n"
    "--IN--\n"
    "--OUT--\n"
    "epilogue\n";

}  // namespace

// --- sizes and line counts ----------------------------------------------------------

TEST(MimePartSizes, BareLineFeedsCountAsCrLfAndAnUnendedLastLineIsNotALine) {
    auto lf = parse("Subject: a\n\nline1\nline2");
    EXPECT_EQ(12u, lf->header().length);
    EXPECT_EQ(14u, lf->header().size);  // two bare LFs
    EXPECT_EQ(2u, lf->header().lines);
    EXPECT_EQ(11u, lf->body().length);
    EXPECT_EQ(12u, lf->body().size);
    EXPECT_EQ(1u, lf->body().lines);

    auto mixed = parse("Subject: h\r\nContent-Type: text/plain\r\n\r\nline1\r\nline2\nline3\r\n");
    EXPECT_EQ(20u, mixed->body().length);
    EXPECT_EQ(21u, mixed->body().size);
    EXPECT_EQ(3u, mixed->body().lines);

    // A carriage return alone is a byte like any other.
    auto cr = parse("Subject: h\r\r\n\r\nx\r");
    EXPECT_EQ(2u, cr->body().size);
    EXPECT_EQ(0u, cr->body().lines);
}

TEST(MimePartSizes, HeaderWithoutBlankLineOrBodyAndEmptyInput) {
    auto noBlank = parse("Subject: h\nContent-Type: text/plain");
    EXPECT_EQ(35u, noBlank->header().length);
    EXPECT_EQ(0u, noBlank->body().length);

    auto empty = parse("");
    EXPECT_EQ(0u, empty->header().length);
    EXPECT_EQ(0u, empty->body().length);

    // A message starting with a blank line has an empty header.
    auto bodyOnly = parse("\nbody only\n");
    EXPECT_EQ(1u, bodyOnly->header().length);
    EXPECT_EQ(0u, bodyOnly->headers().size());
}

// --- boundaries -----------------------------------------------------------------------

// Found by fuzzing: an attached message that the boundary leaves empty
// begins where its part's header ends, inside its part, not past it.
TEST(MimePartBoundaries, AttachedMessageEmptiedByABoundaryStartsInsideItsPart) {
    const std::string empty =
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: message/rfc822\n\n"
        "--XX--\n";
    auto tree = parse(empty);
    const MimePart& part = *tree->children().at(0);
    ASSERT_TRUE(part.isMessage());
    EXPECT_EQ("Content-Type: message/rfc822\n", section(empty, "1.MIME"));
    EXPECT_EQ(part.body().offset, part.message()->header().offset);
    EXPECT_EQ(0u, part.message()->header().length + part.message()->body().length);
}

TEST(MimePartBoundaries, BoundariesAreMatchedOnTheirFirst80Characters) {
    // Boundaries are matched on their first 80 characters.
    const std::string l90(90, 'L');
    auto root = parse("Content-Type: multipart/mixed; boundary=\"" + l90 + "\"\n\n--" + l90 +
                      "\n\none\n--" + l90.substr(0, 80) + "--\n");
    ASSERT_EQ(1u, root->children().size());
    EXPECT_EQ(3u, root->children()[0]->body().size);
}

// --- defaults and fields ----------------------------------------------------------------

TEST(MimePartDefaults, MultipartWithoutBoundaryHasNoParts) {
    const std::string text = "Subject: m\nContent-Type: multipart/alternative\n\nbody\n";
    auto root = parse(text);
    EXPECT_EQ(MimePart::MULTIPART, root->kind());
    EXPECT_TRUE(root->children().empty());
    EXPECT_EQ(nullptr, root->find("1"));
    std::string bytes;
    EXPECT_FALSE(Corvane::readSection(text.data(), text.size(), *root, "1", bytes));
}

TEST(MimePartFields, APlainAsciiMessageIsReportedWithTheDefaults) {
    // The server answers such a message from its cache with its defaults.
    EXPECT_EQ(plain(3, 1), structure("Content-Type: TEXT/PLAIN; CHARSET=\"US-ASCII\"\n"
                                     "Content-Transfer-Encoding: 7BIT\n\nx\n"));
    // Not with a second parameter, a description, or inside a multipart.
    EXPECT_EQ(
        "(\"text\" \"plain\" (\"charset\" \"us-ascii\" \"format\" \"flowed\") NIL NIL "
        "\"7bit\" 3 1 NIL NIL NIL NIL)",
        structure("Content-Type: text/plain; charset=us-ascii; format=flowed\n\nx\n"));
    EXPECT_EQ(
        "(\"text\" \"plain\" (\"charset\" \"US-ASCII\") NIL \"d\" \"7bit\" 3 1 NIL NIL NIL "
        "NIL)",
        structure("Content-Type: text/plain; charset=US-ASCII\nContent-Description: d\n\nx\n"));
    EXPECT_EQ(
        "((\"TEXT\" \"PLAIN\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 1 0 NIL NIL NIL NIL) "
        "\"mixed\" (\"boundary\" \"b\") NIL NIL NIL)",
        structure("Content-Type: multipart/mixed; boundary=b\n\n--b\n"
                  "Content-Type: TEXT/PLAIN\n\nx\n--b--\n"));
}

// --- limits ---------------------------------------------------------------------------------

TEST(MimePartLimits, DeepMultipartsStopAtTheNestingLimit) {
    auto ok = parse(zetest::nested_multipart(99));
    const MimePart* part = ok.get();
    while (!part->children().empty()) {
        part = part->children().front().get();
    }
    EXPECT_EQ(99u, part->depth());
    EXPECT_EQ("text", part->typeName());

    // The 100th multipart becomes an opaque application/octet-stream leaf
    // holding the rest of its enclosing part.
    auto cut = parse(zetest::nested_multipart(100));
    part = cut.get();
    while (!part->children().empty()) {
        part = part->children().front().get();
    }
    EXPECT_EQ(99u, part->depth());
    EXPECT_TRUE(part->overflow());
    EXPECT_EQ(MimePart::LEAF, part->kind());
    EXPECT_EQ("application", part->typeName());
    EXPECT_EQ("octet-stream", part->subtypeName());
    EXPECT_NE(std::string::npos, Corvane::bodyStructure(*cut).find(
                                     "(\"application\" \"octet-stream\" (\"boundary\" "
                                     "\"=_99_=\") NIL NIL \"7bit\" 54 NIL NIL NIL NIL)"));
}

TEST(MimePartLimits, TenThousandLevelsDoNotRecurseOrCrash) {
    auto deep = parse(zetest::nested_multipart(10000));
    EXPECT_EQ(100u, deep->count());
    std::string rfc;
    for (int i = 0; i < 10000; ++i) {
        rfc += "Content-Type: message/rfc822\n\nSubject: r" + std::to_string(i) + "\n";
    }
    rfc += "\nleaf\n";
    auto messages = parse(rfc);
    EXPECT_EQ(100u, messages->count());
    ZeImapMimeRef tree = toImapMime(*messages);
    ASSERT_TRUE(tree);
    EXPECT_EQ("r0.eml", tree->disposition().filename);
    EXPECT_EQ(messages->body().size, tree->size());
}

TEST(MimePartLimits, AfterTenThousandPartsNoBoundaryIsSeen) {
    std::string text = "Subject: many\nContent-Type: multipart/mixed; boundary=\"QQ\"\n\n";
    for (int i = 0; i < 10005; ++i) {
        text += "--QQ\nContent-Type: text/plain\n\n" + std::to_string(i) + "\n";
    }
    text += "--QQ--\nepilogue\n";
    auto root = parse(text);
    ASSERT_EQ(Rfc822MsgParser::kMaxParts - 1, root->children().size());
    const MimePart& last = *root->children().back();
    const std::string tail = "9998\n--QQ\nContent-Type: text/plain\n\n9999\n";
    EXPECT_EQ(last.body().end(), text.size());
    EXPECT_EQ(0, text.compare(last.body().offset, tail.size(), tail));
}

// --- sections ---------------------------------------------------------------------------------

TEST(MimePartSections, NumbersFollowImapAndFindAnswersThem) {
    auto root = parse(kMixed);
    ASSERT_EQ(3u, root->children().size());
    const MimePart& two = *root->children()[1];
    const MimePart& three = *root->children()[2];
    EXPECT_EQ("1", root->children()[0]->section());
    EXPECT_EQ("2", two.section());
    EXPECT_EQ("2.1", two.message()->section());  // a single-part attached message
    EXPECT_EQ("3", three.message()->section());  // a multipart one has no number of its own
    EXPECT_EQ("3.2", three.message()->children()[1]->section());
    // Every part with a number of its own is found by it.
    for (const MimePart* part :
         std::vector<const MimePart*>{&two, two.message(), three.message()->children()[0].get(),
                                      three.message()->children()[1].get()}) {
        EXPECT_EQ(part, root->find(part->section())) << part->section();
    }
    EXPECT_EQ(root.get(), root->find(""));
    EXPECT_EQ(root->children()[0].get(), root->find("1.1"));  // a leaf answers to 1 as well
    for (const char* bad :
         {"0", "4", "1.2", "2.1.1", "1.", ".1", "1..1", "a", "2.x", "99999999999"}) {
        EXPECT_EQ(nullptr, root->find(bad)) << bad;
    }
    auto single = parse("Subject: s\n\nbody\n");
    EXPECT_EQ(single.get(), single->find("1"));
    EXPECT_EQ(nullptr, single->find("1.1"));
}

TEST(MimePartSections, BytesOfBodiesHeadersAndAttachedMessages) {
    const std::string text = kMixed;
    EXPECT_EQ("one", section(text, "1"));
    EXPECT_EQ("Content-Type: text/plain\n\n", section(text, "1.MIME"));
    EXPECT_EQ("Subject: inner\n\ninner body", section(text, "2"));
    EXPECT_EQ("Subject: inner\n\n", section(text, "2.HEADER"));
    EXPECT_EQ("inner body", section(text, "2.TEXT"));
    EXPECT_EQ("inner body", section(text, "2.1"));
    EXPECT_EQ("Subject: inner\n\n", section(text, "2.1.mime"));
    EXPECT_EQ("<p>alt2</p>", section(text, "3.2"));
    EXPECT_EQ("--IN\n\nalt1\n--IN\nContent-Type: text/html\n\n<p>alt2</p>\n--IN--\n",
              section(text, "3.TEXT"));
    EXPECT_EQ(text, section(text, ""));
    EXPECT_EQ(text.substr(0, text.find("\n\n") + 2), section(text, "HEADER"));
    EXPECT_EQ("Subject: inner\r\n\r\ninner body", section(text, "2", SectionForm::IMAP));

    auto root = parse(text);
    std::string out = "stale";
    for (const char* missing : {"4", "1.HEADER", "1.TEXT", "MIME", "1.FOO", "2.1.1"}) {
        EXPECT_FALSE(Corvane::readSection(text.data(), text.size(), *root, missing, out))
            << missing;
        EXPECT_EQ("", out);
    }
}

TEST(MimePartSections, FilesAndImapForm) {
    zetest::TempDir dir;
    const std::string text = std::string("Content-Type: text/plain\n\na\0b\nc\r\nd", 34);
    const std::string path = dir.write("m.eml", text);
    auto root = Rfc822MsgParser().parseFile(path);
    ASSERT_TRUE(root);
    std::string out;
    ASSERT_TRUE(Corvane::readSection(path, *root, "1", out));
    EXPECT_EQ(
        "a\x80"
        "b\r\nc\r\nd",
        out);  // zero bytes as the server sends them
    EXPECT_EQ(root->body().size, out.size());
    ASSERT_TRUE(Corvane::readSection(path, *root, "TEXT", out, SectionForm::STORED));
    EXPECT_EQ(std::string("a\0b\nc\r\nd", 8), out);

    // A file that shrank after parsing, and files that are not there.
    dir.write("m.eml", "Content-Type");
    EXPECT_FALSE(Corvane::readSection(path, *root, "1", out));
    EXPECT_FALSE(Corvane::readSection(dir.path() + "/none", *root, "1", out));
    EXPECT_EQ(nullptr, Rfc822MsgParser().parseFile(dir.path() + "/none"));
    EXPECT_EQ(nullptr, Rfc822MsgParser().parseFile(dir.path()));

    Corvane::MediaIn nothing;
    EXPECT_EQ(0u, Rfc822MsgParser().parse(nothing)->body().length);
    Corvane::MediaIn stream = Corvane::MediaIn::fromString(text);
    EXPECT_EQ(root->body().size, Rfc822MsgParser().parse(stream)->body().size);
}

// --- the IMAP-side tree ----------------------------------------------------------------------

TEST(MimePartImapTree, NamesWithQuotesParenthesesAnd8BitBytesSurvive) {
    const std::string text =
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\n"
        "Content-Type: application/pdf; name=\"a (b) \\\"c\\\" \xc3\xa9.pdf\"\n"
        "Content-Disposition: attachment; filename=\"r\xc3\xa9sum\xc3\xa9 (1).pdf\"\n\n%PDF\n"
        "--XX\nContent-Type: text/plain; charset=\"x\\\\y\"\n\nt\n--XX--\n";
    ZeImapMimeRef tree = toImapMime(*parse(text));
    ASSERT_TRUE(tree);
    ASSERT_EQ(2u, tree->children().size());
    EXPECT_EQ("a (b) \"c\" \xc3\xa9.pdf", tree.find("1")->content_type().name);
    EXPECT_EQ("r\xc3\xa9sum\xc3\xa9 (1).pdf", tree.find("1")->disposition().filename);
    EXPECT_EQ(Corvane::ContentDisposition::ATTACHMENT, tree.find("1")->disposition().type);
    EXPECT_EQ("x\\y", tree.find("2")->content_type().charset);
    // The wire form sends those as literals.
    EXPECT_NE(std::string::npos, Corvane::bodyStructure(*parse(text)).find("\"name\" {16}\r\n"));
}
