// The BODYSTRUCTURE parser and the MIME tree: structures as Dovecot sends
// them (real answers in tests/data/bodystructure), malformed and hostile
// ones, continuation lines through a real feeder on a pipe, and the composer
// side (numbering, boundaries, writing a message).
#include "imap/ZeImapMime.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/TokenIterator.h"
#include "imap/ZeImapClient.h"
#include "support/PipeFeed.h"
#include "support/TestUtil.h"

using Corvane::ContentDisposition;
using Corvane::ContentType;

namespace {

// One line per tree: "type/subtype;section;encoding;size[;lines][;disposition[=file]]"
// for leaves, "type/subtype[;section][child,child]" for containers.
std::string compact(const ZeImapMimeRef& ref) {
    if (!ref) {
        return "";
    }
    const ZeImapMime& n = *ref;
    const ZeContentType& ct = n.content_type();
    std::string type = ct.media ? Corvane::mediaTypeAsString(ct.media) : "none";
    std::string out =
        type + "/" + (ct.subtype ? Corvane::subTypeAsString(ct.subtype) : "?" + ct.subtype_name);
    if (ct.media == ContentType::MULTIPART || !n.children().empty()) {
        out += n.section().empty() ? "[" : ";" + n.section() + "[";
        for (const ZeImapMimeRef& c : n.children()) {
            out += (out.back() == '[' ? "" : ",") + compact(c);
        }
        return out + "]";
    }
    out += ";" + n.section() + ";" +
           (ct.encoding ? Corvane::encodingAsString(ct.encoding) : "none") + ";" +
           std::to_string(n.size());
    if (ct.media == ContentType::TEXT || ct.media == ContentType::MESSAGE) {
        out += ";" + std::to_string(n.lines());
    }
    const ZeContentDisposition& d = n.disposition();
    if (d.type != ContentDisposition::NONE || !d.filename.empty()) {
        out += ";" + (d.type ? Corvane::dispositionAsString(d.type) : std::string("-"));
        out += d.filename.empty() ? "" : "=" + d.filename;
    }
    return out;
}

// Parses the BODYSTRUCTURE value text (normally "(...)") with no feeder.
ZeImapMimeRef parse(const std::string& value) {
    TokenIterator it(value);
    ImapMimeParser parser(nullptr);
    EXPECT_EQ(parser.parse(it), 0);
    return parser.root();
}

// Reads FETCH answers from server output the way the UID FETCH response
// does: the item list's text, then the parser on the BODYSTRUCTURE value.
// Returns the dumps, and in rest the first line that was not a FETCH answer.
std::vector<std::string> parse_answers(const std::string& output, std::string* rest,
                                       std::vector<ZeImapMimeRef>* trees = nullptr) {
    zetest::PipeFeed feed(output);
    ZeImapFeeder feeder(feed.io());
    std::vector<std::string> dumps;
    while (feeder.nextline() > 0) {
        TokenIterator& line = feeder.token();
        if (line != "*") {
            *rest = feeder.curline().str();
            break;
        }
        line++;
        line++;
        line++;
        TokenIterator items(line.token());
        while (items.token() != nullptr && items != std::string("BODYSTRUCTURE")) {
            items++;
        }
        items++;
        ImapMimeParser parser(&feeder);
        parser.parse(items);
        dumps.push_back(compact(parser.root()));
        if (trees != nullptr) {
            trees->push_back(parser.root());
        }
    }
    return dumps;
}

const char* const kPlain1 = "(\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1 NIL NIL NIL NIL)";

struct Case {
    const char* bodystructure;
    const char* expected;
};

void check_cases(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bodystructure);
        EXPECT_EQ(compact(parse(c.bodystructure)), c.expected);
    }
}

}  // namespace

