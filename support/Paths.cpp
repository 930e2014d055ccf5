#include "support/Paths.h"

#include <cstdlib>
#include <mutex>

namespace zemail {
namespace paths {
namespace {

struct Table {
    std::mutex lock;
    std::string imap = "/bin/imap";
    std::string submit = "/bin/smtpd";
    std::string spool = "/var/spool";
    std::string mail_root;  // empty: under the spool prefix

    Table() {
        take("ZEMAIL_IMAP_PROGRAM", imap);
        take("ZEMAIL_SUBMIT_PROGRAM", submit);
        take("ZEMAIL_SPOOL_DIR", spool);
        take("ZEMAIL_MAIL_ROOT", mail_root);
    }
    static void take(const char* name, std::string& into) {
        const char* value = std::getenv(name);
        if (value && *value) {
            into = value;
        }
    }
};

Table& table() {
    static Table instance;
    return instance;
}

std::string get(std::string Table::*field) {
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    return t.*field;
}

void set(std::string Table::*field, const std::string& value) {
    Table& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    t.*field = value;
}

}  // namespace

std::string imap_program() {
    return get(&Table::imap);
}
std::string submit_program() {
    return get(&Table::submit);
}
std::string spool_dir() {
    return get(&Table::spool);
}

std::string mail_root() {
    std::string root = get(&Table::mail_root);
    return root.empty() ? spool_path("mail") : root;
}

std::string spool_path(const std::string& relative) {
    std::string base = spool_dir();
    if (relative.empty()) {
        return base;
    }
    if (!base.empty() && base.back() == '/') {
        base.pop_back();
    }
    return relative.front() == '/' ? base + relative : base + "/" + relative;
}

void set_imap_program(const std::string& path) {
    set(&Table::imap, path);
}
void set_submit_program(const std::string& path) {
    set(&Table::submit, path);
}
void set_spool_dir(const std::string& path) {
    set(&Table::spool, path);
}
void set_mail_root(const std::string& path) {
    set(&Table::mail_root, path);
}

}  // namespace paths
}  // namespace zemail
