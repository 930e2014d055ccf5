#include "support/MailUserId.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

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

}  // namespace

ZeMailUserId::ZeMailUserId(MailBoxType type, const std::string& name) : m_type(type), m_name(name) {
    if (!name.empty()) {
        m_homepath = zemail::paths::mail_root() + "/" + domain_part(name) + "/" + local_part(name);
        m_mailpath = m_homepath + "/Maildir";
    }
}

std::string ZeMailUserId::address(bool domain) const {
    if (domain && !m_name.empty() && m_name.find('@') == std::string::npos) {
        return m_name + "@localhost";
    }
    return m_name;
}

std::string ZeMailUserId::mailfolder(const std::string& folder) const {
    if (folder.empty() || is_inbox(folder)) {
        return m_mailpath;
    }
    std::string dotted = folder;
    for (char& c : dotted) {
        if (c == '/') {
            c = '.';
        }
    }
    return m_mailpath + "/." + dotted;
}

std::string ZeMailUserId::tilde_name() const {
    return "~" + local_part(m_name);
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
    return m_type == other.m_type && m_name == other.m_name && m_homepath == other.m_homepath &&
           m_mailpath == other.m_mailpath;
}
