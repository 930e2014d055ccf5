#ifndef ZEMAIL_SUPPORT_MIME_HEADER_H
#define ZEMAIL_SUPPORT_MIME_HEADER_H

// A message's header block (RFC 5322 section 2.2) as an ordered list of
// fields.
//
//   HeaderContainer h;
//   h.parse(text.data(), text.size());
//   h.get("subject");                  // first Subject, unfolded, "" if absent
//   h.getAll("Received");              // every Received, in order
//
// Parsing is lenient, for mail as found on disk and on the wire: CRLF and LF
// line ends alike; bytes above 127 kept as they are; an mbox "From " line at
// the very top ignored; a line without a colon (and the lines folded under
// it) skipped as a defect; a block without a blank line at its end ends with
// the input. Time and memory are linear in the input, however the lines fold.

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "support/Media.h"

namespace Corvane {

class Header {
public:
    Header() = default;
    // A field made by the program: raw() becomes "<name>: <value>" and a line
    // break (EmailLineBreak).
    Header(const std::string& name, const std::string& value);
    // A field as read: raw holds its lines with their line ends.
    Header(std::string name, std::string value, std::string raw)
        : m_name(std::move(name)), m_value(std::move(value)), m_raw(std::move(raw)) {}

    // The field name as written, without the blanks some writers put before
    // the colon.
    const std::string& name() const { return m_name; }
    // The body unfolded: each line break followed by a blank or tab is
    // removed (the blank stays), blanks after the colon are dropped, and the
    // final line end is gone. Encoded words are left as they are.
    const std::string& value() const { return m_value; }
    // The field's bytes exactly as read, final line end included.
    const std::string& raw() const { return m_raw; }

    // Case-insensitive comparison of the name.
    bool is(const std::string& name) const;

private:
    std::string m_name;
    std::string m_value;
    std::string m_raw;
};

class HeaderContainer {
public:
    // Reading a header block from a stream stops after this many bytes; what
    // was read until then is kept. Protects against a "header" that is
    // really a whole file without a blank line.
    static constexpr std::size_t kMaxStreamBytes = 32u << 20;

    // Replaces the content with the header block at the start of
    // [data, data + length). Returns true when at least one field was read.
    bool parse(const char* data, std::size_t length);
    // The same from a stream: reads up to and including the blank line that
    // ends the block (the stream then stands on the body), or to the end. A
    // null handle reads as empty.
    bool parse(MediaIn& in);
    // The same for callers that do not read on: the stream is read in large
    // chunks and left anywhere past the block.
    bool parseHead(MediaIn& in);

    std::size_t size() const { return m_headers.size(); }
    bool empty() const { return m_headers.empty(); }
    // Bytes of the block consumed by the last parse, blank line included.
    std::size_t parsedLength() const { return m_parsed; }

    // The first field of that name (case-insensitive), or nullptr.
    const Header* find(const std::string& name) const;
    // Its value, "" when absent.
    std::string get(const std::string& name) const;
    // Every value of that name, in order.
    std::vector<std::string> getAll(const std::string& name) const;
    // Every field, in the order read or added.
    const std::vector<Header>& headers() const { return m_headers; }

    // Appends a field; set() replaces every field of that name by one at the
    // place of the first (appended when there is none); remove() drops them
    // all and returns how many there were.
    void add(const std::string& name, const std::string& value);
    void add(const Header& header) { m_headers.push_back(header); }
    void set(const std::string& name, const std::string& value);
    std::size_t remove(const std::string& name);
    void clear();

    // The fields as raw() gives them, in order (no blank line after them).
    std::string asString() const;

private:
    std::vector<Header> m_headers;
    std::size_t m_parsed = 0;
};

}  // namespace Corvane

#endif
