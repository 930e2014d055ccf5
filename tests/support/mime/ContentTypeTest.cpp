// Content-Type, Content-Disposition and Content-Transfer-Encoding values,
// RFC 2231 parameters and RFC 2047 encoded words.

#include <gtest/gtest.h>

#include <string>

#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentEncoding.h"
#include "support/mime/ContentType.h"
#include "support/mime/Rfc2047.h"

using Corvane::ContentDisposition;
using Corvane::ContentType;

namespace {

std::string nameOf(const std::string& header) {
    return ContentType(header).utf8name();
}

}  // namespace

// --- type, subtype and plain parameters ----------------------------------

TEST(MimeContentType, TypeSubtypeAndParametersAnyCase) {
    ContentType ct("Text/PLAIN; Charset=\"ISO-8859-1\"; FORMAT=flowed");
    EXPECT_EQ(ContentType::TEXT, ct.mediaType());
    EXPECT_EQ(ContentType::PLAIN, ct.subType());
    EXPECT_EQ("text", ct.typeName());
    EXPECT_EQ("plain", ct.subTypeName());
    EXPECT_EQ("ISO-8859-1", ct.charset());
    EXPECT_EQ("flowed", ct.param("format"));
    EXPECT_TRUE(ct.hasParam("CHARSET"));
    EXPECT_FALSE(ct.hasParam("name"));
    EXPECT_EQ("", ct.param("name"));
}

TEST(MimeContentType, CommentsAndFoldingBetweenTokens) {
    ContentType ct("(lead) text (a) /\r\n\t(b) html ; (c) charset = us-ascii (Plain text)");
    EXPECT_EQ(ContentType::TEXT, ct.mediaType());
    EXPECT_EQ(ContentType::HTML, ct.subType());
    EXPECT_EQ("us-ascii", ct.charset());
}

TEST(MimeContentType, UnreadableTypeLeavesZerosButReadsParameters) {
    for (const char* value : {"", "text", "/plain", "text/", "; charset=utf-8", "{}"}) {
        ContentType ct(value);
        EXPECT_EQ(ContentType::NONE, ct.mediaType()) << value;
        EXPECT_EQ(ContentType::UNKNOWN_SUBTYPE, ct.subType()) << value;
        EXPECT_EQ("", ct.typeName()) << value;
    }
    EXPECT_EQ("utf-8", ContentType("text; charset=utf-8").charset());
}

TEST(MimeContentType, UnknownNamesKeepTheirText) {
    ContentType ct("Multipart/X-Enmime; boundary=\"b1\"");
    EXPECT_EQ(ContentType::MULTIPART, ct.mediaType());
    EXPECT_EQ(ContentType::UNKNOWN_SUBTYPE, ct.subType());
    EXPECT_EQ("x-enmime", ct.subTypeName());
    EXPECT_EQ("b1", ct.boundary());
    EXPECT_EQ(ContentType::NONE, ContentType("x-foo/bar").mediaType());
}

TEST(MimeContentType, UnquotedValuesFromTheWild) {
    ContentType ct("multipart/mixed; boundary=----=_Part_1_2.3; name=my file (1).pdf ; x=a(b)");
    EXPECT_EQ("----=_Part_1_2.3", ct.boundary());
    EXPECT_EQ("my file (1).pdf", ct.param("name"));
    EXPECT_EQ("a(b)", ct.param("x"));
}

