#include "stores/ZeMDirectMailBox.h"

#include <sys/stat.h>

#include <memory>

#include "support/Exception.h"
#include "support/mime/DateTime.h"
#include "support/mime/Encoders.h"
#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"

namespace {

// A direct message's bytes, read once through its own stream (a file for
// Maildir and single-message files, the unquoted text for mbox), and their
// tree. Empty (root null) for a null message or one that cannot be read.
struct ParsedMessage {
    std::string bytes;
    std::unique_ptr<Corvane::MimePart> root;

    explicit ParsedMessage(const ZeMessageRef& message) {
        ZeMDirectMessage* direct = message.direct_message();
        if (direct == nullptr) {
            return;
        }
        Corvane::MediaIn in = direct->media();
        if (in.isNull()) {
            return;
        }
        bytes = in.readAll();
        root = Corvane::Rfc822MsgParser().parse(bytes);
    }

    // The section's bytes as the server sends them; empty when the section
    // names nothing (the server then answers with no bytes, too).
    std::string section(const std::string& name, Corvane::SectionForm form) const {
        std::string out;
        if (!Corvane::readSection(bytes.data(), bytes.size(), *root, name, out, form)) {
            out.clear();
        }
        return out;
    }
};

}  // namespace

int ZeMDirectMailBox::_write_section(std::ostream& out, const ZeMessageRef& message,
                                     const std::string& section) {
    const ParsedMessage parsed(message);
    if (parsed.root == nullptr) {
        return 4;
    }
    const std::string bytes = parsed.section(section, Corvane::SectionForm::IMAP);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return 0;
}

ZeImapMimeRef ZeMDirectMailBox::retrieve_mime(ZeMessageRef& message) {
    if (message.isNull()) {
        return ZeImapMimeRef();
    }
    if (message->mime().isNull()) {
        const ParsedMessage parsed(message);
        if (parsed.root == nullptr) {
            return ZeImapMimeRef();
        }
        message->mime(toImapMime(*parsed.root));
    }
    return ZeImapMimeRef(message->mime());
}

int ZeMDirectMailBox::retrieve_section(std::ostream& out, unsigned long uid,
                                       const std::string& section) {
    return ZeMailboxBase::retrieve_section(out, uid, section);
}

int ZeMDirectMailBox::retrieve_section(std::ostream& out, const std::string& key,
                                       const std::string& section) {
    return _write_section(out, _message_by_key(key), section);
}

int ZeMDirectMailBox::retrieve_body(std::ostream& out, unsigned long uid) {
    return _write_section(out, retrieve_message(uid), std::string());
}

int ZeMDirectMailBox::foreach_sections(ZeMessageRef& message, ZeMessageSectionVisitor* visitor) {
    if (message.isNull() || visitor == nullptr) {
        return 0;
    }
    // One read serves both the tree (unless the message has it already) and
    // the parts' contents.
    const ParsedMessage parsed(message);
    if (message->mime().isNull() && parsed.root != nullptr) {
        message->mime(toImapMime(*parsed.root));
    }
    ZeImapMimeRef tree(message->mime());
    if (tree.isNull()) {
        return 4;
    }
    return ze_visit_sections(message, tree, *visitor, [&](const ZeImapMimeRef& node) {
        if (node->media_type() == Corvane::ContentType::MULTIPART) {
            return Corvane::MediaIn();
        }
        std::string decoded;
        if (parsed.root != nullptr) {
            // A single-part message's body is its section 1.
            const std::string raw = parsed.section(node->section().empty() ? "1" : node->section(),
                                                   Corvane::SectionForm::IMAP);
            Corvane::MediaOut decoder = Corvane::get_decoder(node->content_type().encoding,
                                                             Corvane::MediaOut::toString(decoded));
            decoder->write(raw.data(), raw.size());
            decoder->end();
        }
        return Corvane::MediaIn::fromString(decoded);
    });
}

ZeImapMimeRef ZeMDirectMailBox::_section_mime(ZeMessageRef message, const std::string& section) {
    if (section.empty()) {
        return ZeImapMimeRef();
    }
    // The part's own header typed as the IMAP mailbox types the server's
    // BODY[<section>.MIME] answer, so that both give the same node.
    const ParsedMessage parsed(message);
    if (parsed.root == nullptr) {
        return ZeImapMimeRef();
    }
    const std::string header = parsed.section(section + ".MIME", Corvane::SectionForm::STORED);
    return header.size() > 10 ? ze_mime_node_from_header(header.data(), header.size())
                              : ZeImapMimeRef();
}

ZeImapMimeRef ZeMDirectMailBox::retrieve_section_mime(unsigned long uid,
                                                      const std::string& section) {
    return _section_mime(retrieve_message(uid), section);
}

