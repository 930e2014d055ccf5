// A message file on its own read as a one-message mailbox: the same answers
// as the same bytes stored in a Maildir, the envelope from the header and the
// file, and a file that is missing, vanishes or must not be changed.
#include "stores/ZeMDirectMailBox.h"

#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "stores/ZeMaildir.h"
#include "support/Exception.h"
#include "support/TestUtil.h"

namespace {

const char kMultipart[] =
    "From: Ann <ann@example.org>\n"
    "Message-Id: <m1@example.org>\n"
    "Date: Tue, 1 Jul 2003 12:52:37 +0200\n"
    "MIME-Version: 1.0\n"
    "Content-Type: multipart/mixed; boundary=b\n"
    "\n"
    "--b\n"
    "Content-Type: text/plain; charset=utf-8\n"
    "\n"
    "caf\xc3\xa9\n"
    "--b\n"
    "Content-Type: application/pdf; name=a.pdf\n"
    "Content-Transfer-Encoding: base64\n"
    "Content-Disposition: attachment; filename=a.pdf\n"
    "\n"
    "JVBERi0xLjQK\n"
    "--b--\n";

std::string section(ZeMailboxBase& box, const std::string& key, const std::string& name,
                    int* code) {
    std::ostringstream out;
    *code = box.retrieve_section(out, key, name);
    return out.str();
}

class ZeMFileMailBoxTest : public ::testing::Test {
protected:
    zetest::TempDir dir{"zemail-file"};
};

TEST_F(ZeMFileMailBoxTest, AnswersAsTheSameBytesInAMaildir) {
    const std::string file = dir.write("upload/invoice.eml", kMultipart);
    const std::string stored = "1700000000.M1P1.host:2,S";
    dir.write("Maildir/cur/" + stored, kMultipart);
    ZeMaildir maildir(ZeMUserRef(), dir.path() + "/Maildir", 0ul);
    ZeMFileMailBox box(file);

    ASSERT_EQ(1, box.open());
    EXPECT_EQ(1, box.total_messages());
    box.reset();
    ASSERT_EQ(1, box.next());
    ZeMessageRef m = box.fetch();
    EXPECT_EQ(0, box.next());
    EXPECT_TRUE(box.fetch().isNull());
    box.reset();
    EXPECT_EQ(1, box.next());  // rewound

    ZeMessageRef theirs = maildir.retrieve_message(stored);
    ASSERT_FALSE(theirs.isNull());
    EXPECT_EQ(zetest::describe_tree(maildir.retrieve_mime(theirs)),
              zetest::describe_tree(box.retrieve_mime(m)));
    for (const char* name : {"", "HEADER", "TEXT", "1", "2", "2.MIME", "3", "1.HEADER"}) {
        int ours_code = 0;
        int their_code = 0;
        EXPECT_EQ(section(maildir, stored, name, &their_code),
                  section(box, ",U1", name, &ours_code))
            << name;
        EXPECT_EQ(their_code, ours_code) << name;
    }
    std::ostringstream body;
    EXPECT_EQ(0, box.retrieve_body(body, 1));
    EXPECT_EQ(std::string(kMultipart).size() + 17, body.str().size());  // CR before each LF
    ZeImapMimeRef pdf = box.retrieve_section_mime(1, "2");
    ASSERT_FALSE(pdf.isNull());
    EXPECT_EQ("a.pdf", pdf->disposition().filename);
}

TEST_F(ZeMFileMailBoxTest, EnvelopeFromTheHeaderAndTheFile) {
    const std::string file = dir.write("1700000000.M1P1.host,S=99:2,FS", kMultipart);
    ZeMFileMailBox box(file);
    ZeMessageRef m = box.retrieve_message(",U1");
    ASSERT_FALSE(m.isNull());
    Corvane::Ref<ZeMessageEnv>& env = m->env();
    EXPECT_EQ(1u, m->uid());
    EXPECT_EQ("<m1@example.org>", env->msgID());
    EXPECT_EQ("Ann <ann@example.org>", env->from());
    EXPECT_EQ(1057056757, env->date());  // the Date field, not the file's time
    EXPECT_EQ(std::string(kMultipart).size(), env->size());
    EXPECT_EQ("1700000000.M1P1.host", env->basename());
    EXPECT_EQ(ZeMessageFlags::FLAGGED | ZeMessageFlags::SEEN, env->status().flags);

    // Keys: UID 1 in its forms, the file name and its base name; nothing else.
    for (const char* key : {"1", "1700000000.M1P1.host,S=99:2,FS", "1700000000.M1P1.host"}) {
        EXPECT_FALSE(box.retrieve_message(key).isNull()) << key;
    }
    for (const char* key : {"", ",U2", "2", "1700000000", "../x"}) {
        EXPECT_TRUE(box.retrieve_message(key).isNull()) << key;
    }
    EXPECT_TRUE(box.retrieve_message(2ul).isNull());
    EXPECT_TRUE(box.retrieve_message(0ul).isNull());

    // Without a readable Date field the file's time stands in; no flags
    // without an info part.
    const std::string plain = dir.write("plain.eml", "Date: someday\nSubject: x\n\nbody\n");
    struct stat st;
    ASSERT_EQ(0, ::stat(plain.c_str(), &st));
    ZeMessageRef p = ZeMFileMailBox(plain).retrieve_message(1ul);
    ASSERT_FALSE(p.isNull());
    EXPECT_EQ(st.st_mtime, p->env()->date());
    EXPECT_EQ(0u, p->env()->status().flags);
    EXPECT_EQ("", p->env()->msgID());
}

TEST_F(ZeMFileMailBoxTest, MissingVanishingAndNonMessageFiles) {
    ZeMFileMailBox missing(dir.path() + "/none.eml");
    EXPECT_EQ(0, missing.open());
    EXPECT_EQ(0, missing.total_messages());
    missing.reset();
    EXPECT_EQ(0, missing.next());
    EXPECT_EQ(0, ZeMFileMailBox(dir.path()).open());  // a directory is no message

    // Gone between open() and the walk: nothing, and no crash.
    const std::string file = dir.write("gone.eml", kMultipart);
    ZeMFileMailBox box(file);
    ASSERT_EQ(1, box.open());
    ZeMessageRef early = box.retrieve_message(1ul);
    ASSERT_EQ(0, ::unlink(file.c_str()));
    box.reset();
    EXPECT_EQ(0, box.next());
    EXPECT_TRUE(box.retrieve_message(1ul).isNull());
    std::ostringstream out;
    EXPECT_EQ(4, box.retrieve_section(out, ",U1", "1"));
    EXPECT_TRUE(box.retrieve_mime(early).isNull());
    EXPECT_EQ("", out.str());

    // Bytes that are no message at all still give one text part, as the
    // server would report it.
    const std::string binary = dir.write("noise.bin", std::string("\0\x01\xff\n\n\x7f", 6));
    ZeMFileMailBox noise(binary);
    ZeMessageRef n = noise.retrieve_message(1ul);
    ASSERT_FALSE(n.isNull());
    ZeImapMimeRef tree = noise.retrieve_mime(n);
    ASSERT_FALSE(tree.isNull());
    EXPECT_EQ(Corvane::ContentType::TEXT, tree->media_type());
    EXPECT_TRUE(tree->children().empty());
}

TEST_F(ZeMFileMailBoxTest, ChangesAreRefusedAndTheFileStaysAsItWas) {
    const std::string file = dir.write("keep.eml", kMultipart);
    ZeMFileMailBox box(file);
    ASSERT_EQ(1, box.open());
    ZeMessageFlags seen;
    seen.flags = ZeMessageFlags::SEEN;
    std::vector<std::pair<const char*, std::function<void()>>> refused = {
        {"expunge", [&] { box.expunge(); }},
        {"clean", [&] { box.clean(); }},
        {"modify_message", [&] { box.modify_message(1ul, seen); }},
        {"move_message", [&] { box.move_message(",U1", "Trash"); }},
        {"remove_message", [&] { box.remove_message(",U1", true); }},
        {"append", [&] { box.append(file, seen); }},
    };
    for (const auto& entry : refused) {
        try {
            entry.second();
            ADD_FAILURE() << entry.first << " did not throw";
        } catch (const Corvane::Exception& e) {
            EXPECT_EQ(std::string(" ZeMFileMailBox::") + entry.first + " - Not Implimented",
                      e.what());
            EXPECT_EQ(4, e.code());
        }
    }
    ZeMessageRef m = box.retrieve_message(1ul);
    EXPECT_EQ(4, m.direct_message()->permanent_remove());
    EXPECT_EQ(kMultipart, zetest::read_file(file));
}

}  // namespace
