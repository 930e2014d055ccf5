#ifndef ZEMAIL_SUPPORT_MIME_CONTENT_TYPE_H
#define ZEMAIL_SUPPORT_MIME_CONTENT_TYPE_H

#include <cstddef>
#include <map>
#include <string>

namespace Corvane {

// A Content-Type value: media type and subtype as numbers of the one
// enumeration every part of the library shares, and the parameters.
//
//   ContentType ct("text/plain; charset=\"ISO-8859-1\"; name*=utf-8''r%C3%A9sum%C3%A9.txt");
//   ct.mediaType() == ContentType::TEXT, ct.subType() == ContentType::PLAIN,
//   ct.charset() == "ISO-8859-1", ct.utf8name() == "résumé.txt"
class ContentType {
public:
    // Media types by number: fixed across the library and the stores.
    enum MediaType {
        NONE = 0,
        TEXT = 1,
        IMAGE = 2,
        AUDIO = 3,
        VIDEO = 4,
        APPLICATION = 5,
        MULTIPART = 6,
        MESSAGE = 7,
    };

    // One enumeration for the subtypes of every media type; 0 is "not
    // recognised". The values 1, 3, 4, 5, 11, 30, 31 and 39 are used by number
    // elsewhere and never change; new names are added at the end.
    enum SubType {
        UNKNOWN_SUBTYPE = 0,
        DELIVERY_STATUS = 1,  // message/delivery-status: printable
        ENRICHED = 2,
        PLAIN = 3,
        HTML = 4,
        RFC822 = 5,
        PARTIAL = 6,
        EXTERNAL_BODY = 7,
        DISPOSITION_NOTIFICATION = 8,
        RICHTEXT = 9,
        ALTERNATIVE = 10,
        MIXED = 11,
        DIGEST = 12,
        PARALLEL = 13,
        REPORT = 14,
        ENCRYPTED = 15,
        GIF = 16,
        JPEG = 17,
        PNG = 18,
        BMP = 19,
        TIFF = 20,
        OCTET_STREAM = 21,
        PDF = 22,
        ZIP = 23,
        MSWORD = 24,
        POSTSCRIPT = 25,
        BASIC = 26,
        MPEG = 27,
        PGP_SIGNATURE = 28,
        PGP_ENCRYPTED = 29,
        RELATED = 30,
        SIGNED = 31,
        PKCS7_SIGNATURE = 32,
        PKCS7_MIME = 33,
        X_PKCS7_SIGNATURE = 34,
        X_PKCS7_MIME = 35,
        PGP_KEYS = 36,
        CSS = 37,
        XML = 38,
        CALENDAR = 39,
        RFC822_HEADERS = 40,
        GLOBAL = 41,
        MP4 = 42,
        WAV = 43,
        QUICKTIME = 44,
        VCARD = 45,
        JAVASCRIPT = 46,
        JSON = 47,
        MS_TNEF = 48,
        CSV = 49,
        SVG_XML = 50,
        WEBP = 51,
        OGG = 52,
        GZIP = 53,
        X_TAR = 54,
        RTF = 55,
        PGP_KEYS_ALT = 56,  // application/pgp-keys spelled "x-pgp-keys"
        SUBTYPE_COUNT
    };

    ContentType() = default;
    // Parses a header value ("type/subtype; name=value; ..."); a value it
    // cannot read leaves the type and subtype at 0.
    explicit ContentType(const std::string& value) { parse(value); }
    void parse(const std::string& value);

    MediaType mediaType() const { return m_media; }
    SubType subType() const { return m_sub; }
    // The type and subtype texts as written, lower-cased ("" when absent).
    const std::string& typeName() const { return m_type_name; }
    const std::string& subTypeName() const { return m_subtype_name; }

    // Parameter by name, case-insensitive, RFC 2231 continuations joined and
    // decoded to UTF-8 where a charset is given; "" when absent.
    std::string param(const std::string& name) const;
    bool hasParam(const std::string& name) const;
    std::string charset() const { return param("charset"); }
    std::string boundary() const { return param("boundary"); }
    // The name parameter in UTF-8 (RFC 2231 or RFC 2047 encoded words decoded).
    std::string utf8name() const;
    // Every parameter, lower-case name -> decoded value.
    const std::map<std::string, std::string>& params() const { return m_params; }

private:
    MediaType m_media = NONE;
    SubType m_sub = UNKNOWN_SUBTYPE;
    std::string m_type_name;
    std::string m_subtype_name;
    std::map<std::string, std::string> m_params;  // lower-case name -> decoded UTF-8 value
};

// Text to number and back, case-insensitive; unknown texts give 0, unknown
// numbers give "".
ContentType::MediaType stringAsType(const std::string& text);
ContentType::SubType stringAsSubType(const std::string& text);
std::string mediaTypeAsString(ContentType::MediaType type);
std::string subTypeAsString(ContentType::SubType subtype);

// Reads the "; name=value" list of a Content-Type or Content-Disposition
// value from pos on into params (lower-case names). Values may be tokens or
// quoted strings, unquoted values may hold anything but ";" (common in the
// wild), comments are skipped. RFC 2231 continuations ("name*0*=",
// "name*1=", in any order) are joined and, with a charset, converted to
// UTF-8; RFC 2047 encoded words are decoded in every value but the boundary.
// The first of two same-named parameters wins, and the RFC 2231 form wins
// over the plain one.
void parseMimeParameters(const std::string& text, std::size_t pos,
                         std::map<std::string, std::string>& params);

// encrypted, pgp-encrypted, pkcs7-mime, x-pkcs7-mime
bool subTypeIsEncrypted(ContentType::SubType subtype);
// signed, pgp-signature, pkcs7-signature, x-pkcs7-signature
bool subTypeIsSigned(ContentType::SubType subtype);

}  // namespace Corvane

#endif
