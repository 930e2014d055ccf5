// Transfer-encoding filters as MediaOut streams.
//
// Every filter is a small state machine fed one byte at a time, so nothing
// depends on where the writer cut its pieces. The bytes a write produces are
// gathered and forwarded to the stream below in one call. State kept between
// writes is bounded: at most a base64 quad, a quoted-printable escape with
// the blanks after it, or one uuencoded line.

#include "support/mime/Encoders.h"

#include <cstring>

#include "support/mime/Email.h"

namespace Corvane {

namespace {

const char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const char kHexUpper[] = "0123456789ABCDEF";

// RFC 2045 section 6.8: "encoded lines must not be longer than 76 characters".
constexpr std::size_t kBase64LineChars = 76;
// RFC 2045 section 6.7 rule 5: lines of at most 76 characters, the soft
// break's "=" included.
constexpr std::size_t kQpLineChars = 76;
// Bytes per uuencoded line, the length every uuencode writes.
constexpr std::size_t kUuLineBytes = 45;
// A quoted-printable run of blanks longer than any real line is let through
// rather than held: only blanks that end a line are dropped.
constexpr std::size_t kQpMaxHeldBlanks = 1024;
// A uuencoded line is at most 62 characters; longer lines are cut here.
constexpr std::size_t kUuMaxLine = 1024;

int hexValue(unsigned char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Base of the filters: owns the stream below and forwards to it.
class Filter : public MediaOutImpl {
public:
    explicit Filter(MediaOut out) : m_out(std::move(out)) {}

    long write(const void* data, std::size_t n) override {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        m_pending.clear();
        feed(p, n);
        if (!flushPending()) {
            return -1;
        }
        return static_cast<long>(n);
    }
    void end() override {
        m_pending.clear();
        finish();
        flushPending();
        m_out->end();
    }

protected:
    virtual void feed(const unsigned char* p, std::size_t n) = 0;
    virtual void finish() = 0;

    void emit(char c) { m_pending += c; }
    void emit(const char* text, std::size_t n) { m_pending.append(text, n); }
    void emit(const std::string& text) { m_pending += text; }

private:
    bool flushPending() {
        if (m_pending.empty()) {
            return true;
        }
        long rc = m_out->write(m_pending.data(), m_pending.size());
        m_pending.clear();
        return rc >= 0;
    }

    MediaOut m_out;
    std::string m_pending;
};

class PassThrough : public Filter {
public:
    using Filter::Filter;

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        emit(reinterpret_cast<const char*>(p), n);
    }
    void finish() override {}
};

// CRLF to LF, for decoded text parts.
class TextLineEnds : public Filter {
public:
    using Filter::Filter;

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            char c = static_cast<char>(p[i]);
            if (m_cr && c != '\n') {
                emit('\r');
            }
            m_cr = c == '\r';
            if (!m_cr) {
                emit(c);
            }
        }
    }
    void finish() override {
        if (m_cr) {
            emit('\r');
        }
        m_cr = false;
    }

private:
    bool m_cr = false;
};

class Base64Encoder : public Filter {
public:
    using Filter::Filter;

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            m_group[m_count++] = p[i];
            if (m_count == 3) {
                quad(3);
            }
        }
    }
    void finish() override {
        if (m_count > 0) {
            quad(m_count);
        }
        if (m_line > 0) {
            emit(EmailLineBreak);
            m_line = 0;
        }
    }

private:
    void quad(std::size_t count) {
        unsigned int v = static_cast<unsigned int>(m_group[0]) << 16;
        if (count > 1) {
            v |= static_cast<unsigned int>(m_group[1]) << 8;
        }
        if (count > 2) {
            v |= m_group[2];
        }
        char out[4] = {kBase64Alphabet[(v >> 18) & 63], kBase64Alphabet[(v >> 12) & 63],
                       count > 1 ? kBase64Alphabet[(v >> 6) & 63] : '=',
                       count > 2 ? kBase64Alphabet[v & 63] : '='};
        emit(out, 4);
        m_count = 0;
        m_line += 4;
        if (m_line >= kBase64LineChars) {
            emit(EmailLineBreak);
            m_line = 0;
        }
    }

    unsigned char m_group[3] = {0, 0, 0};
    std::size_t m_count = 0;
    std::size_t m_line = 0;
};

