#ifndef ZEMAIL_IMAP_ZE_IMAP_MIME_FWD_H
#define ZEMAIL_IMAP_ZE_IMAP_MIME_FWD_H

// The MIME tree's names, for headers that only pass nodes around.
class ZeImapMime;
class ZeImapMimeRef;
class ImapMimeParser;

#endif
