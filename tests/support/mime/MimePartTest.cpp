// The message parser and what is built from its tree: sizes and line counts,
// boundaries, defaults, malformed fields, limits, section numbers and bytes,
// and the IMAP-side tree. The expected BODYSTRUCTURE texts are the answers
// the real IMAP server (Dovecot 2.3) gave for the same bytes; the test
// MimePartDovecotTest checks the whole corpus against it live.

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

// A multipart/mixed with boundary b nested n deep around one text part.
std::string nestedMultipart(int n) {
    std::string text = "Subject: deep\n";
    for (int i = 0; i < n; ++i) {
        text += "Content-Type: multipart/mixed; boundary=\"=_" + std::to_string(i) +
                "_=\"\n\n--=_" + std::to_string(i) + "_=\n";
    }
    text += "Content-Type: text/plain\n\nleaf\n";
    for (int i = n - 1; i >= 0; --i) {
        text += "--=_" + std::to_string(i) + "_=--\n";
    }
    return text;
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
    EXPECT_EQ(plain(0, 0), structure("Subject: h\nContent-Type: text/plain"));

    auto empty = parse("");
    EXPECT_EQ(0u, empty->header().length);
    EXPECT_EQ(0u, empty->body().length);
    EXPECT_EQ(plain(0, 0), structure(""));

    // A message starting with a blank line has an empty header.
    auto bodyOnly = parse("\nbody only\n");
    EXPECT_EQ(1u, bodyOnly->header().length);
    EXPECT_EQ(0u, bodyOnly->headers().size());
    EXPECT_EQ(plain(11, 1), structure("\nbody only\n"));
}

// --- boundaries -----------------------------------------------------------------------

TEST(MimePartBoundaries, TheLineEndBeforeABoundaryBelongsToTheBoundary) {
    const std::string text =
        "Content-Type: multipart/mixed; boundary=XX\r\n\r\npre\r\n--XX\r\n"
        "Content-Type: text/plain\r\n\r\nline\r\n--XX\r\n\r\n--XX--\r\n";
    auto root = parse(text);
    ASSERT_EQ(2u, root->children().size());
    EXPECT_EQ("line", section(text, "1"));
    EXPECT_EQ(0u, root->children()[0]->body().lines);
    EXPECT_EQ(4u, root->children()[0]->body().size);
    EXPECT_EQ("(" + plain(4, 0) +
                  "(\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 0 0 NIL "
                  "NIL NIL NIL) \"mixed\" (\"boundary\" \"XX\") NIL NIL NIL)",
              structure(text));
    // Preamble and epilogue belong to the multipart's body.
    EXPECT_EQ(root->body().end(), text.size());
}