TEST(BodyStructureParse, ShapesOfTrees) {
    check_cases({
        {"(\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"7bit\" 1234 20 NIL NIL NIL NIL)",
         "text/plain;;7bit;1234;20"},
        {"((\"text\" \"plain\" (\"charset\" \"utf-8\") NIL NIL \"7bit\" 10 1 NIL NIL NIL NIL)"
         "(\"text\" \"html\" (\"charset\" \"utf-8\") NIL NIL \"quoted-printable\" 20 2 NIL NIL NIL "
         "NIL)"
         " \"alternative\" (\"boundary\" \"x\") NIL NIL NIL)",
         "multipart/alternative[text/plain;1;7bit;10;1,text/html;2;quoted-printable;20;2]"},
        {"((\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1 NIL NIL NIL NIL)((\"text\" \"plain\" NIL "
         "NIL "
         "NIL \"7bit\" 2 1 NIL NIL NIL NIL)(\"image\" \"gif\" NIL NIL NIL \"base64\" 3 NIL NIL NIL "
         "NIL)"
         " \"related\" NIL NIL NIL NIL) \"mixed\" NIL NIL NIL NIL)",
         "multipart/mixed[text/plain;1;7bit;1;1,multipart/related;2[text/plain;2.1;7bit;2;1,"
         "image/gif;2.2;base64;3]]"},
        // The MD5 field does not matter; the disposition does.
        {"(\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1 \"d41d8cd98f00b204e9800998ecf8427e\" "
         "(\"attachment\" (\"filename\" \"notes.txt\")) NIL NIL)",
         "text/plain;;7bit;5;1;attachment=notes.txt"},
        // An attached message is one leaf named after its subject; its parts are dropped.
        {"((\"text\" \"plain\" NIL NIL NIL \"7bit\" 4 1 NIL NIL NIL NIL)(\"message\" \"rfc822\" "
         "NIL "
         "NIL NIL \"7bit\" 300 (\"Mon, 1 Jan 2024 10:00:00 +0000\" \"Hello\" NIL NIL NIL NIL NIL "
         "NIL "
         "NIL NIL) ((\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1 NIL NIL NIL NIL)(\"image\" "
         "\"png\" "
         "NIL NIL NIL \"base64\" 9 NIL NIL NIL NIL) \"mixed\" NIL NIL NIL NIL) 12 NIL NIL NIL NIL) "
         "\"mixed\" NIL NIL NIL NIL)",
         "multipart/mixed[text/plain;1;7bit;4;1,message/rfc822;2;7bit;300;12;-=Hello.eml]"},
        {"(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 50 (NIL \"Inner\" NIL NIL NIL NIL NIL NIL "
         "NIL "
         "NIL) (\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1 NIL NIL NIL NIL) 3 NIL (\"attachment\" "
         "(\"filename\" \"fwd.eml\")) NIL NIL)",
         "message/rfc822;;7bit;50;3;attachment=fwd.eml"},
        // A subtype the enumeration lacks keeps its node, so its parts keep a parent.
        {"((\"text\" \"plain\" NIL NIL NIL \"7bit\" 1 1 NIL NIL NIL NIL)((\"text\" \"plain\" NIL "
         "NIL "
         "NIL \"7bit\" 2 1 NIL NIL NIL NIL) \"x-inner\" NIL NIL NIL NIL) \"X-Custom\" NIL NIL NIL "
         "NIL)",
         "multipart/?x-custom[text/plain;1;7bit;1;1,multipart/?x-inner;2[text/"
         "plain;2.1;7bit;2;1]]"},
        // An unreadable type with a file name is kept as an attachment.
        {"(\"\" \"\" NIL NIL NIL \"base64\" 0 NIL (\"attachment\" (\"filename\" \"a.bin\")) NIL "
         "NIL)",
         "none/?;;base64;0;attachment=a.bin"},
        {"(\"\" \"\" NIL NIL NIL \"7bit\" 3 NIL NIL NIL NIL)", ""},
        // Parameter lists and a location URL that end in a subtype name stay what they are.
        {"((\"text\" \"html\" NIL NIL NIL \"7bit\" 1 1 NIL NIL NIL NIL) \"related\" (\"type\" "
         "\"text/html\" \"boundary\" \"b\") NIL NIL \"http://example.com/a/mixed\")",
         "multipart/related[text/html;1;7bit;1;1]"},
    });
}

