// A throwaway Dovecot IMAP server for tests.
//
// Each DovecotServer owns a fresh directory (mkdtemp under $TMPDIR or /tmp)
// holding a Dovecot config, a plugin folder, the mail store and a wrapper
// program `<dir>/imap` that execs /usr/lib/dovecot/imap with that config.
// No Dovecot master runs: the imap binary is started per session, with
// HOME, USER and MAIL in its environment, and answers "* PREAUTH" on stdout.
// Everything is removed again by the destructor.
//
// Store layout, the same as the library's user resolution:
//   home     = <root>/<domain>/<local part>   (domain "localhost" without '@')
//   Maildir  = <home>/Maildir
//   "A/B"    = <Maildir>/.A.B                 (Maildir++, "/" on the wire)
// User and folder names are used as given, so pass non-ASCII names in
// modified UTF-7 as Dovecot stores them. The listescape plugin is loaded, as
// the production server allows "." in folder names: on disk a "." of a name
// is "\2e" and a backslash "\5c" ("dead.letter" = <Maildir>/.dead\2eletter).
//
// Every Maildir the fixture creates also gets the links
// .dovecot-uidlist -> dovecot-uidlist and .maildirsize -> maildirsize: the
// production server keeps those files under the dotted names, Debian's
// Dovecot under the plain ones. The links dangle until Dovecot writes the
// targets (after the first SELECT for the uidlist, after a quota lookup for
// maildirsize).
//
// Run as root, Dovecot drops to the "mail" user; the fixture then hands the
// store to that user after every change it makes. Tests that write into the
// store themselves call fix_ownership() afterwards.
//
// Not thread-safe; one instance per test is the intended use.
#ifndef ZEMAIL_TESTS_SUPPORT_DOVECOT_SERVER_H
#define ZEMAIL_TESTS_SUPPORT_DOVECOT_SERVER_H

#include <chrono>
#include <string>
#include <sys/types.h>

namespace zetest {

class DovecotServer {
public:
    // The X-FNAME plugin built from contrib/dovecot-xfname, when the build
    // told us where it is; empty otherwise.
    static std::string default_xfname_plugin();

    // Sets up the directory, config and wrapper. An empty plugin path leaves
    // X-FNAME out of the configuration; a path that does not exist is an error.
    // Throws std::runtime_error when anything cannot be created.
    explicit DovecotServer(const std::string& xfname_plugin = default_xfname_plugin());
    // The same in the given directory, which is emptied first and kept
    // afterwards (a store that outlives the program, as the demo needs).
    DovecotServer(const std::string& xfname_plugin, const std::string& kept_dir);
    ~DovecotServer();

    DovecotServer(const DovecotServer&) = delete;
    DovecotServer& operator=(const DovecotServer&) = delete;

    // Paths.
    const std::string& dir() const { return m_dir; }          // the temp directory
    const std::string& wrapper() const { return m_wrapper; }  // the IMAP program
    const std::string& config() const { return m_config; }    // dovecot.conf
    const std::string& root() const { return m_root; }        // mail root
    const std::string& log_path() const { return m_log; }     // Dovecot's stderr
    std::string home(const std::string& user) const;
    std::string maildir(const std::string& user) const;
    // "" and any case of "INBOX" are the Maildir itself.
    std::string folder_path(const std::string& user, const std::string& folder) const;

    // "HOME=<home> USER=<user> MAIL=maildir:<home>/Maildir"
    std::string env(const std::string& user) const;

    // Everything Dovecot logged so far (errors, session summaries).
    std::string log() const;

    // Creates the user's Maildir (cur, new, tmp). Idempotent.
    void add_user(const std::string& user);
    // Creates the folder (cur, new, tmp, maildirfolder), the user first if
    // needed, and subscribes it unless told not to. "" / INBOX only ensures
    // the user.
    void add_folder(const std::string& user, const std::string& folder, bool subscribe = true);

    // Drops a message into the folder (created if missing) the way a local
    // delivery agent does: written in tmp/, then renamed. Without flags and
    // with seen_in_cur false it lands in new/ (Dovecot reports it \Recent);
    // otherwise in cur/ as "<name>,S=<size>:2,<flags>" (flags sorted, e.g.
    // "FS"); in new/ the name is "<name>,S=<size>".
    // Returns the unique base name "<time>.M<n>P<pid>.zetest", which is
    // what X-FNAME answers for it.
    std::string deliver(const std::string& user, const std::string& folder,
                        const std::string& bytes, const std::string& flags = "",
                        bool seen_in_cur = false);

    // Hands the whole mail root to the mail user again (no-op unless root).
    void fix_ownership() const;

    // Runs one IMAP session as `user`: starts the wrapper with env(user),
    // waits for the greeting, then sends the script one command at a time,
    // waiting for each command's tagged answer before sending the next one
    // (Dovecot would otherwise run pipelined commands concurrently and
    // answer them out of order). Commands are the script's lines; a line
    // ending in "{N}" waits for the "+" continuation, then sends the next N
    // bytes as the literal (a refused literal is skipped). Line ends are sent
    // as written; a missing final "\n" is added. Afterwards stdin is closed
    // and the output is read up to end of file.
    //
    // Returns every byte the server printed (CRLF line ends). If the server
    // exits early the output so far is returned. If the time-out passes the
    // server is killed and std::runtime_error is thrown with the output so far.
    std::string run_imap(const std::string& user, const std::string& script,
                         std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;

private:
    struct Owner {
        bool change = false;  // true when running as root
        uid_t uid = 0;
        gid_t gid = 0;
    };

    void _write_config(const std::string& xfname_plugin);
    void _write_wrapper();
    void _make_maildir(const std::string& path, bool is_folder) const;
    void _own(const std::string& path) const;  // recursive, when m_owner.change
    void _subscribe(const std::string& user, const std::string& folder) const;

    std::string m_dir;
    std::string m_config;
    std::string m_wrapper;
    std::string m_plugins;
    std::string m_root;
    std::string m_log;
    Owner m_owner;
    bool m_keep = false;            // the directory outlives the object
    unsigned long m_delivered = 0;  // uniqueness counter for deliver()
    long long m_last_time = 0;      // keeps delivery names in delivery order
};

}  // namespace zetest

#endif
