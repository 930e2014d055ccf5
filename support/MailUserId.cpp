#include "support/MailUserId.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <vector>

#include "support/Paths.h"

namespace {

std::string local_part(const std::string& name) {
    const std::string::size_type at = name.find('@');
    return at == std::string::npos ? name : name.substr(0, at);
}

std::string domain_part(const std::string& name) {
    const std::string::size_type at = name.find('@');
    return at == std::string::npos || at + 1 == name.size() ? "localhost" : name.substr(at + 1);
}

bool is_inbox(const std::string& folder) {
    static const char kInbox[] = "inbox";
    if (folder.size() != sizeof kInbox - 1) {
        return false;
    }
    for (std::size_t i = 0; i < folder.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(folder[i])) != kInbox[i]) {
            return false;
        }
    }
    return true;
}

// One level of a home path: no separator, no blank or control character,
// not empty and not a reference to the current or parent directory.
bool is_safe_level(const std::string& level) {
    if (level.empty() || level == "." || level == "..") {
        return false;
    }
    return std::none_of(level.begin(), level.end(), [](char c) {
        const unsigned char u = static_cast<unsigned char>(c);
        return c == '/' || u <= ' ' || u == 0x7f;
    });
}

std::vector<std::string> split_levels(const std::string& text) {
    std::vector<std::string> levels;
    std::string::size_type start = 0;
    for (;;) {
        const std::string::size_type slash = text.find('/', start);
        levels.push_back(text.substr(start, slash - start));
        if (slash == std::string::npos) {
            return levels;
        }
        start = slash + 1;
    }
}

bool has_parent_level(const std::string& path) {
    const std::vector<std::string> levels = split_levels(path);
    return std::find(levels.begin(), levels.end(), "..") != levels.end();
}

// A folder name every layout accepts: no NUL, no "../", and every level
// non-empty and neither "." nor "..".
bool is_safe_folder(const std::string& folder) {
    if (folder.find('\0') != std::string::npos || folder.find("../") != std::string::npos) {
        return false;
    }
    for (const std::string& level : split_levels(folder)) {
        if (level.empty() || level == "." || level == "..") {
            return false;
        }
    }
    return true;
}

}  // namespace

ZeMailUserId::ZeMailUserId(MailBoxType type, const std::string& name) : m_type(type), m_name(name) {
    if (type == MAILBOX_TYPE_PATH) {
        if (!name.empty() && name.find('\0') == std::string::npos && !has_parent_level(name)) {
            m_address = name;
            m_homepath = name;
            m_mailpath = name;
        }
        return;
    }
    const std::string local = local_part(name);
    const std::string domain = domain_part(name);
    if (!is_safe_level(local) || !is_safe_level(domain)) {
        return;
    }
    m_address = name;
    if (type == MAILBOX_TYPE_ARCHIVE) {
        m_homepath = zemail::paths::spool_path("archive") + "/" + domain + "/" + local;
        m_mailpath = m_homepath;
        return;
    }
    m_homepath = zemail::paths::mail_root() + "/" + domain + "/" + local;
    m_mailpath = m_homepath + (type == MAILBOX_TYPE_ROTATED ? "/rotate" : "/Maildir");
}

bool ZeMailUserId::imap_served(int type) {
    switch (type) {
        case 0:
        case 1:
        case 6:
        case 7:
        case 11:
            return true;
        default:
            return false;
    }
}

std::string ZeMailUserId::address(bool domain) const {
    if (domain && !m_address.empty() && m_address.find('@') == std::string::npos) {
        return m_address + "@localhost";
    }
    return m_address;
}

std::string ZeMailUserId::mailfolder(const std::string& folder) const {
    if (m_mailpath.empty()) {
        return std::string();
    }
    if (folder.empty() || is_inbox(folder)) {
        return m_mailpath;
    }
    if (m_type == MAILBOX_TYPE_PATH && (folder == m_name || folder[0] == '/')) {
        std::string path = folder;
        while (path.size() > 1 && path.back() == '/') {
            path.pop_back();
        }
        return path == m_mailpath || is_safe_folder(path.substr(1)) ? path : std::string();
    }
    if (!is_safe_folder(folder)) {
        return std::string();
    }
    switch (m_type) {
        case MAILBOX_TYPE_ARCHIVE:
        case MAILBOX_TYPE_MAILDIR:
        case MAILBOX_TYPE_PATH:
        case MAILBOX_TYPE_ROTATED:
            return m_mailpath + "/" + folder;
        default: {
            std::string dotted = folder;
            std::replace(dotted.begin(), dotted.end(), '/', '.');
            return m_mailpath + "/." + dotted;
        }
    }
}

std::string ZeMailUserId::tilde_name() const {
    return m_address.empty() ? std::string() : "~" + local_part(m_address);
}

int ZeMailUserId::quota_reset() const {
    if (m_mailpath.empty()) {
        return -1;
    }
    // The cache is "maildirsize"; the appliance's server names it
    // ".maildirsize", which may be a link to the other name: a link stays.
    int result = 0;
    for (const char* file : {"/maildirsize", "/.maildirsize"}) {
        const std::string path = m_mailpath + file;
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && !S_ISLNK(st.st_mode) && unlink(path.c_str()) < 0 &&
            errno != ENOENT) {
            result = -1;
        }
    }
    return result;
}

bool ZeMailUserId::operator==(const ZeMailUserId& other) const {
    return m_type == other.m_type && m_name == other.m_name && m_address == other.m_address &&
           m_homepath == other.m_homepath && m_mailpath == other.m_mailpath;
}