TEST(BodyStructureParse, FieldsOfAPart) {
    ZeImapMimeRef calendar = parse(
        "(\"TEXT\" \"Calendar\" (\"charset\" \"utf-8\" \"method\" \"REQUEST\" \"name\" \"a "
        "\\\"b\\\".ics\")"
        " \"<id@x>\" \"Meeting \\\"A\\\"\" \"7bit\" 30 1 NIL NIL NIL NIL)");
    ASSERT_TRUE(calendar);
    const ZeContentType& ct = calendar->content_type();
    EXPECT_EQ(ct.media, ContentType::TEXT);
    EXPECT_EQ(ct.subtype, ContentType::CALENDAR);
    EXPECT_EQ(ct.type_name + "/" + ct.subtype_name, "text/calendar");
    EXPECT_EQ(ct.charset, "utf-8");
    EXPECT_EQ(ct.method, "REQUEST");
    EXPECT_EQ(ct.name, "a \"b\".ics");
    EXPECT_EQ(ct.content_id, "<id@x>");
    EXPECT_EQ(ct.description, "\"Meeting \\\"A\\\"\"");

    // Literals already inside the text (no feeder) are taken whole.
    ZeImapMimeRef pdf = parse(
        "(\"application\" \"pdf\" (\"name\" {5}\r\nab cd) NIL {3}\r\nd e \"base64\" 7 NIL "
        "(\"attachment\" (\"filename\" {3}\r\nx y)) NIL NIL)");
    ASSERT_TRUE(pdf);
    EXPECT_EQ(pdf->content_type().name, "ab cd");
    EXPECT_EQ(pdf->content_type().description, "\"d e\"");  // in quoted form, like any other
    EXPECT_EQ(compact(pdf), "application/pdf;;base64;7;attachment=x y");

    ZeImapMimeRef mixed =
        parse(std::string("(") + kPlain1 +
              " \"mixed\" (\"charset\" \"iso-8859-1\" \"boundary\" \"b\") NIL NIL NIL)");
    ASSERT_TRUE(mixed);
    EXPECT_EQ(mixed->content_type().charset, "iso-8859-1");
    EXPECT_EQ(mixed->content_type().boundary, "");
}

TEST(BodyStructureParse, MalformedGivesPartialTree) {
    check_cases({
        {"", ""},
        {"NIL", ""},
        {"(NIL NIL NIL NIL NIL NIL NIL NIL NIL NIL)", ""},
        {"((NIL)(NIL) NIL NIL)", ""},
        {"(\"text\" \"plain\"", "text/plain;;none;0;0"},
        {"((\"text\" \"plain\" NIL NIL NIL \"7bit\" 5 1 NIL NIL NIL NIL)(\"image\" \"png\" NIL",
         "none/?[text/plain;1;7bit;5;1,image/png;2;none;0]"},
        {"(\"text\" \"plain\" foo bar baz qux 12abc 7 ((( NIL", "text/plain;;none;12;7"},
        {"(\"text\" \"plain\" NIL NIL NIL \"7bit\" 99999999999999999999999 -5 NIL NIL NIL NIL)",
         "text/plain;;7bit;9223372036854775807;0"},
        {"(\"text\" \"plain\" (\"name\" {99999999999999999999}\r\nab) NIL NIL \"7bit\" 1 1 NIL "
         "NIL)",
         "text/plain;;none;0;0"},
        {"(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 5 NIL NIL)",
         "message/rfc822;;7bit;5;0;-=.eml"},
        {"(\"message\" \"rfc822\" NIL NIL NIL \"7bit\" 5)", "message/rfc822;;7bit;5;0;-=.eml"},
    });
}

