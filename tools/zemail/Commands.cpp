#include "tools/zemail/Commands.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <sstream>
#include <map>
#include <string>
#include <vector>

#include "imap/ZeImapClient.h"
#include "imap/ZeImapMime.h"
#include "model/ZeMUser.h"
#include "model/ZeMFilters.h"
#include "model/ZeMScopeAndFilter.h"
#include "model/ZeMScopes.h"
#include "model/ZeMailBox.h"
#include "model/ZeMessageFlags.h"
#include "stores/ZeMaildir.h"
#include "support/Exception.h"
#include "support/Paths.h"
#include "support/mime/ContentType.h"
#include "support/mime/Encoders.h"
#include "support/mime/Rfc2047.h"
#include "tools/zemail/Output.h"

namespace zemail::tool {

namespace {

// ------------------------------------------------------------------ session

// The user and how to reach the store, from the global options.
struct Session {
    std::string address;
    MailBoxType type = MAILBOX_TYPE_DEFAULT;
    MailboxOpenMethod method = MAILBOX_OPEN_IMAP;
    bool json = false;
    ZeMUserRef user;

    bool direct() const { return method == MAILBOX_OPEN_DIRECT; }
    // The string key of a message: the UID itself over IMAP; on disk the
    // message's file base name, which the stores find by containment (the
    // ",U<uid>" key form needs the UID in the file name, which the server's
    // own file names do not carry).
    std::string key(ZeMessageRef& message) const {
        if (!direct()) {
            return std::to_string(message->uid());
        }
        const std::string name = message->basename().empty() && !message->env().isNull()
                                     ? message->env()->basename()
                                     : message->basename();
        return name.substr(0, name.find(':'));
    }
};

MailBoxType parse_type(const std::string& text) {
    if (text.empty() || text == "default") {
        return MAILBOX_TYPE_DEFAULT;
    }
    if (text == "maildir") {
        return MAILBOX_TYPE_MAILDIR;
    }
    throw UsageError("--type must be default or maildir, not '" + text + "'");
}

bool is_directory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

Session open_session(const Invocation& call) {
    Session s;
    if (call.has("imap-program")) {
        zemail::paths::set_imap_program(call.get("imap-program"));
    }
    if (call.has("mail-root")) {
        zemail::paths::set_mail_root(call.get("mail-root"));
    }
    const char* env_user = std::getenv("ZEMAIL_USER");
    s.address = call.get("user", env_user != nullptr ? env_user : "");
    if (s.address.empty()) {
        throw UsageError("no user given (--user ADDRESS or $ZEMAIL_USER)");
    }
    s.type = parse_type(call.get("type"));
    s.method = call.has("direct") ? MAILBOX_OPEN_DIRECT : MAILBOX_OPEN_IMAP;
    s.json = call.has("json");
    s.user = ZeMUserRef::create(s.type, s.address, s.method);
    if (s.user.isNull() || s.user->id().address().empty()) {
        throw CommandError("unknown user '" + s.address + "'");
    }
    const std::string store = s.user->id().mailpath();
    if (!is_directory(store)) {
        throw CommandError("unknown user '" + s.address + "': no mail store at " + store);
    }
    if (!s.direct() && ::access(zemail::paths::imap_program().c_str(), X_OK) != 0) {
        throw CommandError("the IMAP server cannot be started: " + zemail::paths::imap_program() +
                           " is not an executable program");
    }
    return s;
}

// Ends the IMAP session of the run, so that no server process outlives it.
struct SessionCloser {
    ~SessionCloser() { ZeImapConnection::instance()->close(); }
};

// Opens the mailbox, or throws naming the folder and the reason. Mailboxes
// answer non-zero from open() when they are open; the IMAP one throws when
// the server refuses the folder.
void open_or_fail(ZeMailBoxRef& box, const Session& s, const std::string& folder) {
    std::string why;
    try {
        if (!box.isNull() && box->open() != 0) {
            return;
        }
        if (!box.isNull() && !box->last_error().empty()) {
            why = ": " + box->last_error();
        }
    } catch (const std::exception& e) {
        why = std::string(": ") + e.what();
    }
    throw CommandError("cannot open folder '" + folder + "' of " + s.address + why);
}

ZeMailBoxRef open_mailbox(const Session& s, const std::string& folder) {
    ZeMailBoxRef box(s.user, folder, s.method);
    open_or_fail(box, s, folder);
    return box;
}

unsigned long parse_uid(const std::string& text) {
    char* end = nullptr;
    const unsigned long uid = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || uid == 0 || text[0] == '-') {
        throw UsageError("'" + text + "' is not a message UID");
    }
    return uid;
}

ZeMessageRef find_message(ZeMailBoxRef& box, const Session& s, const std::string& folder,
                          unsigned long uid) {
    ZeMessageRef message = box->retrieve_message(uid);
    if (message.isNull()) {
        throw CommandError("no message with UID " + std::to_string(uid) + " in '" + folder +
                           "' of " + s.address);
    }
    return message;
}

// ------------------------------------------------------------------ text

std::string header(ZeMessageRef& message, const char* name) {
    const char* value = ZeMessageRef::headerValue(message, name);
    return value == nullptr ? std::string() : Corvane::vantro_decode_rfc2047(value);
}

std::string flag_letters(const ZeMessageFlags& flags) {
    static const std::pair<unsigned long, char> kShown[] = {
        {ZeMessageFlags::SEEN, 'S'},    {ZeMessageFlags::ANSWERED, 'R'},
        {ZeMessageFlags::FLAGGED, 'F'}, {ZeMessageFlags::DELETED, 'T'},
        {ZeMessageFlags::DRAFT, 'D'},   {ZeMessageFlags::RECENT, 'N'},
    };
    std::string letters;
    for (const auto& [bit, letter] : kShown) {
        if (flags.test(bit)) {
            letters += letter;
        }
    }
    return letters;
}

std::string flag_names(const ZeMessageFlags& flags) {
    std::string names = flags.asImapActionString();
    names.erase(std::remove(names.begin(), names.end(), '\\'), names.end());
    return names;
}

std::string date_text(time_t when) {
    if (when <= 0) {
        return "";
    }
    char text[32];
    struct tm local {};
    localtime_r(&when, &local);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
    return text;
}

std::string type_text(const ZeImapMime& node) {
    const ZeContentType& type = node.content_type();
    std::string major =
        type.type_name.empty() ? Corvane::mediaTypeAsString(type.media) : type.type_name;
    std::string minor =
        type.subtype_name.empty() ? Corvane::subTypeAsString(type.subtype) : type.subtype_name;
    return major + "/" + minor;
}

// ------------------------------------------------------------------ folders

// Counters of a folder read from disk, where no server keeps them: every
// message is visited once for its flags.
void count_on_disk(const Session& s, const std::string& name, long& messages, long& unseen) {
    ZeMailBoxRef box(s.user, name, s.method);
    try {
        if (box.isNull() || box->open() == 0) {
            return;
        }
        for (MailIterator it(box); it.next();) {
            ++messages;
            if (!it.message()->flags().test(ZeMessageFlags::SEEN)) {
                ++unseen;
            }
        }
    } catch (const std::exception&) {
        // A folder that cannot be read shows as empty rather than ending the list.
    }
}

// The folder a name sits in ("" at the top): the hierarchy is drawn from the
// names, whichever store listed them.
std::string parent_of(const std::string& name) {
    const std::string::size_type slash = name.rfind('/');
    return slash == std::string::npos ? std::string() : name.substr(0, slash);
}

int cmd_folders(const Session& s, std::ostream& out) {
    s.user->init_folders();
    std::map<std::string, int> subfolders;
    for (const ZeMFolderRef& folder : s.user->folders()) {
        if (!folder.isNull() && !parent_of(folder->name()).empty()) {
            ++subfolders[parent_of(folder->name())];
        }
    }
    Json list = Json::array();
    Table table({"Folder", "Messages", "Unseen", "Recent", "KiB", "Subfolders"},
                {false, true, true, true, true, true});
    for (const ZeMFolderRef& folder : s.user->folders()) {
        if (folder.isNull()) {
            continue;
        }
        long messages = 0;
        long unseen = 0;
        long recent = 0;
        if (s.direct()) {
            count_on_disk(s, folder->name(), messages, unseen);
        } else {
            folder->get_status();
            messages = folder->messages();
            unseen = folder->unseen();
            recent = folder->recent();
        }
        long long kib = folder->x_size() > 0 ? (folder->x_size() + 1023) / 1024 : folder->size();
        if (kib == 0) {
            kib = s.user->get_folder_usage(folder->name());
        }
        const int depth =
            static_cast<int>(std::count(folder->name().begin(), folder->name().end(), '/'));
        const std::string leaf = folder->name().substr(folder->name().rfind('/') + 1);
        const int children = subfolders[folder->name()];
        table.add({std::string(2 * depth, ' ') + leaf, std::to_string(messages),
                   std::to_string(unseen), std::to_string(recent), std::to_string(kib),
                   std::to_string(children)});
        list.push(Json::object()
                      .set("name", folder->name())
                      .set("parent", parent_of(folder->name()))
                      .set("messages", messages)
                      .set("unseen", unseen)
                      .set("recent", recent)
                      .set("uidnext", folder->uidnext())
                      .set("kib", kib)
                      .set("children", children));
    }
    if (s.json) {
        out << Json::object().set("user", s.address).set("folders", list).dump() << "\n";
    } else {
        table.print(out);
    }
    return 0;
}

// ------------------------------------------------------------------ list

struct Row {
    unsigned long uid;
    ZeMessageFlags flags;
    long long size;
    time_t when;
    std::string from;
    std::string subject;
};

// The command's filters as the library's filter objects: over IMAP they
// become one server search, on disk each message is matched as it is read.
std::vector<ZeMFilterRef> filters_of(const Invocation& call) {
    std::vector<ZeMFilterRef> filters;
    const auto add = [&](ZeMFilterRef filter, const std::string& what) {
        if (filter.isNull()) {
            throw UsageError("cannot search for " + what);
        }
        filters.push_back(filter);
    };
    if (call.has("search")) {
        add(FZeMSearchText::create(call.get("search")), "'" + call.get("search") + "'");
    }
    if (call.has("from")) {
        add(FZeMHeader::create("From", call.get("from")), "From '" + call.get("from") + "'");
    }
    if (call.has("subject")) {
        add(FZeMHeader::create("Subject", call.get("subject")),
            "Subject '" + call.get("subject") + "'");
    }
    if (call.has("unseen")) {
        add(FZeMStatus::create(ZeMessageFlags(ZeMessageFlags::SEEN, ZeMessageFlags::ALL_UNSET)),
            "unread messages");
    }
    if (call.has("flagged")) {
        add(FZeMStatus::create(ZeMessageFlags(ZeMessageFlags::FLAGGED, ZeMessageFlags::ALL_SET)),
            "flagged messages");
    }
    if (call.has("attachment")) {
        add(FZeMAttachment::create(), "attachments");
    }
    return filters;
}

int cmd_list(const Session& s, const Invocation& call, std::ostream& out) {
    const std::string folder = call.args[0];
    const long page = call.number("page", 1, 1, 1000000);
    const long per_page = call.number("per-page", 25, 1, 10000);
    const std::vector<ZeMFilterRef> filters = filters_of(call);
    ZeMailBoxRef box(s.user, folder, s.method);
    // Over IMAP without filters the server's newest-first page is asked for
    // directly; with filters the server searches and the matches are paged
    // here, as they are when the folder is read from disk.
    const bool server_pages = !s.direct() && filters.empty();
    if (!box.isNull()) {
        if (server_pages) {
            box->setScope(ZeMScopeRange::create((page - 1) * per_page, page * per_page));
        }
        for (const ZeMFilterRef& filter : filters) {
            box->andFilter(filter);
        }
    }
    open_or_fail(box, s, folder);
    std::vector<Row> rows;
    for (MailIterator it(box); it.next();) {
        ZeMessageRef& m = it.message();
        long long size = 0;
        try {
            size = static_cast<long long>(m->env()->size());
        } catch (const std::exception&) {
        }
        Row row{m->uid(),
                m->flags(),
                size,
                m->received() ? m->received() : ZeMessageRef::time(m),
                header(m, "From"),
                header(m, "Subject")};
        rows.push_back(std::move(row));
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) { return a.uid > b.uid; });
    const long total = server_pages ? box->total_messages() : static_cast<long>(rows.size());
    if (!server_pages) {
        const std::size_t first = static_cast<std::size_t>((page - 1) * per_page);
        rows.erase(rows.begin(), rows.begin() + static_cast<long>(std::min(first, rows.size())));
        if (rows.size() > static_cast<std::size_t>(per_page)) {
            rows.resize(static_cast<std::size_t>(per_page));
        }
    }
    if (s.json) {
        Json list = Json::array();
        for (const Row& r : rows) {
            list.push(Json::object()
                          .set("uid", r.uid)
                          .set("flags", flag_names(r.flags))
                          .set("size", r.size)
                          .set("date", static_cast<long long>(r.when))
                          .set("from", r.from)
                          .set("subject", r.subject));
        }
        out << Json::object()
                   .set("folder", folder)
                   .set("total", total)
                   .set("page", page)
                   .set("per_page", per_page)
                   .set("messages", list)
                   .dump()
            << "\n";
        return 0;
    }
    Table table({"UID", "Flags", "Size", "Date", "From", "Subject"},
                {true, false, true, false, false, false});
    for (const Row& r : rows) {
        table.add({std::to_string(r.uid), flag_letters(r.flags), std::to_string(r.size),
                   date_text(r.when), r.from, r.subject});
    }
    table.print(out, 48);
    out << rows.size() << " of " << total << " messages in " << folder << " (page " << page
        << ")\n";
    return 0;
}

