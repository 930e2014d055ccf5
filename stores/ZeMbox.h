#ifndef ZEMAIL_STORES_ZE_MBOX_H
#define ZEMAIL_STORES_ZE_MBOX_H

// One mbox file read as a mailbox, read only.
//
//   ZeMbox box("/var/mail/ann", false, false);
//   box.reset();                       // opens: reads the file once
//   while (box.next() == 1) {
//       ZeMessageRef& m = box.fetch();
//       ... m->uid(), m->env()->status(), m.media().readAll() ...
//   }
//
// open() reads the whole file once, in large pieces, into an index of
// message offsets (stores/ZeMboxParser.h says how the file is cut, and how
// flags, dates and UIDs are read); memory grows with the number of messages,
// not with their size. A message's bytes are read again from the file only
// when asked for (media(), headers, sections), through a descriptor that the
// index keeps open, so a message stays readable after the mailbox re-reads
// or goes away. reset() reads the file again when its size, modification
// time or identity changed since.
//
// Messages are named by UID (see ZeMboxParser::assignUids) and by the key
// ",U<uid>" (a plain decimal UID is accepted as well). Flags come from the
// "Status:" and "X-Status:" headers and are never written back: every
// operation that would change the file throws
// " ZeMbox::<operation> - Not Implimented" (code 4, unit "ZeMbox").
//
// Nothing is locked: a writer that rewrites the file under a reader shows
// up as messages whose bytes can no longer be read (a null media(), no
// headers, sections answering 4) until reset() reads the file again. No
// operation reports a file-system error. A mailbox object is used by one
// thread at a time.

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "model/ZeMailBox.h"
#include "stores/ZeMDirectMailBox.h"
#include "stores/ZeMboxParser.h"

// An open mbox file, shared by the index that was read from it and by the
// messages made from that index. Closed when the last of them goes.
class ZeMboxFile {
public:
    // Takes ownership of an open descriptor.
    ZeMboxFile(int fd, std::string path) : m_fd(fd), m_path(std::move(path)) {}
    ~ZeMboxFile();
    ZeMboxFile(const ZeMboxFile&) = delete;
    ZeMboxFile& operator=(const ZeMboxFile&) = delete;

    // Reads exactly length bytes at offset; false on an error or when the
    // file is now shorter.
    bool readExactly(std::uint64_t offset, char* buffer, std::size_t length) const;
    // Reads up to length bytes at offset: the count, 0 at the end of the
    // file, -1 on an error.
    long readSome(std::uint64_t offset, char* buffer, std::size_t length) const;

    const std::string& path() const { return m_path; }

private:
    int m_fd;
    std::string m_path;
};

// What the index knows of a message; its sender and Message-Id are read from
// the file on first use.
class ZeMboxMsgEnv : public ZeMessageEnv {
public:
    ZeMboxMsgEnv(std::shared_ptr<const ZeMboxFile> file, const ZeMboxParser::Entry& entry);

    // The flags of the Status and X-Status letters.
    ZeMessageFlags status() override;
    // The Message-Id header's value; "" when it has none or cannot be read.
    std::string msgID() override;
    unsigned long uid() override { return m_entry.uid; }
    // ",U<uid>".
    std::string basename() const override;
    // The From_ line's date, else the Date header's, else 0.
    time_t date() override { return m_entry.date; }
    // The sender on the From_ line; "" when it has none or cannot be read.
    std::string from() override;
    // The message's length once unquoted: what media() yields.
    unsigned long size() override { return static_cast<unsigned long>(m_entry.size); }

    // The message's bytes, unquoted, read from the file as they are taken; a
    // null handle when the file no longer holds the message where the index
    // found it (the From_ line or the last byte is gone). A file cut short
    // while the stream is read ends it with a read error.
    Corvane::MediaIn media() const;

    const ZeMboxParser::Entry& entry() const { return m_entry; }

private:
    std::shared_ptr<const ZeMboxFile> m_file;
    ZeMboxParser::Entry m_entry;
    bool m_msgidLoaded = false;
    std::string m_msgid;
    bool m_fromLoaded = false;
    std::string m_from;
};

// One message of the file.
class ZeMboxMsg : public ZeMDirectMessage {
public:
    // env holds a ZeMboxMsgEnv; the message's uid(), basename(), flags and
    // received() come from it. path is the mbox file's.
    ZeMboxMsg(const Corvane::Ref<ZeMessageEnv>& env, std::string path);

    // See ZeMboxMsgEnv::media.
    Corvane::MediaIn media() override;
    // The mbox file's path.
    std::string getFileName() const override { return m_path; }
    // The file is not rewritten: does nothing.
    void replace(const Corvane::MediaIn&) override {}
    // A message cannot be cut out of the file: 4.
    int permanent_remove() override { return 4; }

private:
    ZeMboxMsgEnv* _mbox_env() const;

    std::string m_path;
};

class ZeMbox : public ZeMReadOnlyMailBox {
public:
    // option is kept (option()) and not used by this store; create makes
    // open() create an empty file when there is none.
    ZeMbox(const std::string& path, bool option, bool create);
    ~ZeMbox() override;

    // 1 when open (also when it already was); 0 only when the file had to be
    // created and could not be. Reads the file into the index; a missing or
    // unreadable file, or one that is not a regular file, is open with no
    // messages.
    int open() override;
    // open(); reads the file again when it changed since it was read; moves
    // the cursor to the first message; resets the scope and filters.
    void reset() override;
    // The messages of the index (after open()).
    long total_messages() override;

    // The next message of the index that passes the scope and filters: 1 and
    // the current message set, or 0 and the current message released.
    int next() override;
    // The message of that UID, or of the key ",U<uid>" or "<uid>": a new
    // handle, the current message unchanged. Null when there is none.
    ZeMessageRef retrieve_message(unsigned long uid) override;
    ZeMessageRef retrieve_message(const std::string& key) override;

    // The operations that would rewrite the file are refused (see
    // ZeMReadOnlyMailBox): " ZeMbox::<operation> - Not Implimented".

    MailboxOpenMethod open_method() override { return MAILBOX_OPEN_DIRECT; }

    const std::string& path() const { return m_path; }
    bool option() const { return m_option; }
    bool is_open() const { return m_opened; }
    // The messages as read by the last open() or reset(), in file order.
    const std::vector<ZeMboxParser::Entry>& index() const { return m_index; }

protected:
    const char* _class_name() const override { return "ZeMbox"; }
    const char* _unit_name() const override { return "ZeMbox"; }

private:
    // What identifies the version of the file that was read.
    struct Version {
        bool exists = false;
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        struct timespec mtime = {0, 0};
        bool operator==(const Version& other) const;
    };

    void _read_file();
    Version _current_version() const;
    ZeMessageRef _make_message(std::size_t index) const;
    ZeMessageRef _find(unsigned long uid) const;

    bool m_opened = false;
    bool m_create = false;
    bool m_option = false;
    std::string m_path;
    Version m_version;
    std::shared_ptr<const ZeMboxFile> m_file;  // null when nothing could be read
    std::vector<ZeMboxParser::Entry> m_index;
    std::vector<std::pair<unsigned long, std::size_t>> m_by_uid;  // sorted by UID
    std::size_t m_cursor = 0;
};

#endif