// Answers Dovecot gave for broken or unusual messages of the real-message
// corpus (MimePartDovecotTest checks the trees of the whole corpus against Dovecot).
TEST(BodyStructureParse, WhatDovecotSendsForOddMessages) {
    check_cases({
        // A Content-Type Dovecot cannot read gives what it could read of the
        // type, or ""; without a file name there is no node.
        {"(\"{}\" \"\" NIL NIL NIL \"base64\" 18 NIL NIL NIL NIL)", ""},
        {"(\"foo\" \"\" NIL NIL NIL \"7bit\" 0 NIL NIL NIL NIL)", ""},
        // A part of an unknown media type is left out; the parts after it keep
        // their numbers.
        {"((\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 45 4 NIL NIL NIL NIL)"
         "(\"binary\" \"octet-stream\" NIL NIL NIL \"base64\" 10 NIL NIL NIL NIL)"
         "(\"\" \"\" NIL NIL NIL \"base64\" 723 NIL (\"attachment\" (\"filename\" "
         "\"Invoice.pdf\")) "
         "NIL NIL)(\"image\" \"png\" NIL NIL NIL \"base64\" 20 NIL NIL NIL NIL) \"mixed\" "
         "(\"boundary\" \"b\") NIL NIL NIL)",
         "multipart/mixed[text/plain;1;7bit;45;4,none/?;3;base64;723;attachment=Invoice.pdf,"
         "image/png;4;base64;20]"},
        // The empty part Dovecot invents for a multipart without a usable boundary.
        {"((\"text\" \"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 0 0 NIL NIL NIL NIL) "
         "\"report\" (\"report-type\" \"delivery-status\") NIL NIL NIL)",
         "multipart/report[text/plain;1;7bit;0;0]"},
        // Only message/rfc822 reads past the size: a delivery status keeps no
        // disposition. An envelope without subject names the message NIL.eml.
        {"((\"message\" \"delivery-status\" NIL NIL NIL \"7bit\" 150 NIL (\"attachment\" "
         "(\"filename\" \"details.txt\")) NIL NIL)(\"message\" \"rfc822\" (\"name\" \"md5.md\") "
         "\"<id@x>\" \"\" \"7bit\" 19 (NIL NIL NIL NIL NIL NIL NIL NIL NIL NIL) (\"text\" "
         "\"plain\" (\"charset\" \"us-ascii\") NIL NIL \"7bit\" 0 0 NIL NIL NIL NIL) 2 NIL NIL NIL "
         "NIL) \"mixed\" (\"boundary\" \"b\") NIL NIL NIL)",
         "multipart/mixed[message/delivery-status;1;7bit;150;0,message/rfc822;2;7bit;19;2;-=NIL."
         "eml]"},
        // Language and location extension data after a part and a multipart.
        {"((\"text\" \"plain\" (\"charset\" \"utf-8\" \"format\" \"flowed\") NIL NIL \"7bit\" 23 2 "
         "NIL NIL (\"en-US\") \"http://x/mixed\")(\"image\" \"jpeg\" (\"name\" \"a.jpeg\") NIL NIL "
         "\"base64\" 14310 NIL (\"attachment\" (\"filename\" \"a.jpeg\")) NIL NIL) \"mixed\" "
         "(\"boundary\" \"--\") NIL (\"en-US\" \"de\") NIL)",
         "multipart/mixed[text/plain;1;7bit;23;2,image/jpeg;2;base64;14310;attachment=a.jpeg]"},
    });

    // Parameter keys are matched by their beginning: an RFC 2231 "charset*",
    // which Dovecot passes on raw, counts until a plain "charset" follows.
    ZeImapMimeRef text = parse(
        "(\"text\" \"plain\" (\"charset*\" \"bogus''utf-8%E2%80%9D\" \"charset\" \"us-ascii\") NIL "
        "NIL \"7bit\" 0 0 NIL NIL NIL NIL)");
    ASSERT_TRUE(text);
    EXPECT_EQ(text->content_type().charset, "us-ascii");
    ZeImapMimeRef foo = parse(
        "(\"application\" \"x-foo\" (\"name*\" \"us-ascii'en-us'My Document\" \"name\" "
        "\"a\" \"name\" \"b\") NIL NIL \"7bit\" 0 NIL NIL NIL NIL)");
    ASSERT_TRUE(foo);
    EXPECT_EQ(foo->content_type().name, "b");
    EXPECT_EQ(foo->content_type().content_id, "NIL");
    EXPECT_EQ(foo->content_type().description, "NIL");
}

