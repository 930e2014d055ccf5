#ifndef ZEMAIL_MODEL_ZE_M_USER_H
#define ZEMAIL_MODEL_ZE_M_USER_H

// A mail user: the root of the mailbox model. Made from a mailbox type and a
// user name (ZeMailUserId), it lists the user's folders in display order and
// answers quota and usage questions.
//
//   ZeMUserImap    asks the local IMAP server, through the process-wide
//                  connection, which it reaches by the user's id
//   ZeMUserDirect  reads the store on disk itself
//
// Folder order: the system folders first, in their rank
// (vtl_is_system_folder), then every other folder in case-insensitive name
// order. Two names equal but for case are ordered byte-wise, except that a
// name that is not smaller than the one already listed goes to the very end
// of the list (so adding "abc" after "ABC" puts it behind every folder).
// A folder whose parent is already listed adds 1 to the parent's child count;
// a parent listed later gets no count for children listed before it.
//
// Sizes are KiB, rounded up. Result codes: 0 success, 4 failure (the quota
// has its own, documented per call). Creation opens nothing; the folder list
// is read once, by the first init_folders().
//
// Held by ZeMUserRef; used by one thread at a time.

#include <list>
#include <string>

#include "include2/VantroRefcounted"
#include "model/ZeMFolder.h"
#include "support/MailUserId.h"

// How a user's mail is reached.
enum MailboxOpenMethod : int {
    MAILBOX_OPEN_IMAP = 1,    // through the local IMAP server
    MAILBOX_OPEN_DIRECT = 2,  // the store on disk
};

class ZeMUser : public Corvane::RefImpl {
public:
    using FolderList = std::list<ZeMFolderRef>;

    ZeMUser(MailBoxType type, const std::string& name);
    ~ZeMUser() override;
    ZeMUser(const ZeMUser&) = delete;
    ZeMUser& operator=(const ZeMUser&) = delete;

    // Message count and KiB in use as the store reports them; the base
    // writes nothing and answers 0.
    virtual int get_quota(long long* count, long long* kbytes);
    // KiB used by one folder: the folder's size cache, or a scan of the
    // folder for archive and plain Maildir users; 0 when the folder is
    // unknown (and then the quota is recounted).
    virtual long long get_folder_usage(const std::string& folder);
    // KiB used by the whole store (".maildirsize", else the IMAP quota).
    // Throws Corvane::Exception("Failed to retrieve user information", 4)
    // when neither can be had.
    virtual long long get_usage();
    virtual int logout() = 0;
    virtual int reset_quota() = 0;
    // Puts the folder cursor back on the first folder.
    virtual void reset_iterator();
    // Reads the folder list; init_folders() calls it once.
    virtual int open() = 0;

    // Fills the folder list on the first call; later calls do nothing.
    void init_folders();
    // Inserts folder in order (see the file comment) and returns the new
    // folder count; -1 for a null handle, which is not inserted.
    int add_folder(const ZeMFolderRef& folder);
    // Asks the server to rebuild "<mailpath>/.maildirsize" (through
    // get_quota) unless it exists and force is false (then 0 at once).
    int calculateSize(bool force);
    // True for the id types whose mail the IMAP server serves (0, 1, 6, 7,
    // 11). The name is not used.
    bool hasImapAccess(const std::string& name) const;

    const ZeMailUserId& id() const { return m_id; }
    const FolderList& folders() const { return m_folders; }
    // The folder under the cursor, and the cursor moved on; false (and
    // folder untouched) past the last one.
    bool next_folder(ZeMFolderRef& folder);

    // Applied to every listed folder when a folder is added: a folder whose
    // name is exactly the new folder's parent gets one more child.
    struct parent_helper {
        explicit parent_helper(std::string parent) : m_parent(std::move(parent)) {}
        void operator()(ZeMFolderRef& folder) const;
        std::string m_parent;
    };

protected:
    FolderList m_folders;
    FolderList::iterator m_current;
    ZeMailUserId m_id;
    FolderList::iterator m_begin;
    FolderList::iterator m_end;
    unsigned char m_folders_loaded = 0;
};

// A user served by the local IMAP server.
class ZeMUserImap : public ZeMUser {
public:
    using ZeMUser::ZeMUser;

    // GETQUOTA "": count gets the first number of the answer, kbytes the
    // second (each when not null). 4, outputs untouched, without an answer.
    int get_quota(long long* count, long long* kbytes) override;
    // LOGOUT (5-second time-out), then the connection's child is closed.
    int logout() override;
    // Removes ".maildirsize" and asks for the quota, which makes the server
    // count afresh.
    int reset_quota() override;
    // NOOP, then LIST "" "*"; every folder listed is added. The LIST result.
    int open() override;
};

// A user whose store is read from disk.
class ZeMUserDirect : public ZeMUser {
public:
    using ZeMUser::ZeMUser;

    // "<mailpath>/.maildirsize" read by the store library: 0 and the values
    // (KiB rounded up), or the store library's non-zero code. -1 for a
    // type-10 user (rotated folders keep no quota).
    int get_quota(long long* count, long long* kbytes) override;
    int logout() override { return 0; }
    int reset_quota() override { return 0; }
    // Lists the folders found on disk; always 0.
    int open() override;
};

class ZeMUserRef : public Corvane::Ref<ZeMUser> {
public:
    using Corvane::Ref<ZeMUser>::Ref;
    ZeMUserRef() = default;
    ZeMUserRef(const Corvane::Ref<ZeMUser>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeMUser>(other) {}
    // Method 1 makes a ZeMUserImap, method 2 a ZeMUserDirect; any other
    // method leaves the handle null. The flag is not used.
    ZeMUserRef(MailBoxType type, const std::string& name, MailboxOpenMethod method,
               bool flag = false);

    static ZeMUserRef createImap(MailBoxType type, const std::string& name);
    static ZeMUserRef createImap(const std::string& name);
    static ZeMUserRef createDirect(MailBoxType type, const std::string& name);
    static ZeMUserRef createDirect(const std::string& name);
    static ZeMUserRef create(MailBoxType type, const std::string& name, MailboxOpenMethod method);
    static ZeMUserRef create(const std::string& name, MailboxOpenMethod method);
};

#endif
