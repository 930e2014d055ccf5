#ifndef ZEMAIL_STORES_ZE_MAILDIR_H
#define ZEMAIL_STORES_ZE_MAILDIR_H

// One Maildir directory (cur/, new/, tmp/) read directly as a mailbox.
//
//   ZeMaildir box(user, "/mail/example.org/ann/Maildir/.Sent", 0ul);
//   box.reset();                       // opens: new/ is moved to cur/
//   while (box.next() == 1) {
//       ZeMessageRef& m = box.fetch();
//       ... m->env()->status(), m->headers(), m->uid() ...
//   }
//
// Messages are the files of cur/ in directory order (never sorted); names
// beginning with "." are not messages. A flag change renames the file (see
// stores/ZeMaildirName.h for the name rules); a message whose name changed
// since a caller saw it is found again by the stable prefix of its old name
// (fetch). UIDs come from the IMAP server's uidlist of the folder
// (stores/ZeUIDList.h), so they agree with the IMAP path.
//
// No operation reports a file-system error: a failed rename, unlink or
// directory open leaves things as they were and yields no message. Nothing
// is locked: concurrent deliveries are tolerated by the rename-based design.
// A mailbox object is used by one thread at a time.

#include <dirent.h>

#include <cstdint>
#include <memory>
#include <string>

#include <boost/filesystem/path.hpp>
#include <boost/shared_ptr.hpp>

#include "model/ZeMailBox.h"
#include "stores/ZeMDirectMailBox.h"
#include "stores/ZeMaildirName.h"
#include "stores/ZeUIDList.h"

// What the name of a message file tells about it.
class ZeMaildirMsgEnv : public ZeMessageEnv {
public:
    // dir ends in "/"; uid is the UID-list answer ((unsigned long)-1 when the
    // list does not know the file) or 0 when the caller did not ask. Reads the
    // flag letters and the size from the name (",#F#S#<n>", else the server's
    // ",S=<n>"); a name with neither takes the file's length from a stat made
    // here (0 when it cannot be had), so that a later rename does not lose it.
    ZeMaildirMsgEnv(const std::string& dir, std::string name, unsigned long uid);

    // The flags whose Maildir letters stand in the name.
    ZeMessageFlags status() override;
    // The current file name.
    std::string msgID() override { return m_msgid; }
    unsigned long uid() override { return m_uid; }
    std::string basename() const override { return ZeMaildirName::basename(m_name); }
    // The delivery time at the start of the name; 0 when it has none.
    time_t date() override { return ZeMaildirName::date(m_name); }
    std::string from() override { return std::string(); }
    unsigned long size() override { return m_size; }

    // Adds (removes) the Maildir letter of flag and renames the file. A flag
    // without a letter does nothing; a failed rename leaves everything as it
    // was. The rename never replaces another file.
    void setflag(unsigned int flag);
    void unsetflag(unsigned int flag);
    // The name the file gets for the current letters.
    std::string newName() const { return ZeMaildirName::newName(m_name, m_flagchars); }

    const std::string& dir() const { return m_dir; }
    const std::string& name() const { return m_name; }
    const ZeMaildirName::FlagChars& flagchars() const { return m_flagchars; }

private:
    void _change(unsigned int flag, bool on);

    std::string m_dir;
    std::string m_name;
    std::uint64_t m_uid;
    ZeMaildirName::FlagChars m_flagchars;
    std::uint32_t m_size;
    std::string m_msgid;  // kept equal to m_name
};

// One message file.
class ZeMaildirMsg : public ZeMDirectMessage {
public:
    // env holds a ZeMaildirMsgEnv; path is its dir() + name(). The message's
    // uid(), basename() and received() come from the envelope (uid 0 when
    // the UID list did not know the file).
    ZeMaildirMsg(const Corvane::Ref<ZeMessageEnv>& env, const std::string& path);

    using ZeMessageBase::flags;
    // The envelope's status, kept as the message's flags.
    ZeMessageFlags& flags() override;

    // A stream over the file; a null handle when it cannot be opened.
    Corvane::MediaIn media() override;
    std::string getFileName() const override { return m_path; }
    // Maildir messages are not rewritten in place: does nothing.
    void replace(const Corvane::MediaIn&) override {}
    // The store library's vtl_maildir_unlink_mail on the file.
    int permanent_remove() override;

    // Sets the flag through the envelope (renaming the file) unless the
    // status has the bit at position flag % 32; unsetflag acts only when it
    // has that bit. The test takes flag as a bit position, the envelope takes
    // it as a flag value: setflag(0x4) (Draft) is skipped when bit 4 (\Seen,
    // 0x10) is set, and setflag(0x10) always reaches the envelope, which
    // then renames only if the letters change.
    void setflag(unsigned int flag);
    void unsetflag(unsigned int flag);

private:
    bool _has_bit_at(unsigned int flag);
    ZeMaildirMsgEnv* _maildir_env();