TEST(BodyStructureParse, HostileDepthAndWidthAreBounded) {
    // 10,000 nested multiparts: the tree stops at the nesting limit.
    std::string deep = std::string(10000, '(') + kPlain1;
    for (int i = 0; i < 10000; ++i) {
        deep += " \"mixed\")";
    }
    ZeImapMimeRef node = parse(deep);
    int levels = 0;
    while (node && !node->children().empty()) {
        ASSERT_EQ(node->media_type(), ContentType::MULTIPART);
        ZeImapMimeRef child = node->children().front();  // keeps it alive past the assignment
        node = child;
        ++levels;
    }
    EXPECT_EQ(levels, ImapMimeParser::kMaxDepth - 1);
    EXPECT_EQ(node->media_type(), ContentType::MULTIPART);  // the deepest kept level

    // Brackets that never close, and a part list wider than the part limit.
    EXPECT_EQ(compact(parse(std::string(10000, '(') + kPlain1)), "");
    std::string wide = "(";
    for (int i = 0; i < ImapMimeParser::kMaxParts + 500; ++i) {
        wide += kPlain1;
    }
    ZeImapMimeRef flat = parse(wide + " \"mixed\" NIL NIL NIL NIL)");
    ASSERT_TRUE(flat);
    EXPECT_EQ(flat->children().size(), static_cast<std::size_t>(ImapMimeParser::kMaxParts - 1));
    EXPECT_EQ(flat->children().back()->section(), std::to_string(ImapMimeParser::kMaxParts - 1));
}

TEST(BodyStructureFeeder, RealDovecotAnswers) {
    std::string rest;
    std::vector<ZeImapMimeRef> trees;
    std::vector<std::string> dumps = parse_answers(
        zetest::read_file(ZEMAIL_TEST_DATA_DIR "/bodystructure/dovecot-fetch.txt"), &rest, &trees);
    const std::vector<std::string> expected = {
        "text/plain;;7bit;13;1",
        "multipart/mixed[text/plain;1;8bit;13;0,message/rfc822;2;7bit;330;17;-=Quarterly "
        "report.eml]",
        "multipart/signed[text/plain;1;quoted-printable;14;0,application/pgp-signature;2;7bit;64;"
        "attachment=signature.asc]",
        "multipart/mixed[text/plain;1;7bit;4;0,application/"
        "octet-stream;2;base64;12;attachment=a.pdf]",
        "multipart/mixed[text/plain;1;7bit;4;0,application/pdf;2;base64;12;attachment=résumé.pdf]",
        "multipart/mixed[multipart/related;1[multipart/alternative;1.1[text/plain;1.1.1;7bit;5;0,"
        "text/html;1.1.2;7bit;22;0],image/png;1.2;base64;12;inline],image/jpeg;2;base64;8;"
        "inline=photo.jpg]",
        "",
        "multipart/mixed[text/plain;1;7bit;0;0]",
        "multipart/mixed[text/plain;1;7bit;4;0,application/pdf;2;base64;12;attachment=résum.pdf]",
        "multipart/mixed[text/plain;1;7bit;4;0,application/pdf;2;base64;12;attachment=é \"x\" "
        "(1.pdf]",
        "multipart/alternative[text/plain;1;7bit;6;0,text/calendar;2;7bit;30;1]",
        "multipart/mixed[text/plain;1;7bit;4;0,message/rfc822;2;7bit;56;3;attachment=Grüße aus "
        "Köln.eml]",
        "multipart/report[text/plain;1;7bit;6;0,message/delivery-status;2;7bit;31;0,"
        "message/rfc822-headers;3;7bit;13;0]",
    };
    ASSERT_EQ(dumps.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(dumps[i], expected[i]) << "UID " << i + 1;
    }
    // Answers spanning lines were read to their end and not a line further.
    EXPECT_EQ(rest.compare(0, 5, "b OK "), 0) << rest;
    EXPECT_EQ(trees[4].find("2")->content_type().name, "résumé.pdf");

    // Display selection on the nested answer (UID 6).
    ZeImapMimeRef& nested = trees[5];
    auto sections = [&](ContentType::SubType want, ZeImapMime::CONVERT_TEXT convert) {
        std::list<ZeImapMimeRef> parts;
        nested->get_printable(want, parts, true, convert);
        std::string out;
        for (const ZeImapMimeRef& p : parts) {
            out += (out.empty() ? "" : " ") + p->section();
        }
        return out;
    };
    EXPECT_EQ(sections(ContentType::PLAIN, ZeImapMime::CONVERT_NONE), "1.1.1 2");
    EXPECT_EQ(sections(ContentType::HTML, ZeImapMime::CONVERT_PLAIN_ONLY), "1.1.2 2");
    EXPECT_TRUE(nested->findRelatedPart());
    EXPECT_FALSE(trees[3]->findRelatedPart());
    EXPECT_EQ(nested.findCid("<logo@x>")->section(), "1.2");
    EXPECT_FALSE(nested.findCid("<other@x>"));
}

