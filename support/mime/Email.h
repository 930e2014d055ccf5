#ifndef ZEMAIL_SUPPORT_MIME_EMAIL_H
#define ZEMAIL_SUPPORT_MIME_EMAIL_H

namespace Corvane {

// The line break of every message the library writes: "\n". Messages are kept
// in the stores and handed to the submission program with Unix line ends;
// the encoders (support/mime/Encoders.h) break their lines with it too.
extern const char* const EmailLineBreak;

}  // namespace Corvane

#endif
