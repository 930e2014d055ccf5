#include "model/ZeMImapSession.h"

#include <poll.h>

#include "support/Debug.h"

namespace {

// True when the child's end of the output pipe is closed: the server exited
// or was killed. Whatever it left unread is of no use to the next request.
bool hung_up(ZePipeIO& io) {
    if (io.read_fd() < 0) {
        return true;
    }
    pollfd entry = {};
    entry.fd = io.read_fd();
    entry.events = POLLIN | POLLRDHUP;
    if (poll(&entry, 1, 0) < 1) {
        return false;
    }
    return (entry.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace

ZePipeIO* ze_imap_session(const ZeMailUserId& id) {
    if (!id.valid() || id.address().empty()) {
        return nullptr;
    }
    ZeImapConnection* connection = ZeImapConnection::instance();
    ZePipeIO& io = connection->get_io(id);
    if (connection->program().is_open() && hung_up(io)) {
        basepp::dbg::debug("ZeMImapSession", __LINE__, "ze_imap_session",
                           "imap child of %s is gone, starting a new one", id.address().c_str());
        connection->reconnect();
    }
    return &io;
}

bool ze_imap_recover(const ZeMailUserId& id) {
    ZeImapConnection* connection = ZeImapConnection::instance();
    if (!connection->program().is_open() || connection->user() != id ||
        !hung_up(connection->program().io())) {
        return false;
    }
    basepp::dbg::debug("ZeMImapSession", __LINE__, "ze_imap_recover",
                       "imap child of %s left, starting a new one", id.address().c_str());
    connection->reconnect();
    return true;
}

int ze_imap_noop(ZeImapRequest& request, const ZeMailUserId& id) {
    const int result = request.request(ImapRequestNoop, "");
    return ze_imap_recover(id) ? request.request(ImapRequestNoop, "") : result;
}
