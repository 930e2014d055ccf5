// Feeds arbitrary bytes to TokenIterator and string2list.
//
// The input is tokenised three ways: from a Buffer holding every byte, from
// the same bytes as a C string (cut at the first zero byte), and from the
// Buffer again while taking IMAP literals. Every complete group is tokenised
// again by a new iterator, as the response parsers do, down to a bounded
// depth. Each token is checked against invariants that hold for any input; a
// broken one aborts with a message, which libFuzzer reports as a crash.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "foundation/TokenIterator.h"
#include "support/Buffer.h"

namespace {

constexpr int kMaxDepth = 6;

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (0)

bool is_delimiter(char c) {
    return c == ' ' || c == '\r' || c == '\n';
}

std::string upper(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return out;
}

struct Seen {
    std::string token;
    int kind;
    bool group;
};

// Walks every token of it. limit is the length of the text it was given: no
// token and no literal can be longer. With literals set, a complete "{n}"
// group is taken as a literal. Records the top-level tokens into seen.
void walk(TokenIterator& it, std::size_t limit, int depth, bool literals, std::vector<Seen>* seen) {
    std::size_t count = 0;
    bool postfix = false;
    while (it != TokenIterator::end()) {
        // Every token takes at least one byte of the text, so the walk ends.
        FUZZ_CHECK(++count <= limit + 1);
        const char* token = it.token();
        const std::size_t length = std::strlen(token);
        FUZZ_CHECK(length <= limit);
        FUZZ_CHECK(it.kind() >= 0 && it.kind() <= 2);
        const std::string text = it.asString();
        FUZZ_CHECK(text == token);
        const std::string converted = it;
        FUZZ_CHECK(converted == text);
        const bool group = it.group();
        if (seen != nullptr) {
            seen->push_back({text, it.kind(), group});
        }

        // Plain atoms end at the first delimiter.
        if (!group && token[0] != '"') {
            for (char c : text) {
                FUZZ_CHECK(!is_delimiter(c));
            }
        }
        if (group) {
            FUZZ_CHECK(it.kind() == 1 || it.kind() == 2);
            const char* open = std::strchr(ParenthesisHelper::BEGIN, it.open_char());
            FUZZ_CHECK(it.open_char() != 0 && open != nullptr);
            FUZZ_CHECK(it.close_char() == ParenthesisHelper::END[open - ParenthesisHelper::BEGIN]);
        }

        // Both comparison forms: a token equals itself in any case; the
        // C-string form accepts a longer argument, the string form does not.
        FUZZ_CHECK(it == token);
        FUZZ_CHECK(it == upper(text).c_str());
        FUZZ_CHECK(it == (text + "x").c_str());
        FUZZ_CHECK(it == text);
        FUZZ_CHECK(it == upper(text));
        FUZZ_CHECK(it != text + "x");
        FUZZ_CHECK(!(it == static_cast<const char*>(nullptr)));

        bool digits = true;
        for (char c : text) {
            digits = digits && c >= '0' && c <= '9';
        }
        FUZZ_CHECK(it.is_number() == digits);

        // A complete group is tokenised again from its inside.
        if (group && it.kind() == 1 && depth < kMaxDepth) {
            TokenIterator inner(token);
            walk(inner, length, depth + 1, literals, nullptr);
        }

        const bool brace = group && it.kind() == 1 && it.open_char() == '{';
        if (literals && brace) {
            Corvane::Buffer data(std::string("x"));
            const std::size_t taken = it.literal(data);
            FUZZ_CHECK(taken <= limit);
            FUZZ_CHECK(data.length() == taken + 1);
            // The token after a literal is read as a plain atom.
            if (!!it) {
                FUZZ_CHECK(!it.group());
                FUZZ_CHECK(std::strlen(it.token()) <= limit);
                for (const char* p = it.token(); *p; ++p) {
                    FUZZ_CHECK(!is_delimiter(*p));
                }
            }
            continue;
        }
        if (!brace) {
            // Not a literal: taking one does nothing.
            Corvane::Buffer none;
            FUZZ_CHECK(it.literal(none) == 0 && none.length() == 0);
            FUZZ_CHECK(it.token() == token);
        }

        // strip removes one enclosing pair or nothing.
        it.strip();
        const std::string stripped = it.asString();
        const std::string inside = text.size() >= 2 ? text.substr(1, text.size() - 2) : "";
        FUZZ_CHECK(stripped == text || (!text.empty() && stripped == inside));
        if (stripped != text) {
            const char first = text.front();
            const char last = text.back();
            FUZZ_CHECK((first == '"' && last == '"') || (first == '(' && last == ')') ||
                       (first == '[' && last == ']'));
        }

        // Alternate the two forms of advancing.
        const char* current = it.token();
        if (postfix) {
            const char* was = it++;
            FUZZ_CHECK(was == current);
        } else {
            const char* now = ++it;
            FUZZ_CHECK(now == it.token());
        }
        postfix = !postfix;
    }
    // At the end the token is null and stays null.
    FUZZ_CHECK(!it);
    FUZZ_CHECK(it == static_cast<const char*>(nullptr));
    FUZZ_CHECK(!(it == std::string()));
    FUZZ_CHECK(!it.is_number());
    FUZZ_CHECK(it++ == nullptr && ++it == nullptr);
    Corvane::Buffer none;
    FUZZ_CHECK(it.literal(none) == 0);
    FUZZ_CHECK(it.strip().token() == nullptr && it.asString().empty());
}

void check_string2list(const std::string& text, char separator) {
    std::list<std::string> all;
    const int n = string2list(all, text, separator, false);
    std::list<std::string> kept{"before"};
    const int m = string2list(kept, text, separator, true);
    if (text.empty()) {
        FUZZ_CHECK(n == 0 && m == 0 && all.empty() && kept.size() == 1);
        return;
    }
    FUZZ_CHECK(n == static_cast<int>(all.size()));
    FUZZ_CHECK(m == static_cast<int>(kept.size()));
    // Without skipping: one piece more than there are separators, and the
    // pieces joined again give the text back.
    std::size_t separators = 0;
    for (char c : text) {
        separators += c == separator;
    }
    FUZZ_CHECK(all.size() == separators + 1);
    std::string joined;
    std::size_t nonempty = 0;
    bool first = true;
    for (const std::string& piece : all) {
        FUZZ_CHECK(piece.find(separator) == std::string::npos);
        if (!first) {
            joined += separator;
        }
        first = false;
        joined += piece;
        nonempty += !piece.empty();
    }
    FUZZ_CHECK(joined == text);
    FUZZ_CHECK(kept.size() == nonempty + 1);
    for (const std::string& piece : kept) {
        FUZZ_CHECK(!piece.empty());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Corvane::Buffer bytes(data, size);
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t c_length = std::strlen(bytes.c_str());

    // The Buffer form and the C-string form give the same tokens: a zero
    // byte ends the text for every token kind.
    std::vector<Seen> from_buffer;
    std::vector<Seen> from_c_string;
    TokenIterator it(bytes);
    walk(it, size, 0, false, &from_buffer);
    it.restart(bytes.c_str());
    walk(it, c_length, 0, false, &from_c_string);
    FUZZ_CHECK(from_buffer.size() == from_c_string.size());
    for (std::size_t i = 0; i < from_buffer.size(); ++i) {
        FUZZ_CHECK(from_buffer[i].token == from_c_string[i].token);
        FUZZ_CHECK(from_buffer[i].kind == from_c_string[i].kind);
        FUZZ_CHECK(from_buffer[i].group == from_c_string[i].group);
    }

    // Again with literals taken, which may read past zero bytes.
    it.restart(text);
    walk(it, size, 0, true, nullptr);

    check_string2list(text, size > 0 ? static_cast<char>(data[0]) : ',');
    check_string2list(text, ' ');
    return 0;
}
