#ifndef ZEMAIL_MODEL_ZE_MAIL_BOX_H
#define ZEMAIL_MODEL_ZE_MAIL_BOX_H

// The mailbox model every store implements: a mailbox (ZeMailboxBase) is one
// folder of one user, opened from a ZeMailBoxRef factory that picks the
// back-end; it yields messages (ZeMessageBase), each with its envelope
// (ZeMessageEnv), headers, flags and MIME tree.
//
//   ZeMailBoxRef box = ZeMailBoxRef::create("ann", "Inbox", MAILBOX_OPEN_IMAP);
//   if (box.isNull()) { ...refused... }
//   box->open();                       // may throw "Failed to open mailbox!"
//   box->reset();
//   while (box->next() == 1) {
//       ZeMessageRef& m = box->fetch();
//       ... m->uid(), m->headers(), m->flags() ...
//   }
//
// Messages are named by UID or by a string key: the decimal UID for the IMAP
// store, ",U<uid>" for the stores on disk.
//
// Result codes inside the model: 0 success, 4 failure; open() answers 1 when
// the mailbox is (or already was) open. An operation a back-end refuses
// throws Corvane::Exception(" <Class>::<operation> - Not Implimented", 4)
// (the leading blank and the spelling are what callers match on).
//
// Back-ends that override one overload of retrieve_message, modify_message,
// retrieve_section, retrieve_section_mime or fetch bring the others back with
// a using-declaration.
//
// Every object is held by counted handles and used by one thread at a time.

#include <ctime>
#include <functional>
#include <ostream>
#include <string>

#include "imap/ZeImapMime.h"
#include "include2/VantroRefcounted"
#include "model/ZeMScopeAndFilter.h"
#include "model/ZeMUser.h"
#include "model/ZeMessageFlags.h"
#include "support/Buffer.h"
#include "support/Media.h"
#include "support/mime/Header.h"

class ZeMDirectMessage;
class ZeMessageRef;

// The UID a decimal message key names; 0 for a key that is not a whole
// decimal number.
unsigned long ze_message_key_uid(const std::string& key);

// What a store knows of a message without reading it. Each back-end has its
// own; an operation it cannot answer throws
// " <Class>::<operation> - Not Implimented" (code 4).
class ZeMessageEnv : public Corvane::RefImpl {
public:
    ~ZeMessageEnv() override = default;

    // The message's flags as the store keeps them.
    virtual ZeMessageFlags status() = 0;
    // The Message-Id.
    virtual std::string msgID() = 0;
    virtual unsigned long uid() = 0;
    virtual std::string basename() const = 0;
    // The message time, seconds since 1970.
    virtual time_t date() = 0;
    // The sender.
    virtual std::string from() = 0;
    // The size in bytes.
    virtual unsigned long size() = 0;
};

// One message.
class ZeMessageBase : public Corvane::RefImpl {
public:
    ZeMessageBase() = default;
    ~ZeMessageBase() override;
    ZeMessageBase(const ZeMessageBase&) = delete;
    ZeMessageBase& operator=(const ZeMessageBase&) = delete;

    virtual ZeMessageFlags& flags() { return m_flags; }
    // Replaces the whole flag value (mask and operation code).
    virtual void flags(const ZeMessageFlags& value) { m_flags = value; }
    virtual Corvane::HeaderContainer& headers() { return m_headers; }
    // 0 when unknown.
    virtual unsigned long uid() const { return m_uid; }
    // The file base name for stores on disk; "" otherwise.
    virtual const std::string& basename() const { return m_basename; }
    // Arrival time.
    virtual time_t received() const { return m_received; }
    virtual Corvane::Ref<ZeMessageEnv>& env() { return m_env; }

    // The MIME tree, null until set.
    const ZeImapMimeRef& mime() const { return m_mime; }
    // Shares the given tree.
    void mime(const ZeImapMimeRef& tree) { m_mime = tree; }

protected:
    Corvane::HeaderContainer m_headers;
    ZeMessageFlags m_flags;
    unsigned long m_uid = 0;
    std::string m_basename;
    Corvane::Ref<ZeMessageEnv> m_env;
    time_t m_received = 0;
    ZeImapMimeRef m_mime;
};

// A message read from disk (Maildir, mbox, single-message files).
class ZeMDirectMessage : public ZeMessageBase {
public:
    // The header block, read once through media(); a message that cannot be
    // read or parsed has no headers.
    Corvane::HeaderContainer& headers() override;

    // A stream over the message file.
    virtual Corvane::MediaIn media() = 0;
    // The message file's path.
    virtual std::string getFileName() const = 0;
    // Replaces the message's content (stores that cannot answer do nothing).
    virtual void replace(const Corvane::MediaIn& content) = 0;
    // Deletes the message file; the store library's result.
    virtual int permanent_remove() = 0;

private:
    bool m_headers_loaded = false;
};

