#ifndef ZEMAIL_STORES_ZE_M_DIRECT_MAIL_BOX_H
#define ZEMAIL_STORES_ZE_M_DIRECT_MAIL_BOX_H

// The common base of the stores read from disk whose messages are files of
// their own (ZeMDirectMessage): it answers body and section requests from
// the message file, so a back-end only has to find its messages.
//
// Messages are looked up through the back-end's retrieve_message: by UID for
// the UID forms, by string key for the key forms (",U<uid>" when the model
// turns a UID into a key). The file is parsed as the IMAP server parses it
// (support/mime/Rfc822MsgParser.h), so sections, trees and bytes are those
// the IMAP mailbox gets for the same message:
//
//   ""        the whole message        "HEADER", "TEXT"   its header, body
//   "2.1"     a part                   "2.MIME"           a part's own header
//
// Section bytes go out as the server sends them: a bare line feed becomes
// CR LF and a zero byte 0x80. Each call reads the message file again; the
// MIME tree is kept with the message once made.

#include <sys/types.h>

#include <ostream>
#include <string>

#include "model/ZeMailBox.h"
#include "stores/ZeMaildirName.h"

class ZeMDirectMailBox : public ZeMailboxBase {
public:
    // How append() sets the flags of the message it adds: keep the ones the
    // message has, or take the given ones.
    enum statusOP { STATUS_KEEP = 0, STATUS_REPLACE = 1 };

    using ZeMailboxBase::ZeMailboxBase;

    // The message's tree, made from its file on first use and kept with the
    // message; null for a null or unreadable message.
    ZeImapMimeRef retrieve_mime(ZeMessageRef& message) override;
    using ZeMailboxBase::retrieve_section;
    // The key form with ",U<uid>", as the model defines it.
    int retrieve_section(std::ostream& out, unsigned long uid, const std::string& section) override;
    // The section of the message found by key: 0 when written (nothing is
    // written for a section that names nothing, as with the server), 4 when
    // there is no such message or its file cannot be read.
    int retrieve_section(std::ostream& out, const std::string& key,
                         const std::string& section) override;
    // The whole message of that UID: 0, or 4 as above.
    int retrieve_body(std::ostream& out, unsigned long uid) override;
    // Every part in tree order, node before children; a leaf's content is
    // decoded from its transfer encoding, a multipart's is empty. 0, 4 when
    // the message has no tree, or the visitor's non-zero answer.
    int foreach_sections(ZeMessageRef& message, ZeMessageSectionVisitor* visitor) override;
    using ZeMailboxBase::retrieve_section_mime;
    // The part described by its own MIME header (content type, encoding,
    // disposition, as the header gives them: ze_mime_node_from_header); null
    // when the message has no such part or the header is too short to hold
    // a field.
    ZeImapMimeRef retrieve_section_mime(unsigned long uid, const std::string& section) override;
    ZeImapMimeRef retrieve_section_mime(const std::string& key,
                                        const std::string& section) override;
    MailboxOpenMethod open_method() override { return MAILBOX_OPEN_DIRECT; }

    using ZeMailboxBase::append;
    // Adds a message of another mailbox; the default refuses (throws
    // " ZeMDirectMailBox::append - Not Implimented", code 4).
    virtual int append(const ZeMessageRef& message, statusOP op, ZeMessageFlags flags);

protected:
    // The scope and filters of a walk: done once a set scope says so; a
    // candidate is taken when none is set or it matches (first its envelope,
    // then the message built on it).
    bool _scope_done() const { return !m_scope_filter.isNull() && m_scope_filter->done(); }
    bool _scope_takes(ZeMessageEnv& envelope) {
        return m_scope_filter.isNull() || m_scope_filter->match(envelope);
    }
    bool _scope_takes(ZeMessageBase& message) {
        return m_scope_filter.isNull() || m_scope_filter->match(message);
    }

    // The message a string key names, for the section and body answers; the
    // default is retrieve_message(key).
    virtual ZeMessageRef _message_by_key(const std::string& key) { return retrieve_message(key); }

private:
    static int _write_section(std::ostream& out, const ZeMessageRef& message,
                              const std::string& section);
    ZeImapMimeRef _section_mime(ZeMessageRef message, const std::string& section);
};