// The name parameter as a caller reads it: quoting undone, encoded words and
// RFC 2231 values decoded, continuations joined in number order.
TEST(MimeContentType, NameParameterIsUnquotedJoinedAndDecoded) {
    struct Case {
        const char* header;
        const char* name;
    } cases[] = {
        // Quoted strings.
        {"text/plain; name=\"a\\\"b\\\\c;d\"; x=1", "a\"b\\c;d"},
        {"text/plain; name=\"open", "open"},  // unterminated
        {"text/plain; name=\"\"", ""},
        {"text/plain; name=a\"b; x=1", "a\"b"},
        // RFC 2047 words inside a quoted value.
        {"text/plain; name=\"=?iso-8859-1?Q?r=E9sum=E9.txt?=\"", "résumé.txt"},
        {"text/plain; name=\"=?UTF-8?B?0J/RgNC40LLQtdGCLnR4dA==?=\"", "Привет.txt"},
        // RFC 2231 extended values in several charsets.
        {"text/plain; name*=utf-8''r%C3%A9sum%C3%A9.txt", "résumé.txt"},
        {"text/plain; name*=iso-8859-1'en'r%E9sum%E9.txt", "résumé.txt"},
        {"text/plain; name*=windows-1252''%80%20and%20%91q%92", "€ and ‘q’"},
        {"text/plain; name*=\"utf-8''a%62\"", "ab"},  // quoted although it should not be
        // Percent signs in a segment without "*" are not escapes.
        {"a/b; name*0*=iso-8859-1''%E9; name*1=%41", "é%41"},
        // A multibyte character split over two encoded segments comes out whole.
        {"a/b; name*0*=utf-8''r%C3; name*1*=%A9sum%C3%A9", "résumé"},
        // Segments out of order or missing.
        {"a/b; name*2=c; name*0=a; name*1=b", "abc"},
        {"a/b; name*1*=%E9; name*2=!; name*0*=latin1''r", "ré!"},
        {"a/b; name*0=a; name*2=c", "ac"},
        {"a/b; name*1=x; name*2*=%2541", "x%41"},  // no segment 0, no charset: bytes as sent
        {"a/b; name*10=b; name*9=a", "ab"},        // numbers, not text, order them
        // The extended form wins over the plain one, whichever comes first.
        {"a/b; name=\"old.txt\"; name*=utf-8''new.txt", "new.txt"},
        {"a/b; name*=utf-8''new.txt; name=\"old.txt\"", "new.txt"},
        {"a/b; name=old.txt; name*0=new; name*1=.txt", "new.txt"},
        // Defective values keep their bytes.
        {"a/b; name*=x-no-such-charset''a%41%zz%4", "aA%zz%4"},
        {"a/b; name*=plain%2520text", "plain%20text"},  // no quotes: no charset
        {"a/b; name*99999999=x", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.name, nameOf(c.header)) << c.header;
    }
    // A stray quote after or inside a value does not swallow what follows.
    for (const char* header : {"text/plain; name=\"a;b\" junk; x=1",
                               "text/plain; name=\"a\"b\"c; x=1", "text/plain; name=a\"b; x=1"}) {
        EXPECT_EQ("1", ContentType(header).param("x")) << header;
    }
    EXPECT_EQ("=?utf-8?Q?x?=",
              ContentType("multipart/mixed; boundary=\"=?utf-8?Q?x?=\"").boundary());
    // The example of RFC 2231 section 4.1.
    ContentType ct(
        "application/x-stuff;\r\n"
        " title*0*=us-ascii'en'This%20is%20even%20more%20;\r\n"
        " title*1*=%2A%2A%2Afun%2A%2A%2A%20;\r\n"
        " title*2=\"isn't it!\"");
    EXPECT_EQ("This is even more ***fun*** isn't it!", ct.param("title"));
    EXPECT_EQ("x", ContentType("a/b; name*99999999=x").param("name*99999999"));
    EXPECT_EQ("v", ContentType("a/b; *0=v; *=w; =z; k=v").param("k"));
}

// --- names and numbers --------------------------------------------------------

TEST(MimeTypeNames, EveryValueHasANameThatReadsBack) {
    for (int i = 1; i <= ContentType::MESSAGE; ++i) {
        auto type = static_cast<ContentType::MediaType>(i);
        ASSERT_NE("", Corvane::mediaTypeAsString(type)) << i;
        EXPECT_EQ(type, Corvane::stringAsType(Corvane::mediaTypeAsString(type))) << i;
    }
    for (int i = 1; i < ContentType::SUBTYPE_COUNT; ++i) {
        auto sub = static_cast<ContentType::SubType>(i);
        ASSERT_NE("", Corvane::subTypeAsString(sub)) << i;
        EXPECT_EQ(sub, Corvane::stringAsSubType(Corvane::subTypeAsString(sub))) << i;
    }
    EXPECT_EQ("", Corvane::mediaTypeAsString(ContentType::NONE));
    EXPECT_EQ("", Corvane::mediaTypeAsString(static_cast<ContentType::MediaType>(8)));
    EXPECT_EQ("", Corvane::subTypeAsString(ContentType::UNKNOWN_SUBTYPE));
    EXPECT_EQ("", Corvane::subTypeAsString(ContentType::SUBTYPE_COUNT));
}

