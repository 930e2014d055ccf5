// The vmime side of MaildirWalkBench: the same folder opened through vmime's
// maildir store (Debian libvmime-dev), in a translation unit of its own so
// that vmime's headers stay away from the rest of the program.
//
// One walk: a session with store.maildir.server.rootpath set to the folder
// that holds the Maildir. vmime takes the Courier layout only where some
// ".X/maildirfolder" exists; otherwise (as here) the KMail one, whose root
// folder is the root directory itself, without cur/, and whose folder N is
// the Maildir N/ below the root: so the walk opens folder N. It is opened
// read-only (vmime lists new/ and cur/ then, with a stat() of each file),
// and for each message number getMessage() and fetchMessage() with FLAGS and
// UID (the file name's unique part: vmime has no IMAP UIDs), plus ENVELOPE
// for the headers walk (vmime then reads the file up to the end of its
// header and parses it), then the Subject field. Messages are fetched one at
// a time and released before the next, as the library's walk holds one
// message at a time: a vmime folder keeps its live messages in a plain
// vector that each release searches and erases from, so holding all 100,000
// at once would add a cost of its own (read in vmime's source, not measured
// here).

#include <vmime/platforms/posix/posixHandler.hpp>
#include <vmime/vmime.hpp>

#include <string>

namespace {

bool g_platform_set = false;

}  // namespace

// Returns the number of messages walked; *seen counts those with the \Seen
// flag, *subjects those with a non-empty Subject (headers walk only).
// Throws whatever vmime throws.
long vmime_walk(const std::string& maildir, bool headers, unsigned long* seen, long* subjects) {
    if (!g_platform_set) {
        vmime::platform::setHandler<vmime::platforms::posix::posixHandler>();
        g_platform_set = true;
    }
    vmime::shared_ptr<vmime::net::session> session = vmime::net::session::create();
    const std::string::size_type slash = maildir.rfind('/');
    session->getProperties()["store.maildir.server.rootpath"] = maildir.substr(0, slash);
    vmime::shared_ptr<vmime::net::store> store =
        session->getStore(vmime::utility::url("maildir", "localhost"));
    store->connect();
    vmime::shared_ptr<vmime::net::folder> folder = store->getRootFolder()->getFolder(
        vmime::net::folder::path::component(maildir.substr(slash + 1)));
    folder->open(vmime::net::folder::MODE_READ_ONLY);

    vmime::net::fetchAttributes what(vmime::net::fetchAttributes::FLAGS |
                                     vmime::net::fetchAttributes::UID);
    if (headers) {
        what.add(vmime::net::fetchAttributes::ENVELOPE);
    }
    const long count = static_cast<long>(folder->getMessageCount());
    *seen = 0;
    *subjects = 0;
    long walked = 0;
    for (long number = 1; number <= count; ++number) {
        vmime::shared_ptr<vmime::net::message> message =
            folder->getMessage(static_cast<vmime::size_t>(number));
        folder->fetchMessage(message, what);
        if (message->getFlags() & vmime::net::message::FLAG_SEEN) {
            ++*seen;
        }
        if (message->getUID().empty()) {
            continue;
        }
        if (headers) {
            vmime::shared_ptr<const vmime::header> fields = message->getHeader();
            if (fields->hasField(vmime::fields::SUBJECT) &&
                !fields->Subject()->getValue<vmime::text>()->getWholeBuffer().empty()) {
                ++*subjects;
            }
        }
        ++walked;
    }
    folder->close(false);
    store->disconnect();
    return walked;
}