class Base64Decoder : public Filter {
public:
    explicit Base64Decoder(MediaOut out) : Filter(std::move(out)) {
        std::memset(m_table, -1, sizeof(m_table));
        for (int i = 0; i < 64; ++i) {
            m_table[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<signed char>(i);
        }
    }

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            int v = m_table[p[i]];
            if (v >= 0) {
                m_acc = (m_acc << 6) | static_cast<unsigned int>(v);
                if (++m_count == 4) {
                    emitGroup();
                }
            } else if (p[i] == '=') {
                // Padding ends a group early. Anything after it starts a
                // fresh group, so encodings pasted one after the other decode.
                emitGroup();
            }
            // Every other byte (line breaks, blanks, junk) is skipped.
        }
    }
    void finish() override { emitGroup(); }

private:
    // Writes the bytes of the characters gathered so far: 4 give 3 bytes,
    // 3 give 2, 2 give 1, and a single one carries no whole byte.
    void emitGroup() {
        unsigned int acc = m_acc << (6 * (4 - m_count));
        if (m_count >= 2) {
            emit(static_cast<char>((acc >> 16) & 0xFF));
        }
        if (m_count >= 3) {
            emit(static_cast<char>((acc >> 8) & 0xFF));
        }
        if (m_count == 4) {
            emit(static_cast<char>(acc & 0xFF));
        }
        m_acc = 0;
        m_count = 0;
    }

    signed char m_table[256];
    unsigned int m_acc = 0;
    int m_count = 0;
};

class QpEncoder : public Filter {
public:
    using Filter::Filter;

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            unsigned char c = p[i];
            if (m_cr) {
                m_cr = false;
                if (c == '\n') {
                    hardBreak();
                    continue;
                }
                literalBlank();
                escaped('\r');
            }
            if (c == '\r') {
                m_cr = true;  // CRLF is a line break, a lone CR is data
            } else if (c == '\n') {
                hardBreak();
            } else if (c == ' ' || c == '\t') {
                literalBlank();
                m_blank = static_cast<char>(c);
            } else {
                literalBlank();
                if (c >= 33 && c <= 126 && c != '=') {
                    token(reinterpret_cast<const char*>(&c), 1);
                } else {
                    escaped(c);
                }
            }
        }
    }
    void finish() override {
        if (m_cr) {
            literalBlank();
            escaped('\r');
            m_cr = false;
        } else if (m_blank != 0) {
            // A blank at the very end ends a line too (rule 3).
            escaped(static_cast<unsigned char>(m_blank));
            m_blank = 0;
        }
    }

private:
    // A blank is held until the next byte says whether it ends a line.
    void literalBlank() {
        if (m_blank != 0) {
            token(&m_blank, 1);
            m_blank = 0;
        }
    }
    void hardBreak() {
        if (m_blank != 0) {
            escaped(static_cast<unsigned char>(m_blank));
            m_blank = 0;
        }
        emit(EmailLineBreak);
        m_line = 0;
    }
    void escaped(unsigned char c) {
        char text[3] = {'=', kHexUpper[c >> 4], kHexUpper[c & 15]};
        token(text, 3);
    }
    // Keeps room on each line for the "=" of a soft break, so no line ever
    // passes 76 characters and an escape is never split.
    void token(const char* text, std::size_t n) {
        if (m_line + n > kQpLineChars - 1) {
            emit('=');
            emit(EmailLineBreak);
            m_line = 0;
        }
        emit(text, n);
        m_line += n;
    }

    std::size_t m_line = 0;
    char m_blank = 0;
    bool m_cr = false;
};

class QpDecoder : public Filter {
public:
    using Filter::Filter;

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            step(p[i]);
        }
    }
    void finish() override {
        switch (m_state) {
            case State::Hex1:
                emit('=');
                emit(static_cast<char>(m_hex1));
                break;
            case State::Equals:
            case State::EqualsBlanks:
            case State::EqualsCr:
                // "=" (and blanks) at the very end: a soft break that ends
                // the data without a final line break. Dropped.
                break;
            case State::Text:
                break;
        }
        // Blanks at the end of the last line are dropped like any other
        // trailing blanks.
        m_blanks.clear();
        m_state = State::Text;
    }

