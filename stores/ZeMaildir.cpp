#include "stores/ZeMaildir.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

#include <boost/filesystem/operations.hpp>

#include "support/Exception.h"
#include "support/StoreUtil.h"

namespace {

// The unit named in exceptions and debug records.
const char kUnit[] = "ZeMaildir";
// Callers match the append refusal on its text and line.
const int kAppendLine = 358;
const int kMaxTreeDepth = 64;

bool hidden(const char* name) {
    return name[0] == '.';
}

// Renames without ever replacing another file: two files that differ only
// in their flag letters, or a new/ and a cur/ file of the same name, must
// not become one. Falls back to a plain rename after an existence test
// where the file system cannot refuse to replace.
bool rename_no_replace(const std::string& from, const std::string& to) {
    if (from == to) {
        return ::access(from.c_str(), F_OK) == 0;
    }
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno == EINVAL || errno == ENOSYS) {
        return ::access(to.c_str(), F_OK) != 0 && ::rename(from.c_str(), to.c_str()) == 0;
    }
    return false;
}

}  // namespace

// ------------------------------------------------------------------ envelope

ZeMaildirMsgEnv::ZeMaildirMsgEnv(const std::string& dir, std::string name, unsigned long uid)
    : m_dir(dir),
      m_name(std::move(name)),
      m_uid(uid),
      m_flagchars(ZeMaildirName::flagChars(m_name)),
      m_size(0),
      m_msgid(m_name) {
    // Taken now, not on the first size(): by then the server may have
    // renamed the file, and a stat of the old name would give 0.
    if (!ZeMaildirName::sizeFromName(m_name, &m_size) &&
        !ZeMaildirName::serverSizeFromName(m_name, &m_size)) {
        struct stat st;
        if (::stat((m_dir + m_name).c_str(), &st) == 0 && st.st_size > 0) {
            const auto max = std::numeric_limits<std::uint32_t>::max();
            m_size = static_cast<std::uint64_t>(st.st_size) > max
                         ? max
                         : static_cast<std::uint32_t>(st.st_size);
        }
    }
}

ZeMessageFlags ZeMaildirMsgEnv::status() {
    return ZeMessageFlags(ZeMaildirName::flagBits(m_flagchars));
}

void ZeMaildirMsgEnv::setflag(unsigned int flag) {
    _change(flag, true);
}

void ZeMaildirMsgEnv::unsetflag(unsigned int flag) {
    _change(flag, false);
}

void ZeMaildirMsgEnv::_change(unsigned int flag, bool on) {
    unsigned char letter = ZeMessageFlags::getMaildirFlag(flag);
    if (letter == 0 || letter >= m_flagchars.size()) {
        return;
    }
    const bool was = m_flagchars.test(letter);
    m_flagchars.set(letter, on);
    const std::string renamed = newName();
    if (!rename_no_replace(m_dir + m_name, m_dir + renamed)) {
        m_flagchars.set(letter, was);
        return;
    }
    m_name = renamed;
    m_msgid = renamed;
}

// ------------------------------------------------------------------- message

ZeMaildirMsg::ZeMaildirMsg(const Corvane::Ref<ZeMessageEnv>& env, const std::string& path)
    : m_path(path) {
    m_env = env;
    if (!env.isNull()) {
        const unsigned long uid = env.get()->uid();
        m_uid = uid == ZeUIDListImpl::kUnknownUid ? 0 : uid;
        m_basename = env.get()->basename();
        m_received = env.get()->date();
    }
}

ZeMessageFlags& ZeMaildirMsg::flags() {
    if (!m_env.isNull()) {
        m_flags = m_env.get()->status();
    }
    return m_flags;
}

Corvane::MediaIn ZeMaildirMsg::media() {
    return Corvane::MediaIn::fromFile(m_path);
}

int ZeMaildirMsg::permanent_remove() {
    return vtl_maildir_unlink_mail(m_path, 0);
}

ZeMaildirMsgEnv* ZeMaildirMsg::_maildir_env() {
    return dynamic_cast<ZeMaildirMsgEnv*>(m_env.get());
}

bool ZeMaildirMsg::_has_bit_at(unsigned int flag) {
    const std::uint32_t mask = std::uint32_t{1} << (flag % 32);
    return m_env.get()->status().test(mask);
}

void ZeMaildirMsg::setflag(unsigned int flag) {
    ZeMaildirMsgEnv* env = _maildir_env();
    if (env == nullptr || _has_bit_at(flag)) {
        return;
    }
    env->setflag(flag);
    m_path = env->dir() + env->name();
}

void ZeMaildirMsg::unsetflag(unsigned int flag) {
    ZeMaildirMsgEnv* env = _maildir_env();
    if (env == nullptr || !_has_bit_at(flag)) {
        return;
    }
    env->unsetflag(flag);
    m_path = env->dir() + env->name();
}

