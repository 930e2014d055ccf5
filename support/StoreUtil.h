#ifndef ZEMAIL_SUPPORT_STORE_UTIL_H
#define ZEMAIL_SUPPORT_STORE_UTIL_H

#include <cstddef>
#include <string>

// Store functions: what the model needs to know about mail stores on disk
// without going through the IMAP server.
//
// Store layout (Maildir++, as the IMAP server keeps it):
//   <mail path>/{cur,new,tmp}          the inbox
//   <mail path>/.A.B/{cur,new,tmp}     folder "A/B", with an empty file
//                                      "maildirfolder" in it
//   <mail path>/.maildirsize           the user's quota bookkeeping (a stock
//                                      Dovecot's "maildirsize" when missing)
//   <folder dir>/.vt_folder_size       a folder's size cache
//
// Size files (".maildirsize" and ".vt_folder_size") use the Maildir++ quota
// format that the IMAP server writes: a definition line with the limits
// ("104857600S", "0S", "1000S,50C"; read and ignored here), then lines of
// "<bytes> <count>", signed decimal, each ending in a line feed, that add up
// to the folder's totals. Writers append "-1234 -1" when a message goes. The
// reader follows the server's rules:
//   - only the first 5119 bytes are read; a longer file needs a recount;
//   - a last line without its line feed is ignored (an interrupted append);
//   - a file without its definition line, a NUL byte, a line that is not two
//     numbers, a number or total out of range, or a negative total is broken.
//
// Message sizes: the ",S=<bytes>" field of a Maildir file name when it is
// followed by ':', ',' or the end of the name, else the file's length. Only
// regular files count (a symbolic link in cur/ is not a message); names
// beginning with "." are skipped.
//
// Path arguments are NUL-terminated; a null path is treated as an empty one,
// which no function accepts. No function throws; none keeps state.

// Results of the size-file readers.
enum VtlSizeResult : int {
    VTL_SIZE_OK = 0,
    VTL_SIZE_UNREADABLE = -1,  // missing, not a regular file, or a read error
    VTL_SIZE_BROKEN = -2,      // present but unusable: recount the store
};

// The system folders and their display rank; names compare without case and
// only whole top-level names count ("Sent/2019" is an ordinary folder):
//   1 "INBOX", 2 "Drafts", 3 "Sent", 4 "Trash", 5 "Junk"
// Returns the rank, or 0 for any other name (and for null).
int vtl_is_system_folder(const char* name);
inline int vtl_is_system_folder(const std::string& name) {
    return vtl_is_system_folder(name.c_str());
}

// Parses the text of a size file (see above). On success writes the totals
// (each pointer may be null) and returns VTL_SIZE_OK; otherwise returns
// VTL_SIZE_BROKEN and writes nothing.
int vtl_parse_mail_folder_size(const char* data, std::size_t length, long long* bytes,
                               long long* count);

// Reads a size file (".maildirsize", ".vt_folder_size"); follows symbolic
// links, refuses anything that is not a regular file (a FIFO never blocks).
// A ".maildirsize" that does not exist is read as "maildirsize" beside it.
// Returns a VtlSizeResult; the outputs are written only on VTL_SIZE_OK.
int vtl_read_mail_folder_size(const char* file, long long* bytes, long long* count);
inline int vtl_read_mail_folder_size(const std::string& file, long long* bytes, long long* count) {
    return vtl_read_mail_folder_size(file.c_str(), bytes, count);
}

// Bytes of the messages of one Maildir folder (its cur/ and new/, not tmp/
// and not its subfolders). Writes the number of messages to count when it is
// not null. A folder without cur/ or new/ counts 0; returns -1 when dir is
// not a directory. The total saturates instead of overflowing.
long long vtl_get_mailbox_size(const char* dir, long long* count);
inline long long vtl_get_mailbox_size(const std::string& dir, long long* count) {
    return vtl_get_mailbox_size(dir.c_str(), count);
}

// The folder's size cache: "<dir>/.vt_folder_size" (same format as
// ".maildirsize"; written by the delivery side, removed whenever the folder
// is emptied so that its usage is counted again). Writes the name into
// buffer and returns 0; returns -1 and writes an empty string (when size > 0)
// if it does not fit or dir is empty.
int vtl_get_maildir_cache_file(const char* dir, char* buffer, std::size_t size);
inline int vtl_get_maildir_cache_file(const std::string& dir, char* buffer, std::size_t size) {
    return vtl_get_maildir_cache_file(dir.c_str(), buffer, size);
}