private:
    enum class State { Text, Equals, Hex1, EqualsBlanks, EqualsCr };

    void step(unsigned char c) {
        switch (m_state) {
            case State::Text:
                text(c);
                return;
            case State::Equals:
                if (hexValue(c) >= 0) {
                    m_hex1 = c;
                    m_state = State::Hex1;
                } else if (c == '\n') {
                    m_state = State::Text;  // soft line break
                } else if (c == '\r') {
                    m_state = State::EqualsCr;
                } else if (c == ' ' || c == '\t') {
                    m_blanks.assign(1, static_cast<char>(c));
                    m_state = State::EqualsBlanks;
                } else {
                    // Not an escape: the "=" stands for itself.
                    emit('=');
                    m_state = State::Text;
                    text(c);
                }
                return;
            case State::Hex1:
                m_state = State::Text;
                if (hexValue(c) >= 0) {
                    emit(static_cast<char>(hexValue(m_hex1) * 16 + hexValue(c)));
                } else {
                    emit('=');
                    emit(static_cast<char>(m_hex1));
                    text(c);
                }
                return;
            case State::EqualsBlanks:
                // "=" then blanks then a line end is a soft break whose
                // blanks a transport added.
                if ((c == ' ' || c == '\t') && m_blanks.size() < kQpMaxHeldBlanks) {
                    m_blanks += static_cast<char>(c);
                } else if (c == '\n') {
                    m_blanks.clear();
                    m_state = State::Text;
                } else if (c == '\r') {
                    m_state = State::EqualsCr;
                } else {
                    emit('=');
                    emit(m_blanks);
                    m_blanks.clear();
                    m_state = State::Text;
                    text(c);
                }
                return;
            case State::EqualsCr:
                m_state = State::Text;
                if (c == '\n') {
                    m_blanks.clear();
                } else {
                    emit('=');
                    emit(m_blanks);
                    m_blanks.clear();
                    text('\r');
                    text(c);
                }
                return;
        }
    }

    void text(unsigned char c) {
        if (c == ' ' || c == '\t') {
            // Held: dropped if the line ends here (RFC 2045 section 6.7,
            // rule 3: trailing blanks were added in transport).
            if (m_blanks.size() >= kQpMaxHeldBlanks) {
                emit(m_blanks);
                m_blanks.clear();
            }
            m_blanks += static_cast<char>(c);
            return;
        }
        if (c == '\r' || c == '\n') {
            m_blanks.clear();
            emit(static_cast<char>(c));
            return;
        }
        if (!m_blanks.empty()) {
            emit(m_blanks);
            m_blanks.clear();
        }
        if (c == '=') {
            m_state = State::Equals;
        } else {
            emit(static_cast<char>(c));
        }
    }

    State m_state = State::Text;
    unsigned char m_hex1 = 0;
    std::string m_blanks;
};

class UuEncoder : public Filter {
public:
    UuEncoder(MediaOut out, std::string name) : Filter(std::move(out)), m_name(std::move(name)) {}

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            begin();
            m_line[m_count++] = p[i];
            if (m_count == kUuLineBytes) {
                line();
            }
        }
    }
    void finish() override {
        begin();
        if (m_count > 0) {
            line();
        }
        emit('`');
        emit(EmailLineBreak);
        emit("end");
        emit(EmailLineBreak);
    }

private:
    static char uuChar(unsigned int v) { return v == 0 ? '`' : static_cast<char>(v + 32); }

    void begin() {
        if (!m_begun) {
            emit("begin 644 " + m_name);
            emit(EmailLineBreak);
            m_begun = true;
        }
    }
    void line() {
        emit(uuChar(static_cast<unsigned int>(m_count)));
        for (std::size_t i = 0; i < m_count; i += 3) {
            unsigned int v = static_cast<unsigned int>(m_line[i]) << 16;
            if (i + 1 < m_count) {
                v |= static_cast<unsigned int>(m_line[i + 1]) << 8;
            }
            if (i + 2 < m_count) {
                v |= m_line[i + 2];
            }
            emit(uuChar((v >> 18) & 63));
            emit(uuChar((v >> 12) & 63));
            emit(uuChar((v >> 6) & 63));
            emit(uuChar(v & 63));
        }
        emit(EmailLineBreak);
        m_count = 0;
    }

    std::string m_name;
    bool m_begun = false;
    unsigned char m_line[kUuLineBytes] = {};
    std::size_t m_count = 0;
};