TEST(MimePartBoundaries, AHeaderCutByABoundaryGivesItsLastLineEndAway) {
    // The first part's header has no blank line; the second's blank line is followed at
    // once by the boundary, which then takes its line end.
    const std::string text =
        "Content-Type: multipart/mixed; boundary=XX\n\n--XX\nContent-Type: text/plain\nX-A: b\n"
        "--XX\nContent-Type: text/html\n\n--XX--\n";
    auto root = parse(text);
    ASSERT_EQ(2u, root->children().size());
    EXPECT_EQ("Content-Type: text/plain\nX-A: b", section(text, "1.MIME"));
    EXPECT_EQ("Content-Type: text/html\n", section(text, "2.MIME"));
    EXPECT_EQ("", section(text, "2"));
    EXPECT_EQ(1u, root->children()[0]->header().lines);
    EXPECT_EQ(root->body().length, text.size() - root->header().length);

    // An attached message that the boundary leaves empty begins where its
    // part's header now ends, inside its part.
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

TEST(MimePartBoundaries, PrefixMatchesLongestWinsAndEndMarkers) {
    // Anything may follow the boundary; "--" right after it ends the multipart.
    EXPECT_EQ("(" + plain(1, 0) + plain(1, 0) + " \"mixed\" (\"boundary\" \"XX\") NIL NIL NIL)",
              structure("Content-Type: multipart/mixed; boundary=XX\n\n--XX  \nContent-Type: "
                        "text/plain\n\nA\n--XX \t\n\nB\n--XX--garbage\nepi\n"));
    // An outer boundary that begins with an inner one: the longer match wins
    // and ends the inner multipart.
    EXPECT_EQ("((" + plain(5, 0) + " \"mixed\" (\"boundary\" \"A\") NIL NIL NIL)" + plain(6, 0) +
                  " \"mixed\" (\"boundary\" \"AB\") NIL NIL NIL)",
              structure("Content-Type: multipart/mixed; boundary=AB\n\n--AB\nContent-Type: "
                        "multipart/mixed; boundary=A\n\n--A\n\ninner\n--AB\n\nouter2\n--AB--\n"));
    // The same boundary nested: the inner one ends first, the outer goes on.
    EXPECT_EQ("((" + plain(5, 0) + " \"mixed\" (\"boundary\" \"S\") NIL NIL NIL)" + plain(4, 0) +
                  " \"mixed\" (\"boundary\" \"S\") NIL NIL NIL)",
              structure("Content-Type: multipart/mixed; boundary=S\n\n--S\nContent-Type: "
                        "multipart/mixed; boundary=S\n\n--S\n\ninner\n--S--\nafter\n--S\n\nlast\n"
                        "--S--\n"));
    // "b--" inside "b": "--b----" ends the inner one.
    EXPECT_EQ("((" + plain(2, 0) +
                  " \"mixed\" (\"boundary\" \"b--\") NIL NIL NIL) \"mixed\" "
                  "(\"boundary\" \"b\") NIL NIL NIL)",
              structure("Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: "
                        "multipart/mixed; boundary=b--\n\n--b--\n\nin\n--b----\n--b--\n"));
}

TEST(MimePartBoundaries, BoundaryLinesAtTheEndAndLongBoundaries) {
    // A boundary line without line end at the very end opens no part.
    EXPECT_EQ(1u, parse("Content-Type: multipart/mixed; boundary=XX\n\n--XX\n\none\n--XX")
                      ->children()
                      .size());
    EXPECT_EQ(2u, parse("Content-Type: multipart/mixed; boundary=XX\n\n--XX\n\none\n--XX\n")
                      ->children()
                      .size());
    // Boundaries are matched on their first 80 characters.
    const std::string l90(90, 'L');
    auto root = parse("Content-Type: multipart/mixed; boundary=\"" + l90 + "\"\n\n--" + l90 +
                      "\n\none\n--" + l90.substr(0, 80) + "--\n");
    ASSERT_EQ(1u, root->children().size());
    EXPECT_EQ(3u, root->children()[0]->body().size);
}

// --- defaults and fields ----------------------------------------------------------------

TEST(MimePartDefaults, TypesWithoutContentTypeAndWithoutMime) {
    auto none = parse("Subject: x\n\nbody\n");
    EXPECT_EQ(MimePart::LEAF, none->kind());
    EXPECT_EQ("text", none->typeName());
    EXPECT_EQ("plain", none->subtypeName());
    EXPECT_EQ("us-ascii", none->charset());
    EXPECT_EQ(Corvane::ContentType::PLAIN, none->subType());
    EXPECT_EQ(Corvane::ENCODING_7BIT, none->encoding());

    // Content-* fields without MIME-Version or Content-Type do not count.
    auto notMime = parse(
        "Subject: x\nContent-Disposition: attachment; filename=a.txt\n"
        "Content-ID: <x>\n\nbody\n");
    EXPECT_FALSE(notMime->isMime());
    EXPECT_FALSE(notMime->fields().disposition);
    EXPECT_FALSE(notMime->fields().id);

    // Inside a digest a part without type is a message.
    const std::string digest =
        "Content-Type: multipart/digest; boundary=D\n\n--D\n\nSubject: d1\n\nbody1\n--D\n"
        "Content-Type: text/plain\n\nplain\n--D--\n";
    auto root = parse(digest);
    ASSERT_EQ(2u, root->children().size());
    EXPECT_TRUE(root->children()[0]->isMessage());
    EXPECT_EQ("d1", root->children()[0]->message()->envelope().subject.value_or(""));
    EXPECT_EQ(MimePart::LEAF, root->children()[1]->kind());
}

TEST(MimePartDefaults, MultipartWithoutBoundaryHasNoPartsButReportsOneEmptyPart) {
    const std::string text = "Subject: m\nContent-Type: multipart/alternative\n\nbody\n";
    auto root = parse(text);
    EXPECT_EQ(MimePart::MULTIPART, root->kind());
    EXPECT_TRUE(root->children().empty());
    EXPECT_EQ("(" + plain(0, 0) + " \"alternative\" NIL NIL NIL NIL)", structure(text));
    EXPECT_EQ(nullptr, root->find("1"));
    std::string bytes;
    EXPECT_FALSE(Corvane::readSection(text.data(), text.size(), *root, "1", bytes));
}

TEST(MimePartFields, UnreadableContentTypes) {
    const auto body = [](const std::string& type) {
        return structure("MIME-Version: 1.0\nContent-Type: " + type + "\n\nbody line\n");
    };
    const std::string broken = "(\"\" \"\" NIL NIL NIL \"7bit\" 11 NIL NIL NIL NIL)";
    EXPECT_EQ(broken, body("text/plain foo"));
    EXPECT_EQ(broken, body("text/"));
    EXPECT_EQ(broken, body("/plain"));
    EXPECT_EQ(broken, body("\"text/plain\""));
    // A type alone stays, without subtype; it is still text.
    EXPECT_EQ("(\"text\" \"\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 11 1 NIL NIL NIL NIL)",
              body("text"));
    EXPECT_EQ("(\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"7bit\" 11 1 NIL NIL NIL NIL)",
              body("text / plain (comment) ; charset=utf-8 (c2)"));
    EXPECT_EQ("(\"TEXT\" \"PLAIN\" (\"CHARSET\" \"UTF-8\") NIL NIL \"7bit\" 11 1 NIL NIL NIL NIL)",
              body("TEXT/PLAIN; CHARSET=UTF-8"));
    // Garbage between parameters is skipped, a key without value dropped.
    EXPECT_EQ(
        "(\"text\" \"plain\" (\"\" \"x\" \"charset\" \"y\") NIL NIL \"7bit\" 11 1 NIL NIL NIL "
        "NIL)",
        body("text/plain; =x; charset=y"));
    EXPECT_EQ(plain(11, 1), body("text/plain; foo"));
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

TEST(MimePartFields, ParametersAreJoinedButNotDecoded) {
    const auto params = [](const std::string& type) {
        auto root = parse("Content-Type: " + type + "\n\nbody line\n");
        std::string out;
        for (const auto& p : root->fields().params) {
            out += p.name + "=" + p.value + ";";
        }
        return out;
    };
    EXPECT_EQ("name=ab.txt;", params("text/plain; name*0=\"a\"; name*1=\"b.txt\""));
    EXPECT_EQ("name=ab;", params("application/pdf; name*1=b; name*0=a"));
    EXPECT_EQ("name=plain.pdf;name*=utf-8''r%C3%A9sum.pdf;",
              params("application/pdf; name*0*=utf-8''r%C3%A9; name*1=sum.pdf; name=plain.pdf"));
    // A gap keeps the pieces apart.
    EXPECT_EQ("name*0=a;name*2=c;", params("application/pdf; name*0=a; name*2=c"));
    // "name*" without number takes the previous piece's number, as the server does.
    EXPECT_EQ("a*1=x;name*1*=utf-8''y;", params("text/plain; a*1=x; name*=utf-8''y"));
    EXPECT_EQ("charset=a\"b;", params("text/plain; charset=\"a\\\"b\""));
    EXPECT_EQ("name==?utf-8?B?w6kucGRm?=;", params("application/x; name==?utf-8?B?w6kucGRm?="));
    // Decoded views come from the content-type library.
    auto root = parse(
        "Content-Type: application/pdf; name*0*=utf-8''r%C3%A9; name*1=sum.pdf\n"
        "Content-Disposition: attachment; filename*=utf-8''%C3%A9.txt\n\nx\n");
    EXPECT_EQ("r\xc3\xa9sum.pdf", root->contentType().utf8name());
    EXPECT_EQ("\xc3\xa9.txt", root->contentDisposition().utf8fileName());
    EXPECT_EQ(Corvane::ContentDisposition::ATTACHMENT, root->contentDisposition().type());
}

TEST(MimePartFields, OtherContentFieldsFirstWinsExceptDispositionWithoutParameters) {
    const std::string text =
        "Subject: g\nMIME-Version: 1.0\nContent-Type: text/plain\nContent-ID: <id@x>\n"
        "Content-ID: second\nContent-Description: a\n desc\nContent-MD5: abc==\n"
        "Content-Language: en, de-CH (x)\nContent-Location: http://x/y\n"
        "Content-Disposition: inline\nContent-Disposition: attachment; filename=\"a.txt\"; size=3\n"
        "Content-Transfer-Encoding: 8bit garbage\nContent-Transfer-Encoding: Quoted-Printable\n\n"
        "body\n";
    EXPECT_EQ(
        "(\"text\" \"plain\" (\"charset\" \"us-ascii\") \"<id@x>\" \"a desc\" "
        "\"Quoted-Printable\" 6 1 \"abc==\" (\"attachment\" (\"filename\" \"a.txt\" \"size\" "
        "\"3\")) (\"en\" \"de-CH\") \"http://x/y\")",
        structure(text));
    auto root = parse(text);
    EXPECT_EQ(Corvane::ENCODING_QUOTED_PRINTABLE, root->encoding());
    EXPECT_EQ("a.txt", root->contentDisposition().utf8fileName());
    // 8-bit values go out as literals, as the server sends them.
    EXPECT_EQ(
        "(\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL {4}\r\ncaf\xe9 \"7bit\" 6 1 NIL "
        "NIL NIL NIL)",
        structure("Content-Type: text/plain\nContent-Description: caf\xe9\n\nbody\n"));
}

TEST(MimePartFields, EnvelopeOfAnAttachedMessage) {
    const std::string text =
        "Content-Type: message/rfc822\n\nDate: first\nDate: second\nIn-Reply-To: <a@b>\n <c@d>\n"
        "Message-ID:  <m@x>  \nSubject:   \n\nx\n";
    EXPECT_EQ(
        "(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 95 (\"second\" \"\" NIL NIL NIL NIL NIL "
        "NIL \"<a@b> <c@d>\" \"<m@x>  \") " +
            plain(3, 1) + " 8 NIL NIL NIL NIL)",
        structure(text));
    // A folded subject is flattened for display; then it goes as a literal.
    EXPECT_EQ(
        "(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 56 (\"spaced  \" {19}\r\nfolded subject "
        "line NIL NIL NIL NIL NIL NIL NIL NIL) " +
            plain(3, 1) + " 5 NIL NIL NIL NIL)",
        structure("Subject: outer\nContent-Type: message/rfc822\n\nSubject: folded\n  "
                  "subject\tline\nDate:   spaced  \n\nx\n"));
    // An attached message with nothing in it still has its one text part.
    EXPECT_EQ(
        "(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 0 (NIL NIL NIL NIL NIL NIL NIL NIL NIL "
        "NIL) " +
            plain(0, 0) + " 0 NIL NIL NIL NIL)",
        structure("Subject: outer\nContent-Type: message/rfc822\n"));
}

// --- limits ---------------------------------------------------------------------------------

TEST(MimePartLimits, DeepMultipartsStopAtTheNestingLimit) {
    auto ok = parse(nestedMultipart(99));
    const MimePart* part = ok.get();
    while (!part->children().empty()) {
        part = part->children().front().get();
    }
    EXPECT_EQ(99u, part->depth());
    EXPECT_EQ("text", part->typeName());

    // The 100th multipart becomes an opaque application/octet-stream leaf
    // holding the rest of its enclosing part.
    auto cut = parse(nestedMultipart(100));
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
    auto deep = parse(nestedMultipart(10000));
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

TEST(MimePartImapTree, AttachedMessagesAreLeavesNamedAfterTheirSubject) {
    ZeImapMimeRef tree = toImapMime(*parse(kMixed));
    ASSERT_TRUE(tree);
    EXPECT_EQ(Corvane::ContentType::MULTIPART, tree->media_type());
    EXPECT_EQ(Corvane::ContentType::MIXED, tree->sub_type());
    ASSERT_EQ(3u, tree->children().size());
    ZeImapMimeRef& inner = tree.find("2");
    ASSERT_TRUE(inner);
    EXPECT_EQ(Corvane::ContentType::RFC822, inner->sub_type());
    EXPECT_EQ("inner.eml", inner->disposition().filename);
    EXPECT_TRUE(inner->children().empty());
    EXPECT_EQ(28u, inner->size());
    EXPECT_EQ(2u, inner->lines());
    EXPECT_FALSE(tree.find("3.1"));
    EXPECT_EQ(3u, tree.find("1")->size());
}

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
