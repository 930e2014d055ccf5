#ifndef ZEMAIL_MODEL_ZE_M_FOLDER_H
#define ZEMAIL_MODEL_ZE_M_FOLDER_H

// One folder of a mail user: its full name ("Work/2019", "/" separating the
// levels), its parent ("Work", "" at the top), how many child folders were
// seen, its size where a store reports one, and the counters of the IMAP
// server's STATUS answer.
//
// A ZeMFolderImap (ZeMFolderRef::create) can also change itself on the IMAP
// server of its user: CREATE, DELETE, RENAME (then SELECT the new name),
// STATUS, and a deferred delete that renames the folder to
// ".deleted.<time>.<pid>.<name with / made .>" for a later purge. Each of
// these sends NOOP first (logging the session in) and answers the request's
// completion code (0 OK, 1 NO, 2 BAD, 3 BYE, 4 foreign tag); a name that
// cannot be put on the wire (CR, LF or NUL in it) answers 4 and sends
// nothing. A plain ZeMFolder (createDirect) only carries data: its server
// operations answer 0 and send nothing.
//
// Held by ZeMFolderRef; used by one thread at a time.

#include <string>

#include "include2/VantroRefcounted"
#include "support/MailUserId.h"

class ZeImapCommand;

// The IMAP quoted-string form of a folder name: between double quotes, with
// '"' and '\' escaped by a backslash; other bytes go out as they are. False,
// and out untouched, when the name holds CR, LF or NUL, which no quoted
// string may carry.
bool ze_imap_quote_folder(const std::string& name, std::string& out);

class ZeMFolder : public Corvane::RefImpl {
public:
    ZeMFolder(const ZeMailUserId& id, const std::string& name, int children);
    ZeMFolder(const ZeMFolder& other);
    ZeMFolder& operator=(const ZeMFolder& other);
    ~ZeMFolder() override;

    virtual int get_status();
    virtual int create();
    virtual int remove();
    virtual int remove_deferred();
    virtual int rename(const std::string& new_name);

    const std::string& name() const { return m_name; }
    const std::string& parent() const { return m_parent; }
    int children() const { return m_children; }
    void parent(const std::string& parent) { m_parent = parent; }
    // Adds n to the child count and returns the new count.
    int add_children(int n);
    // Sets the child count to 1 or 0.
    void has_children(bool b) { m_children = b ? 1 : 0; }

    const ZeMailUserId& id() const { return m_id; }
    // Size in KiB, where the store reports one (0 otherwise).
    long long size() const { return m_size; }
    void size(long long kib) { m_size = kib; }
    long messages() const { return m_messages; }
    long recent() const { return m_recent; }
    long uidnext() const { return m_uidnext; }
    long unseen() const { return m_unseen; }
    // The STATUS size item, in bytes.
    long long x_size() const { return m_x_size; }

    // Same parent and same name, byte for byte; nothing else is compared.
    bool operator==(const ZeMFolder& other) const;
    bool operator!=(const ZeMFolder& other) const { return !(*this == other); }

protected:
    ZeMailUserId m_id;
    std::string m_name;
    std::string m_parent;
    int m_children;
    long long m_size = 0;
    long m_messages = 0;
    long m_recent = 0;
    long m_uidnext = 0;
    long m_unseen = 0;
    long long m_x_size = 0;
};

class ZeMFolderImap : public ZeMFolder {
public:
    using ZeMFolder::ZeMFolder;

    // STATUS "<name>" (messages recent uidnext unseen x-size): the counters
    // come from the answer. Always 0; a failed query keeps the old counters.
    int get_status() override;
    int create() override;
    int remove() override;
    // The name becomes ".deleted.<seconds>.<pid>.<name, '/' turned into '.'>"
    // on the server; on success the user's quota is recounted. The record's
    // own name is not changed.
    int remove_deferred() override;
    // RENAME, then SELECT of the new name when the rename succeeded; the
    // record keeps its old name.
    int rename(const std::string& new_name) override;

    void set(long messages, long recent, long uidnext, long unseen, long long x_size);

private:
    // NOOP, then the command with the quoted name as its argument.
    int _name_command(const ZeImapCommand& command);
};

class ZeMFolderRef : public Corvane::Ref<ZeMFolder> {
public:
    using Corvane::Ref<ZeMFolder>::Ref;
    ZeMFolderRef() = default;
    ZeMFolderRef(const Corvane::Ref<ZeMFolder>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeMFolder>(other) {}

    // A folder of the IMAP store, or a null handle when the name holds "../".
    static ZeMFolderRef create(const ZeMailUserId& id, const std::string& name, int children);
    // A folder of a store read from disk (data only), or a null handle when
    // the name holds "../".
    static ZeMFolderRef createDirect(const ZeMailUserId& id, const std::string& name, int children);
};

#endif
