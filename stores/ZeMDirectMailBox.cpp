#include "stores/ZeMDirectMailBox.h"

#include <memory>

#include "support/Exception.h"
#include "support/mime/Encoders.h"
#include "support/mime/MimeTree.h"
#include "support/mime/Rfc822MsgParser.h"

namespace {

// The message's file parsed, or null for a null message or an unreadable file.
std::unique_ptr<Corvane::MimePart> parse(const ZeMessageRef& message, std::string* path) {
    ZeMDirectMessage* direct = message.direct_message();
    if (direct == nullptr) {
        return nullptr;
    }
    *path = direct->getFileName();
    return Corvane::Rfc822MsgParser().parseFile(*path);
}

// The section's bytes as the server sends them: true when the message file
// could be read; out stays empty when the section names nothing (the server
// then answers with no bytes, too).
bool section_bytes(const ZeMessageRef& message, const std::string& section, std::string& out) {
    std::string path;
    std::unique_ptr<Corvane::MimePart> root = parse(message, &path);
    if (root == nullptr) {
        return false;
    }
    if (!Corvane::readSection(path, *root, section, out)) {
        out.clear();
    }
    return true;
}

}  // namespace

int ZeMDirectMailBox::_write_section(std::ostream& out, const ZeMessageRef& message,
                                     const std::string& section) {
    std::string bytes;
    if (!section_bytes(message, section, bytes)) {
        return 4;
    }
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return 0;
}

ZeImapMimeRef ZeMDirectMailBox::retrieve_mime(ZeMessageRef& message) {
    if (message.isNull()) {
        return ZeImapMimeRef();
    }
    if (message->mime().isNull()) {
        std::string path;
        std::unique_ptr<Corvane::MimePart> root = parse(message, &path);
        if (root == nullptr) {
            return ZeImapMimeRef();
        }
        message->mime(toImapMime(*root));
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
    std::string path;
    std::unique_ptr<Corvane::MimePart> root = parse(message, &path);
    return ze_visit_sections(message, tree, *visitor, [&](const ZeImapMimeRef& node) {
        if (node->media_type() == Corvane::ContentType::MULTIPART) {
            return Corvane::MediaIn();
        }
        // A single-part message's body is its section 1.
        const std::string section = node->section().empty() ? "1" : node->section();
        std::string raw;
        std::string decoded;
        if (root != nullptr && Corvane::readSection(path, *root, section, raw)) {
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
