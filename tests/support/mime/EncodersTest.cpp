// Transfer-encoding filters: known vectors, the line rules of RFC 2045,
// input cut anywhere, random round trips and hostile input.

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "support/mime/Encoders.h"

using namespace Corvane;

namespace {

// Writes data through a filter made by make(), cut into pieces of the given
// sizes (repeated), and returns what came out.
template <class Make>
std::string pipe(Make make, const std::string& data, const std::vector<std::size_t>& pieces) {
    std::string result;
    MediaOut filter = make(MediaOut::toString(result));
    std::size_t pos = 0;
    std::size_t k = 0;
    while (pos < data.size()) {
        std::size_t n = std::min(pieces[k++ % pieces.size()], data.size() - pos);
        EXPECT_EQ(static_cast<long>(n), filter->write(data.data() + pos, n));
        pos += n;
    }
    filter->end();
    return result;
}

std::string encode(ContentEncoding e, const std::string& data, std::size_t piece = 1 << 20) {
    return pipe([e](MediaOut out) { return get_encoder(e, out); }, data, {piece});
}

std::string decode(ContentEncoding e, const std::string& data, std::size_t piece = 1 << 20) {
    return pipe([e](MediaOut out) { return get_decoder(e, out); }, data, {piece});
}

std::string randomBytes(std::mt19937& rng, std::size_t n) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::string s(n, '\0');
    for (char& c : s) {
        c = static_cast<char>(byte(rng));
    }
    return s;
}

std::vector<std::size_t> randomPieces(std::mt19937& rng) {
    std::uniform_int_distribution<std::size_t> size(1, 97);
    std::vector<std::size_t> pieces(16);
    for (auto& p : pieces) {
        p = size(rng);
    }
    return pieces;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < text.size()) {
        std::size_t nl = text.find('\n', pos);
        if (nl == std::string::npos) {
            out.push_back(text.substr(pos));
            break;
        }
        out.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return out;
}

std::string crlfToLf(const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) {
            out += s[i];
        }
    }
    return out;
}

// A sink that counts end() calls and can refuse writes.
class ProbeOut : public MediaOutImpl {
public:
    explicit ProbeOut(bool fail) : m_fail(fail) {}
    long write(const void* data, std::size_t n) override {
        if (m_fail) {
            return -1;
        }
        bytes.append(static_cast<const char*>(data), n);
        return static_cast<long>(n);
    }
    void end() override { ++ends; }

    std::string bytes;
    int ends = 0;

private:
    bool m_fail;
};

}  // namespace

// --- base64 -----------------------------------------------------------------

TEST(MimeEncoders, Base64KnownVectors) {
    // RFC 4648 section 10, each line ended by the library's line break.
    EXPECT_EQ("", encode(ENCODING_BASE64, ""));
    EXPECT_EQ("Zg==\n", encode(ENCODING_BASE64, "f"));
    EXPECT_EQ("Zm8=\n", encode(ENCODING_BASE64, "fo"));
    EXPECT_EQ("Zm9v\n", encode(ENCODING_BASE64, "foo"));
    EXPECT_EQ("Zm9vYg==\n", encode(ENCODING_BASE64, "foob"));
    EXPECT_EQ("Zm9vYmFy\n", encode(ENCODING_BASE64, "foobar", 1));
    EXPECT_EQ("foobar", decode(ENCODING_BASE64, "Zm9vYmFy\n", 1));
}

TEST(MimeEncoders, Base64LinesHold76Characters) {
    std::string data(57 * 3 + 10, 'x');  // 57 bytes fill one line exactly
    std::vector<std::string> out = lines(encode(ENCODING_BASE64, data, 7));
    ASSERT_EQ(4u, out.size());
    for (std::size_t i = 0; i + 1 < out.size(); ++i) {
        EXPECT_EQ(76u, out[i].size());
    }
    EXPECT_EQ(16u, out.back().size());
    EXPECT_EQ("eHh4\n", encode(ENCODING_BASE64, "xxx"));
    EXPECT_EQ(77u, encode(ENCODING_BASE64, std::string(57, 'x')).size());  // no empty last line
}

TEST(MimeEncoders, Base64DecoderForgivesWhatMailDoes) {
    EXPECT_EQ("foobar", decode(ENCODING_BASE64, "Zm9v\r\nYmFy\r\n"));
    EXPECT_EQ("foob", decode(ENCODING_BASE64, "Zm9vYg"));  // padding missing
    EXPECT_EQ("fooba", decode(ENCODING_BASE64, "Zm9vYmE"));
    EXPECT_EQ("foo", decode(ENCODING_BASE64, " Z m\t9 v !!*"));  // junk skipped
    EXPECT_EQ("ffo", decode(ENCODING_BASE64, "Zg==Zm8="));       // two encodings in a row
    EXPECT_EQ("f", decode(ENCODING_BASE64, "Zg==="));
    EXPECT_EQ("", decode(ENCODING_BASE64, "Z"));  // a lone character carries no byte
    EXPECT_EQ("", decode(ENCODING_BASE64, "===="));
}

// --- quoted-printable -------------------------------------------------------

TEST(MimeEncoders, QuotedPrintableEncoderRules) {
    EXPECT_EQ("a=3Db", encode(ENCODING_QUOTED_PRINTABLE, "a=b"));
    EXPECT_EQ("caf=C3=A9", encode(ENCODING_QUOTED_PRINTABLE, "caf\xC3\xA9"));
    EXPECT_EQ("end=20\nnext", encode(ENCODING_QUOTED_PRINTABLE, "end \nnext", 1));
    EXPECT_EQ("tab=09", encode(ENCODING_QUOTED_PRINTABLE, "tab\t"));
    EXPECT_EQ("a b\tc", encode(ENCODING_QUOTED_PRINTABLE, "a b\tc"));
    EXPECT_EQ("a\nb\n", encode(ENCODING_QUOTED_PRINTABLE, "a\r\nb\n", 1));
    EXPECT_EQ("a=0Db=0D", encode(ENCODING_QUOTED_PRINTABLE, "a\rb\r"));
    EXPECT_EQ("x =0D", encode(ENCODING_QUOTED_PRINTABLE, "x \r"));  // not a line end
    EXPECT_EQ("x =0Dy", encode(ENCODING_QUOTED_PRINTABLE, "x \ry"));
    EXPECT_EQ("=00=FF", encode(ENCODING_QUOTED_PRINTABLE, std::string("\0\xFF", 2)));
}

TEST(MimeEncoders, QuotedPrintableSoftBreaksKeepLinesAt76) {
    std::string out = encode(ENCODING_QUOTED_PRINTABLE, std::string(200, 'x'));
    std::vector<std::string> ls = lines(out);
    ASSERT_EQ(3u, ls.size());
    EXPECT_EQ(76u, ls[0].size());
    EXPECT_EQ('=', ls[0].back());
    EXPECT_EQ(std::string(200, 'x'), decode(ENCODING_QUOTED_PRINTABLE, out));
    // An escape is never cut by a soft break.
    std::string escapes = encode(ENCODING_QUOTED_PRINTABLE, std::string(100, '='));
    for (const std::string& l : lines(escapes)) {
        EXPECT_LE(l.size(), 76u);
        EXPECT_EQ(0u, (l.back() == '=' ? l.size() - 1 : l.size()) % 3) << l;
    }
}

