// The zemail program's commands over the library's mailbox model.
#ifndef ZEMAIL_TOOLS_COMMANDS_H
#define ZEMAIL_TOOLS_COMMANDS_H

#include <ostream>
#include <stdexcept>

#include "tools/zemail/Cli.h"

namespace zemail::tool {

// A command that ran and failed; the text is the one-line message.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Runs the parsed command, printing to out. Throws UsageError or
// CommandError; returns the exit code otherwise (0).
int run_command(const Invocation& call, std::ostream& out);

}  // namespace zemail::tool

#endif
