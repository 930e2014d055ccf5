#ifndef ZEMAIL_SUPPORT_MIME_CONTENT_ENCODING_H
#define ZEMAIL_SUPPORT_MIME_CONTENT_ENCODING_H

#include <string>

namespace Corvane {

// Content-Transfer-Encoding values; 0 when unset or not recognised.
enum ContentEncoding {
    ENCODING_NONE = 0,
    ENCODING_7BIT = 1,
    ENCODING_8BIT = 2,
    ENCODING_BINARY = 3,
    ENCODING_QUOTED_PRINTABLE = 4,
    ENCODING_BASE64 = 5,
    ENCODING_UUENCODE = 6,
};

// Case-insensitive; surrounding blanks and quotes ignored; unknown gives 0.
ContentEncoding stringAsEncoding(const std::string& text);
// "7bit", "8bit", "binary", "quoted-printable", "base64", "x-uuencode"; "" for 0.
std::string encodingAsString(ContentEncoding encoding);

}  // namespace Corvane

#endif