class UuDecoder : public Filter {
public:
    using Filter::Filter;

protected:
    void feed(const unsigned char* p, std::size_t n) override {
        for (std::size_t i = 0; i < n; ++i) {
            if (p[i] == '\n') {
                line();
            } else if (m_line.size() < kUuMaxLine) {
                m_line += static_cast<char>(p[i]);
            }
        }
    }
    void finish() override {
        if (!m_line.empty()) {
            line();
        }
    }

private:
    enum class State { BeforeBegin, Body, Done };

    void line() {
        if (!m_line.empty() && m_line.back() == '\r') {
            m_line.pop_back();
        }
        if (m_state == State::BeforeBegin) {
            if (m_line.compare(0, 6, "begin ") == 0) {
                m_state = State::Body;
            }
        } else if (m_state == State::Body) {
            if (m_line == "end") {
                m_state = State::Done;
            } else if (!m_line.empty()) {
                decodeLine();
            }
        }
        m_line.clear();
    }

    void decodeLine() {
        auto value = [this](std::size_t i) -> unsigned int {
            return i < m_line.size() ? (static_cast<unsigned char>(m_line[i]) - 32u) & 63u : 0u;
        };
        std::size_t count = value(0);
        std::size_t pos = 1;
        while (count > 0) {
            unsigned int v = (value(pos) << 18) | (value(pos + 1) << 12) | (value(pos + 2) << 6) |
                             value(pos + 3);
            for (int k = 2; k >= 0 && count > 0; --k, --count) {
                emit(static_cast<char>((v >> (8 * k)) & 0xFF));
            }
            pos += 4;
        }
    }

    State m_state = State::BeforeBegin;
    std::string m_line;
};

bool isText(const ContentType* type) {
    return type != nullptr && type->mediaType() == ContentType::TEXT;
}

std::string uuName(const ContentType* type) {
    std::string name = type != nullptr ? type->utf8name() : std::string();
    std::string clean;
    for (char c : name) {
        if (c != '\r' && c != '\n') {
            clean += c;
        }
    }
    return clean.empty() ? "data" : clean;
}

}  // namespace

MediaOut get_encoder(ContentEncoding encoding, MediaOut out) {
    return get_encoder(encoding, std::move(out), nullptr);
}

MediaOut get_encoder(ContentEncoding encoding, MediaOut out, const ContentType* type) {
    if (out.isNull()) {
        return MediaOut();
    }
    switch (encoding) {
        case ENCODING_BASE64:
            return MediaOut::adopt(new Base64Encoder(std::move(out)));
        case ENCODING_QUOTED_PRINTABLE:
            return MediaOut::adopt(new QpEncoder(std::move(out)));
        case ENCODING_UUENCODE:
            return MediaOut::adopt(new UuEncoder(std::move(out), uuName(type)));
        default:
            return MediaOut::adopt(new PassThrough(std::move(out)));
    }
}

MediaOut get_decoder(ContentEncoding encoding, MediaOut out, const ContentType* type) {
    if (out.isNull()) {
        return MediaOut();
    }
    if (isText(type)) {
        out = MediaOut::adopt(new TextLineEnds(std::move(out)));
    }
    switch (encoding) {
        case ENCODING_BASE64:
            return MediaOut::adopt(new Base64Decoder(std::move(out)));
        case ENCODING_QUOTED_PRINTABLE:
            return MediaOut::adopt(new QpDecoder(std::move(out)));
        case ENCODING_UUENCODE:
            return MediaOut::adopt(new UuDecoder(std::move(out)));
        default:
            return MediaOut::adopt(new PassThrough(std::move(out)));
    }
}

std::string encode_string(ContentEncoding encoding, const std::string& data) {
    std::string result;
    MediaOut enc = get_encoder(encoding, MediaOut::toString(result));
    enc->write(data.data(), data.size());
    enc->end();
    return result;
}

std::string decode_string(ContentEncoding encoding, const std::string& data) {
    std::string result;
    MediaOut dec = get_decoder(encoding, MediaOut::toString(result));
    dec->write(data.data(), data.size());
    dec->end();
    return result;
}

}  // namespace Corvane