// ------------------------------------------------------------------ show

// The leaves of the tree, in section order.
void leaves(const ZeImapMimeRef& node, std::vector<ZeImapMimeRef>& into) {
    if (node.isNull()) {
        return;
    }
    if (node->children().empty()) {
        into.push_back(node);
        return;
    }
    for (const ZeImapMimeRef& child : node->children()) {
        leaves(child, into);
    }
}

Json structure_json(const ZeImapMimeRef& node) {
    Json j = Json::object();
    j.set("section", node->section())
        .set("type", type_text(*node))
        .set("charset", node->content_type().charset)
        .set("size", static_cast<long long>(node->size()))
        .set("lines", static_cast<long long>(node->lines()))
        .set("disposition", node->disposition().type == Corvane::ContentDisposition::NONE
                                ? std::string()
                                : Corvane::dispositionAsString(node->disposition().type))
        .set("filename", node->disposition().filename);
    Json children = Json::array();
    for (const ZeImapMimeRef& child : node->children()) {
        children.push(structure_json(child));
    }
    j.set("parts", children);
    return j;
}

void structure_table(const ZeImapMimeRef& node, int depth, Table& table) {
    const std::string name = node->disposition().filename.empty() ? node->content_type().name
                                                                  : node->disposition().filename;
    table.add({std::string(2 * depth, ' ') + (node->section().empty() ? "-" : node->section()),
               type_text(*node), node->content_type().charset, std::to_string(node->size()),
               node->disposition().type == Corvane::ContentDisposition::NONE
                   ? ""
                   : Corvane::dispositionAsString(node->disposition().type),
               name});
    for (const ZeImapMimeRef& child : node->children()) {
        structure_table(child, depth + 1, table);
    }
}