// The bytes (and messages) a user's whole store holds: "<path>/.maildirsize"
// read as above. When that file is missing or broken, users whose mail the
// IMAP server keeps (types 0, 1, 6, 7, 11) get an error: the caller asks the
// server, which rebuilds the file. For every other type nobody keeps the
// file, so the store is counted instead: every Maildir of the tree at path
// (the store itself, Maildir++ folders, or the folders of a plain tree), to a
// depth of 32 levels, without following links and leaving out folders
// hidden for deferred deletion. Returns 0 and writes the outputs (either may
// be null), or a VtlSizeResult error and writes nothing.
int vtl_get_maildirsize(int userType, const char* path, long long* bytes, long long* count);
inline int vtl_get_maildirsize(int userType, const std::string& path, long long* bytes,
                               long long* count) {
    return vtl_get_maildirsize(userType, path.c_str(), bytes, count);
}

// Called once per folder with its name, "/" as hierarchy separator ("INBOX",
// "Work", "Work/2019"). Returning 0 stops the walk.
typedef int (*vtl_folder_visitor)(const char* folder, void* context);

enum VtlVisitOption : int {
    VTL_VISIT_NO_INBOX = 1,  // leave "INBOX" (the mail path itself) out
};

// Reports the folders of the Maildir++ store at path, in byte order of their
// names, "INBOX" first: the store itself, then every directory ".A.B" that
// holds "cur" (as "A/B"). Left out: symbolic links, names with an empty
// level (".A..B", ".A."), and folders hidden for deferred deletion (names
// beginning with ".deleted."). Returns the number of folders reported, or -1
// when path is not a directory or visit is null.
int vtl_visit_folders(const char* path, int options, vtl_folder_visitor visit, void* context);
inline int vtl_visit_folders(const std::string& path, int options, vtl_folder_visitor visit,
                             void* context) {
    return vtl_visit_folders(path.c_str(), options, visit, context);
}

// Non-zero when path is a directory holding a "cur" directory (new/ and tmp/
// may be missing; they are made again when needed).
int vtl_is_maildir_folder(const char* path);
inline int vtl_is_maildir_folder(const std::string& path) {
    return vtl_is_maildir_folder(path.c_str());
}

// Non-zero when path is a regular file that is empty or begins with "From ".
int vtl_is_mbox(const char* path);
inline int vtl_is_mbox(const std::string& path) {
    return vtl_is_mbox(path.c_str());
}

// Creates the Maildir at path with cur/, new/ and tmp/ (missing parents
// too), with the given mode (0 means 0700). A directory whose name begins
// with "." is a Maildir++ folder and also gets the "maildirfolder" marker.
// Existing parts are kept. Returns 0, or -1 when something could not be
// made or the path has a ".." component.
int vtl_mkdir_maildir(const char* path, unsigned int mode);
inline int vtl_mkdir_maildir(const std::string& path, unsigned int mode) {
    return vtl_mkdir_maildir(path.c_str(), mode);
}

enum VtlUnlinkOption : int {
    VTL_UNLINK_NO_BOOKKEEPING = 1,  // only unlink, leave the size files alone
};

// Removes one message file <folder>/{cur,new}/<name>. Unless told not to, it
// then keeps the sizes right: appends "-<bytes> -1" to the store's
// ".maildirsize" (or "maildirsize") when that file exists (the store is the
// folder itself for the inbox, its parent for a folder with "maildirfolder")
// and removes the folder's size cache. Returns 0, or -1 when the file is not
// a regular file or cannot be removed (nothing is changed then).
int vtl_maildir_unlink_mail(const char* path, int options);
inline int vtl_maildir_unlink_mail(const std::string& path, int options) {
    return vtl_maildir_unlink_mail(path.c_str(), options);
}

enum VantroCleanOption : int {
    VANTRO_CLEAN_KEEP_DIR = 1,  // empty the directory but keep it
};

// Removes the directory tree at path. Symbolic links are removed, never
// followed, so nothing outside the tree is touched. A path that does not
// exist is already clean. Returns 0, or -1 when something could not be
// removed, path is not a directory, or path is empty or the file-system root.
int vantro_clean_dir(const char* path, int options);
inline int vantro_clean_dir(const std::string& path, int options) {
    return vantro_clean_dir(path.c_str(), options);
}

#endif
