#include "model/ZeMailBox.h"

#include <cstdlib>
#include <sstream>
#include <vector>

#include "stores/ZeMailImap.h"
#include "support/StoreUtil.h"

#include "stores/ZeMaildir.h"
#include "stores/ZeMbox.h"

namespace {

std::string direct_key(unsigned long uid) {
    return ",U" + std::to_string(uid);
}

}  // namespace

unsigned long ze_message_key_uid(const std::string& key) {
    if (key.empty() || key[0] < '0' || key[0] > '9') {
        return 0;
    }
    char* end = nullptr;
    const unsigned long uid = std::strtoul(key.c_str(), &end, 10);
    return end != nullptr && *end == '\0' ? uid : 0;
}

// ---------------------------------------------------------------- messages

ZeMessageBase::~ZeMessageBase() = default;

ZeMessageRef::ZeMessageRef(ZeMessageBase* message)
    : Corvane::Ref<ZeMessageBase>(new Corvane::RefCounted<ZeMessageBase>(message, false)) {}

ZeMDirectMessage* ZeMessageRef::direct_message() const {
    return dynamic_cast<ZeMDirectMessage*>(get());
}

Corvane::HeaderContainer& ZeMDirectMessage::headers() {
    if (!m_headers_loaded) {
        m_headers_loaded = true;
        try {
            Corvane::MediaIn in = media();
            m_headers.parseHead(in);
        } catch (...) {
            m_headers.clear();
        }
    }
    return m_headers;
}

Corvane::MediaIn ZeMessageRef::media() const {
    ZeMDirectMessage* direct = direct_message();
    return direct != nullptr ? direct->media() : Corvane::MediaIn();
}

const char* ZeMessageRef::headerValue(ZeMessageRef& message, const char* name) {
    if (message.isNull() || name == nullptr) {
        return nullptr;
    }
    try {
        const Corvane::Header* header = message->headers().find(name);
        return header != nullptr ? header->value().c_str() : nullptr;
    } catch (...) {
        return nullptr;
    }
}

time_t ZeMessageRef::time(ZeMessageRef& message) {
    if (message.isNull()) {
        return 0;
    }
    try {
        Corvane::Ref<ZeMessageEnv>& env = message->env();
        return env.isNull() ? 0 : env->date();
    } catch (...) {
        return 0;
    }
}

int ze_visit_sections(ZeMessageRef& message, const ZeImapMimeRef& tree,
                      ZeMessageSectionVisitor& visitor,
                      const std::function<Corvane::MediaIn(const ZeImapMimeRef&)>& content_of) {
    std::vector<ZeImapMimeRef> pending;
    if (!tree.isNull()) {
        pending.push_back(tree);
    }
    while (!pending.empty()) {
        const ZeImapMimeRef node = pending.back();
        pending.pop_back();
        Corvane::MediaIn content = content_of(node);
        const int stop = visitor.visit(message, node, content);
        if (stop != 0) {
            return stop;
        }
        const std::list<ZeImapMimeRef>& children = node->children();
        for (auto child = children.rbegin(); child != children.rend(); ++child) {
            pending.push_back(*child);
        }
    }
    return 0;
}

// ---------------------------------------------------------------- ZeMailboxBase

ZeMailboxBase::~ZeMailboxBase() = default;

int ZeMailboxBase::rename(const std::string&) {
    return 0;
}

const std::string& ZeMailboxBase::last_error() const {
    static const std::string* const none = new std::string();
    return *none;
}

void ZeMailboxBase::setFilter(const ZeMFilterRef&) {}

bool ZeMailboxBase::_ensure_scope_filter() {
    if (m_scope_filter.isNull()) {
        m_scope_filter = ZeMScopeAndFilterRef::createScopeAndFilter();
    }
    return !m_scope_filter.isNull();
}

void ZeMailboxBase::andFilter(const ZeMFilterRef& filter) {
    if (!filter.isNull() && _ensure_scope_filter()) {
        m_scope_filter->andFilter(filter);
    }
}

void ZeMailboxBase::orFilter(const ZeMFilterRef& filter) {
    if (!filter.isNull() && _ensure_scope_filter()) {
        m_scope_filter->orFilter(filter);
    }
}

void ZeMailboxBase::setScope(const ZeMScopeRef& scope) {
    if (!scope.isNull() && _ensure_scope_filter()) {
        m_scope_filter->setScope(scope);
    }
}

void ZeMailboxBase::setScopeAndFilter(const ZeMScopeAndFilterRef& scope_filter) {
    m_scope_filter = scope_filter;
}

int ZeMailboxBase::modify_message(const std::string&, const ZeMessageFlags&) {
    return 0;
}

int ZeMailboxBase::modify_message(unsigned long uid, const ZeMessageFlags& flags) {
    if (uid == 0) {
        return 4;
    }
    return modify_message(std::to_string(uid), flags);
}

int ZeMailboxBase::move_message(const std::string&, const std::string&) {
    return 0;
}

int ZeMailboxBase::remove_message(const std::string&, bool) {
    return 0;
}

ZeImapMimeRef ZeMailboxBase::retrieve_mime(ZeMessageRef& message) {
    if (message.isNull()) {
        return ZeImapMimeRef();
    }
    return ZeImapMimeRef(message->mime());
}

