#ifndef ZEMAIL_FOUNDATION_TOKEN_ITERATOR_H
#define ZEMAIL_FOUNDATION_TOKEN_ITERATOR_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

namespace Corvane {
class Buffer;
}

// Pairs each opening bracket with the closing one at the same index.
struct ParenthesisHelper {
    static const char* const BEGIN;  // "([{"
    static const char* const END;    // ")]}"
};

// Cuts one line of IMAP response text into tokens: atoms, quoted strings (with
// their quotes) and whole bracketed groups, returned as the text inside the
// brackets so that it can be tokenised again by a new iterator.
//
// The iterator copies the text once and cuts the copy in place: a token is a
// C string pointing into that copy, valid until the iterator is restarted or
// destroyed. Delimiters are space, CR and LF.
//
//   TokenIterator it("A1 (FLAGS (\\Seen)) \"a b\" NIL");
//   it++  -> "A1"
//   it++  -> "FLAGS (\\Seen)"   kind() == 1, open_char() == '('
//   it++  -> "\"a b\""
//   it++  -> "NIL", then the null token
//
// kind(), open_char() and close_char() describe the last bracketed token read;
// quoted and plain tokens leave them unchanged. Not thread-safe.
class TokenIterator {
public:
    enum Kind : std::int32_t { kPlain = 0, kGroup = 1, kOpenGroup = 2 };

    TokenIterator() = default;
    explicit TokenIterator(const char* text);
    explicit TokenIterator(const std::string& text);
    explicit TokenIterator(const Corvane::Buffer& text);
    ~TokenIterator();
    TokenIterator(const TokenIterator&) = delete;
    TokenIterator& operator=(const TokenIterator&) = delete;

    // Drop the old text and start over on a new one, at its first token.
    void restart(const char* text);
    void restart(const std::string& text);
    void restart(const Corvane::Buffer& text);

    // Advance to the next token. The postfix form returns the token it stood
    // on, so parsers take a field and move on in one step.
    void next();
    const char* operator++();
    const char* operator++(int);

    const char* token() const { return m_token; }
    operator const char*() const { return m_token; }
    bool operator!() const { return m_token == nullptr; }
    static const char* end() { return nullptr; }

    // Compares as many characters as the token has, ignoring case: the token
    // matches any argument that begins with it ("NIL" == "NILS"; an empty token
    // matches anything). Null is equal only to null.
    bool operator==(const char* text) const;
    bool operator!=(const char* text) const { return !(*this == text); }
    // Compares as many characters as the argument has: the token must begin
    // with the argument, ignoring case. A null token is never equal.
    bool operator==(const std::string& text) const;
    bool operator!=(const std::string& text) const { return !(*this == text); }

    // All characters decimal digits (an empty token counts); false for null.
    bool is_number() const;

    // Removes one pair of enclosing double quotes, round or square brackets
    // (braces are kept). Returns the iterator, so calls chain.
    TokenIterator& strip();

    std::string asString() const { return m_token ? std::string(m_token) : std::string(); }
    operator std::string() const { return asString(); }

    // When the current token is a complete "{n}" group: appends the n bytes of
    // the literal that follows the group's line end to out, moves past them,
    // and reads the next token as a plain atom. Returns the bytes taken (fewer
    // than n when the text ends first), 0 when the token is no such group.
    std::size_t literal(Corvane::Buffer& out);

    // True when the current token was read as a bracketed group (complete or
    // not); kind() and open_char() then describe it.
    bool group() const { return m_is_group; }
    std::int32_t kind() const { return m_kind; }
    char open_char() const { return m_open; }
    char close_char() const { return m_close; }

private:
    void _assign(const char* text, std::size_t length);
    void _read_plain();
    void _read_quoted();
    void _read_group(char open);
    char* _skip_delimiters(char* p) const;

    char* m_copy = nullptr;       // private copy of the text, cut in place
    char* m_token = nullptr;      // current token, null when none is left
    char* m_cursor = nullptr;     // where the next token starts; null before any text
    std::int32_t m_kind = 0;      // of the last bracketed token
    char m_open = 0;              // its opening character
    char m_close = 0;             // its closing character
    char* m_end = nullptr;        // end of the copy (its terminating zero byte)
    char* m_group_end = nullptr;  // just past the current complete group's closing bracket
    bool m_is_group = false;      // the current token is a bracketed group
};

// Cuts text at every separator and appends the pieces, the last one after the
// final separator included, to out (which is not cleared). skipEmpty leaves
// empty pieces out. An empty text adds nothing and answers 0; otherwise the
// answer is the number of strings out holds afterwards.
int string2list(std::list<std::string>& out, const std::string& text, char separator,
                bool skipEmpty);

#endif
