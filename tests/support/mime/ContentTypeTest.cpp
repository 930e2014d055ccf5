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

TEST(MimeContentType, QuotedStrings) {
    EXPECT_EQ("a\"b\\c;d", nameOf("text/plain; name=\"a\\\"b\\\\c;d\"; x=1"));
    EXPECT_EQ("open", nameOf("text/plain; name=\"open"));  // unterminated
    EXPECT_EQ("", nameOf("text/plain; name=\"\""));
    EXPECT_EQ("1", ContentType("text/plain; name=\"a;b\" junk; x=1").param("x"));
    // A stray quote after or inside a value does not swallow what follows.
    EXPECT_EQ("1", ContentType("text/plain; name=\"a\"b\"c; x=1").param("x"));
    EXPECT_EQ("a\"b", nameOf("text/plain; name=a\"b; x=1"));
    EXPECT_EQ("1", ContentType("text/plain; name=a\"b; x=1").param("x"));
}

TEST(MimeContentType, FirstDuplicateWinsAndEmptyItemsAreSkipped) {
    ContentType ct("text/plain; charset=utf-8;; flag; charset=latin1; ;x=1;");
    EXPECT_EQ("utf-8", ct.charset());
    EXPECT_EQ("1", ct.param("x"));
    EXPECT_FALSE(ct.hasParam("flag"));
    EXPECT_EQ(2u, ct.params().size());
}

TEST(MimeContentType, EncodedWordsInQuotedValuesButNotInTheBoundary) {
    EXPECT_EQ("résumé.txt", nameOf("text/plain; name=\"=?iso-8859-1?Q?r=E9sum=E9.txt?=\""));
    EXPECT_EQ("Привет.txt", nameOf("text/plain; name=\"=?UTF-8?B?0J/RgNC40LLQtdGCLnR4dA==?=\""));
    EXPECT_EQ("=?utf-8?Q?x?=",
              ContentType("multipart/mixed; boundary=\"=?utf-8?Q?x?=\"").boundary());
}

// --- RFC 2231 ---------------------------------------------------------------

TEST(MimeRfc2231, ExtendedValuesInSeveralCharsets) {
    EXPECT_EQ("résumé.txt", nameOf("text/plain; name*=utf-8''r%C3%A9sum%C3%A9.txt"));
    EXPECT_EQ("résumé.txt", nameOf("text/plain; name*=iso-8859-1'en'r%E9sum%E9.txt"));
    EXPECT_EQ("€ and ‘q’", nameOf("text/plain; name*=windows-1252''%80%20and%20%91q%92"));
    EXPECT_EQ("ab",
              nameOf("text/plain; name*=\"utf-8''a%62\""));  // quoted although it should not be
}

TEST(MimeRfc2231, ContinuationsMixEncodedAndPlainSegments) {
    // The example of RFC 2231 section 4.1.
    ContentType ct(
        "application/x-stuff;\r\n"
        " title*0*=us-ascii'en'This%20is%20even%20more%20;\r\n"
        " title*1*=%2A%2A%2Afun%2A%2A%2A%20;\r\n"
        " title*2=\"isn't it!\"");
    EXPECT_EQ("This is even more ***fun*** isn't it!", ct.param("title"));
    // Percent signs in a segment without "*" are not escapes.
    EXPECT_EQ("é%41", nameOf("a/b; name*0*=iso-8859-1''%E9; name*1=%41"));
    // A multibyte character split over two encoded segments comes out whole.
    EXPECT_EQ("résumé", nameOf("a/b; name*0*=utf-8''r%C3; name*1*=%A9sum%C3%A9"));
}

TEST(MimeRfc2231, SegmentsOutOfOrderOrMissing) {
    EXPECT_EQ("abc", nameOf("a/b; name*2=c; name*0=a; name*1=b"));
    EXPECT_EQ("ré!", nameOf("a/b; name*1*=%E9; name*2=!; name*0*=latin1''r"));
    EXPECT_EQ("ac", nameOf("a/b; name*0=a; name*2=c"));
    // Without segment 0 there is no charset: the bytes are kept as sent.
    EXPECT_EQ("x%41", nameOf("a/b; name*1=x; name*2*=%2541"));
    EXPECT_EQ("ab", nameOf("a/b; name*10=b; name*9=a"));  // numbers, not text, order them
}

