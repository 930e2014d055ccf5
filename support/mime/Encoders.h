#ifndef ZEMAIL_SUPPORT_MIME_ENCODERS_H
#define ZEMAIL_SUPPORT_MIME_ENCODERS_H

// Content-Transfer-Encoding filters. Each returned stream transforms the bytes
// written to it and forwards the result to the stream given; pieces may be
// split anywhere (a quoted-printable "=3D" or a base64 quad may straddle two
// writes). end() writes what is still pending and then calls end() on the
// stream below, so call it once after the last write.
//
//   std::string wire;
//   MediaOut enc = get_encoder(ENCODING_BASE64, MediaOut::toString(wire));
//   enc->write(data, len);
//   enc->end();
//
// Encoders break lines with EmailLineBreak ("\n"):
// - base64: lines of 76 characters, the last one ended by a line break too;
// - quoted-printable (RFC 2045 6.7): "=XX" in upper case for '=', bytes
//   outside 33..126 other than blank and tab, a blank or tab ending a line,
//   and a lone CR; LF and CRLF in the input are hard line breaks; soft breaks
//   ("=" + line break) keep every line at most 76 characters;
// - x-uuencode: "begin 644 <name>" (the name from the content type when one
//   is known, else "data"), 45-byte lines, "`" and "end";
// - 7bit, 8bit, binary and none: bytes unchanged.
//
// Decoders never fail on bad input, they do their best:
// - base64 skips every byte outside the alphabet, tolerates missing padding,
//   and restarts after padding (so concatenated encodings decode);
// - quoted-printable joins soft line breaks ("=" then optional blanks then
//   LF or CRLF), decodes "=XX" in either case, passes any other "=" sequence
//   through as it is, and drops blanks that end a line (RFC 2045: they were
//   added in transport);
// - x-uuencode decodes the lines between "begin" and "end", skipping others;
// - 7bit, 8bit, binary and none: bytes unchanged.
// When a decoder is given a content type of media type text, CRLF in the
// decoded bytes becomes "\n", the library's line end.

#include <string>

#include "support/Media.h"
#include "support/mime/ContentEncoding.h"
#include "support/mime/ContentType.h"

namespace Corvane {

// A null handle when out is null. The content type, when given, only names
// the file of an x-uuencode encoding.
MediaOut get_encoder(ContentEncoding encoding, MediaOut out);
MediaOut get_encoder(ContentEncoding encoding, MediaOut out, const ContentType* type);
MediaOut get_decoder(ContentEncoding encoding, MediaOut out, const ContentType* type = nullptr);

// Whole-string conveniences over the streams above.
std::string encode_string(ContentEncoding encoding, const std::string& data);
std::string decode_string(ContentEncoding encoding, const std::string& data);

}  // namespace Corvane

#endif
