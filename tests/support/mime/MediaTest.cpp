// Media streams and temporary files.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>

#include "support/Media.h"
#include "support/Paths.h"

using namespace Corvane;

namespace {

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

class MimeMediaFiles : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/zemail-media-XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(tmpl));
        m_dir = tmpl;
    }
    void TearDown() override {
        std::string cmd = "rm -rf '" + m_dir + "'";
        ASSERT_EQ(0, std::system(cmd.c_str()));
    }
    std::string m_dir;
};

}  // namespace

TEST(MimeMedia, MemoryInputReadsInPiecesThenReportsEnd) {
    MediaIn in = MediaIn::fromString("hello world");
    char buf[4];
    EXPECT_EQ(4, in->read(buf, 4));
    EXPECT_EQ("hell", std::string(buf, 4));
    EXPECT_FALSE(in->eof());
    EXPECT_EQ("o world", in.readAll());
    EXPECT_EQ(0, in->read(buf, 4));
    EXPECT_TRUE(in->eof());

    Buffer source(std::string("a\0b", 3));
    MediaIn copy = MediaIn::fromBuffer(source);
    source.clear();  // the stream keeps its own copy
    EXPECT_EQ(std::string("a\0b", 3), copy.readAll());
    EXPECT_EQ("", MediaIn().readAll());
}

TEST(MimeMedia, OutputsAppendToTheirTargets) {
    Buffer buffer("x");
    MediaOut out = MediaOut::toBuffer(buffer);
    EXPECT_EQ(3, out->write("abc", 3));
    out->end();
    EXPECT_EQ("xabc", buffer.str());

    std::ostringstream stream;
    MediaOut file = MediaOut::adopt(new FileMediaOut(stream));
    file->write(std::string("line\n"));
    file->end();
    EXPECT_EQ("line\n", stream.str());
}

TEST_F(MimeMediaFiles, FileRoundTripAndMissingFile) {
    std::string path = m_dir + "/msg";
    MediaOut out = MediaOut::toFile(path);
    ASSERT_FALSE(out.isNull());
    std::string data(100000, 'z');
    data[5] = '\0';
    EXPECT_EQ(static_cast<long>(data.size()), out->write(data.data(), data.size()));
    out->end();
    EXPECT_TRUE(data == MediaIn::fromFile(path).readAll());

    EXPECT_TRUE(MediaIn::fromFile(m_dir + "/absent").isNull());
    EXPECT_TRUE(MediaOut::toFile(m_dir + "/no/such/dir/f").isNull());
}

TEST_F(MimeMediaFiles, TempFileIsRemovedUnlessKept) {
    std::string gone;
    std::string kept;
    {
        TempFile a(m_dir);
        TempFile b(m_dir, "keep");
        ASSERT_TRUE(a.ok());
        ASSERT_GE(a.fd(), 0);
        EXPECT_NE(a.path(), b.path());
        EXPECT_EQ(0u, b.path().find(m_dir + "/keep."));
        EXPECT_EQ(3, ::write(a.fd(), "abc", 3));
        a.close();
        a.close();
        EXPECT_EQ(-1, a.fd());
        EXPECT_EQ("abc", MediaIn::fromFile(a.path()).readAll());
        b.keep();
        gone = a.path();
        kept = b.path();
    }
    EXPECT_FALSE(exists(gone));
    EXPECT_TRUE(exists(kept));
}

TEST_F(MimeMediaFiles, TempFileDefaultsToTheSpoolTmpFolder) {
    std::string saved = zemail::paths::spool_dir();
    zemail::paths::set_spool_dir(m_dir);
    {
        TempFile t;  // <spool>/tmp does not exist yet: it is made
        EXPECT_TRUE(t.ok());
        EXPECT_EQ(0u, t.path().find(m_dir + "/tmp/zemail."));
    }
    zemail::paths::set_spool_dir(m_dir + "/missing/parent");
    {
        TempFile t;
        EXPECT_FALSE(t.ok());
        EXPECT_EQ(-1, t.fd());
        EXPECT_EQ("", t.path());
    }
    zemail::paths::set_spool_dir(saved);
}