// The readable text of a leaf: transfer encoding undone, charset made UTF-8.
std::string readable(ZeMailBoxRef& box, const std::string& key, const ZeImapMimeRef& leaf) {
    std::ostringstream raw;
    box->retrieve_section(raw, key, leaf->section().empty() ? "1" : leaf->section());
    std::string text = Corvane::decode_string(leaf->content_type().encoding, raw.str());
    std::string utf8;
    const std::string& charset = leaf->content_type().charset;
    if (!charset.empty() && Corvane::convert_to_utf8(charset, text, utf8)) {
        text = utf8;
    }
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
    return text;
}

int cmd_show(const Session& s, const Invocation& call, std::ostream& out) {
    const std::string folder = call.args[0];
    const unsigned long uid = parse_uid(call.args[1]);
    ZeMailBoxRef box = open_mailbox(s, folder);
    ZeMessageRef message = find_message(box, s, folder, uid);
    if (call.has("raw")) {
        box->retrieve_section(out, s.key(message), "");
        return 0;
    }
    if (call.has("section")) {
        box->retrieve_section(out, s.key(message), call.get("section"));
        return 0;
    }
    ZeImapMimeRef tree = box->retrieve_mime(message);
    std::vector<ZeImapMimeRef> parts;
    leaves(tree, parts);
    ZeImapMimeRef body;
    for (const char* wanted_type : {"text/plain", "text/html"}) {
        for (const ZeImapMimeRef& leaf : parts) {
            if (body.isNull() && type_text(*leaf) == wanted_type &&
                leaf->disposition().type != Corvane::ContentDisposition::ATTACHMENT) {
                body = leaf;
            }
        }
    }
    const std::string text = body.isNull() ? std::string() : readable(box, s.key(message), body);
    static const char* const kShown[] = {"Date", "From", "To", "Cc", "Subject"};
    if (s.json) {
        Json headers = Json::object();
        for (const char* name : kShown) {
            headers.set(name, header(message, name));
        }
        Json doc = Json::object();
        doc.set("uid", uid).set("flags", flag_names(message->flags())).set("headers", headers);
        doc.set("structure", tree.isNull() ? Json() : structure_json(tree));
        doc.set("body_section", body.isNull() ? std::string() : body->section());
        doc.set("body", text);
        out << doc.dump() << "\n";
        return 0;
    }
    for (const char* name : kShown) {
        const std::string value = header(message, name);
        if (!value.empty()) {
            out << name << ": " << printable(value) << "\n";
        }
    }
    out << "Flags: " << flag_names(message->flags()) << "\n\n";
    if (!tree.isNull()) {
        Table table({"Section", "Type", "Charset", "Size", "Disposition", "Name"},
                    {false, false, false, true, false, false});
        structure_table(tree, 0, table);
        table.print(out, 40);
        out << "\n";
    }
    out << text;
    if (!text.empty() && text.back() != '\n') {
        out << "\n";
    }
    return 0;
}

