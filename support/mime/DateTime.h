#ifndef ZEMAIL_SUPPORT_MIME_DATE_TIME_H
#define ZEMAIL_SUPPORT_MIME_DATE_TIME_H

// Message dates as mail carries them in its Date: field (RFC 5322 3.3):
//
//   "Tue, 1 Jul 2003 10:52:37 +0200"
//   "1 Jul 03 10:52 EDT"                     obsolete forms still seen
//   "Tue,  1 Jul 2003 10:52:37 +0200 (CEST)" comments anywhere
//
// Accepted beyond the strict grammar, as readers of real mail must: no day
// name, a day name without its comma, two-digit years (00-49 are 20xx,
// 50-99 19xx) and three-digit ones (+1900), no seconds, month names in any
// case and spelled out ("July"), a "." or "-" between the parts, the zone
// names UT, GMT, Z and the North American ones, military letters (taken as
// +0000, as RFC 5322 advises), no zone at all (+0000). Years run from 1900
// to 9999. Everything else is refused: nothing is guessed.
//
// Input is untrusted: comments nest at most 8 deep, numbers are bounded
// before they are used, nothing outside the text is read.

#include <ctime>
#include <string>

namespace Corvane {

// True and the time in seconds since 1970 (UTC) in *out for a date the
// rules above accept; false, *out untouched, for anything else.
bool parseRfc5322Date(const std::string& text, time_t* out);

}  // namespace Corvane

#endif