TEST(BodyStructureFeeder, LiteralsOnContinuationLines) {
    // A literal whose bytes hold brackets, a quote, a brace and a line feed;
    // other items after the structure; the next answer stays unread.
    std::string rest;
    std::vector<ZeImapMimeRef> trees;
    parse_answers(
        "* 1 FETCH (UID 1 BODYSTRUCTURE (\"application\" \"pdf\" (\"name\" {6}\r\na\nb)(c) NIL NIL "
        "\"base64\" 12 NIL (\"attachment\" (\"filename\" {7}\r\nx)\"y{2})) NIL NIL) X-FNAME "
        "abc)\r\n"
        "* 2 FETCH (UID 2 BODYSTRUCTURE (\"text\" \"plain\"\r\n"
        "* 3 FETCH (UID 3 BODYSTRUCTURE ((\"text\" \"plain\" (\"name\" {50}\r\nabc",
        &rest, &trees);
    ASSERT_EQ(trees.size(), 3u);
    EXPECT_EQ(trees[0]->content_type().name, "a\nb)(c");
    EXPECT_EQ(compact(trees[0]), "application/pdf;;base64;12;attachment=x)\"y{2}");
    // A line that ends without a literal ends the answer, even unfinished.
    EXPECT_EQ(compact(trees[1]), "text/plain;;none;0;0");
    // Input that ends inside a literal gives what arrived.
    EXPECT_EQ(compact(trees[2]), "none/?[text/plain;1;none;0;0]");
    EXPECT_EQ(trees[2].find("1")->content_type().name, "abc");
}

