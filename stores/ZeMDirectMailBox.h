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

#include <ostream>
#include <string>

#include "model/ZeMailBox.h"

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
    // The part's node of the message's tree (content type, encoding,
    // disposition, as its own header gives them); null when the tree has no
    // such part. The node is shared with the tree.
    ZeImapMimeRef retrieve_section_mime(unsigned long uid, const std::string& section) override;
    ZeImapMimeRef retrieve_section_mime(const std::string& key,
                                        const std::string& section) override;
    MailboxOpenMethod open_method() override { return MAILBOX_OPEN_DIRECT; }

    using ZeMailboxBase::append;
    // Adds a message of another mailbox; the default refuses (throws
    // " ZeMDirectMailBox::append - Not Implimented", code 4).
    virtual int append(const ZeMessageRef& message, statusOP op, ZeMessageFlags flags);

private:
    static int _write_section(std::ostream& out, const ZeMessageRef& message,
                              const std::string& section);
    ZeImapMimeRef _section_mime(ZeMessageRef message, const std::string& section);
};

#endif