// ------------------------------------------------------------------- mailbox

ZeMaildir::ZeMaildir(ZeMUserRef user, const std::string& path, unsigned long create)
    : ZeMDirectMailBox(user), m_create((create & 1) != 0), m_path(path) {}

ZeMaildir::ZeMaildir(ZeMUserRef user, const std::string& path, bool flag, bool create)
    : ZeMDirectMailBox(user), m_create(create), m_flag(flag), m_path(path) {}

ZeMaildir::~ZeMaildir() = default;

int ZeMaildir::open() {
    if (m_opened) {
        return 1;
    }
    if (m_create && vtl_mkdir_maildir(m_path, 0) != 0) {
        return 0;
    }
    moveNewMessages();
    m_walk_start = true;
    m_subdir = "cur";
    m_walk_dir = m_path + "/" + m_subdir + "/";
    m_dir.reset(::opendir(m_walk_dir.c_str()));
    m_opened = true;
    return 1;
}

void ZeMaildir::close(bool full) {
    m_dir.reset();
    if (full) {
        m_opened = false;
    }
}

void ZeMaildir::reset() {
    if (open() && m_dir) {
        ::rewinddir(m_dir.get());
    }
    m_walk_start = true;
    if (!m_scope_filter.isNull()) {
        m_scope_filter->reset();
    }
}

long ZeMaildir::total_messages() {
    open();
    DirStream cur(::opendir((m_path + "/cur").c_str()));
    long count = 0;
    if (cur) {
        while (const dirent* entry = ::readdir(cur.get())) {
            if (!hidden(entry->d_name)) {
                ++count;
            }
        }
    }
    return count;
}

void ZeMaildir::moveNewMessages() {
    const std::string from = m_path + "/new/";
    const std::string to = m_path + "/cur/";
    DirStream incoming(::opendir(from.c_str()));
    if (!incoming) {
        return;
    }
    while (const dirent* entry = ::readdir(incoming.get())) {
        // Never over a cur/ file of the same name: that is another message.
        if (!hidden(entry->d_name)) {
            rename_no_replace(from + entry->d_name, to + entry->d_name);
        }
    }
}

ZeMessageRef ZeMaildir::_make_message(const std::string& dir, const std::string& name,
                                      unsigned long uid) const {
    Corvane::Ref<ZeMessageEnv> env =
        Corvane::Ref<ZeMessageEnv>::adopt(new ZeMaildirMsgEnv(dir, name, uid));
    return ZeMessageRef(new ZeMaildirMsg(env, dir + name));
}

int ZeMaildir::next() {
    if (!open() || !m_dir) {
        m_current.release();
        return 0;
    }
    const std::string& dir = m_walk_dir;
    while (const dirent* entry = ::readdir(m_dir.get())) {
        if (hidden(entry->d_name)) {
            continue;
        }
        if (_scope_done()) {
            break;
        }
        std::string name = entry->d_name;
        const unsigned long uid = m_walk_start ? uid_from_file(name) : _uid_list().cached_uid(name);
        m_walk_start = false;
        auto* made = new ZeMaildirMsgEnv(dir, std::move(name), uid);
        Corvane::Ref<ZeMessageEnv> env = Corvane::Ref<ZeMessageEnv>::adopt(made);
        if (!_scope_takes(*env)) {
            continue;
        }
        ZeMessageRef message(new ZeMaildirMsg(env, dir + made->name()));
        if (!_scope_takes(*message)) {
            continue;
        }
        m_current = message;
        return 1;
    }
    m_current.release();
    return 0;
}

ZeMessageRef& ZeMaildir::fetch(const std::string& name) {
    // A file name never holds "/": refusing it keeps lookups inside cur/.
    if (name.empty() || name.find('/') != std::string::npos) {
        m_current.release();
        return m_current;
    }
    const std::string dir = m_path + "/cur/";
    if (::access((dir + name).c_str(), F_OK) == 0) {
        m_current = _make_message(dir, name, uid_from_file(name));
        return m_current;
    }
    // Renamed since the caller saw it: find it by the part of the name that
    // a flag change keeps.
    const std::string::size_type prefix = ZeMaildirName::stablePrefix(name);
    DirStream cur(prefix == std::string::npos || prefix == 0 ? nullptr : ::opendir(dir.c_str()));
    if (cur) {
        while (const dirent* entry = ::readdir(cur.get())) {
            const std::string candidate = entry->d_name;
            if (!hidden(entry->d_name) && candidate.compare(0, prefix, name, 0, prefix) == 0) {
                cur.reset();
                m_current = _make_message(dir, candidate, uid_from_file(candidate));
                return m_current;
            }
        }
    }
    m_current.release();
    return m_current;
}