TEST(MimeTypeNames, NumbersUsedElsewhereAndAliases) {
    struct Row {
        const char* text;
        int value;
    } rows[] = {
        {"DELIVERY-STATUS", 1},
        {"plain", 3},
        {"Html", 4},
        {"rfc822", 5},
        {"mixed", 11},
        {"related", 30},
        {"signed", 31},
        {"calendar", 39},
        {"x-wav", ContentType::WAV},
        {"wav", ContentType::WAV},
        {"vnd.ms-tnef", ContentType::MS_TNEF},
        {"svg+xml", ContentType::SVG_XML},
        {"x-pgp-keys", ContentType::PGP_KEYS_ALT},
        {"pgp-keys", ContentType::PGP_KEYS},
        {"text/csv", ContentType::CSV},
        {"\"octet-stream\"", ContentType::OCTET_STREAM},
        {" mp4 ", ContentType::MP4},
        {"nonsense", 0},
        {"", 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.value, Corvane::stringAsSubType(row.text)) << row.text;
    }
    EXPECT_EQ("wav", Corvane::subTypeAsString(ContentType::WAV));
    EXPECT_EQ("vnd.ms-tnef", Corvane::subTypeAsString(ContentType::MS_TNEF));
    EXPECT_EQ("x-pgp-keys", Corvane::subTypeAsString(ContentType::PGP_KEYS_ALT));
    EXPECT_EQ(ContentType::MULTIPART, Corvane::stringAsType("\"MULTIPART\""));
    EXPECT_EQ(ContentType::APPLICATION, Corvane::stringAsType("application/pdf"));
    EXPECT_EQ(ContentType::NONE, Corvane::stringAsType("multi"));
}

TEST(MimeTypeNames, SignedAndEncryptedSubtypes) {
    for (int i = 0; i < ContentType::SUBTYPE_COUNT; ++i) {
        auto sub = static_cast<ContentType::SubType>(i);
        std::string name = Corvane::subTypeAsString(sub);
        bool encrypted = name == "encrypted" || name == "pgp-encrypted" || name == "pkcs7-mime" ||
                         name == "x-pkcs7-mime";
        bool sig = name == "signed" || name == "pgp-signature" || name == "pkcs7-signature" ||
                   name == "x-pkcs7-signature";
        EXPECT_EQ(encrypted, Corvane::subTypeIsEncrypted(sub)) << name;
        EXPECT_EQ(sig, Corvane::subTypeIsSigned(sub)) << name;
    }
}

TEST(MimeEncodingNames, TextAndBack) {
    using namespace Corvane;
    EXPECT_EQ(ENCODING_BASE64, stringAsEncoding(" Base64 "));
    EXPECT_EQ(ENCODING_QUOTED_PRINTABLE, stringAsEncoding("\"Quoted-Printable\""));
    EXPECT_EQ(ENCODING_7BIT, stringAsEncoding("7BIT (no 8-bit data)"));
    EXPECT_EQ(ENCODING_UUENCODE, stringAsEncoding("uuencode"));
    EXPECT_EQ(ENCODING_NONE, stringAsEncoding("base65"));
    EXPECT_EQ(ENCODING_NONE, stringAsEncoding(""));
    for (int i = ENCODING_7BIT; i <= ENCODING_UUENCODE; ++i) {
        auto e = static_cast<ContentEncoding>(i);
        EXPECT_EQ(e, stringAsEncoding(encodingAsString(e))) << i;
    }
    EXPECT_EQ("x-uuencode", encodingAsString(ENCODING_UUENCODE));
    EXPECT_EQ("", encodingAsString(ENCODING_NONE));
}

// --- Content-Disposition ------------------------------------------------------

