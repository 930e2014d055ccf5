#ifndef ZEMAIL_STORES_ZE_MBOX_PARSER_H
#define ZEMAIL_STORES_ZE_MBOX_PARSER_H

// The mbox file format read without touching the disk: where messages begin
// and end, what their From_ lines, Status letters and X-UID headers say, and
// how their ">From " lines are unquoted. ZeMbox feeds the file through a
// Scanner once and keeps the offsets it finds.
//
// An mbox file as the appliance's writers leave it:
//
//   From ann@example.org Mon Mar  7 14:23:23 2011     <- From_ line
//   Status: RO                                        <- message: header
//   X-UID: 17                                         <-
//                                                     <-
//   >From here on, a quoted line                      <- (">From " means "From ")
//                                                     <- the writer's blank line
//   From bob@example.org Tue Mar  8 09:00:00 2011     <- next From_ line
//   ...
//
// How the file is cut:
// - Every line beginning with "From " is a From_ line and starts a message,
//   whatever follows on it and whether or not a blank line precedes it: the
//   readers in common use split the same way, and a From_ line that another
//   reader would take for a separator must never be glued onto the message
//   before it. An unquoted "From " line in a body therefore splits that
//   body in two; both pieces stay messages, no byte is lost.
// - The line end before a From_ line (LF, or CR LF) belongs to the separator:
//   writers put a blank line after each message, so the message keeps its
//   own last line end and loses the blank line. Where the writer left no
//   blank line, the message loses its last line end instead.
// - At the end of the file a last line that is blank is the writer's blank
//   line and is not part of the message; anything else, a message cut short
//   included, is kept as it is.
// - Bytes before the first From_ line are no message (a file that is not an
//   mbox at all has no messages).
// - Lines end at LF; a CR before it is part of the line end; NUL bytes and
//   lines of any length are ordinary content. Memory does not grow with the
//   length of a line: only the first bytes of a line are looked at.
// - A line of one or more ">" followed by "From " is quoted (the mboxrd
//   form): the reader removes one ">". The header fields read are those up to
//   the first blank line.
//
// Helper unit of ZeMbox, its tests and its fuzz target; functions are pure
// and thread-safe, a Scanner or an Unquoter is used by one thread at a time.

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace ZeMboxParser {

// One message of the file, as offsets into it.
struct Entry {
    std::uint64_t separator = 0;  // first byte of its separator: the line end
                                  // before the From_ line (or the From_ line
                                  // itself for the first message)
    std::uint64_t fromLine = 0;   // the "F" of its From_ line
    std::uint64_t begin = 0;      // its first byte, after the From_ line's LF
    std::uint64_t end = 0;        // one past its last byte, as stored
    std::uint64_t size = 0;       // its length once unquoted
    std::uint64_t xuid = 0;       // the X-UID header's value; 0 missing or invalid
    unsigned long uid = 0;        // set by assignUids
    unsigned long flags = 0;      // the Status and X-Status letters as flag bits
    time_t date = 0;              // see Scanner; 0 when unknown
};

// Finds the messages of an mbox file fed to it in pieces of any size, in
// order, in one pass. For each message it records the offsets, the size once
// unquoted, the bits of the letters in its first "Status:" and first
// "X-Status:" header (ZeMessageFlags::getMboxFlagRev, unknown letters
// ignored), its first "X-UID:" header (parseUid) and its date: the From_
// line's date (parseFromLine), else its first "Date:" header (parseDate),
// else 0. Header names are compared without case; folded values are joined.
class Scanner {
public:
    // Bytes of a line looked at before it is classified.
    static constexpr std::size_t kLineHead = 64;
    // Bytes of a From_ line and of a header value kept for parsing; the rest
    // of a longer one is ignored.
    static constexpr std::size_t kMaxFromLine = 1024;
    static constexpr std::size_t kMaxFieldValue = 1024;

    void feed(const char* data, std::size_t length);
    // Ends the input and hands over the messages (uid still 0). The scanner
    // is then empty again.
    std::vector<Entry> finish();

private:
    enum class Phase { Head, GtRun, MatchFrom, FromLine, Value, Skip };
    enum class Field { None, Other, Status, XStatus, XUid, Date };

    void _byte(char c);
    void _classify(bool complete);
    void _endLine(bool hasNewline);
    void _openMessage();
    void _closeMessage(std::uint64_t end);
    void _commitField();
    void _resetLine();

    std::vector<Entry> m_entries;
    std::uint64_t m_pos = 0;  // offset of the next byte

    // The current line.
    std::uint64_t m_lineStart = 0;
    std::uint64_t m_lineLength = 0;  // bytes before its LF
    char m_lastByte = 0;             // its last byte so far
    std::string m_head;
    Phase m_phase = Phase::Head;
    std::size_t m_matched = 0;  // bytes of "From " matched after a ">" run
    bool m_isFromLine = false;

    // The line before it.
    bool m_hadLine = false;
    std::uint64_t m_prevLineEnd = 0;  // first byte of its line end (CR or LF)
    bool m_prevBlank = false;
    std::uint64_t m_prevLineStart = 0;

    // The current message.
    bool m_inMessage = false;
    bool m_inHeader = false;
    Entry m_entry;
    std::uint64_t m_quoted = 0;
    std::string m_fromText;
    Field m_field = Field::None;  // the header field being read
    std::string m_value;
    bool m_seen[6] = {};  // per Field: its first occurrence was taken
    std::string m_status;
    std::string m_xuid;
    std::string m_date;
};

// Removes the quoting ">" of ">From ", ">>From ", ... lines from the bytes
// of one message given in pieces. Lines end at LF; the first byte is at the
// start of a line.
class Unquoter {
public:
    // Appends the unquoted form of the next piece to out.
    void filter(const char* data, std::size_t length, std::string& out);
    // Appends what a piece that ended inside a possible quote held back.
    void finish(std::string& out);

private:
    enum class State { LineStart, Held, Match, Rest };
    State m_state = State::LineStart;
    std::size_t m_matched = 0;
};

// The unquoted form of a whole message.
std::string unquote(const std::string& stored);

// The text of a From_ line after "From " (without its line end): the sender
// (the first word, or a quoted string with its quotes) and the date:
//   ann@example.org Mon Mar  7 14:23:23 2011             local time
//   ann@example.org Mon Mar  7 14:23:23 +0100 2011       with its zone
//   ann@example.org Mon Mar  7 14:23 2011 -0500 remote from x
//   ann@example.org Mon, 7 Mar 2011 14:23:23 -0500       a Date header's form
// The weekday may be missing; seconds too. A date without a zone is the
// machine's local time, as the delivering program wrote it. Writes the
// sender (when sender is not null) and returns the date, or 0 when the rest
// is no date from 1970 on.
time_t parseFromLine(const char* text, std::size_t length, std::string* sender);

// A "Date:" header's value as Corvane::parseRfc5322Date reads it; 0 when it
// is no date from 1970 on.
time_t parseDate(const std::string& value);

// The bits of the mbox status letters in text (see ZeMessageFlags).
unsigned long statusFlags(const std::string& text);

// An X-UID value: decimal digits, blanks around them allowed, 1 to
// 4294967295 (the range of IMAP UIDs); 0 for anything else.
std::uint64_t parseUid(const std::string& value);

// Gives every message a UID, in file order: its X-UID when it has one that
// no earlier message holds; otherwise the smallest number not held by an
// earlier message that is at least its 1-based position and above the last
// number given this way. UIDs are unique, and a message's UID depends only
// on the messages before it, so they stay as they are while mail is added at
// the end of the file. (A program that deletes messages from the middle
// keeps UIDs only through X-UID headers.)
void assignUids(std::vector<Entry>& entries);

}  // namespace ZeMboxParser

#endif
