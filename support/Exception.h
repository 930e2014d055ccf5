#ifndef ZEMAIL_SUPPORT_EXCEPTION_H
#define ZEMAIL_SUPPORT_EXCEPTION_H

#include <exception>
#include <string>

namespace Corvane {

// The library's one exception type: a text for people, a numeric code for
// programs (1 misuse of a handle, 4 a failure the caller must handle), and the
// source file and line that raised it. what() gives the text alone.
class Exception : public std::exception {
public:
    Exception(std::string text, int code, const char* file = nullptr, int line = 0)
        : m_text(std::move(text)), m_code(code), m_file(file ? file : ""), m_line(line) {}

    const char* what() const noexcept override { return m_text.c_str(); }
    const std::string& text() const noexcept { return m_text; }
    int code() const noexcept { return m_code; }
    const std::string& file() const noexcept { return m_file; }
    int line() const noexcept { return m_line; }

private:
    std::string m_text;
    int m_code;
    std::string m_file;
    int m_line;
};

}  // namespace Corvane

#endif
