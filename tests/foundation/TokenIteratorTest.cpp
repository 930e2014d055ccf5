// TokenIterator and string2list: token kinds, comparisons, strip, literals,
// and whole IMAP response lines walked the way the response parsers walk them.
#include "foundation/TokenIterator.h"

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "support/Buffer.h"

namespace {

// Every token of text, in order, with the postfix form the parsers use.
std::vector<std::string> all_tokens(const std::string& text) {
    std::vector<std::string> out;
    TokenIterator it(text);
    for (int guard = 0; it != TokenIterator::end() && guard < 1000; ++guard) {
        out.push_back(it++);
    }
    EXPECT_EQ(nullptr, it.token());
    return out;
}

using Tokens = std::vector<std::string>;

TEST(Tokenizer, SplitsAtomsQuotedStringsAndGroups) {
    struct Case {
        const char* text;
        Tokens expected;
    } cases[] = {
        {"A1 (FLAGS (\\Seen)) \"a b\" NIL", {"A1", "FLAGS (\\Seen)", "\"a b\"", "NIL"}},
        {"", {}},
        {"  \r\n \n", {}},
        {"  a  b\r\nc\n", {"a", "b", "c"}},
        {"a) b", {"a)", "b"}},
        // Quoted strings keep their quotes; a backslash escapes the next character.
        {"\"a \\\" b\" x", {"\"a \\\" b\"", "x"}},
        {"\"a\\\\\" x", {"\"a\\\\\"", "x"}},
        {"\"\" x", {"\"\"", "x"}},
        {"\"ab\"", {"\"ab\""}},
        // Text glued to the closing quote belongs to the token.
        {"\"ab\"cd ef", {"\"ab\"cd", "ef"}},
        {"\"ab\"(x) y", {"\"ab\"(x)", "y"}},
        {"\"a\"b\"c d\" e", {"\"a\"b\"c", "d\"", "e"}},
        // An unterminated quoted string is the rest of the text.
        {"\"ab c\r\n", {"\"ab c\r\n"}},
        // Groups: the inside, nested groups and quotes intact.
        {"(a \"b)c(\" (d)) e", {"a \"b)c(\" (d)", "e"}},
        {"(\"x\\\")\" y) z", {"\"x\\\")\" y", "z"}},
        {"(a)b", {"a", "b"}},
        {"() x", {"", "x"}},
        {"{12}\r\n", {"12"}},
        // Only the group's own bracket kind is counted.
        {"(a [b) c] d", {"a [b", "c]", "d"}},
        {"[a (b] c) d", {"a (b", "c)", "d"}},
        {"[UNSEEN 12] Message", {"UNSEEN 12", "Message"}},
        // A bracket inside an atom opens nothing; the group after it does.
        {"BODY[HEADER.FIELDS (FROM SUBJECT)] {5}",
         {"BODY[HEADER.FIELDS", "FROM SUBJECT", "]", "5"}},
        // A group the text ends in runs to the end.
        {"a (b (c) d", {"a", "b (c) d"}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.expected, all_tokens(c.text)) << "text: " << c.text;
    }
}

TEST(Tokenizer, KindDescribesTheLastBracketedToken) {
    TokenIterator it("A1 (FLAGS (\\Seen)) \"a b\" NIL [x");
    EXPECT_EQ(0, it.kind());
    EXPECT_FALSE(it.group());
    EXPECT_STREQ("A1", it++);
    EXPECT_STREQ("FLAGS (\\Seen)", it.token());
    EXPECT_TRUE(it.group());
    EXPECT_EQ(1, it.kind());
    EXPECT_EQ('(', it.open_char());
    EXPECT_EQ(')', it.close_char());
    ++it;
    EXPECT_STREQ("\"a b\"", it.token());  // quoted: kind and brackets unchanged
    EXPECT_FALSE(it.group());
    EXPECT_EQ(1, it.kind());
    EXPECT_STREQ("NIL", ++it);  // plain: unchanged too
    EXPECT_EQ(1, it.kind());
    EXPECT_EQ('(', it.open_char());
    EXPECT_STREQ("x", ++it);
    EXPECT_TRUE(it.group());
    EXPECT_EQ(2, it.kind());
    EXPECT_EQ('[', it.open_char());
    EXPECT_EQ(']', it.close_char());
    EXPECT_EQ(nullptr, ++it);
    EXPECT_EQ(nullptr, it++);  // at the end it stays null
    EXPECT_TRUE(!it);

    it.restart("{");
    EXPECT_STREQ("", it.token());
    EXPECT_EQ(2, it.kind());
    EXPECT_EQ('{', it.open_char());
    EXPECT_EQ('}', it.close_char());

    it.restart("x");  // restart forgets the last group
    EXPECT_EQ(0, it.kind());
    EXPECT_EQ(0, it.open_char());
    EXPECT_EQ(0, it.close_char());
}

TEST(Tokenizer, ComparisonsIgnoreCaseAndMatchByPrefix) {
    // A C string matches when it begins with the token; a std::string when the
    // token begins with it. The null token equals only a null C string.
    struct Case {
        const char* text;  // the first token is compared; "" gives the null token
        const char* arg;
        bool char_equal;
        bool string_equal;
    } cases[] = {
        {"NIL", "NIL", true, true}, {"NIL", "nil", true, true},   {"NIL", "NILS", true, false},
        {"NIL", "NI", false, true}, {"NIL", "NIX", false, false}, {"NIL", "", false, true},
        {"() x", "", true, true},   {"() x", "any", true, false}, {"", "", false, false},
        {"", "x", false, false},
    };
    for (const Case& c : cases) {
        TokenIterator it(c.text);
        EXPECT_EQ(c.char_equal, it == c.arg) << c.text << " / " << c.arg;
        EXPECT_EQ(!c.char_equal, it != c.arg) << c.text << " / " << c.arg;
        EXPECT_EQ(c.string_equal, it == std::string(c.arg)) << c.text << " / " << c.arg;
        EXPECT_EQ(!c.string_equal, it != std::string(c.arg)) << c.text << " / " << c.arg;
    }
    TokenIterator none("");
    EXPECT_TRUE(none == static_cast<const char*>(nullptr));
    TokenIterator some("NIL");
    EXPECT_FALSE(some == static_cast<const char*>(nullptr));
}

TEST(Tokenizer, IsNumber) {
    struct Case {
        const char* text;
        bool number;
    } cases[] = {{"0", true},   {"4294967296", true}, {"()", true}, {"12a", false},
                 {"-1", false}, {"1.5", false},       {"a1", false}};
    for (const Case& c : cases) {
        TokenIterator it(c.text);
        EXPECT_EQ(c.number, it.is_number()) << c.text;
    }
    TokenIterator none("");
    EXPECT_FALSE(none.is_number());
}

TEST(Tokenizer, StripRemovesOnePairOfQuotesOrRoundOrSquareBrackets) {
    struct Case {
        const char* text;  // the first token is stripped
        int times;
        const char* expected;
    } cases[] = {
        {"\"a b\"", 1, "a b"}, {"\"", 1, ""},  // a lone quote leaves the empty token
        {"((a))", 1, "a"},     {"[[a]]", 1, "a"},   {"{{a}}", 1, "{a}"},  // braces are kept
        {"\"(a)\"", 2, "a"},   {"\"[a]\"", 3, "a"}, {"\"a\"b", 1, "\"a\"b"},
        {"\"(a]\"", 2, "(a]"}, {"abc", 1, "abc"},   {"()", 1, ""},
    };
    for (const Case& c : cases) {
        TokenIterator it(c.text);
        for (int i = 0; i < c.times; ++i) {
            EXPECT_EQ(&it, &it.strip());
        }
        EXPECT_EQ(c.expected, it.asString()) << c.text;
    }
    TokenIterator none("");
    none.strip();
    EXPECT_EQ(nullptr, none.token());

    // Stripping cuts only the token: the rest of the line reads on as before.
    TokenIterator line("\"INBOX\" (MESSAGES 1)");
    EXPECT_STREQ("INBOX", line.strip().token());
    EXPECT_STREQ("MESSAGES 1", ++line);
}

TEST(Tokenizer, ConstructorsAndRestartCopyTheText) {
    TokenIterator empty;
    EXPECT_EQ(nullptr, empty.token());
    EXPECT_TRUE(!empty);
    EXPECT_EQ(0, empty.kind());
    EXPECT_EQ("", empty.asString());
    EXPECT_EQ(nullptr, empty++);
    EXPECT_EQ(nullptr, ++empty);

    TokenIterator from_null(static_cast<const char*>(nullptr));
    EXPECT_EQ(nullptr, from_null.token());

    std::string source = "one two";
    TokenIterator from_string(source);
    source[4] = 'X';  // the iterator works on its own copy
    ++from_string;
    std::string second = from_string;
    EXPECT_EQ("two", second);

    // A buffer gives its length, not its first zero byte: here a literal
    // carrying a zero byte, and a trailing byte that is not part of the text.
    const char bytes[] = "{3}\r\na\0b END!";
    Corvane::Buffer buffer(bytes, sizeof bytes - 2);
    TokenIterator from_buffer(buffer);
    Corvane::Buffer literal;
    EXPECT_EQ(3u, from_buffer.literal(literal));
    EXPECT_EQ(std::string("a\0b", 3), literal.str());
    EXPECT_STREQ("END", from_buffer.token());

    TokenIterator it("first");
    it.restart(std::string("second x"));
    EXPECT_STREQ("second", it++);
    EXPECT_STREQ("x", it++);
    it.restart(Corvane::Buffer(std::string("third")));
    EXPECT_STREQ("third", it.token());
    it.restart("fourth");
    EXPECT_STREQ("fourth", it.token());
    it.restart(static_cast<const char*>(nullptr));
    EXPECT_EQ(nullptr, it.token());
}

TEST(Tokenizer, LiteralTakesCountedBytesThenAPlainToken) {
    struct Case {
        const char* text;
        std::size_t taken;
        std::string data;
        const char* after;  // the token read after the literal, null for none
    } cases[] = {
        {"{5}\r\nab cd REST", 5, "ab cd", "REST"},
        {"{5}\nab cdREST x", 5, "ab cd", "REST"},
        // The literal's own leading blanks and line ends are data.
        {"{4}\r\n\r\n a REST", 4, "\r\n a", "REST"},
        {"{3}\r\n  x Y", 3, "  x", "Y"},
        // Whatever follows is a plain atom, even a bracket.
        {"{2}\r\nab (FLAGS (x))", 2, "ab", "(FLAGS"},
        {"{2}\r\nab \"q r\"", 2, "ab", "\"q"},
        // A count beyond the text takes what is there.
        {"{100}\r\nabc", 3, "abc", nullptr},
        {"{99999999999999999999999999}\r\nab", 2, "ab", nullptr},
        {"{0}\r\n", 0, "", nullptr},
        // A count that is not a number is 0; reading goes on after the line end.
        {"{abc}\r\nxyz", 0, "", "xyz"},
    };
    for (const Case& c : cases) {
        TokenIterator it(c.text);
        ASSERT_EQ(1, it.kind()) << c.text;
        Corvane::Buffer out(std::string("<"));  // appended to, not replaced
        EXPECT_EQ(c.taken, it.literal(out)) << c.text;
        EXPECT_EQ("<" + c.data, out.str()) << c.text;
        if (c.after == nullptr) {
            EXPECT_EQ(nullptr, it.token()) << c.text;
        } else {
            EXPECT_STREQ(c.after, it.token()) << c.text;
        }
    }
}

TEST(Tokenizer, LiteralNeedsACompleteBraceGroup) {
    const char* texts[] = {"abc {3}\r\nxyz", "(3)\r\nxyz", "[3]\r\nxyz", "{3", "\"{3}\""};
    for (const char* text : texts) {
        TokenIterator it(text);
        const std::string before = it.asString();
        Corvane::Buffer out;
        EXPECT_EQ(0u, it.literal(out)) << text;
        EXPECT_EQ(0u, out.length()) << text;
        EXPECT_EQ(before, it.asString()) << text;
    }
    // Only directly after the group: once the next token is read it is too late,
    // and a literal is taken once.
    TokenIterator late("{3} abc def");
    ++late;
    Corvane::Buffer out;
    EXPECT_EQ(0u, late.literal(out));
    EXPECT_STREQ("abc", late.token());
    TokenIterator twice("{1}\r\na{1}\r\nb");
    EXPECT_EQ(1u, twice.literal(out));
    EXPECT_EQ(0u, twice.literal(out));
    EXPECT_EQ("a", out.str());
}

TEST(Tokenizer, String2ListSplitsAtEverySeparator) {
    struct Case {
        const char* text;
        char separator;
        bool skip_empty;
        std::list<std::string> expected;
    } cases[] = {
        {"a,,b", ',', false, {"a", "", "b"}},
        {"a,,b", ',', true, {"a", "b"}},
        {"a,b,", ',', false, {"a", "b", ""}},
        {"a,b,", ',', true, {"a", "b"}},
        {",", ',', false, {"", ""}},
        {",", ',', true, {}},
        {"abc", ',', false, {"abc"}},
        {"", ',', false, {}},
        {" one  two ", ' ', true, {"one", "two"}},
    };
    for (const Case& c : cases) {
        std::list<std::string> out;
        EXPECT_EQ(static_cast<int>(c.expected.size()),
                  string2list(out, c.text, c.separator, c.skip_empty))
            << c.text;
        EXPECT_EQ(c.expected, out) << c.text;
    }
    // The list is not cleared; the answer counts all it holds, except that an
    // empty text answers 0 whatever the list holds.
    std::list<std::string> out{"x"};
    EXPECT_EQ(3, string2list(out, "a:b", ':', false));
    EXPECT_EQ((std::list<std::string>{"x", "a", "b"}), out);
    EXPECT_EQ(0, string2list(out, "", ':', false));
    EXPECT_EQ(3u, out.size());
}

}  // namespace
