#ifndef ZEMAIL_SUPPORT_MAIL_USER_ID_H
#define ZEMAIL_SUPPORT_MAIL_USER_ID_H

#include <string>

// The kind of a user's mailbox. The numbers are the identity library's own
// and stay opaque to the model, except for the few whose store is laid out
// differently (see ZeMailUserId). 1 is the default of the short factories.
enum MailBoxType : int {
    MAILBOX_TYPE_DEFAULT = 1,
    MAILBOX_TYPE_ARCHIVE = 3,  // archive account
    MAILBOX_TYPE_MAILDIR = 4,  // a plain Maildir tree read from disk
    MAILBOX_TYPE_PATH = 9,     // the name is the path of the store
    MAILBOX_TYPE_ROTATED = 10  // a directory of rotated folders
};

// Who a mail user is and where the user's mail lives, resolved from a mailbox
// type and a user name when the id is made (the mail root and spool prefix
// come from zemail::paths at that moment).
//
// Every type except those below (the IMAP server's layout):
//   address     the name as given ("ann@example.org", or "ann")
//   homepath    <mail root>/<domain>/<local part>; domain "localhost" when the
//               name has no "@" or nothing after it
//   mailpath    <homepath>/Maildir
//   mailfolder  "" or "Inbox" (any case) is the mail path itself; "A/B" is
//               <mailpath>/.A.B (Maildir++, "/" as hierarchy separator)
// Type 3 (archive account): homepath = mailpath = <spool>/archive/<domain>/
//   <local part>; an archive folder is a directory named by its path there:
//   mailfolder("2019/Q1") = <mailpath>/2019/Q1.
// Type 4 (plain Maildir tree): home and mail path as above; folders are
//   directories of the tree: mailfolder("A/B") = <mailpath>/A/B.
// Type 9 (a path): the name is the store's path; homepath = mailpath = name.
//   mailfolder of an absolute path is that path, of a relative one
//   <mailpath>/<folder>.
// Type 10 (rotated folders): homepath as above, mailpath = <homepath>/rotate;
//   each rotated folder ("current" included) is a subdirectory:
//   mailfolder("20240101") = <mailpath>/20240101.
//
// Names that cannot be resolved safely give an id that keeps name() but has
// an empty address, home and mail path (valid() is false), so that nothing
// is read, written or started for it: a local part or domain that is empty
// (before the "@"), "." or "..", or holds "/", a blank, a control character
// or NUL; for type 9 an empty path, a NUL or a ".." component.
//
// mailfolder() answers "" for folder names it refuses: a NUL, "../"
// anywhere, a "." or ".." level, or an empty level ("A//B", "A/"; for type 9
// a leading "/" is the root, not an empty level).
//
// Equality compares every field.
class ZeMailUserId {
public:
    ZeMailUserId() = default;
    ZeMailUserId(MailBoxType type, const std::string& name);

    int type() const { return m_type; }
    int userType() const { return m_type; }
    const std::string& name() const { return m_name; }
    bool valid() const { return !m_mailpath.empty(); }
    // Whether the IMAP server keeps the mail of users of this type (0, 1, 6,
    // 7 and 11); the others are read from disk only.
    static bool imap_served(int type);
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
    std::string m_address;
    std::string m_homepath;
    std::string m_mailpath;
};

#endif