ZeImapMimeRef ZeMDirectMailBox::retrieve_section_mime(const std::string& key,
                                                      const std::string& section) {
    return _section_mime(_message_by_key(key), section);
}

int ZeMDirectMailBox::append(const ZeMessageRef&, statusOP, ZeMessageFlags) {
    throw Corvane::Exception(" ZeMDirectMailBox::append - Not Implimented", 4, "ZeMDirectMailBox",
                             __LINE__);
}

// ---------------------------------------------------- single-message files

ZeMFileMsgEnv::ZeMFileMsgEnv(const std::string& name, const std::string& msgid,
                             const std::string& from, time_t date, unsigned long size)
    : m_name(name), m_msgid(msgid), m_from(from), m_date(date), m_size(size) {}

ZeMessageFlags ZeMFileMsgEnv::status() {
    ZeMessageFlags result;
    const ZeMaildirName::FlagChars letters = ZeMaildirName::flagChars(m_name);
    for (std::size_t c = 0; c < letters.size(); ++c) {
        if (letters.test(c)) {
            result.flags |= ZeMessageFlags::getMaildirFlagRev(static_cast<unsigned char>(c));
        }
    }
    return result;
}

ZeMFileMsg::ZeMFileMsg(const std::string& path, time_t mtime, off_t size) : m_path(path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    time_t date = mtime;
    Corvane::parseRfc5322Date(headers().get("Date"), &date);
    m_uid = 1;
    m_basename = ZeMaildirName::basename(name);
    m_received = mtime;
    m_env = Corvane::Ref<ZeMessageEnv>::adopt(
        new ZeMFileMsgEnv(name, headers().get("Message-Id"), headers().get("From"), date,
                          size > 0 ? static_cast<unsigned long>(size) : 0));
    m_flags = m_env->status();
}

Corvane::MediaIn ZeMFileMsg::media() {
    return Corvane::MediaIn::fromFile(m_path);
}

ZeMFileMailBox::ZeMFileMailBox(const std::string& path, const ZeMUserRef& user)
    : ZeMReadOnlyMailBox(user), m_path(path) {}

ZeMessageRef ZeMFileMailBox::_message() const {
    struct stat st;
    if (::stat(m_path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        return ZeMessageRef();
    }
    return ZeMessageRef(new ZeMFileMsg(m_path, st.st_mtime, st.st_size));
}

int ZeMFileMailBox::open() {
    if (!m_opened) {
        struct stat st;
        m_opened = ::stat(m_path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    }
    return m_opened ? 1 : 0;
}

void ZeMFileMailBox::reset() {
    open();
    m_given = false;
    if (!m_scope_filter.isNull()) {
        m_scope_filter->reset();
    }
}

long ZeMFileMailBox::total_messages() {
    return open();
}

int ZeMFileMailBox::next() {
    ZeMessageRef message;
    if (open() == 1 && !m_given && !_scope_done()) {
        message = _message();
    }
    m_given = true;
    if (message.isNull() || !_scope_takes(*message->env()) || !_scope_takes(*message)) {
        m_current.release();
        return 0;
    }
    m_current = message;
    return 1;
}

ZeMessageRef ZeMFileMailBox::retrieve_message(unsigned long uid) {
    return uid == 1 ? _message() : ZeMessageRef();
}

ZeMessageRef ZeMFileMailBox::retrieve_message(const std::string& key) {
    const std::string name = m_path.substr(m_path.rfind('/') + 1);
    const bool ours = key == ",U1" || key == "1" ||
                      (!key.empty() && (key == name || key == ZeMaildirName::basename(name)));
    return ours ? _message() : ZeMessageRef();
}

// ------------------------------------------------------ read-only stores

void ZeMReadOnlyMailBox::_refuse(const char* operation, int line) const {
    throw Corvane::Exception(
        std::string(" ") + _class_name() + "::" + operation + " - Not Implimented", 4, _unit_name(),
        line);
}

int ZeMReadOnlyMailBox::expunge() {
    _refuse("expunge", __LINE__);
}

int ZeMReadOnlyMailBox::clean() {
    _refuse("clean", __LINE__);
}

int ZeMReadOnlyMailBox::modify_message(const std::string&, const ZeMessageFlags&) {
    _refuse("modify_message", __LINE__);
}

int ZeMReadOnlyMailBox::move_message(const std::string&, const std::string&) {
    _refuse("move_message", __LINE__);
}

int ZeMReadOnlyMailBox::remove_message(const std::string&, bool) {
    _refuse("remove_message", __LINE__);
}

int ZeMReadOnlyMailBox::append(const std::string&, const ZeMessageFlags&) {
    _refuse("append", __LINE__);
}

int ZeMReadOnlyMailBox::append(const ZeMessageRef&, statusOP, ZeMessageFlags) {
    _refuse("append", __LINE__);
}
