#ifndef ZEMAIL_SUPPORT_MIME_RFC2047_H
#define ZEMAIL_SUPPORT_MIME_RFC2047_H

// RFC 2047 encoded words ("=?utf-8?B?w6k=?=") in header values, and charset
// conversion to UTF-8 through iconv.
//
//   vantro_encode_rfc2047("résumé.pdf")          == "=?utf-8?B?csOpc3Vtw6kucGRm?="
//   vantro_decode_rfc2047("=?iso-8859-1?Q?r=E9sum=E9?= .pdf") == "résumé .pdf"
//
// Every function here is thread-safe and never throws on bad input.

#include <string>

#include "support/mime/Email.h"

// Text unchanged when it is printable ASCII without "=?" and "?=" (so it
// cannot be read back as an encoded word); otherwise the whole text as encoded
// words "=?<charset>?B?...?=", each at most 75 characters, split only between
// UTF-8 characters and separated by one blank. The charset name is only
// written into the words: the text must already be in that charset.
std::string vantro_encode_rfc2047(const std::string& text, const std::string& charset = "utf-8");

// Decodes every well-formed encoded word (B or Q, any case, an RFC 2231
// language suffix "utf-8*en" allowed) into UTF-8. Whitespace between two
// adjacent encoded words is dropped, so a value split over several words
// joins up. A word whose charset iconv does not know, or which is malformed,
// stays as written; so does everything outside encoded words.
std::string vantro_decode_rfc2047(const std::string& text);

namespace Corvane {

// Converts in (in charset) to UTF-8 into out. Invalid or incomplete byte
// sequences become U+FFFD. Returns false, with out left empty, when iconv does
// not know the charset. "us-ascii" and "utf-8" are checked rather than
// converted; names are case-insensitive.
bool convert_to_utf8(const std::string& charset, const std::string& in, std::string& out);

// The same two functions inside the library's namespace.
using ::vantro_decode_rfc2047;
using ::vantro_encode_rfc2047;

}  // namespace Corvane

#endif
