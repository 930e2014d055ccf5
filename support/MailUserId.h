#ifndef ZEMAIL_SUPPORT_MAIL_USER_ID_H
#define ZEMAIL_SUPPORT_MAIL_USER_ID_H

#include <string>

// The kind of a user's mailbox. The numbers are the identity library's own
// and stay opaque to the model; 1 is the default of the short factories.
// Types 3 (archive account), 4 (a plain Maildir tree), 9 (a path) and 10
// (rotated folders) have layouts of their own, described with their users.
enum MailBoxType : int { MAILBOX_TYPE_DEFAULT = 1 };

// Who a mail user is and where the user's mail lives, resolved from a mailbox
// type and a user name:
//   address     the name as given ("ann@example.org", or "ann")
//   homepath    <mail root>/<domain>/<local part>; domain "localhost" when the
//               name has no "@"
//   mailpath    <homepath>/Maildir
//   mailfolder  "Inbox" (any case) or "" is the mail path itself; "A/B" is
//               <mailpath>/.A.B (Maildir++, "/" as hierarchy separator)
// The mail root comes from zemail::paths::mail_root() when the id is made.
// Equality compares every field.
class ZeMailUserId {
public:
    ZeMailUserId() = default;
    ZeMailUserId(MailBoxType type, const std::string& name);

    int type() const { return m_type; }
    int userType() const { return m_type; }
    const std::string& name() const { return m_name; }
    // The address; with domain true, a name without "@" gets "@localhost".
    std::string address(bool domain = false) const;
    const std::string& homepath() const { return m_homepath; }
    const std::string& mailpath() const { return m_mailpath; }
    std::string mailfolder(const std::string& folder) const;
    // The user's short name as shown in home-relative paths: "~" + local part.
    std::string tilde_name() const;
    // Forgets the cached quota usage of the user ("maildirsize" is rebuilt by
    // the next reader). Returns 0, or -1 when the cache could not be removed.
    int quota_reset() const;

    bool operator==(const ZeMailUserId& other) const;
    bool operator!=(const ZeMailUserId& other) const { return !(*this == other); }

private:
    int m_type = 0;
    std::string m_name;
    std::string m_homepath;
    std::string m_mailpath;
};

#endif
