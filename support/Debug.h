#ifndef ZEMAIL_SUPPORT_DEBUG_H
#define ZEMAIL_SUPPORT_DEBUG_H

#include <cstdint>
#include <string>

// The debug channel. A record is written only when the process debug mask
// holds both the IMAP engine's zone bit (0x80000) and the trace level bit
// (0x8). The mask starts from the environment variable ZEMAIL_DEBUG_MASK
// (decimal, or hexadecimal with 0x), read on first use, and can be changed by
// the program at any time. Records go to standard error, or appended to the
// file named by ZEMAIL_DEBUG_FILE or set_debug_output(). Each record is one
// line: "<unit>::<function>:<line>: <text>". Thread-safe: records from
// several threads never interleave within a line.
namespace basepp {
namespace dbg {

constexpr std::uint32_t kZoneImap = 0x80000;
constexpr std::uint32_t kLevelTrace = 0x8;

// The current process debug mask.
std::uint32_t nCfg_debug_zone();
void set_debug_zone(std::uint32_t mask);

// True when a debug() record would be written now; lets callers skip building
// expensive texts.
bool enabled();

// Sends records to the file at path (appended), or to standard error when the
// path is empty. Returns false, and keeps the old output, when the file cannot
// be opened.
bool set_debug_output(const std::string& path);

// Writes one record (printf-style text) when enabled(); unit is the source
// unit name without extension ("ZePipe"), function the operation's name.
void debug(const char* unit, int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace dbg
}  // namespace basepp

// Conditions an administrator must see: printf-style text to syslog(3) at the
// given level (LOG_ERR, LOG_WARNING, ...), facility mail, ident "zemail".
void imap_syslog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif
