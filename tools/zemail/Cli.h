// Command line of the zemail program: global options, one command, its
// options and arguments, and the help texts.
#ifndef ZEMAIL_TOOLS_CLI_H
#define ZEMAIL_TOOLS_CLI_H

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace zemail::tool {

// A command line that cannot be run; the text is the one-line message.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct OptionSpec {
    std::string name;  // without the leading "--"
    bool takes_value;
    std::string help;
};

struct CommandSpec {
    std::string name;
    std::string arguments;  // as shown in the usage line, e.g. "FOLDER UID"
    std::size_t min_args;
    std::size_t max_args;
    std::vector<OptionSpec> options;
    std::string summary;
};

struct Invocation {
    std::string command;                         // empty: no command given
    std::map<std::string, std::string> options;  // global and command options ("" for flags)
    std::vector<std::string> args;
    bool help = false;

    bool has(const std::string& option) const { return options.count(option) != 0; }
    std::string get(const std::string& option, const std::string& fallback = "") const;
    // The option as a number in [low, high]; UsageError when it is not one.
    long number(const std::string& option, long fallback, long low, long high) const;
};

const std::vector<OptionSpec>& global_options();
const std::vector<CommandSpec>& commands();
const CommandSpec* find_command(const std::string& name);

// Options may stand before or after the command, as "--name value" or
// "--name=value"; "--" ends the options. Throws UsageError.
Invocation parse_command_line(const std::vector<std::string>& argv);

// The general help, or one command's.
std::string help_text(const std::string& command = "");

}  // namespace zemail::tool

#endif