class ZeMessageRef : public Corvane::Ref<ZeMessageBase> {
public:
    ZeMessageRef() = default;
    // Takes ownership of a new message (its creator's count).
    explicit ZeMessageRef(ZeMessageBase* message);
    ZeMessageRef(const Corvane::Ref<ZeMessageBase>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeMessageBase>(other) {}

    // The message as a direct message, or null (also for a null handle).
    ZeMDirectMessage* direct_message() const;
    // A direct message's own stream; an empty stream for any other message.
    Corvane::MediaIn media() const;

    // The value of the first header of that name, or null (null handle, no
    // such header, or any exception). Points into the message's headers.
    static const char* headerValue(ZeMessageRef& message, const char* name);
    // env()->date(); 0 for a null handle or when anything throws.
    static time_t time(ZeMessageRef& message);
};

// A walk over the parts of one message (foreach_sections). Parts come in
// tree order, node before children; a leaf's content is decoded from its
// transfer encoding, a multipart node has an empty content stream. A
// non-zero answer stops the walk and becomes foreach_sections' result.
class ZeMessageSectionVisitor {
public:
    virtual ~ZeMessageSectionVisitor() = default;
    virtual int visit(ZeMessageRef& message, const ZeImapMimeRef& part,
                      Corvane::MediaIn& content) = 0;
};

// The walk every back-end's foreach_sections makes: the nodes of tree, node
// before children, children in order, without recursion; each goes to the
// visitor with the content content_of gives it (an empty stream for a
// multipart node is the caller's choice). The first non-zero answer of the
// visitor stops the walk and is returned; 0 after the last node.
int ze_visit_sections(ZeMessageRef& message, const ZeImapMimeRef& tree,
                      ZeMessageSectionVisitor& visitor,
                      const std::function<Corvane::MediaIn(const ZeImapMimeRef&)>& content_of);

// One folder of one user, opened as a mailbox.
class ZeMailboxBase : public Corvane::RefImpl {
public:
    ZeMailboxBase() = default;
    explicit ZeMailboxBase(const ZeMUserRef& user) : m_user(user) {}
    ~ZeMailboxBase() override;
    ZeMailboxBase(const ZeMailboxBase&) = delete;
    ZeMailboxBase& operator=(const ZeMailboxBase&) = delete;

    // Loads or selects the messages; 1 when open (also when it already was).
    virtual int open() = 0;
    // Rewinds the message cursor.
    virtual void reset() = 0;
    virtual int get_status() { return 0; }
    // Creates, deletes or renames the folder; the defaults do nothing.
    virtual int add() { return 0; }
    virtual int remove() { return 0; }
    virtual int rename(const std::string& new_name);
    // Removes the messages marked deleted.
    virtual int expunge() = 0;
    // Removes every message.
    virtual int clean() = 0;
    virtual long total_messages() = 0;
    // Messages found by the last search.
    virtual long searched_count() { return 0; }
    // A process-wide empty text unless the back-end keeps errors.
    virtual const std::string& last_error() const;

    // Does nothing, by design: filters are combined with andFilter/orFilter.
    virtual void setFilter(const ZeMFilterRef& filter);
    // These three ignore a null handle; otherwise they make the
    // scope-and-filter object when there is none yet, and hand it the handle.
    virtual void andFilter(const ZeMFilterRef& filter);
    virtual void orFilter(const ZeMFilterRef& filter);
    virtual void setScope(const ZeMScopeRef& scope);
    // Shares the given object as the mailbox's scope and filters.
    virtual void setScopeAndFilter(const ZeMScopeAndFilterRef& scope_filter);

    // The message the last next() produced.
    virtual ZeMessageRef& fetch() { return m_current; }
    // Moves to the next message: 1 when one was produced, 0 at the end.
    virtual int next() = 0;
    virtual ZeMessageRef retrieve_message(unsigned long uid) = 0;
    virtual ZeMessageRef retrieve_message(const std::string& key) = 0;
    // Changes a message's flags by flags.action (replace, add, remove).
    virtual int modify_message(const std::string& key, const ZeMessageFlags& flags);
    // UID 0 answers 4; else the decimal UID goes to the key form.
    virtual int modify_message(unsigned long uid, const ZeMessageFlags& flags);
    virtual int move_message(const std::string& key, const std::string& to_folder);
    virtual int remove_message(const std::string& key, bool permanent);
    // A new handle on the message's MIME tree.
    virtual ZeImapMimeRef retrieve_mime(ZeMessageRef& message);
    // The section's bytes appended to buffer; always 0. UID 0 writes nothing.
    virtual int retrieve_section(Corvane::Buffer& buffer, unsigned long uid,
                                 const std::string& section);
    // Every back-end writes a section to a stream itself; direct back-ends
    // may call this body, which passes the key ",U<uid>" on to the key form.
    virtual int retrieve_section(std::ostream& out, unsigned long uid,
                                 const std::string& section) = 0;
    // IMAP mailboxes: the key is the decimal UID (0 or not a number: 0).
    // Other mailboxes: 0.
    virtual int retrieve_section(std::ostream& out, const std::string& key,
                                 const std::string& section);
    // The whole message to out.
    virtual int retrieve_body(std::ostream& out, unsigned long uid) = 0;
    virtual int foreach_sections(ZeMessageRef& message, ZeMessageSectionVisitor* visitor);
    // The section's MIME header as a node; the default is a null handle.
    virtual ZeImapMimeRef retrieve_section_mime(unsigned long uid, const std::string& section);
    // IMAP mailboxes with a key above 0: the UID form; otherwise null.
    virtual ZeImapMimeRef retrieve_section_mime(const std::string& key, const std::string& section);
    // Stores a message file in the folder with the given flags.
    virtual int append(const std::string& file, const ZeMessageFlags& flags);
    // 1 for the IMAP back-end, 2 for every store read from disk.
    virtual MailboxOpenMethod open_method() = 0;