TEST(MimeRfc2231, ExtendedFormWinsOverPlain) {
    EXPECT_EQ("new.txt", nameOf("a/b; name=\"old.txt\"; name*=utf-8''new.txt"));
    EXPECT_EQ("new.txt", nameOf("a/b; name*=utf-8''new.txt; name=\"old.txt\""));
    EXPECT_EQ("new.txt", nameOf("a/b; name=old.txt; name*0=new; name*1=.txt"));
}

TEST(MimeRfc2231, DefectiveValuesKeepTheirBytes) {
    EXPECT_EQ("aA%zz%4", nameOf("a/b; name*=x-no-such-charset''a%41%zz%4"));
    EXPECT_EQ("plain%20text", nameOf("a/b; name*=plain%2520text"));  // no quotes: no charset
    EXPECT_EQ("x", ContentType("a/b; name*99999999=x").param("name*99999999"));
    EXPECT_EQ("", nameOf("a/b; name*99999999=x"));
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

TEST(MimeRfc2047, BAndQWordsInAnyCase) {
    EXPECT_EQ("¡Hola, señor!", vantro_decode_rfc2047("=?utf-8?b?wqFIb2xhLCBzZcOxb3Ih?="));
    EXPECT_EQ("É test", vantro_decode_rfc2047("=?UTF-8?Q?=C3=89_test?="));
    EXPECT_EQ("MIME ¢ More", vantro_decode_rfc2047("=?utf-8?q?MIME_=c2=a2?= More"));
    EXPECT_EQ("café", vantro_decode_rfc2047("=?ISO-8859-1*fr?Q?caf=E9?="));
    EXPECT_EQ("€", vantro_decode_rfc2047("=?windows-1252?Q?=80?="));
    EXPECT_EQ("plain", vantro_decode_rfc2047("=?ANSI_X3.4-1968?Q?plain?="));  // a locale name
    EXPECT_EQ("Д", vantro_decode_rfc2047("=?koi8-r?B?5A==?="));
    EXPECT_EQ("pad", vantro_decode_rfc2047("=?utf-8?B?cGFk?="));
    EXPECT_EQ("pa", vantro_decode_rfc2047("=?utf-8?B?cGE?="));  // padding missing
}

TEST(MimeRfc2047, AdjacentWordsJoinPlainSpacingStays) {
    EXPECT_EQ("ab", vantro_decode_rfc2047("=?utf-8?Q?a?= =?utf-8?Q?b?="));
    EXPECT_EQ("ab", vantro_decode_rfc2047("=?utf-8?Q?a?=\r\n\t=?UTF-8?Q?b?="));
    EXPECT_EQ("x a y", vantro_decode_rfc2047("x =?utf-8?Q?a?= y"));
    EXPECT_EQ("a b", vantro_decode_rfc2047("=?utf-8?Q?a?= b"));
    EXPECT_EQ("Re: éé", vantro_decode_rfc2047("Re: =?iso-8859-1?Q?=E9?= =?utf-8?Q?=C3=A9?="));
    // One character split over two words, as some writers do.
    EXPECT_EQ("é", vantro_decode_rfc2047("=?utf-8?B?ww==?= =?utf-8?B?qQ==?="));
}

TEST(MimeRfc2047, MalformedWordsStayAsWritten) {
    for (const char* text :
         {"=?utf-8?X?abc?=", "=?utf-8?Q?abc", "=??Q?abc?=", "=?utf-8?B?", "a =? b ?= c",
          "=?x-no-such-charset?Q?abc?=", "=?=?=?=?", "=?", "?=", "=?utf 8?Q?a?=", ""}) {
        EXPECT_EQ(text, vantro_decode_rfc2047(text));
    }
    // A word left alone keeps the blank after it, the next word is decoded.
    EXPECT_EQ("=?x-no-such?Q?a?= b", vantro_decode_rfc2047("=?x-no-such?Q?a?= =?utf-8?Q?b?="));
    EXPECT_EQ("=a", vantro_decode_rfc2047("==?utf-8?Q?a?="));
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
