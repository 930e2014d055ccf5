#ifndef ZEMAIL_STORES_ZE_MAILDIR_NAME_H
#define ZEMAIL_STORES_ZE_MAILDIR_NAME_H

// The file names of a Maildir message, read and rebuilt without touching the
// disk. A name as the appliance writes it:
//
//   1700000000.M12P345.host,U17,#F#S#4711:2,FS
//   `-- date --'
//   `---------- base -----'                      up to the first ","
//                                        `-'     info part after ":2,"
//                                                (":3," when no ":2,")
//
// Delivery agents other than the IMAP server write no "," before the info
// part (1700000000.M1P1.host:2,S); the base then ends at the ":2," or ":3,"
// marker, whichever of the first "," and the marker comes first.
//
// - The name begins with the delivery time in decimal; a name that does not
//   begin with a digit has date 0.
// - Every character of the info part is a flag letter; bytes of 128 and above
//   are ignored.
// - ",#F#S#" followed by digits carries the size in bytes. The composer's own
//   spelling ",#F#S<digits>#E" (no "#" before the digits) is not this marker:
//   such a name has no size of its own and the file's length is used.
// - The IMAP server writes the file's length as ",S=<digits>" before the info
//   part (1700000000.M1P1.host,S=4711,W=4790:2,S); that is a size too.
// - ",U<uid>" is read only as the end of the stable prefix of a name (see
//   stablePrefix).
//
// Helper unit of ZeMaildir and its tests; every function is pure and
// thread-safe.

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

namespace ZeMaildirName {

// One bit per 7-bit character: bit c is set when c stands in the info part.
using FlagChars = std::bitset<128>;

constexpr const char kInfo2[] = ":2,";
constexpr const char kInfo3[] = ":3,";
constexpr const char kSizeMarker[] = ",#F#S#";
constexpr const char kServerSize[] = ",S=";
constexpr const char kUidMarker[] = ",U";

// Everything before the first "," or before a ":2," / ":3," marker that
// comes first; the whole name when it has neither.
//   basename("1.M1.h,S=5:2,S") == "1.M1.h", basename("1.M1.h:2,S") == "1.M1.h"
std::string basename(const std::string& name);
// The length of the base name of name[0, length).
std::size_t baseLength(const char* name, std::size_t length);
// The same when the first "," of the name stands at comma: the base ends
// there, or two bytes before when that "," closes a ":2," or ":3," marker.
inline std::size_t baseLengthAtComma(const char* name, std::size_t comma) {
    const bool marker =
        comma >= 2 && name[comma - 2] == ':' && (name[comma - 1] == '2' || name[comma - 1] == '3');
    return marker ? comma - 2 : comma;
}

// The position right after the first ":2,", else after the first ":3,";
// std::string::npos when the name has neither.
std::string::size_type infoStart(const std::string& name);

// The flag characters of the info part (none without one).
FlagChars flagChars(const std::string& name);

// The flag bits of the letters, as the Maildir table of ZeMessageFlags
// gives them (getMaildirFlagRev); letters that are no flag count nothing.
unsigned long flagBits(const FlagChars& letters);

// The size written after ",#F#S#" (the number strtoul reads there, capped at
// 4294967295). False, and size untouched, when the marker is absent.
bool sizeFromName(const std::string& name, std::uint32_t* size);

// The size the IMAP server writes into its names: ",S=" and at least one
// digit, ended by ",", ":" or the end of the name, before the info part
// (capped at 4294967295). False, and size untouched, without one.
bool serverSizeFromName(const std::string& name, std::uint32_t* size);

// The leading decimal digits as seconds since 1970; 0 when the name does not
// begin with a digit, the largest time_t when the digits overflow it.
time_t date(const std::string& name);

// The name after a flag change: the name up to and including its info marker
// (":2,", else ":3,"; a name without one gets ":2,"), then every character of
// flags in ascending code.
//   newName("123.host:2,SF", {D,F,S}) == "123.host:2,DFS"
std::string newName(const std::string& name, const FlagChars& flags);

// The length of the part of a name that stays when its flags change: up to
// the first ",U", else ":2,", else ":3,", else ",#F#S#". std::string::npos
// when none of them occurs.
std::string::size_type stablePrefix(const std::string& name);

}  // namespace ZeMaildirName

#endif