TEST(MimeEncoders, QuotedPrintableDecoderRules) {
    struct Row {
        const char* in;
        const char* out;
    } rows[] = {
        {"a=3Db", "a=b"},
        {"a=3db=c3=A9", "a=b\xC3\xA9"},  // either case
        {"soft=\nbreak", "softbreak"},
        {"soft=\r\nbreak", "softbreak"},
        {"soft= \t\r\nbreak", "softbreak"},  // blanks a transport added
        {"bad=G1", "bad=G1"},                // not an escape: kept
        {"bad=4G", "bad=4G"},
        {"=4=3D", "=4="},
        {"a = b", "a = b"},
        {"a=\rb", "a=\rb"},
        {"trail  \nx", "trail\nx"},
        {"trail \t\r\nx", "trail\r\nx"},
        {"keep  x", "keep  x"},
        {"last  ", "last"},
        {"end=", "end"},  // a soft break with nothing after it
        {"end=  ", "end"},
        {"end=4", "end=4"},
        {"", ""},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.out, decode(ENCODING_QUOTED_PRINTABLE, row.in)) << row.in;
        EXPECT_EQ(row.out, decode(ENCODING_QUOTED_PRINTABLE, row.in, 1)) << row.in;
    }
}

// --- pieces cut anywhere ------------------------------------------------------

TEST(MimeEncoders, EveryCutGivesTheSameOutput) {
    const std::string qp = "a=3Db=\r\nc=C3=A9 \r\nd=\n= x=4";
    const std::string b64 = "Zm9v\nYmFy\r\nYg=\n=Zm8";
    const std::string text = "caf\xC3\xA9 \r\nline\tend \nx\r";
    for (std::size_t cut = 1; cut < 12; ++cut) {
        EXPECT_EQ(decode(ENCODING_QUOTED_PRINTABLE, qp), decode(ENCODING_QUOTED_PRINTABLE, qp, cut))
            << cut;
        EXPECT_EQ(decode(ENCODING_BASE64, b64), decode(ENCODING_BASE64, b64, cut)) << cut;
        EXPECT_EQ(encode(ENCODING_QUOTED_PRINTABLE, text),
                  encode(ENCODING_QUOTED_PRINTABLE, text, cut))
            << cut;
        EXPECT_EQ(encode(ENCODING_BASE64, text), encode(ENCODING_BASE64, text, cut)) << cut;
    }
}

TEST(MimeEncoders, RandomBinaryRoundTripsInRandomPieces) {
    std::mt19937 rng(20240517);
    std::uniform_int_distribution<std::size_t> length(0, 5000);
    for (int round = 0; round < 60; ++round) {
        std::string data = randomBytes(rng, round == 0 ? 0 : length(rng));
        for (ContentEncoding e :
             {ENCODING_BASE64, ENCODING_QUOTED_PRINTABLE, ENCODING_UUENCODE, ENCODING_BINARY}) {
            auto enc = [e](MediaOut out) { return get_encoder(e, out); };
            auto dec = [e](MediaOut out) { return get_decoder(e, out); };
            std::string wire = pipe(enc, data, randomPieces(rng));
            std::string back = pipe(dec, wire, randomPieces(rng));
            // Quoted-printable is for text: CRLF comes back as the library's
            // line end, every other byte exactly.
            std::string expected = e == ENCODING_QUOTED_PRINTABLE ? crlfToLf(data) : data;
            ASSERT_TRUE(expected == back) << "encoding " << e << " round " << round;
            if (e == ENCODING_QUOTED_PRINTABLE || e == ENCODING_BASE64) {
                for (const std::string& l : lines(wire)) {
                    ASSERT_LE(l.size(), 76u);
                }
            }
        }
    }
}

// --- hostile input --------------------------------------------------------------

