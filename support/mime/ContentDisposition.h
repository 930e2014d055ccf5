#ifndef ZEMAIL_SUPPORT_MIME_CONTENT_DISPOSITION_H
#define ZEMAIL_SUPPORT_MIME_CONTENT_DISPOSITION_H

#include <map>
#include <string>

namespace Corvane {

// A Content-Disposition value: its type and parameters, with the file name
// decoded to UTF-8 (RFC 2231 continuations and charsets, RFC 2047 words).
//
//   ContentDisposition d("attachment;\n filename*0*=utf-8''r%C3%A9;\n filename*1=sum.pdf");
//   d.type() == ContentDisposition::ATTACHMENT, d.utf8fileName() == "résum.pdf"
class ContentDisposition {
public:
    enum Type { NONE = 0, ATTACHMENT = 1, INLINE = 2 };

    ContentDisposition() = default;
    explicit ContentDisposition(const std::string& value) { parse(value); }
    // Parses a header value; an unknown type word gives NONE, parameters are
    // still read.
    void parse(const std::string& value);

    Type type() const { return m_type; }
    std::string param(const std::string& name) const;
    // The filename parameter in UTF-8, "" when absent.
    std::string utf8fileName() const { return param("filename"); }
    // Every parameter, lower-case name -> decoded value.
    const std::map<std::string, std::string>& params() const { return m_params; }

private:
    Type m_type = NONE;
    std::map<std::string, std::string> m_params;  // lower-case name -> decoded UTF-8 value
};

// "attachment", "inline"; "" for NONE.
std::string dispositionAsString(ContentDisposition::Type type);
ContentDisposition::Type stringAsDisposition(const std::string& text);

}  // namespace Corvane

#endif