ZeMessageRef ZeMaildir::retrieve_message(unsigned long uid) {
    return _retrieve_message(file_from_uid(uid), std::string());
}

ZeMessageRef ZeMaildir::retrieve_message(const std::string& name) {
    return _retrieve_message(name, std::string());
}

ZeMessageRef ZeMaildir::_message_by_key(const std::string& key) {
    const unsigned long uid =
        key.compare(0, 2, ZeMaildirName::kUidMarker) == 0 ? ze_message_key_uid(key.substr(2)) : 0;
    return _retrieve_message(key, uid != 0 ? file_from_uid(uid) : std::string());
}

ZeMessageRef ZeMaildir::_retrieve_message(const std::string& key, const std::string& alt) {
    if (key.empty()) {
        return ZeMessageRef();
    }
    moveNewMessages();
    const std::string dir = m_path + "/cur/";
    DirStream cur(::opendir(dir.c_str()));
    if (!cur) {
        return ZeMessageRef();
    }
    while (const dirent* entry = ::readdir(cur.get())) {
        if (hidden(entry->d_name)) {
            continue;
        }
        const std::string name = entry->d_name;
        if (name.find(key) != std::string::npos ||
            (!alt.empty() && name.find(alt) != std::string::npos)) {
            cur.reset();
            return _make_message(dir, name, 0);
        }
    }
    cur.reset();
    m_current.release();
    return m_current;
}

int ZeMaildir::expunge() {
    close(true);
    if (!open() || !m_dir) {
        return 0;
    }
    const std::string dir = m_path + "/" + m_subdir + "/";
    while (const dirent* entry = ::readdir(m_dir.get())) {
        if (hidden(entry->d_name)) {
            continue;
        }
        // The letters alone, as an envelope's status() gives them, without
        // the stat an envelope may make for its size.
        const ZeMaildirName::FlagChars letters = ZeMaildirName::flagChars(entry->d_name);
        if ((ZeMaildirName::flagBits(letters) & ZeMessageFlags::DELETED) != 0) {
            ::unlink((dir + entry->d_name).c_str());
        }
    }
    close(true);
    return 0;
}

int ZeMaildir::clean() {
    for (const char* sub : {"/cur/", "/new/"}) {
        const std::string dir = m_path + sub;
        DirStream stream(::opendir(dir.c_str()));
        if (!stream) {
            continue;
        }
        while (const dirent* entry = ::readdir(stream.get())) {
            if (!hidden(entry->d_name)) {
                ::unlink((dir + entry->d_name).c_str());
            }
        }
    }
    char cache[4096];
    if (vtl_get_maildir_cache_file(m_path, cache, sizeof cache) == 0 && cache[0] != '\0' &&
        ::access(cache, F_OK) == 0) {
        ::unlink(cache);
    }
    return 0;
}

int ZeMaildir::append(const ZeMessageRef&, ZeMDirectMailBox::statusOP, ZeMessageFlags) {
    throw Corvane::Exception(" ZeMQueue::append - Not Implimented", 4, kUnit, kAppendLine);
}

ZeUIDList__& ZeMaildir::_uid_list() {
    if (!m_uids) {
        m_uids = ZeUIDListManager__::instance()->GetUIDList(m_path);
    }
    return *m_uids;
}

unsigned long ZeMaildir::uid_from_file(const std::string& name) {
    return _uid_list().uid(name);
}

std::string ZeMaildir::file_from_uid(unsigned long uid) {
    return _uid_list().basename(uid);
}

// ----------------------------------------------------------------- processor

MaildirProcessor::MaildirProcessor(const ZeMUserRef& user, const boost::filesystem::path& root)
    : m_user(user), m_root(root) {}

void MaildirProcessor::process(const boost::filesystem::path& dir) {
    _process(dir, 0);
}

void MaildirProcessor::_process(const boost::filesystem::path& dir, int depth) {
    namespace fs = boost::filesystem;
    if (depth >= kMaxTreeDepth || m_user.isNull()) {
        return;
    }
    boost::system::error_code error;
    fs::directory_iterator it(dir, error);
    const std::string root = m_root.string();
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const fs::path& entry = it->path();
        const std::string name = entry.filename().string();
        boost::system::error_code statError;
        if (!fs::is_directory(fs::symlink_status(entry, statError)) ||
            name.compare(0, 9, ".deleted.") == 0) {
            continue;
        }
        if (name != "cur" && name != "new" && name != "tmp") {
            const std::string full = entry.string();
            const std::string relative =
                full.size() > root.size() + 1 ? full.substr(root.size() + 1) : std::string();
            ZeMFolderRef folder = ZeMFolderRef::createDirect(m_user->id(), relative, 0);
            if (!folder.isNull()) {
                folder->parent(fs::path(relative).parent_path().string());
                m_user->add_folder(folder);
            }
        }
        _process(entry, depth + 1);
    }
}
