#include "tests/support/ScriptedImapServer.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace zetest {

namespace {

// Text for inside double quotes in sh, with "$tag" left to expand.
std::string sh_quoted(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 4, "$tag") == 0) {
            out += "${tag}";
            i += 3;
            continue;
        }
        const char c = text[i];
        if (c == '"' || c == '\\' || c == '$' || c == '`') {
            out += '\\';
        }
        out += c;
    }
    return out;
}

// A glob pattern for sh's case: * and ? match, "\\*" is a star itself;
// everything else is quoted.
std::string sh_pattern(const std::string& glob) {
    std::string out;
    for (std::size_t i = 0; i < glob.size(); ++i) {
        const char c = glob[i];
        if (c == '\\' && i + 1 < glob.size()) {
            out += '\\';
            out += glob[++i];
        } else if (c == '*' || c == '?') {
            out += c;
        } else {
            out += '\\';
            out += c;
        }
    }
    return out;
}

std::string read_or_empty(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

ScriptedImapServer::ScriptedImapServer() : m_dir("zemail-scripted") {
    m_program = m_dir.path() + "/imap";
    m_log = m_dir.path() + "/commands.log";
    _write();
}

void ScriptedImapServer::on(const std::string& pattern, const std::vector<std::string>& reply,
                            bool once) {
    m_rules.push_back(Rule{pattern, reply, once});
    _write();
}

void ScriptedImapServer::_write() {
    std::ostringstream s;
    s << "#!/bin/sh\n"
      << "log=\"" << sh_quoted(m_log) << "\"\n"
      << ": >> \"$log\"\n"
      << "printf '* PREAUTH [CAPABILITY IMAP4rev1] scripted\\r\\n'\n"
      << "while IFS= read -r line; do\n"
      << "  line=$(printf '%s' \"$line\" | tr -d '\\r')\n"
      << "  printf '%s\\n' \"$line\" >> \"$log\"\n"
      << "  tag=${line%% *}\n"
      << "  cmd=${line#* }\n"
      << "  case \"$cmd\" in\n"
      << "    APPEND*\\{*\\})\n"
      << "      n=${cmd##*\\{}; n=${n%\\}}\n"
      << "      " << (m_before_literal.empty() ? ":" : m_before_literal) << "\n"
      << "      printf '+ go\\r\\n'\n"
      << "      [ \"$n\" -gt 0 ] && dd bs=\"$n\" count=1 iflag=fullblock 2>/dev/null >> "
         "\"$log.literal\"\n"
      << "      IFS= read -r rest\n"
      << "      ;;\n"
      << "  esac\n"
      << "  handled=0\n";
    for (std::size_t i = 0; i < m_rules.size(); ++i) {
        const Rule& rule = m_rules[i];
        const std::string once = "\"$log.once" + std::to_string(i) + "\"";
        s << "  [ $handled = 0 ] && case \"$cmd\" in " << sh_pattern(rule.pattern) << ")\n";
        if (rule.once) {
            s << "    if [ ! -e " << once << " ]; then : > " << once << "\n";
        } else {
            s << "    if true; then\n";
        }
        s << "      handled=1\n";
        for (const std::string& line : rule.reply) {
            if (line == "@EXIT") {
                s << "      exit 0\n";
            } else if (line == "@KILL") {
                s << "      kill -9 $$\n";
            } else {
                s << "      printf '%s\\r\\n' \"" << sh_quoted(line) << "\"\n";
            }
        }
        s << "    fi ;;\n  esac\n";
    }
    s << "  [ $handled = 0 ] && printf '%s OK done\\r\\n' \"$tag\"\n"
      << "done\n";
    // A running server keeps reading the script it started with: the new
    // one replaces the file instead of being written into it.
    const std::string fresh = m_dir.write("imap.new", s.str(), true);
    std::rename(fresh.c_str(), m_program.c_str());
}

void ScriptedImapServer::before_literal(const std::string& shell) {
    m_before_literal = shell;
    _write();
}

std::vector<std::string> ScriptedImapServer::commands() const {
    std::vector<std::string> out;
    std::istringstream in(read_or_empty(m_log));
    std::string line;
    while (std::getline(in, line)) {
        out.push_back(line);
    }
    return out;
}

std::vector<std::string> ScriptedImapServer::untagged_commands() const {
    std::vector<std::string> out;
    for (const std::string& line : commands()) {
        const std::string::size_type blank = line.find(' ');
        out.push_back(blank == std::string::npos ? std::string() : line.substr(blank + 1));
    }
    return out;
}

std::string ScriptedImapServer::literals() const {
    return read_or_empty(m_log + ".literal");
}

}  // namespace zetest