// ------------------------------------------------------------------ changes

ZeMessageFlags parse_flags(const std::string& list, std::int32_t action) {
    ZeMessageFlags flags(0, action);
    std::stringstream names(list);
    std::string name;
    while (std::getline(names, name, ',')) {
        if (name.empty()) {
            continue;
        }
        static const char* const kSystem[] = {"Seen", "Answered", "Flagged", "Deleted", "Draft"};
        std::string wire = name;
        for (const char* system : kSystem) {
            if (strcasecmp(name.c_str(), system) == 0) {
                wire = std::string("\\") + system;
            }
        }
        const unsigned long before = flags.flags;
        flags.set_one(wire.c_str());
        if (flags.flags == before) {
            throw UsageError("unknown flag '" + name + "'");
        }
    }
    return flags;
}

void report(const Session& s, std::ostream& out, const std::string& what, int code) {
    if (code != 0) {
        throw CommandError(what + " failed (code " + std::to_string(code) + ")");
    }
    if (s.json) {
        out << Json::object().set("ok", true).set("done", what).dump() << "\n";
    } else {
        out << what << "\n";
    }
}

// On disk a flag is a letter of the file name: each changed flag renames
// the file through its envelope. Keywords without a letter cannot be kept
// there.
int change_on_disk(ZeMessageRef& message, const ZeMessageFlags& change) {
    auto* envelope = dynamic_cast<ZeMaildirMsgEnv*>(message->env().get());
    if (envelope == nullptr) {
        throw CommandError("this store cannot change flags on disk");
    }
    const unsigned long now = envelope->status().flags;
    for (unsigned long bit = 1; bit != 0 && bit <= 0x80000000UL; bit <<= 1) {
        if (ZeMessageFlags::getMaildirFlag(bit) == 0) {
            if (change.test(bit)) {
                throw CommandError("flag '" + flag_names(ZeMessageFlags(bit)) +
                                   "' cannot be stored on disk");
            }
            continue;
        }
        const bool wanted =
            change.action == ZeMessageFlags::REMOVE
                ? (now & bit) != 0 && !change.test(bit)
                : change.test(bit) || (change.action == ZeMessageFlags::ADD && (now & bit) != 0);
        if (wanted && (now & bit) == 0) {
            envelope->setflag(static_cast<unsigned int>(bit));
        } else if (!wanted && (now & bit) != 0) {
            envelope->unsetflag(static_cast<unsigned int>(bit));
        }
    }
    return 0;
}

