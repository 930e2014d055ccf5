#include "support/mime/ContentEncoding.h"

namespace Corvane {

namespace {

struct EncodingName {
    const char* name;
    ContentEncoding value;
};

// The first name of each value is the one encodingAsString gives.
const EncodingName kEncodingNames[] = {
    {"7bit", ENCODING_7BIT},         {"8bit", ENCODING_8BIT},
    {"binary", ENCODING_BINARY},     {"quoted-printable", ENCODING_QUOTED_PRINTABLE},
    {"base64", ENCODING_BASE64},     {"x-uuencode", ENCODING_UUENCODE},
    {"uuencode", ENCODING_UUENCODE}, {"x-uue", ENCODING_UUENCODE},
};

}  // namespace

ContentEncoding stringAsEncoding(const std::string& text) {
    // The mechanism is one token; blanks, quotes and a trailing comment
    // ("7bit (no 8-bit data)") are dropped.
    std::size_t b = 0;
    while (b < text.size() && (text[b] == ' ' || text[b] == '\t' || text[b] == '"' ||
                               text[b] == '\r' || text[b] == '\n')) {
        ++b;
    }
    std::string key;
    for (std::size_t i = b; i < text.size(); ++i) {
        char c = text[i];
        if (c == ' ' || c == '\t' || c == '"' || c == '(' || c == ';' || c == '\r' || c == '\n') {
            break;
        }
        key += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    for (const auto& entry : kEncodingNames) {
        if (key == entry.name) {
            return entry.value;
        }
    }
    return ENCODING_NONE;
}

std::string encodingAsString(ContentEncoding encoding) {
    for (const auto& entry : kEncodingNames) {
        if (entry.value == encoding) {
            return entry.name;
        }
    }
    return std::string();
}

}  // namespace Corvane
