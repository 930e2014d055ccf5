// A scripted IMAP server for what Dovecot never does: answers without a
// response code it always sends, replies chosen to check exact wire texts,
// refusals on demand, and a server that dies in the middle of an answer.
//
// The server is a /bin/sh script used as the IMAP program. It greets with
// "* PREAUTH", then for each command line (CR dropped) appends the line to
// the log, and answers with the first rule whose glob pattern matches the
// command (the line without its tag; in a pattern "\*" is a star itself);
// without one, "<tag> OK done". A server reads its script when it starts:
// rules added later serve the next server started. The
// literal of an APPEND ending in "{N}" is asked for with "+ go", read (N
// bytes) and kept in the literal file. In a reply "$tag" stands for the
// command's tag; "@EXIT" ends the server without a word, "@KILL" kills it
// (SIGKILL). A rule marked once answers only its first match; later
// matches go on to the next rules.
//
//   zetest::ScriptedImapServer server;
//   server.on("SELECT*", {"* 3 EXISTS", "$tag OK [READ-WRITE] done"});
//   zemail::paths::set_imap_program(server.program());
//   ...
//   server.commands();   // every line received, in order
#ifndef ZEMAIL_TESTS_SUPPORT_SCRIPTED_IMAP_SERVER_H
#define ZEMAIL_TESTS_SUPPORT_SCRIPTED_IMAP_SERVER_H

#include <string>
#include <vector>

#include "tests/support/TestUtil.h"

namespace zetest {

class ScriptedImapServer {
public:
    ScriptedImapServer();

    // Adds a rule (after the earlier ones) and rewrites the script.
    void on(const std::string& pattern, const std::vector<std::string>& reply, bool once = false);

    // A shell command run when an APPEND announces its literal, before the
    // server asks for it (e.g. to change the message file meanwhile).
    void before_literal(const std::string& shell);

    // The program to start (the script).
    const std::string& program() const { return m_program; }
    // Every command line received so far, tags included.
    std::vector<std::string> commands() const;
    // The same without their tags ("SELECT \"Inbox\"").
    std::vector<std::string> untagged_commands() const;
    // The bytes of every APPEND literal, one after the other.
    std::string literals() const;
    const std::string& dir() const { return m_dir.path(); }

private:
    struct Rule {
        std::string pattern;
        std::vector<std::string> reply;
        bool once;
    };
    void _write();

    TempDir m_dir;
    std::string m_program;
    std::string m_log;
    std::vector<Rule> m_rules;
    std::string m_before_literal;
};

}  // namespace zetest

#endif
