// The libetpan side of MaildirWalkBench: the same folder walked through
// libetpan's maildir session driver (Debian libetpan-dev), in a translation
// unit of its own so that libetpan's headers stay away from the rest of the
// program.
//
// One walk: a new session on the Maildir (mailsession_new with
// maildir_session_driver, mailsession_connect_path), the message list
// (mailsession_get_messages_list), then for every message its size
// (msg_size), its UID (msg_uid: libetpan's own, the file name up to ":",
// since libetpan has no IMAP UIDs) and its flags (mailmessage_get_flags),
// and the session closed again. libetpan lists new/ and cur/ and makes the
// list with a stat() of every file for its size (maildir_get_messages_list
// in libetpan's maildirdriver_tools.c); its maildir_update also creates an
// empty "maildirfolder" in the folder when there is none.

#include <libetpan/libetpan.h>

#include <cstdint>
#include <cstring>
#include <string>

// Returns the number of messages walked, or -1 when libetpan refuses the
// folder. *seen counts the messages with the \Seen flag, *sizes adds up
// their sizes and *uidBytes the lengths of their UIDs.
long etpan_walk(const std::string& maildir, unsigned long* seen, std::uint64_t* sizes,
                std::uint64_t* uidBytes) {
    *seen = 0;
    *sizes = 0;
    *uidBytes = 0;
    mailsession* session = mailsession_new(maildir_session_driver);
    if (session == nullptr) {
        return -1;
    }
    mailmessage_list* list = nullptr;
    long walked = -1;
    if (mailsession_connect_path(session, maildir.c_str()) != MAIL_NO_ERROR) {
        mailsession_free(session);
        return -1;
    }
    if (mailsession_get_messages_list(session, &list) == MAIL_NO_ERROR) {
        walked = 0;
        for (unsigned int i = 0; i < carray_count(list->msg_tab); ++i) {
            mailmessage* message = static_cast<mailmessage*>(carray_get(list->msg_tab, i));
            mail_flags* flags = nullptr;
            if (mailmessage_get_flags(message, &flags) != MAIL_NO_ERROR) {
                walked = -1;
                break;
            }
            *seen += (flags->fl_flags & MAIL_FLAG_SEEN) != 0;
            *sizes += message->msg_size;
            *uidBytes += std::strlen(message->msg_uid);
            ++walked;
        }
        mailmessage_list_free(list);
    }
    mailsession_logout(session);
    mailsession_free(session);
    return walked;
}
