// Fuzz target for the MIME header tools: header blocks (from memory and from
// a stream), Content-Type and Content-Disposition values, RFC 2047 decoding
// and the transfer-encoding decoders.
//
// Besides "no crash, no leak, no overrun" it checks properties that must
// hold for any input:
// - reading the block from a stream gives what reading it from memory gives;
// - every unfolded value is free of line feeds;
// - a decoder gives the same bytes however its input is cut;
// - encoding then decoding gives the input back (for quoted-printable with
//   CRLF turned into LF; for RFC 2047 when the input is UTF-8).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "support/Media.h"
#include "support/mime/ContentDisposition.h"
#include "support/mime/ContentType.h"
#include "support/mime/DateTime.h"
#include "support/mime/Encoders.h"
#include "support/mime/Header.h"
#include "support/mime/Rfc2047.h"

using namespace Corvane;

namespace {

void check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

std::string decodeInPieces(ContentEncoding encoding, const std::string& data, std::size_t cut) {
    std::string out;
    MediaOut dec = get_decoder(encoding, MediaOut::toString(out));
    for (std::size_t pos = 0; pos < data.size(); pos += cut) {
        std::size_t n = data.size() - pos < cut ? data.size() - pos : cut;
        dec->write(data.data() + pos, n);
    }
    dec->end();
    return out;
}

std::string crlfToLf(const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (!(s[i] == '\r' && i + 1 < s.size() && s[i + 1] == '\n')) {
            out += s[i];
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    HeaderContainer headers;
    headers.parse(input.data(), input.size());
    check(headers.parsedLength() <= input.size());
    for (const Header& h : headers.headers()) {
        check(h.value().find('\n') == std::string::npos);
        check(!h.name().empty());
    }
    MediaIn in = MediaIn::fromString(input);
    HeaderContainer streamed;
    streamed.parse(in);
    check(streamed.size() == headers.size());
    check(streamed.parsedLength() == headers.parsedLength());
    MediaIn again = MediaIn::fromString(input);
    HeaderContainer head;
    head.parseHead(again);
    check(head.size() == headers.size());
    check(head.parsedLength() == headers.parsedLength());

    // Dates: anything accepted lies between 1900 and 9999, give or take a
    // zone of at most 99:59.
    for (const std::string& value : {headers.get("Date"), input}) {
        time_t when = 0;
        if (parseRfc5322Date(value, &when)) {
            check(when >= -2208988800 - 360000 && when <= 253402300800 + 360000);
        }
    }

    // The values as the rest of the library reads them, and the whole input
    // as one value too.
    for (const std::string& value :
         {headers.get("Content-Type"), headers.get("Content-Disposition"), input}) {
        ContentType type(value);
        type.utf8name();
        type.boundary();
        subTypeAsString(type.subType());
        ContentDisposition disposition(value);
        disposition.utf8fileName();
    }
    stringAsEncoding(headers.get("Content-Transfer-Encoding"));
    vantro_decode_rfc2047(input);
    vantro_decode_rfc2047(headers.get("Subject"));

    // Decoders over the input, whole and cut in pieces of a size taken
    // from the first byte.
    std::size_t cut = size > 0 ? 1 + data[0] % 7 : 1;
    for (ContentEncoding encoding :
         {ENCODING_BASE64, ENCODING_QUOTED_PRINTABLE, ENCODING_UUENCODE}) {
        std::string whole = decode_string(encoding, input);
        check(whole == decodeInPieces(encoding, input, cut));
    }
    check(decode_string(ENCODING_BASE64, encode_string(ENCODING_BASE64, input)) == input);
    check(decode_string(ENCODING_QUOTED_PRINTABLE,
                        encode_string(ENCODING_QUOTED_PRINTABLE, input)) == crlfToLf(input));
    std::string utf8;
    if (convert_to_utf8("utf-8", input, utf8) && utf8 == input) {
        check(vantro_decode_rfc2047(vantro_encode_rfc2047(input)) == input);
    }
    return 0;
}
