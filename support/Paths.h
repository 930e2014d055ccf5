#ifndef ZEMAIL_SUPPORT_PATHS_H
#define ZEMAIL_SUPPORT_PATHS_H

#include <string>

// The fixed paths of the appliance, in one place. Each default can be replaced
// at run time: by an environment variable, read once on first use, or by the
// setter (which wins over the environment). Only tests, the demo and
// embedding programs change them; nothing else behaves differently.
//
//   what                default            variable
//   IMAP server         "/bin/imap"        ZEMAIL_IMAP_PROGRAM
//   submission program  "/bin/smtpd"       ZEMAIL_SUBMIT_PROGRAM
//   spool prefix        "/var/spool"       ZEMAIL_SPOOL_DIR (replaces the prefix of every spool
//   path) user store root     "<spool>/mail"     ZEMAIL_MAIL_ROOT
//
// All functions are thread-safe and return copies.
namespace zemail {
namespace paths {

std::string imap_program();
std::string submit_program();
std::string spool_dir();
std::string mail_root();

// A path under the spool prefix: spool_path("tmp") is "/var/spool/tmp" by default.
std::string spool_path(const std::string& relative);

void set_imap_program(const std::string& path);
void set_submit_program(const std::string& path);
void set_spool_dir(const std::string& path);
void set_mail_root(const std::string& path);

}  // namespace paths
}  // namespace zemail

#endif
