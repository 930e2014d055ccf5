#include "model/ZeMUser.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "imap/ZeImapProcessor.h"
#include "imap/ZeImapRequest.h"
#include "imap/ZeImapResponse.h"
#include "model/ZeMImapSession.h"
#include "stores/ZeMaildir.h"
#include "support/Exception.h"
#include "support/StoreUtil.h"

namespace {

const char* const kUnit = "ZeMUser";

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

bool is_directory(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

long long kib(long long bytes) {
    return (bytes + 1023) / 1024;
}

// "<dir>/<file>" built the way the store library expects its names: at most
// 4095 bytes.
std::string store_file(const std::string& dir, const char* file) {
    char path[4096];
    std::snprintf(path, sizeof path, "%s/%s", dir.c_str(), file);
    return path;
}

// The text before the last "/", "" for a top-level name.
std::string parent_of(const std::string& name) {
    const std::string::size_type slash = name.rfind('/');
    return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

// Remembers whether the GETQUOTA answer held a QUOTA line.
class QuotaSeen : public ZeImapProcessor {
public:
    using ZeImapProcessor::process;
    int process(const ZeImapResponseGetQuota&) override {
        seen = true;
        return 0;
    }
    bool seen = false;
};

// The folder walk of users whose store the store library lists.
int add_visited_folder(const char* folder, void* context) {
    if (folder == nullptr) {
        return 0;
    }
    auto* user = static_cast<ZeMUser*>(context);
    if (user == nullptr) {
        return 1;
    }
    ZeMFolderRef made = ZeMFolderRef::createDirect(user->id(), folder, 0);
    if (!made.isNull()) {
        made->parent(parent_of(folder));
        user->add_folder(made);
    }
    return 1;
}

}  // namespace

// ---------------------------------------------------------------- ZeMUser

ZeMUser::ZeMUser(MailBoxType type, const std::string& name) : m_id(type, name) {}

ZeMUser::~ZeMUser() {
    // The folders go before the id they were made for.
    m_folders.clear();
}

int ZeMUser::get_quota(long long*, long long*) {
    return 0;
}

long long ZeMUser::get_folder_usage(const std::string& folder) {
    if (folder.empty() || m_id.type() == MAILBOX_TYPE_ROTATED) {
        return 0;
    }
    const std::string dir = m_id.mailfolder(folder);
    if (dir.empty() || !exists(dir)) {
        return 0;
    }
    // A cache that is there answers, also when it cannot be read (0 then):
    // only a missing one has the folder counted.
    const std::string cache = store_file(dir, ".vt_folder_size");
    if (exists(cache)) {
        long long bytes = 0;
        if (vtl_read_mail_folder_size(cache, &bytes, nullptr) != VTL_SIZE_OK) {
            bytes = 0;
        }
        return kib(bytes);
    }
    if (m_id.type() == MAILBOX_TYPE_ARCHIVE || m_id.type() == MAILBOX_TYPE_MAILDIR) {
        const long long size = vtl_get_mailbox_size(dir, nullptr);
        if (size > 0) {
            char name[4096];
            if (vtl_get_maildir_cache_file(dir, name, sizeof name) == 0) {
                ::unlink(name);
            }
            return kib(size);
        }
    }
    m_id.quota_reset();
    get_quota(nullptr, nullptr);
    return 0;
}

long long ZeMUser::get_usage() {
    long long bytes = 0;
    if (vtl_get_maildirsize(m_id.userType(), m_id.mailpath(), &bytes, nullptr) == 0) {
        return kib(bytes);
    }
    ZeMUserRef imap = ZeMUserRef::createImap(m_id.address());
    if (imap.isNull()) {
        throw Corvane::Exception("Failed to retrieve user information", 4, kUnit, __LINE__);
    }
    long long kbytes = 0;
    imap->get_quota(nullptr, &kbytes);
    return kbytes;
}

void ZeMUser::reset_iterator() {
    m_current = m_folders.begin();
    m_begin = m_folders.begin();
    m_end = m_folders.end();
}

void ZeMUser::init_folders() {
    if (m_folders_loaded != 0) {
        return;
    }
    open();
    reset_iterator();
    m_folders_loaded = 1;
}

bool ZeMUser::next_folder(ZeMFolderRef& folder) {
    if (m_folders_loaded == 0 || m_current == m_folders.end()) {
        return false;
    }
    folder = *m_current;
    ++m_current;
    return true;
}

int ZeMUser::add_folder(const ZeMFolderRef& folder) {
    if (folder.isNull()) {
        return -1;
    }
    const std::string& name = folder->name();
    const int rank = vtl_is_system_folder(name);
    auto at = m_folders.begin();
    int cmp = 1;
    for (; at != m_folders.end(); ++at) {
        const std::string& other = (*at)->name();
        const int other_rank = vtl_is_system_folder(other);
        if (rank != 0) {
            cmp = rank - other_rank;
            if (cmp <= 0 || other_rank == 0) {
                break;
            }
        } else {
            cmp = strcasecmp(name.c_str(), other.c_str());
            if (cmp <= 0 && other_rank == 0) {
                break;
            }
        }
    }
    if (at == m_folders.end()) {
        m_folders.push_back(folder);
    } else if (cmp != 0 || std::strcmp(name.c_str(), (*at)->name().c_str()) < 0) {
        m_folders.insert(at, folder);
    } else {
        // A tie that is not smaller goes to the very end of the list, not
        // behind the folder it tied with: the order callers have always seen.
        m_folders.push_back(folder);
    }
    const std::string parent = folder->parent();
    if (!parent.empty()) {
        std::for_each(m_folders.begin(), m_folders.end(), parent_helper(parent));
    }
    return static_cast<int>(m_folders.size());
}

void ZeMUser::parent_helper::operator()(ZeMFolderRef& folder) const {
    if (!folder.isNull() && folder->name() == m_parent) {
        folder->add_children(1);
    }
}

int ZeMUser::calculateSize(bool force) {
    // A stock server keeps the file as "maildirsize".
    const std::string path = store_file(m_id.mailpath(), ".maildirsize");
    if (!force && (exists(path) || exists(store_file(m_id.mailpath(), "maildirsize")))) {
        return 0;
    }
    return get_quota(nullptr, nullptr);
}

bool ZeMUser::hasImapAccess(const std::string&) const {
    return ZeMailUserId::imap_served(m_id.type());
}

// ---------------------------------------------------------------- ZeMUserImap

int ZeMUserImap::get_quota(long long* count, long long* kbytes) {
    ZeImapConnection::instance()->reconnect();
    ZePipeIO* io = ze_imap_session(m_id);
    if (io == nullptr) {
        return 4;
    }
    ZeImapRequest request(*io);
    ze_imap_noop(request, m_id);
    ZeImapCommand getquota(ZeImapCommand::GETQUOTA);
    ZeImapProcessorRef seen = ZeImapProcessorRef::make<QuotaSeen>();
    getquota.set_processor(seen);
    request.request(getquota, "\"\"");
    auto* answer = dynamic_cast<ZeImapResponseGetQuota*>(request.responser().get());
    if (answer == nullptr || !static_cast<QuotaSeen*>(seen.get())->seen) {
        return 4;
    }
    // The answer's first number is the limit, the second the usage (KiB).
    if (kbytes != nullptr) {
        *kbytes = answer->usage();
    }
    if (count != nullptr) {
        *count = answer->quota();
    }
    return 0;
}

int ZeMUserImap::logout() {
    // LOGOUT on this user's channel: the connection is made to serve this
    // user first when it serves someone else (or nobody), then ended.
    ZeImapConnection* connection = ZeImapConnection::instance();
    ZeImapRequest request(connection->get_io(m_id));
    request.timeout(5);
    request.request(ImapRequestLogout, "");
    request.timeout(ZePipeIO::kDefaultTimeout);
    return connection->close();
}

int ZeMUserImap::reset_quota() {
    // Both spellings of the bookkeeping file go (links to it stay), so that
    // the server counts afresh whichever name it keeps.
    m_id.quota_reset();
    long long count = 0;
    long long kbytes = 0;
    return get_quota(&count, &kbytes);
}

int ZeMUserImap::open() {
    ZePipeIO* io = ze_imap_session(m_id);
    if (io == nullptr) {
        return 4;
    }
    ZeImapCommand list(ZeImapCommand::LIST);
    list.set_processor(ZeImapProcessorRef::make<ZeImapProcessList>(this));
    ZeImapRequest request(*io);
    ze_imap_noop(request, m_id);
    return request.request(list, "\"\" \"*\"");
}

// ---------------------------------------------------------------- ZeMUserDirect

int ZeMUserDirect::get_quota(long long* count, long long* kbytes) {
    if (m_id.type() == MAILBOX_TYPE_ROTATED) {
        return -1;
    }
    long long bytes = 0;
    long long messages = 0;
    const int result =
        vtl_read_mail_folder_size(store_file(m_id.mailpath(), ".maildirsize"), &bytes, &messages);
    if (result != 0) {
        return result;
    }
    if (kbytes != nullptr) {
        *kbytes = kib(bytes);
    }
    if (count != nullptr) {
        *count = messages;
    }
    return 0;
}

int ZeMUserDirect::open() {
    switch (m_id.type()) {
        case MAILBOX_TYPE_MAILDIR:
            if (is_directory(m_id.mailpath())) {
                // The scanner holds the user by handle while it runs; the
                // handle adds a count, so the user outlives it either way.
                MaildirProcessor scanner(ZeMUserRef(Corvane::Ref<ZeMUser>(this)), m_id.mailpath());
                scanner.process(m_id.mailpath());
            }
            break;
        case MAILBOX_TYPE_ARCHIVE:
        case MAILBOX_TYPE_ROTATED:
            // Archive folders and rotated folders are listed by the archive
            // back-end, which this library does not have yet.
            break;
        default:
            vtl_visit_folders(m_id.mailpath(), 0, add_visited_folder, this);
            break;
    }
    return 0;
}

// ---------------------------------------------------------------- ZeMUserRef

ZeMUserRef::ZeMUserRef(MailBoxType type, const std::string& name, MailboxOpenMethod method, bool) {
    ZeMUser* made = nullptr;
    if (method == MAILBOX_OPEN_IMAP) {
        made = new ZeMUserImap(type, name);
    } else if (method == MAILBOX_OPEN_DIRECT) {
        made = new ZeMUserDirect(type, name);
    } else {
        return;
    }
    Corvane::Ref<ZeMUser>::operator=(Corvane::Ref<ZeMUser>::adopt(made));
}

ZeMUserRef ZeMUserRef::createImap(MailBoxType type, const std::string& name) {
    return ZeMUserRef(type, name, MAILBOX_OPEN_IMAP);
}
ZeMUserRef ZeMUserRef::createImap(const std::string& name) {
    return ZeMUserRef(MAILBOX_TYPE_DEFAULT, name, MAILBOX_OPEN_IMAP);
}
ZeMUserRef ZeMUserRef::createDirect(MailBoxType type, const std::string& name) {
    return ZeMUserRef(type, name, MAILBOX_OPEN_DIRECT);
}
ZeMUserRef ZeMUserRef::createDirect(const std::string& name) {
    return ZeMUserRef(MAILBOX_TYPE_DEFAULT, name, MAILBOX_OPEN_DIRECT);
}
ZeMUserRef ZeMUserRef::create(MailBoxType type, const std::string& name, MailboxOpenMethod method) {
    return ZeMUserRef(type, name, method);
}
ZeMUserRef ZeMUserRef::create(const std::string& name, MailboxOpenMethod method) {
    return ZeMUserRef(MAILBOX_TYPE_DEFAULT, name, method);
}