    // The folder name the mailbox was made for.
    std::string mailfolder() const { return m_folder; }
    void mailfolder(const std::string& name) { m_folder = name; }
    // The user's address, "" without a user.
    std::string username() const;
    // The user id's type, 0 without a user.
    int userType() const;

    const ZeMUserRef& user() const { return m_user; }
    const ZeMScopeAndFilterRef& scope_filter() const { return m_scope_filter; }

protected:
    ZeMessageRef m_current;
    ZeMUserRef m_user;
    ZeMScopeAndFilterRef m_scope_filter;
    std::string m_folder;

private:
    // The scope-and-filter object, made when missing; false if it cannot be.
    bool _ensure_scope_filter();
};

class ZeMailBoxRef : public Corvane::Ref<ZeMailboxBase> {
public:
    // How the factory prepares the mailbox (bits; others are ignored).
    enum MailBoxOp : unsigned long {
        MAILBOX_OP_NONE = 0,
        MAILBOX_OP_OPTION1 = 1,  // kept by the back-end
        MAILBOX_OP_CREATE = 4,   // stores on disk create the folder on open()
    };

    ZeMailBoxRef() = default;
    ZeMailBoxRef(const Corvane::Ref<ZeMailboxBase>& other)  // NOLINT: same handle
        : Corvane::Ref<ZeMailboxBase>(other) {}
    // Picks the back-end: method 1 the IMAP mailbox; method 2 the Maildir or
    // the mbox file found at the user's folder directory. Null when the
    // folder name holds "../", for any other method, or when no back-end
    // fits. Nothing is opened.
    ZeMailBoxRef(ZeMUserRef user, const std::string& folder, MailboxOpenMethod method,
                 MailBoxOp op = MAILBOX_OP_NONE);

    // The user is made from the id's type and address with that method.
    static ZeMailBoxRef create(const ZeMailUserId& id, const std::string& folder,
                               MailboxOpenMethod method, MailBoxOp op = MAILBOX_OP_NONE);
    // A user of type 1.
    static ZeMailBoxRef create(const std::string& user, const std::string& folder,
                               MailboxOpenMethod method, MailBoxOp op = MAILBOX_OP_NONE);
    // A store named by its path: a user of type 9 named path, folder path.
    static ZeMailBoxRef create(const std::string& path, MailboxOpenMethod method,
                               MailBoxOp op = MAILBOX_OP_NONE);
    // By mailbox type: 1, 6, 7, 8, 11 as asked; 2 opens "dead.letter" of an
    // IMAP user; 3, 4 an IMAP user; 5, 10 a direct user (method 2); 0, 9 and
    // 12 on give a null handle.
    static ZeMailBoxRef create(const MailBoxType& type, const std::string& user,
                               const std::string& folder, MailboxOpenMethod method,
                               MailBoxOp op = MAILBOX_OP_NONE);
};

inline ZeMailBoxRef::MailBoxOp operator|(ZeMailBoxRef::MailBoxOp a, ZeMailBoxRef::MailBoxOp b) {
    return static_cast<ZeMailBoxRef::MailBoxOp>(static_cast<unsigned long>(a) |
                                                static_cast<unsigned long>(b));
}

// Walks a mailbox: holds the mailbox and the current message, and releases
// both when it goes.
//
//   for (MailIterator it(box); it.next();) { use(it.message()); }
template <class MailBoxRefT, class MessageRefT>
class MailIteratorT {
public:
    // Rewinds the mailbox (a null handle gives an empty walk).
    explicit MailIteratorT(const MailBoxRefT& mailbox) : m_mailbox(mailbox) {
        if (!m_mailbox.isNull()) {
            m_mailbox->reset();
        }
    }

    // Moves to the next message; false at the end.
    bool next() {
        if (m_mailbox.isNull() || m_mailbox->next() != 1) {
            m_message.release();
            return false;
        }
        m_message = m_mailbox->fetch();
        return !m_message.isNull();
    }

    MessageRefT& message() { return m_message; }
    MailBoxRefT& mailbox() { return m_mailbox; }

private:
    MailBoxRefT m_mailbox;
    MessageRefT m_message;
};

using MailIterator = MailIteratorT<ZeMailBoxRef, ZeMessageRef>;

#endif
