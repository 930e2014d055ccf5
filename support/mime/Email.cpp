#include "support/mime/Email.h"

namespace Corvane {

const char* const EmailLineBreak = "\n";

}  // namespace Corvane
