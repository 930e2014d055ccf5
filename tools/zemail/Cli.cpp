#include "tools/zemail/Cli.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace zemail::tool {

std::string Invocation::get(const std::string& option, const std::string& fallback) const {
    const auto found = options.find(option);
    return found == options.end() ? fallback : found->second;
}

long Invocation::number(const std::string& option, long fallback, long low, long high) const {
    const auto found = options.find(option);
    if (found == options.end()) {
        return fallback;
    }
    const std::string& text = found->second;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < low || value > high) {
        throw UsageError("--" + option + " needs a number from " + std::to_string(low) + " to " +
                         std::to_string(high) + ", not '" + text + "'");
    }
    return value;
}

const std::vector<OptionSpec>& global_options() {
    static const std::vector<OptionSpec> options = {
        {"user", true, "the mail user (ADDRESS, e.g. ann@example.org); default $ZEMAIL_USER"},
        {"type", true, "mailbox type of the user: default, maildir, mbox (default: default)"},
        {"direct", false, "read and change the store on disk instead of through the IMAP server"},
        {"imap-program", true, "the IMAP server program to start (default $ZEMAIL_IMAP_PROGRAM)"},
        {"mail-root", true, "the folder holding the users' mail (default $ZEMAIL_MAIL_ROOT)"},
        {"json", false, "print JSON instead of tables"},
        {"help", false, "show help"},
    };
    return options;
}

const std::vector<CommandSpec>& commands() {
    static const std::vector<CommandSpec> table = {
        {"folders", "", 0, 0, {}, "list the folders: order, counters, sizes"},
        {"list",
         "FOLDER",
         1,
         1,
         {{"page", true, "page number, 1 = newest (default 1)"},
          {"per-page", true, "messages per page (default 25)"},
          {"search", true, "only messages whose headers or text hold TEXT"},
          {"unseen", false, "only unread messages"},
          {"flagged", false, "only flagged messages"},
          {"from", true, "only messages whose From holds TEXT"},
          {"subject", true, "only messages whose Subject holds TEXT"},
          {"attachment", false, "only messages with attachments"}},
         "list a folder's messages, newest first"},
        {"show",
         "FOLDER UID",
         2,
         2,
         {{"raw", false, "print the whole message as stored"},
          {"section", true, "print one body section, e.g. 1.2"}},
         "show one message: headers, structure and body"},
        {"flag",
         "FOLDER UID CHANGE...",
         3,
         64,
         {},
         "change flags: +Flag adds, -Flag removes, =Flag,Flag replaces (Seen, Answered, Flagged, "
         "Deleted, Draft or a keyword)"},
        {"move", "FOLDER UID TARGET", 3, 3, {}, "move a message to another folder"},
        {"delete",
         "FOLDER UID",
         2,
         2,
         {{"permanent", false, "remove at once instead of marking it deleted"}},
         "delete a message"},
        {"expunge", "FOLDER", 1, 1, {}, "remove the messages marked deleted"},
        {"append",
         "FOLDER FILE",
         2,
         2,
         {{"flags", true, "flags of the new message, e.g. Seen,Flagged"}},
         "add a message file to a folder"},
        {"quota", "", 0, 0, {}, "show the quota and the usage"},
    };
    return table;
}

const CommandSpec* find_command(const std::string& name) {
    for (const auto& command : commands()) {
        if (command.name == name) {
            return &command;
        }
    }
    return nullptr;
}

namespace {

const OptionSpec* find_option(const std::vector<OptionSpec>& options, const std::string& name) {
    for (const auto& option : options) {
        if (option.name == name) {
            return &option;
        }
    }
    return nullptr;
}

}  // namespace

Invocation parse_command_line(const std::vector<std::string>& argv) {
    Invocation call;
    const CommandSpec* command = nullptr;
    bool options_ended = false;
    std::vector<std::string> words;
    for (std::size_t i = 0; i < argv.size(); ++i) {
        const std::string& word = argv[i];
        if (options_ended || word.size() < 2 || word[0] != '-') {
            if (command == nullptr && call.command.empty()) {
                command = find_command(word);
                if (command == nullptr) {
                    throw UsageError("unknown command '" + word + "' (try zemail --help)");
                }
                call.command = word;
            } else {
                call.args.push_back(word);
            }
            continue;
        }
        if (word == "--") {
            options_ended = true;
            continue;
        }
        if (word == "-h") {
            call.help = true;
            continue;
        }
        if (word.compare(0, 2, "--") != 0) {
            // "-Seen" style words are arguments of the flag command.
            if (command != nullptr && command->name == "flag") {
                call.args.push_back(word);
                continue;
            }
            throw UsageError("unknown option '" + word + "'");
        }
        std::string name = word.substr(2);
        std::string value;
        bool has_value = false;
        const auto equals = name.find('=');
        if (equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
            has_value = true;
        }
        const OptionSpec* option = find_option(global_options(), name);
        if (option == nullptr && command != nullptr) {
            option = find_option(command->options, name);
        }
        if (option == nullptr) {
            throw UsageError("unknown option '--" + name + "'" +
                             (command ? " for " + command->name : std::string()));
        }
        if (option->takes_value && !has_value) {
            if (i + 1 >= argv.size()) {
                throw UsageError("--" + name + " needs a value");
            }
            value = argv[++i];
        } else if (!option->takes_value && has_value) {
            throw UsageError("--" + name + " takes no value");
        }
        if (name == "help") {
            call.help = true;
        } else {
            call.options[name] = value;
        }
    }
    if (call.help || command == nullptr) {
        return call;
    }
    if (call.args.size() < command->min_args || call.args.size() > command->max_args) {
        throw UsageError("usage: zemail " + command->name +
                         (command->arguments.empty() ? "" : " " + command->arguments) +
                         " (try zemail " + command->name + " --help)");
    }
    return call;
}

namespace {

void list_options(std::ostringstream& out, const std::vector<OptionSpec>& options) {
    for (const auto& option : options) {
        std::string left = "  --" + option.name + (option.takes_value ? " VALUE" : "");
        if (left.size() < 24) {
            left.resize(24, ' ');
        } else {
            left += "  ";
        }
        out << left << option.help << '\n';
    }
}

}  // namespace

std::string help_text(const std::string& name) {
    std::ostringstream out;
    const CommandSpec* command = find_command(name);
    if (command != nullptr) {
        out << "usage: zemail [options] " << command->name
            << (command->arguments.empty() ? "" : " " + command->arguments) << "\n\n"
            << command->summary << "\n";
        if (!command->options.empty()) {
            out << "\noptions of " << command->name << ":\n";
            list_options(out, command->options);
        }
        out << "\n";
    } else {
        out << "usage: zemail [options] COMMAND [arguments]\n\n"
            << "Reads and changes one user's mail, through the IMAP server or directly on disk.\n\n"
            << "commands:\n";
        for (const auto& c : commands()) {
            std::string left = "  " + c.name;
            left.resize(12, ' ');
            out << left << c.summary << '\n';
        }
        out << "\n";
    }
    out << "options:\n";
    list_options(out, global_options());
    return out.str();
}

}  // namespace zemail::tool