int cmd_flag(const Session& s, const Invocation& call, std::ostream& out) {
    const std::string folder = call.args[0];
    const unsigned long uid = parse_uid(call.args[1]);
    ZeMailBoxRef box = open_mailbox(s, folder);
    ZeMessageRef message = find_message(box, s, folder, uid);
    for (std::size_t i = 2; i < call.args.size(); ++i) {
        const std::string& change = call.args[i];
        const char how = change.empty() ? '?' : change[0];
        const std::int32_t action = how == '+'   ? ZeMessageFlags::ADD
                                    : how == '-' ? ZeMessageFlags::REMOVE
                                    : how == '=' ? ZeMessageFlags::REPLACE
                                                 : 0;
        if (action == 0) {
            throw UsageError("a flag change starts with +, - or =, not '" + change + "'");
        }
        const ZeMessageFlags flags = parse_flags(change.substr(1), action);
        const int code = s.direct() ? change_on_disk(message, flags)
                                    : box->modify_message(s.key(message), flags);
        if (code != 0) {
            throw CommandError("changing flags of UID " + std::to_string(uid) + " failed (code " +
                               std::to_string(code) + ")");
        }
    }
    ZeMailBoxRef again = open_mailbox(s, folder);
    ZeMessageRef now = find_message(again, s, folder, uid);
    if (s.json) {
        out << Json::object().set("uid", uid).set("flags", flag_names(now->flags())).dump() << "\n";
    } else {
        out << "UID " << uid << " flags: " << flag_names(now->flags()) << "\n";
    }
    return 0;
}