TEST(MimeTree, SectionsAndPlacement) {
    EXPECT_EQ(sectionAsString("", 0), "");
    EXPECT_EQ(sectionAsString("", 3), "3");
    EXPECT_EQ(sectionAsString("2.1", 4), "2.1.4");
    EXPECT_EQ(sectionAsString("2", 0), "2");

    ZeImapMimeRef root;
    auto add = [&](ContentType::MediaType media, const char* section) {
        ZeImapMimeRef node = ZeImapMimeRef::create(media, ContentType::UNKNOWN_SUBTYPE);
        node->set_section(section);
        ZeImapMime::add_section(root, node);
        return node;
    };
    add(ContentType::TEXT, "1");  // before any root: a placeholder root is made
    EXPECT_EQ(compact(root), "none/?[text/?;1;none;0;0]");
    add(ContentType::MULTIPART, "");
    add(ContentType::MULTIPART, "1");
    add(ContentType::IMAGE, "1.1");
    add(ContentType::AUDIO, "3.1");  // no section 3: dropped
    ZeImapMimeRef replaced = add(ContentType::VIDEO, "1");
    EXPECT_EQ(compact(root), "multipart/?[video/?;1;none;0]");

    // find answers the handle inside the tree: assigning to it replaces the node.
    EXPECT_EQ(root.find("1"), replaced);
    ZeImapMimeRef pdf = ZeImapMimeRef::create(ContentType::APPLICATION, ContentType::PDF);
    pdf->set_section("1");
    root.find("1") = pdf;
    EXPECT_EQ(root->children().front(), pdf);
    EXPECT_FALSE(root.find("2"));
    EXPECT_FALSE(ZeImapMimeRef().find(""));

    struct Stop : ZeImapMimeVisitor {
        std::vector<std::string> seen;
        int process(ZeImapMime* node) override {
            seen.push_back(node->section());
            return node->section() == "1" ? 7 : 0;
        }
    } stop;
    ZeImapMimeRef second = ZeImapMimeRef::create(ContentType::TEXT, ContentType::PLAIN);
    second->set_section("2");
    root->add_child(second);
    EXPECT_EQ(root->visit(stop), 7);
    EXPECT_EQ(stop.seen, (std::vector<std::string>{"", "1"}));
}

TEST(MimeTree, DisplaySelection) {
    auto node = [](ContentType::MediaType media, ContentType::SubType sub,
                   ContentDisposition::Type disposition, const char* cid) {
        ZeImapMimeRef n = ZeImapMimeRef::create(media, sub);
        n->disposition().type = disposition;
        n->content_type().content_id = cid;
        return n;
    };
    const auto kNone = ContentDisposition::NONE, kAttach = ContentDisposition::ATTACHMENT,
               kInline = ContentDisposition::INLINE;
    struct Row {
        ZeImapMimeRef part;
        bool skip_messages;
        ZeImapMime::CONVERT_TEXT convert;
        bool printable;
    };
    const std::vector<Row> rows = {
        {node(ContentType::TEXT, ContentType::HTML, kNone, ""), false, ZeImapMime::CONVERT_NONE,
         true},
        {node(ContentType::TEXT, ContentType::HTML, kNone, ""), false,
         ZeImapMime::CONVERT_PLAIN_ONLY, false},
        {node(ContentType::TEXT, ContentType::PLAIN, kInline, ""), false,
         ZeImapMime::CONVERT_PLAIN_ONLY, true},
        {node(ContentType::TEXT, ContentType::PLAIN, kAttach, ""), false, ZeImapMime::CONVERT_NONE,
         false},
        {node(ContentType::MESSAGE, ContentType::DELIVERY_STATUS, kNone, ""), false,
         ZeImapMime::CONVERT_NONE, true},
        {node(ContentType::MESSAGE, ContentType::DELIVERY_STATUS, kNone, ""), true,
         ZeImapMime::CONVERT_NONE, false},
        {node(ContentType::MESSAGE, ContentType::RFC822, kNone, ""), false,
         ZeImapMime::CONVERT_NONE, false},
        {node(ContentType::IMAGE, ContentType::PNG, kInline, "NIL"), false,
         ZeImapMime::CONVERT_NONE, true},
        {node(ContentType::IMAGE, ContentType::PNG, kInline, "<a@b>"), false,
         ZeImapMime::CONVERT_NONE, false},
        {node(ContentType::IMAGE, ContentType::PNG, kNone, ""), false, ZeImapMime::CONVERT_NONE,
         false},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].part->is_printable(rows[i].skip_messages, rows[i].convert),
                  rows[i].printable)
            << "row " << i;
    }

    // An alternative without the wanted subtype shows its last alternative;
    // with flag set, an inline multipart below the root is not searched.
    ZeImapMimeRef alt = ZeImapMimeRef::create(ContentType::MULTIPART, ContentType::ALTERNATIVE);
    ZeImapMimeRef enriched = node(ContentType::TEXT, ContentType::ENRICHED, kNone, "");
    ZeImapMimeRef html = node(ContentType::TEXT, ContentType::HTML, kNone, "");
    alt->add_child(enriched);
    alt->add_child(html);
    alt->assign_section_id("", 0);
    std::list<ZeImapMimeRef> shown;
    alt->get_printable(ContentType::PLAIN, shown, true);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown.front(), html);
    EXPECT_TRUE(alt->findPrintablePart(ContentType::HTML, true));
    EXPECT_FALSE(alt->printable(ContentType::PLAIN));
    ZeImapMimeRef inner = ZeImapMimeRef::create(ContentType::MULTIPART, ContentType::MIXED);
    inner->add_child(alt);
    inner->assign_section_id("", 0);
    alt->disposition().type = kInline;
    EXPECT_FALSE(inner->findPrintablePart(ContentType::HTML, true));
    EXPECT_TRUE(inner->findPrintablePart(ContentType::HTML, false));
}

