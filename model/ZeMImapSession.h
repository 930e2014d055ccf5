#ifndef ZEMAIL_MODEL_ZE_M_IMAP_SESSION_H
#define ZEMAIL_MODEL_ZE_M_IMAP_SESSION_H

// The way the model's IMAP objects (users, folders, the IMAP mailbox) reach
// their user's session on the process-wide connection.

#include "imap/ZeImapRequest.h"
#include "support/MailUserId.h"

// The pipes of the server child serving id, started (or switched to) when
// needed, and started afresh when the child has died since the last request
// (its output pipe hung up): a server killed in the middle of an answer then
// costs that answer only. Null, and nothing started, for an id that cannot be
// served (no address).
ZePipeIO* ze_imap_session(const ZeMailUserId& id);

// True, with a new child started, when the child serving id has gone (it
// may say BYE and leave after a command, e.g. when its selected folder was
// deleted); false while it lives or when it serves another user.
bool ze_imap_recover(const ZeMailUserId& id);

// NOOP on the request, which logs the session in; when the server went away
// meanwhile, once more on a new child. The last NOOP's completion code.
int ze_imap_noop(ZeImapRequest& request, const ZeMailUserId& id);

// Sets the request's time-out and puts the default (60 seconds) back when it
// goes, also when the request fails or throws.
class ZeImapTimeoutGuard {
public:
    ZeImapTimeoutGuard(ZeImapRequest& request, int seconds) : m_request(request) {
        m_request.timeout(seconds);
    }
    ~ZeImapTimeoutGuard() { m_request.timeout(ZePipeIO::kDefaultTimeout); }
    ZeImapTimeoutGuard(const ZeImapTimeoutGuard&) = delete;
    ZeImapTimeoutGuard& operator=(const ZeImapTimeoutGuard&) = delete;

private:
    ZeImapRequest& m_request;
};

#endif