TEST(MimeDisposition, TypeAndFileName) {
    ContentDisposition d("attachment;\n filename*0*=utf-8''r%C3%A9;\n filename*1=sum.pdf");
    EXPECT_EQ(ContentDisposition::ATTACHMENT, d.type());
    EXPECT_EQ("résum.pdf", d.utf8fileName());

    ContentDisposition q("INLINE; FileName=\"=?utf-8?Q?caf=C3=A9?= .png\"; size=42");
    EXPECT_EQ(ContentDisposition::INLINE, q.type());
    EXPECT_EQ("café .png", q.utf8fileName());
    EXPECT_EQ("42", q.param("SIZE"));
}

TEST(MimeDisposition, UnknownOrMissingTypeStillReadsParameters) {
    ContentDisposition form("form-data; name=field");
    EXPECT_EQ(ContentDisposition::NONE, form.type());
    EXPECT_EQ("field", form.param("name"));
    ContentDisposition bare("filename=a.pdf");
    EXPECT_EQ(ContentDisposition::NONE, bare.type());
    EXPECT_EQ("a.pdf", bare.utf8fileName());
    EXPECT_EQ(ContentDisposition::ATTACHMENT, ContentDisposition("  attachment(x)").type());
    EXPECT_EQ("", ContentDisposition("").utf8fileName());
}

TEST(MimeDisposition, TextAndBack) {
    EXPECT_EQ("", Corvane::dispositionAsString(ContentDisposition::NONE));
    EXPECT_EQ("attachment", Corvane::dispositionAsString(ContentDisposition::ATTACHMENT));
    EXPECT_EQ("inline", Corvane::dispositionAsString(ContentDisposition::INLINE));
    EXPECT_EQ(ContentDisposition::ATTACHMENT, Corvane::stringAsDisposition(" Attachment "));
    EXPECT_EQ(ContentDisposition::INLINE, Corvane::stringAsDisposition("\"inline\""));
    EXPECT_EQ(ContentDisposition::NONE, Corvane::stringAsDisposition("inlined"));
}

// --- RFC 2047 -------------------------------------------------------------------

TEST(MimeRfc2047, DecodesWordsJoinsAdjacentOnesAndLeavesMalformedAlone) {
    struct Case {
        const char* text;
        const char* decoded;  // nullptr: unchanged
    } cases[] = {
        // B and Q words in any case and in several charsets.
        {"=?utf-8?b?wqFIb2xhLCBzZcOxb3Ih?=", "¡Hola, señor!"},
        {"=?UTF-8?Q?=C3=89_test?=", "É test"},
        {"=?utf-8?q?MIME_=c2=a2?= More", "MIME ¢ More"},
        {"=?ISO-8859-1*fr?Q?caf=E9?=", "café"},
        {"=?windows-1252?Q?=80?=", "€"},
        {"=?ANSI_X3.4-1968?Q?plain?=", "plain"},  // a locale name
        {"=?koi8-r?B?5A==?=", "Д"},
        {"=?utf-8?B?cGFk?=", "pad"},
        {"=?utf-8?B?cGE?=", "pa"},  // padding missing
        // Blanks between adjacent words go, plain spacing stays.
        {"=?utf-8?Q?a?= =?utf-8?Q?b?=", "ab"},
        {"=?utf-8?Q?a?=\r\n\t=?UTF-8?Q?b?=", "ab"},
        {"x =?utf-8?Q?a?= y", "x a y"},
        {"=?utf-8?Q?a?= b", "a b"},
        {"Re: =?iso-8859-1?Q?=E9?= =?utf-8?Q?=C3=A9?=", "Re: éé"},
        {"=?utf-8?B?ww==?= =?utf-8?B?qQ==?=", "é"},  // one character split over two words
        // Malformed words stay as written.
        {"=?utf-8?X?abc?=", nullptr},
        {"=?utf-8?Q?abc", nullptr},
        {"=??Q?abc?=", nullptr},
        {"=?utf-8?B?", nullptr},
        {"a =? b ?= c", nullptr},
        {"=?x-no-such-charset?Q?abc?=", nullptr},
        {"=?=?=?=?", nullptr},
        {"=?", nullptr},
        {"?=", nullptr},
        {"=?utf 8?Q?a?=", nullptr},
        {"", nullptr},
        // A word left alone keeps the blank after it, the next word is decoded.
        {"=?x-no-such?Q?a?= =?utf-8?Q?b?=", "=?x-no-such?Q?a?= b"},
        {"==?utf-8?Q?a?=", "=a"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.decoded != nullptr ? c.decoded : c.text, vantro_decode_rfc2047(c.text))
            << c.text;
    }
}

