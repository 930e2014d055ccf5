// zemail: one user's mail from the command line, through the IMAP server or
// directly on disk. See `zemail --help`.
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "tools/zemail/Cli.h"
#include "tools/zemail/Commands.h"

int main(int argc, char** argv) {
    using namespace zemail::tool;
    try {
        const Invocation call = parse_command_line(std::vector<std::string>(argv + 1, argv + argc));
        if (call.help || call.command.empty()) {
            std::cout << help_text(call.command);
            return call.help ? 0 : 2;
        }
        return run_command(call, std::cout);
    } catch (const UsageError& e) {
        std::cerr << "zemail: " << e.what() << "\n";
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "zemail: " << e.what() << "\n";
        return 1;
    }
}
