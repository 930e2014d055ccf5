#include "model/ZeMFolder.h"

#include <unistd.h>

#include <ctime>
#include <memory>

#include "imap/ZeImapProcessor.h"
#include "imap/ZeImapRequest.h"
#include "model/ZeMImapSession.h"

namespace {

// The answer of an operation that sends nothing because it cannot.
constexpr int kRefused = 4;

bool refused_name(const std::string& name) {
    return name.find("../") != std::string::npos;
}

// A request on the folder's user session with NOOP sent first, which logs
// the session in and selects it for this user; empty when the user cannot
// be served.
std::unique_ptr<ZeImapRequest> session_request(const ZeMailUserId& id) {
    ZePipeIO* io = ze_imap_session(id);
    if (io == nullptr) {
        return nullptr;
    }
    std::unique_ptr<ZeImapRequest> request(new ZeImapRequest(*io));
    ze_imap_noop(*request, id);
    return request;
}

}  // namespace

bool ze_imap_quote_folder(const std::string& name, std::string& out) {
    if (name.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
        return false;
    }
    std::string quoted;
    quoted.reserve(name.size() + 2);
    quoted += '"';
    for (char c : name) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    quoted += '"';
    out.swap(quoted);
    return true;
}

// ---------------------------------------------------------------- ZeMFolder

ZeMFolder::ZeMFolder(const ZeMailUserId& id, const std::string& name, int children)
    : m_id(id), m_name(name), m_children(children) {}

ZeMFolder::ZeMFolder(const ZeMFolder& other)
    : Corvane::RefImpl(other),
      m_id(other.m_id),
      m_name(other.m_name),
      m_parent(other.m_parent),
      m_children(other.m_children),
      m_size(other.m_size),
      m_messages(other.m_messages),
      m_recent(other.m_recent),
      m_uidnext(other.m_uidnext),
      m_unseen(other.m_unseen),
      m_x_size(other.m_x_size) {}

ZeMFolder& ZeMFolder::operator=(const ZeMFolder& other) {
    if (this != &other) {
        m_id = other.m_id;
        m_name = other.m_name;
        m_parent = other.m_parent;
        m_children = other.m_children;
        m_size = other.m_size;
        m_messages = other.m_messages;
        m_recent = other.m_recent;
        m_uidnext = other.m_uidnext;
        m_unseen = other.m_unseen;
        m_x_size = other.m_x_size;
    }
    return *this;
}

ZeMFolder::~ZeMFolder() = default;

int ZeMFolder::get_status() {
    return 0;
}
int ZeMFolder::create() {
    return 0;
}
int ZeMFolder::remove() {
    return 0;
}
int ZeMFolder::remove_deferred() {
    return 0;
}
int ZeMFolder::rename(const std::string&) {
    return 0;
}

int ZeMFolder::add_children(int n) {
    m_children += n;
    return m_children;
}

bool ZeMFolder::operator==(const ZeMFolder& other) const {
    return m_parent == other.m_parent && m_name == other.m_name;
}

// ---------------------------------------------------------------- ZeMFolderImap

void ZeMFolderImap::set(long messages, long recent, long uidnext, long unseen, long long x_size) {
    m_messages = messages;
    m_recent = recent;
    m_uidnext = uidnext;
    m_unseen = unseen;
    m_x_size = x_size;
}

int ZeMFolderImap::get_status() {
    std::string quoted;
    if (!ze_imap_quote_folder(m_name, quoted)) {
        return 0;
    }
    std::unique_ptr<ZeImapRequest> request = session_request(m_id);
    if (!request) {
        return 0;
    }
    ZeImapCommand status(ZeImapCommand::STATUS);
    status.set_processor(ZeImapProcessorRef::make<ZeImapProcessStatus>(this));
    request->request(status, quoted + " (messages recent uidnext unseen x-size)");
    return 0;
}

int ZeMFolderImap::create() {
    return _name_command(ImapRequestCreate);
}

int ZeMFolderImap::remove() {
    return _name_command(ImapRequestDelete);
}

int ZeMFolderImap::_name_command(const ZeImapCommand& command) {
    std::string quoted;
    std::unique_ptr<ZeImapRequest> request;
    if (!ze_imap_quote_folder(m_name, quoted) || !(request = session_request(m_id))) {
        return kRefused;
    }
    return request->request(command, quoted);
}

int ZeMFolderImap::rename(const std::string& new_name) {
    std::string from;
    std::string to;
    std::unique_ptr<ZeImapRequest> request;
    if (refused_name(new_name) || !ze_imap_quote_folder(m_name, from) ||
        !ze_imap_quote_folder(new_name, to) || !(request = session_request(m_id))) {
        return kRefused;
    }
    const int renamed = request->request(ImapRequestRename, from + " " + to);
    if (renamed != 0) {
        return renamed;
    }
    return request->request(ImapRequestSelect, to);
}

int ZeMFolderImap::remove_deferred() {
    std::string flat = m_name;
    for (char& c : flat) {
        if (c == '/') {
            c = '.';
        }
    }
    const std::string hidden = ".deleted." +
                               std::to_string(static_cast<long long>(std::time(nullptr))) + "." +
                               std::to_string(static_cast<long>(getpid())) + "." + flat;
    const int result = rename(hidden);
    if (result == 0) {
        m_id.quota_reset();
    }
    return result;
}

// ---------------------------------------------------------------- ZeMFolderRef

ZeMFolderRef ZeMFolderRef::create(const ZeMailUserId& id, const std::string& name, int children) {
    if (refused_name(name)) {
        return ZeMFolderRef();
    }
    return ZeMFolderRef(Corvane::Ref<ZeMFolder>::adopt(new ZeMFolderImap(id, name, children)));
}

ZeMFolderRef ZeMFolderRef::createDirect(const ZeMailUserId& id, const std::string& name,
                                        int children) {
    if (refused_name(name)) {
        return ZeMFolderRef();
    }
    return ZeMFolderRef(Corvane::Ref<ZeMFolder>::adopt(new ZeMFolder(id, name, children)));
}
