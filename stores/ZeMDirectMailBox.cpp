#include "stores/ZeMDirectMailBox.h"

#include <memory>

#include "support/Exception.h"
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
    return _write_section(out, retrieve_message(key), section);
}

int ZeMDirectMailBox::retrieve_body(std::ostream& out, unsigned long uid) {
    return _write_section(out, retrieve_message(uid), std::string());
}

int ZeMDirectMailBox::foreach_sections(ZeMessageRef& message, ZeMessageSectionVisitor* visitor) {
    if (message.isNull() || visitor == nullptr) {
        return 0;
    }
    ZeImapMimeRef tree = retrieve_mime(message);
    if (tree.isNull()) {
        return 4;
    }
    const ParsedMessage parsed(message);
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
    ZeImapMimeRef tree = retrieve_mime(message);
    return tree.isNull() ? ZeImapMimeRef() : ZeImapMimeRef(tree.find(section));
}

ZeImapMimeRef ZeMDirectMailBox::retrieve_section_mime(unsigned long uid,
                                                      const std::string& section) {
    return _section_mime(retrieve_message(uid), section);
}

ZeImapMimeRef ZeMDirectMailBox::retrieve_section_mime(const std::string& key,
                                                      const std::string& section) {
    return _section_mime(retrieve_message(key), section);
}

int ZeMDirectMailBox::append(const ZeMessageRef&, statusOP, ZeMessageFlags) {
    throw Corvane::Exception(" ZeMDirectMailBox::append - Not Implimented", 4, "ZeMDirectMailBox",
                             __LINE__);
}