TEST(MimeEncoders, GarbageDecodesTheSameInAnyPiecesAndNeverGrows) {
    std::mt19937 rng(7);
    std::vector<std::string> inputs = {std::string(10000, '='), std::string(5000, ' ') + "\n",
                                       "=\r=\r\n=  =\t\r", "begin 644 x\nM\n\xFF\xFF\n`\nend\n",
                                       "begin \n" + std::string(3000, 'M') + "\nend"};
    for (int i = 0; i < 200; ++i) {
        inputs.push_back(randomBytes(rng, i * 13));
    }
    for (const std::string& in : inputs) {
        for (ContentEncoding e : {ENCODING_BASE64, ENCODING_QUOTED_PRINTABLE, ENCODING_UUENCODE}) {
            std::string whole = decode(e, in);
            auto dec = [e](MediaOut out) { return get_decoder(e, out); };
            ASSERT_TRUE(whole == pipe(dec, in, randomPieces(rng))) << "encoding " << e;
            if (e == ENCODING_BASE64) {
                ASSERT_LE(whole.size(), in.size() * 3 / 4 + 2);
            } else if (e == ENCODING_QUOTED_PRINTABLE) {
                ASSERT_LE(whole.size(), in.size());
            }
        }
    }
}

// --- uuencode, text line ends, plumbing ----------------------------------------

TEST(MimeEncoders, UuencodeKnownLinesAndName) {
    EXPECT_EQ("Cat",
              decode(ENCODING_UUENCODE, "junk\r\nbegin 644 cat.txt\r\n#0V%T\r\n`\r\nend\r\n"));
    EXPECT_EQ("Cat", decode(ENCODING_UUENCODE, "begin 644 cat.txt\n#0V%T", 1));  // no end line
    EXPECT_EQ("", decode(ENCODING_UUENCODE, "#0V%T\n"));  // nothing before begin counts
    EXPECT_EQ("begin 644 data\n#0V%T\n`\nend\n", encode(ENCODING_UUENCODE, "Cat"));
    ContentType type("application/octet-stream; name=\"a b.bin\"");
    std::string out;
    MediaOut enc = get_encoder(ENCODING_UUENCODE, MediaOut::toString(out), &type);
    enc->end();
    EXPECT_EQ("begin 644 a b.bin\n`\nend\n", out);
}

TEST(MimeEncoders, TextPartsDecodeToUnixLineEnds) {
    ContentType text("text/plain; charset=utf-8");
    ContentType image("image/png");
    std::string wire = encode(ENCODING_BASE64, "a\r\nb\r\r\nc\r");
    std::string out;
    MediaOut dec = get_decoder(ENCODING_BASE64, MediaOut::toString(out), &text);
    for (char c : wire) {
        dec->write(&c, 1);
    }
    dec->end();
    EXPECT_EQ("a\nb\r\nc\r", out);
    out.clear();
    dec = get_decoder(ENCODING_7BIT, MediaOut::toString(out), &image);
    dec->write(std::string("a\r\nb"));
    dec->end();
    EXPECT_EQ("a\r\nb", out);
}

TEST(MimeEncoders, PassThroughEncodingsLeaveBytesAlone) {
    const std::string data("a\r\n\0\xFF=?", 7);
    for (ContentEncoding e : {ENCODING_NONE, ENCODING_7BIT, ENCODING_8BIT, ENCODING_BINARY}) {
        EXPECT_EQ(data, encode(e, data, 2)) << e;
        EXPECT_EQ(data, decode(e, data, 3)) << e;
    }
}

TEST(MimeEncoders, EndReachesTheStreamBelowAndErrorsComeBack) {
    auto* probe = new ProbeOut(false);
    MediaOut sink = MediaOut::adopt(probe);
    MediaOut enc = get_encoder(ENCODING_BASE64, sink);
    enc->write(std::string("ab"));
    EXPECT_EQ("", probe->bytes);  // held until the group is complete
    enc->end();
    EXPECT_EQ("YWI=\n", probe->bytes);
    EXPECT_EQ(1, probe->ends);

    MediaOut failing = MediaOut::adopt(new ProbeOut(true));
    EXPECT_EQ(-1, get_decoder(ENCODING_QUOTED_PRINTABLE, failing)->write(std::string("abc")));
    EXPECT_TRUE(get_encoder(ENCODING_BASE64, MediaOut()).isNull());
    EXPECT_TRUE(get_decoder(ENCODING_BASE64, MediaOut()).isNull());
}