    std::string m_path;
};

class ZeMaildir : public ZeMDirectMailBox {
public:
    // create: the lowest bit makes open() create the Maildir first.
    ZeMaildir(ZeMUserRef user, const std::string& path, unsigned long create);
    // flag is kept (option()) and not used by this store.
    ZeMaildir(ZeMUserRef user, const std::string& path, bool flag, bool create);
    ~ZeMaildir() override;

    // 1 when open (also when it already was); 0 only when the Maildir had to
    // be created and could not be. Moves new/ to cur/ and opens cur/; a
    // missing cur/ still counts as open and then yields no messages.
    int open() override;
    // Drops the directory stream; full also marks the mailbox closed. After
    // close(false) the mailbox stays open without a stream: next() yields
    // nothing until close(true) and open().
    void close(bool full);
    // open(), rewind the stream, reset the scope and filters.
    void reset() override;
    // Unlinks every message whose name carries the Deleted letter, then
    // leaves the mailbox closed. 0.
    int expunge() override;
    // Unlinks every message of cur/ and new/ (tmp/ is left to deliveries in
    // progress) and the folder's size cache. 0.
    int clean() override;
    // open(), then the files of cur/ (0 without cur/).
    long total_messages() override;

    // The next file of cur/ that passes the scope and filters: 1 and the
    // current message set, or 0 and the current message released.
    int next() override;
    using ZeMDirectMailBox::fetch;
    // The message by file name: cur/<name> when it exists, else the first
    // file sharing the name's stable prefix. Sets and returns the current
    // message (null on a miss). Names with "/" are refused.
    virtual ZeMessageRef& fetch(const std::string& name);
    // The first file (directory order) whose name contains the UID list's
    // base name for uid, or contains name: a new handle, the current message
    // unchanged. A miss releases the current message and gives null.
    ZeMessageRef retrieve_message(unsigned long uid) override;
    ZeMessageRef retrieve_message(const std::string& name) override;

    MailboxOpenMethod open_method() override { return MAILBOX_OPEN_DIRECT; }
    using ZeMDirectMailBox::append;
    // Always throws " ZeMQueue::append - Not Implimented" (code 4, unit
    // "ZeMaildir", line 358): callers match on that text.
    int append(const ZeMessageRef& message, ZeMDirectMailBox::statusOP op,
               ZeMessageFlags flags) override;

    // The UID the folder's uidlist gives the file ((unsigned long)-1 when
    // unknown), and the base name it gives a UID ("" when unknown).
    unsigned long uid_from_file(const std::string& name);
    std::string file_from_uid(unsigned long uid);
    // Renames every file of new/ into cur/ under the same name; a file whose
    // name cur/ already holds stays in new/.
    void moveNewMessages();

    const std::string& path() const { return m_path; }
    bool option() const { return m_flag; }
    bool is_open() const { return m_opened; }

protected:
    // ",U<uid>" names a UID: the appliance writes it into its file names,
    // and a file the IMAP server named is found by the UID list's base name
    // for it. Any other key is a name, as for retrieve_message.
    ZeMessageRef _message_by_key(const std::string& key) override;

private:
    struct DirCloser {
        void operator()(DIR* dir) const { ::closedir(dir); }
    };
    using DirStream = std::unique_ptr<DIR, DirCloser>;

    ZeMessageRef _retrieve_message(const std::string& key, const std::string& alt);
    // A message of cur/ with its envelope.
    ZeMessageRef _make_message(const std::string& dir, const std::string& name,
                               unsigned long uid) const;

    // The folder's UID list, taken from the manager once.
    ZeUIDList__& _uid_list();

    bool m_opened = false;
    bool m_create = false;
    // The next name of the walk is its first: uid_from_file() brings the
    // UID list up to date for it, later names are answered from the list
    // as read (ZeUIDList__::cached_uid).
    bool m_walk_start = true;
    boost::shared_ptr<ZeUIDList__> m_uids;
    bool m_flag = false;
    std::string m_path;      // the Maildir, no trailing "/"
    std::string m_subdir;    // "cur" once opened
    std::string m_walk_dir;  // <path>/<subdir>/, the folder next() reads
    DirStream m_dir;         // on <path>/cur while open
};

// Registers the folders of a Maildir tree with a direct user: every
// directory below root except cur/, new/, tmp/ and folders hidden for
// deferred deletion (".deleted." names) becomes a folder named by its path
// relative to root. Symbolic links are not followed and the walk stops 64
// levels down, so a looping tree cannot run it into the ground.
class MaildirProcessor {
public:
    MaildirProcessor(const ZeMUserRef& user, const boost::filesystem::path& root);
    void process(const boost::filesystem::path& dir);

private:
    void _process(const boost::filesystem::path& dir, int depth);

    ZeMUserRef m_user;
    boost::filesystem::path m_root;
};

#endif