int cmd_move(const Session& s, const Invocation& call, std::ostream& out) {
    const unsigned long uid = parse_uid(call.args[1]);
    ZeMailBoxRef box = open_mailbox(s, call.args[0]);
    ZeMessageRef message = find_message(box, s, call.args[0], uid);
    if (s.direct()) {
        throw CommandError(
            "moving needs the IMAP server, which keeps both folders' UIDs (omit --direct)");
    }
    report(s, out, "moved UID " + std::to_string(uid) + " to " + call.args[2],
           box->move_message(s.key(message), call.args[2]));
    return 0;
}

int cmd_delete(const Session& s, const Invocation& call, std::ostream& out) {
    const unsigned long uid = parse_uid(call.args[1]);
    ZeMailBoxRef box = open_mailbox(s, call.args[0]);
    ZeMessageRef message = find_message(box, s, call.args[0], uid);
    const bool permanent = call.has("permanent");
    int code;
    if (!s.direct()) {
        code = box->remove_message(s.key(message), permanent);
    } else if (permanent) {
        ZeMDirectMessage* file = message.direct_message();
        code = file != nullptr ? file->permanent_remove() : 4;
    } else {
        code =
            change_on_disk(message, ZeMessageFlags(ZeMessageFlags::DELETED, ZeMessageFlags::ADD));
    }
    report(s, out,
           std::string(permanent ? "removed" : "marked deleted") + " UID " + std::to_string(uid),
           code);
    return 0;
}