TEST(MimeRfc2047, ManyOpeningsWithoutCloseStayLinear) {
    // Each "=?" looks like a word until the text runs out without "?=": a
    // fresh search from every opening would be quadratic.
    std::string hostile;
    for (int i = 0; i < 200000; ++i) {
        hostile += "=?utf-8?Q?a ";
    }
    EXPECT_TRUE(hostile == vantro_decode_rfc2047(hostile));
}

TEST(MimeRfc2047, EncodeLeavesPlainAsciiAlone) {
    EXPECT_EQ("report 2024.pdf", vantro_encode_rfc2047("report 2024.pdf"));
    EXPECT_EQ("", vantro_encode_rfc2047(""));
    for (const char* text : {"a\"b", "a\\b", "x=?y", "x?=y", "tab\there", "r\xC3\xA9sum\xC3\xA9"}) {
        std::string enc = vantro_encode_rfc2047(text);
        EXPECT_EQ(0u, enc.find("=?utf-8?B?")) << text;
        EXPECT_EQ(text, vantro_decode_rfc2047(enc)) << text;
    }
    EXPECT_EQ("=?utf-8?B?csOpc3Vtw6kucGRm?=", vantro_encode_rfc2047("résumé.pdf"));
}

TEST(MimeRfc2047, LongTextIsSplitIntoShortWordsOnCharacterBoundaries) {
    std::string text;
    for (int i = 0; i < 40; ++i) {
        text += "a\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E";  // a é € 𝄞: 1 to 4 bytes each
    }
    std::string enc = vantro_encode_rfc2047(text);
    std::size_t words = 0;
    std::size_t pos = 0;
    while (pos <= enc.size()) {
        std::size_t blank = enc.find(' ', pos);
        std::string word = enc.substr(pos, blank == std::string::npos ? blank : blank - pos);
        ++words;
        EXPECT_LE(word.size(), 75u);
        ASSERT_EQ(0u, word.find("=?utf-8?B?"));
        // Each word alone decodes to whole characters: nothing replaced.
        std::string alone = vantro_decode_rfc2047(word);
        EXPECT_EQ(std::string::npos, alone.find("\xEF\xBF\xBD")) << word;
        if (blank == std::string::npos) {
            break;
        }
        pos = blank + 1;
    }
    EXPECT_GT(words, 5u);
    EXPECT_EQ(text, vantro_decode_rfc2047(enc));
}

TEST(MimeCharset, ConversionToUtf8) {
    std::string out;
    EXPECT_TRUE(Corvane::convert_to_utf8("ISO-8859-1", "caf\xE9", out));
    EXPECT_EQ("café", out);
    EXPECT_TRUE(Corvane::convert_to_utf8("utf-8",
                                         "a\xFF"
                                         "b\xC3",
                                         out));
    EXPECT_EQ(
        "a\xEF\xBF\xBD"
        "b\xEF\xBF\xBD",
        out);
    EXPECT_TRUE(Corvane::convert_to_utf8("us-ascii", "ok \xC3\xA9", out));  // labelled wrong
    EXPECT_EQ("ok é", out);
    EXPECT_TRUE(Corvane::convert_to_utf8("shift_jis", "\x82\xA0\x82", out));  // cut short
    EXPECT_EQ("あ\xEF\xBF\xBD", out);
    EXPECT_TRUE(Corvane::convert_to_utf8("utf-8", "\xED\xA0\x80", out));  // a surrogate
    EXPECT_EQ(std::string::npos, out.find("\xED"));
    EXPECT_TRUE(Corvane::convert_to_utf8("iso-2022-jp", "\x1B$B$\"\x1B(B", out));
    EXPECT_EQ("あ", out);
    EXPECT_FALSE(Corvane::convert_to_utf8("x-no-such-charset", "abc", out));
    EXPECT_EQ("", out);
    EXPECT_FALSE(Corvane::convert_to_utf8("", "abc", out));
}