TEST(MimeTree, CreateEmailWritesTheComposedTree) {
    zetest::TempDir dir;
    const std::string pdf = dir.write("a.pdf", "%PDF-1.4\n");
    auto leaf = [](ContentType::MediaType media, ContentType::SubType sub,
                   Corvane::ContentEncoding encoding) {
        ZeImapMimeRef n = ZeImapMimeRef::create(media, sub);
        n->content_type().encoding = encoding;
        return n;
    };
    ZeImapMimeRef root = ZeImapMimeRef::create(ContentType::MULTIPART, ContentType::MIXED);
    ZeImapMimeRef text = leaf(ContentType::TEXT, ContentType::PLAIN, Corvane::ENCODING_7BIT);
    text->content_type().charset = "utf-8";
    text->set_body_content("Hi\n");
    ZeImapMimeRef alt = ZeImapMimeRef::create(ContentType::MULTIPART, ContentType::ALTERNATIVE);
    ZeImapMimeRef html =
        leaf(ContentType::TEXT, ContentType::HTML, Corvane::ENCODING_QUOTED_PRINTABLE);
    html->set_body_content("<p>caf\xc3\xa9</p>");
    alt->add_child(html);
    ZeImapMimeRef file = leaf(ContentType::APPLICATION, ContentType::PDF, Corvane::ENCODING_BASE64);
    file->content_type().name = "r\xc3\xa9sum\xc3\xa9.pdf";
    file->content_type().content_id = "<f@x>";
    file->disposition().type = ContentDisposition::ATTACHMENT;
    file->disposition().filename = "a.pdf";
    file->set_attach_file(pdf);
    root->add_child(text);
    root->add_child(alt);
    root->add_child(file);
    root->assign_section_id("", 0);
    root->set_boundaries("P");
    EXPECT_EQ(alt->content_type().boundary, "P-2");
    EXPECT_EQ(file->section(), "3");

    std::ostringstream out;
    root->create_email(out);
    EXPECT_EQ(out.str(),
              "\n--P\n"
              "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: 7bit\n"
              "\nHi\n\n"
              "--P\n"
              "Content-Type: multipart/alternative;\n\tboundary=\"P-2\"\n"
              "\n--P-2\n"
              "Content-Type: text/html\nContent-Transfer-Encoding: quoted-printable\n"
              "\n<p>caf=C3=A9</p>\n"
              "--P-2--\n"
              "--P\n"
              "Content-Type: application/pdf;\n\tname=\"=?utf-8?B?csOpc3Vtw6kucGRm?=\"\n"
              "Content-Transfer-Encoding: base64\nContent-ID: <f@x>\n"
              "Content-Disposition: attachment;\n\tfilename=\"a.pdf\"\n"
              "\nJVBERi0xLjQK\n\n"
              "--P--\n");

    ZeContentType bare;
    EXPECT_EQ(bare.asString(), "");
    bare.media = ContentType::TEXT;
    bare.extra = " format=flowed";
    EXPECT_EQ(bare.asString(), "text/; format=flowed");
    EXPECT_EQ(ZeContentDisposition().asString(), "");
}