int cmd_expunge(const Session& s, const Invocation& call, std::ostream& out) {
    ZeMailBoxRef box = open_mailbox(s, call.args[0]);
    report(s, out, "expunged " + call.args[0], box->expunge());
    return 0;
}

int cmd_append(const Session& s, const Invocation& call, std::ostream& out) {
    const std::string& file = call.args[1];
    if (::access(file.c_str(), R_OK) != 0) {
        throw CommandError("cannot read message file '" + file + "'");
    }
    if (s.direct()) {
        throw CommandError(
            "appending needs the IMAP server, which gives the new message its UID (omit --direct)");
    }
    ZeMailBoxRef box = open_mailbox(s, call.args[0]);
    report(s, out, "appended " + file + " to " + call.args[0],
           box->append(file, parse_flags(call.get("flags"), ZeMessageFlags::REPLACE)));
    return 0;
}

// Over IMAP the user's quota call gives the limit (first value) and the
// usage (second), both in KiB; on disk it gives the message count and the
// usage read from the Maildir++ size file, which holds no limit we keep.
int cmd_quota(const Session& s, std::ostream& out) {
    long long first = 0;
    long long usage = 0;
    const int code = s.user->get_quota(&first, &usage);
    if (code != 0) {
        throw CommandError("cannot read the quota of " + s.address + " (code " +
                           std::to_string(code) + ")");
    }
    const bool has_limit = !s.direct() && first > 0;
    if (s.json) {
        Json doc = Json::object();
        doc.set("user", s.address).set("used_kib", usage);
        doc.set("limit_kib", has_limit ? Json(first) : Json());
        if (s.direct()) {
            doc.set("messages", first);
        }
        out << doc.dump() << "\n";
        return 0;
    }
    Table table({"User", "Limit KiB", "Used KiB", "Used"}, {false, true, true, true});
    table.add({s.address, has_limit ? std::to_string(first) : "-", std::to_string(usage),
               has_limit ? std::to_string(usage * 100 / first) + "%" : "-"});
    table.print(out);
    return 0;
}

}  // namespace

int run_command(const Invocation& call, std::ostream& out) {
    const Session s = open_session(call);
    SessionCloser closer;
    try {
        if (call.command == "folders")
            return cmd_folders(s, out);
        if (call.command == "list")
            return cmd_list(s, call, out);
        if (call.command == "show")
            return cmd_show(s, call, out);
        if (call.command == "flag")
            return cmd_flag(s, call, out);
        if (call.command == "move")
            return cmd_move(s, call, out);
        if (call.command == "delete")
            return cmd_delete(s, call, out);
        if (call.command == "expunge")
            return cmd_expunge(s, call, out);
        if (call.command == "append")
            return cmd_append(s, call, out);
        if (call.command == "quota")
            return cmd_quota(s, out);
    } catch (const Corvane::Exception& e) {
        throw CommandError(e.what());
    }
    throw UsageError("unknown command '" + call.command + "'");
}

}  // namespace zemail::tool