int ZeMailboxBase::retrieve_section(Corvane::Buffer& buffer, unsigned long uid,
                                    const std::string& section) {
    if (uid == 0) {
        return 0;
    }
    std::ostringstream text;
    const MailboxOpenMethod method = open_method();
    if (method == MAILBOX_OPEN_DIRECT) {
        retrieve_section(text, direct_key(uid), section);
    } else if (method == MAILBOX_OPEN_IMAP) {
        retrieve_section(text, uid, section);
    }
    buffer.append(text.str());
    return 0;
}

int ZeMailboxBase::retrieve_section(std::ostream& out, unsigned long uid,
                                    const std::string& section) {
    if (open_method() == MAILBOX_OPEN_DIRECT && uid != 0) {
        return retrieve_section(out, direct_key(uid), section);
    }
    return 0;
}

int ZeMailboxBase::retrieve_section(std::ostream& out, const std::string& key,
                                    const std::string& section) {
    if (open_method() != MAILBOX_OPEN_IMAP) {
        return 0;
    }
    const unsigned long uid = ze_message_key_uid(key);
    return uid == 0 ? 0 : retrieve_section(out, uid, section);
}

int ZeMailboxBase::foreach_sections(ZeMessageRef&, ZeMessageSectionVisitor*) {
    return 0;
}

ZeImapMimeRef ZeMailboxBase::retrieve_section_mime(unsigned long, const std::string&) {
    return ZeImapMimeRef();
}

ZeImapMimeRef ZeMailboxBase::retrieve_section_mime(const std::string& key,
                                                   const std::string& section) {
    if (open_method() != MAILBOX_OPEN_IMAP) {
        return ZeImapMimeRef();
    }
    const unsigned long uid = ze_message_key_uid(key);
    return uid == 0 ? ZeImapMimeRef() : retrieve_section_mime(uid, section);
}

int ZeMailboxBase::append(const std::string&, const ZeMessageFlags&) {
    return 0;
}

std::string ZeMailboxBase::username() const {
    return m_user.isNull() ? std::string() : m_user->id().address();
}

int ZeMailboxBase::userType() const {
    return m_user.isNull() ? 0 : m_user->id().type();
}

// ---------------------------------------------------------------- ZeMailBoxRef

ZeMailBoxRef::ZeMailBoxRef(ZeMUserRef user, const std::string& folder, MailboxOpenMethod method,
                           MailBoxOp op) {
    if (folder.find("../") != std::string::npos) {
        return;
    }
    const bool option1 = (op & MAILBOX_OP_OPTION1) != 0;
    const bool create = (op & MAILBOX_OP_CREATE) != 0;
    ZeMailboxBase* made = nullptr;
    if (method == MAILBOX_OPEN_IMAP) {
        made = new ZeMailBoxImap(user, folder, option1, create);
    } else if (method == MAILBOX_OPEN_DIRECT && !user.isNull()) {
        if (user->id().type() == MAILBOX_TYPE_ROTATED) {
            // Rotated folders are read by the mail-queue back-end, which this
            // build does not have.
            return;
        }
        const std::string dir = user->id().mailfolder(folder);
        if (dir.empty()) {
            return;
        }
        if (vtl_is_maildir_folder(dir)) {
            made = new ZeMaildir(user, dir, option1, create);
        }
        if (made == nullptr && vtl_is_mbox(dir)) {
            made = new ZeMbox(dir, option1, create);
        }
    }
    if (made == nullptr) {
        return;
    }
    made->mailfolder(folder);
    Corvane::Ref<ZeMailboxBase>::operator=(Corvane::Ref<ZeMailboxBase>::adopt(made));
}

ZeMailBoxRef ZeMailBoxRef::create(const ZeMailUserId& id, const std::string& folder,
                                  MailboxOpenMethod method, MailBoxOp op) {
    return ZeMailBoxRef(
        ZeMUserRef::create(static_cast<MailBoxType>(id.type()), id.address(), method), folder,
        method, op);
}

ZeMailBoxRef ZeMailBoxRef::create(const std::string& user, const std::string& folder,
                                  MailboxOpenMethod method, MailBoxOp op) {
    return ZeMailBoxRef(ZeMUserRef::create(MAILBOX_TYPE_DEFAULT, user, method), folder, method, op);
}

ZeMailBoxRef ZeMailBoxRef::create(const std::string& path, MailboxOpenMethod method, MailBoxOp op) {
    return ZeMailBoxRef(ZeMUserRef::create(MAILBOX_TYPE_PATH, path, method), path, method, op);
}

ZeMailBoxRef ZeMailBoxRef::create(const MailBoxType& type, const std::string& user,
                                  const std::string& folder, MailboxOpenMethod method,
                                  MailBoxOp op) {
    switch (static_cast<int>(type)) {
        case 1:
        case 6:
        case 7:
        case 8:
        case 11:
            return ZeMailBoxRef(ZeMUserRef::create(type, user, method), folder, method, op);
        case 2:
            // These users keep one mailbox, the undelivered mail.
            return ZeMailBoxRef(ZeMUserRef::create(type, user, MAILBOX_OPEN_IMAP), "dead.letter",
                                method, op);
        case 3:
        case 4:
            return ZeMailBoxRef(ZeMUserRef::create(type, user, MAILBOX_OPEN_IMAP), folder, method,
                                op);
        case 5:
        case 10:
            return ZeMailBoxRef(ZeMUserRef::create(type, user, MAILBOX_OPEN_DIRECT), folder,
                                MAILBOX_OPEN_DIRECT, op);
        default:
            return ZeMailBoxRef();
    }
}