// The base of the stores that read their messages and never change them
// (mbox files, single-message files): every operation that would change the
// store throws " <Class>::<operation> - Not Implimented" (code 4, the leading
// blank and the spelling as callers match them), Class and the unit named
// being the store's own.
class ZeMReadOnlyMailBox : public ZeMDirectMailBox {
public:
    using ZeMDirectMailBox::ZeMDirectMailBox;

    int expunge() override;
    int clean() override;
    using ZeMDirectMailBox::modify_message;
    int modify_message(const std::string& key, const ZeMessageFlags& flags) override;
    int move_message(const std::string& key, const std::string& to_folder) override;
    int remove_message(const std::string& key, bool permanent) override;
    int append(const std::string& file, const ZeMessageFlags& flags) override;
    int append(const ZeMessageRef& message, statusOP op, ZeMessageFlags flags) override;

protected:
    // The store's class name for the refusals ("ZeMbox") and the source
    // unit they name.
    virtual const char* _class_name() const = 0;
    virtual const char* _unit_name() const = 0;

private:
    [[noreturn]] void _refuse(const char* operation, int line) const;
};

// A message file on its own (a saved .eml, a message handed over by another
// program, one file taken out of a Maildir) read as a mailbox holding that
// one message:
//
//   ZeMFileMailBox box("/tmp/upload/invoice.eml");
//   if (box.open() == 1 && box.next() == 1) {
//       ZeMessageRef& m = box.fetch();            // uid 1, key ",U1"
//       ZeImapMimeRef tree = box.retrieve_mime(m);
//       box.retrieve_section(std::cout, ",U1", "2");
//   }
//
// The message has UID 1. Its envelope: the Message-Id, From and Date fields
// of its header (date() falls back to the file's modification time when the
// Date field is missing or unreadable), the file's length as size, and the
// flags of a Maildir info part (":2,FS") when the file name has one. The
// file is never changed: every operation that would change it is refused.
class ZeMFileMsgEnv : public ZeMessageEnv {
public:
    ZeMFileMsgEnv(const std::string& name, const std::string& msgid, const std::string& from,
                  time_t date, unsigned long size);

    // The flags of the file name's Maildir info part; none without one.
    ZeMessageFlags status() override;
    std::string msgID() override { return m_msgid; }
    unsigned long uid() override { return 1; }
    // The file name up to its first ",".
    std::string basename() const override { return ZeMaildirName::basename(m_name); }
    time_t date() override { return m_date; }
    std::string from() override { return m_from; }
    unsigned long size() override { return m_size; }

private:
    std::string m_name;  // the file name, without its folder
    std::string m_msgid;
    std::string m_from;
    time_t m_date;
    unsigned long m_size;
};

class ZeMFileMsg : public ZeMDirectMessage {
public:
    // The message in the file at path; mtime and size are the file's.
    ZeMFileMsg(const std::string& path, time_t mtime, off_t size);

    Corvane::MediaIn media() override;
    std::string getFileName() const override { return m_path; }
    // The file stays as it is: does nothing.
    void replace(const Corvane::MediaIn&) override {}
    // The file is not the mailbox's to delete: 4.
    int permanent_remove() override { return 4; }

private:
    std::string m_path;
};

class ZeMFileMailBox : public ZeMReadOnlyMailBox {
public:
    explicit ZeMFileMailBox(const std::string& path, const ZeMUserRef& user = ZeMUserRef());

    // 1 when the path names a regular file (also when already open), else 0.
    int open() override;
    // open(), then the message is ahead again; the scope and filters are reset.
    void reset() override;
    // 1 once open, else 0.
    long total_messages() override;
    // The message the first time after reset() (when the scope and filters
    // take it): 1; then 0 with the current message released.
    int next() override;
    // UID 1, or the keys ",U1", "1", the file name and its base name: the
    // message as a new handle; anything else: null.
    ZeMessageRef retrieve_message(unsigned long uid) override;
    ZeMessageRef retrieve_message(const std::string& key) override;

    const std::string& path() const { return m_path; }

protected:
    const char* _class_name() const override { return "ZeMFileMailBox"; }
    const char* _unit_name() const override { return "ZeMDirectMailBox"; }

private:
    // The message as the file is now; null when it is gone.
    ZeMessageRef _message() const;

    std::string m_path;
    bool m_opened = false;
    bool m_given = false;  // next() has handed out the message since reset()
};

#endif
