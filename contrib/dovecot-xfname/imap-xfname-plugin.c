/* IMAP plugin: the FETCH item X-FNAME.

   X-FNAME answers the storage id of a message, which for Maildir is the
   file name base (the part before ":2,<flags>"), e.g.

     C: a UID FETCH 1:* (UID X-FNAME FLAGS)
     S: * 1 FETCH (UID 1 X-FNAME 1700000000.M1P1.host FLAGS ())

   The value is sent as an atom when every byte is an atom character,
   otherwise as a quoted string (or a literal when quoting cannot hold it).
   Storages that have no file name answer NIL. */

#include "imap-common.h"
#include "str.h"
#include "imap-arg.h"
#include "imap-quote.h"
#include "imap-fetch.h"
#include "mail-storage.h"

#define XFNAME_ITEM "X-FNAME"

/* Loaded only into the imap binary: the symbols we use live there. */
const char *imap_xfname_plugin_version = DOVECOT_ABI_VERSION;
const char imap_xfname_plugin_binary_dependency[] = "imap";

void imap_xfname_plugin_init(struct module *module);
void imap_xfname_plugin_deinit(void);

static bool xfname_is_atom(const char *value)
{
	const unsigned char *p = (const unsigned char *)value;

	if (*p == '\0')
		return FALSE;
	for (; *p != '\0'; p++) {
		/* IS_ATOM_CHAR() accepts 8-bit bytes; an atom must stay
		   printable ASCII. */
		if (*p <= 0x20 || *p >= 0x7f || !IS_ATOM_CHAR(*p))
			return FALSE;
	}
	/* NIL as a bare atom would read as "no value". */
	return strcasecmp(value, "NIL") != 0;
}

static int xfname_fetch(struct imap_fetch_context *ctx, struct mail *mail,
			void *context ATTR_UNUSED)
{
	const char *value;

	/* On failure the fetch code answers the NIL reply given at init when
	   the message was expunged meanwhile, and fails the command
	   otherwise. */
	if (mail_get_special(mail, MAIL_FETCH_STORAGE_ID, &value) < 0)
		return -1;

	str_append(ctx->state.cur_str, XFNAME_ITEM" ");
	if (value == NULL || *value == '\0') {
		/* A storage without file names. */
		str_append(ctx->state.cur_str, "NIL");
	} else if (xfname_is_atom(value)) {
		str_append(ctx->state.cur_str, value);
	} else {
		imap_append_string(ctx->state.cur_str, value);
	}
	str_append_c(ctx->state.cur_str, ' ');
	return 1;
}

static bool xfname_fetch_init(struct imap_fetch_init_context *ctx)
{
	/* Handlers are looked up by the leading letters, digits and dashes
	   of the item, so "X-FNAME.PEEK" or "X-FNAME[]" would land here too. */
	if (strcasecmp(ctx->name, XFNAME_ITEM) != 0) {
		ctx->error = t_strdup_printf("Unknown parameter: %s",
					     ctx->name);
		return FALSE;
	}
	/* A short value: built into the response line like UID and FLAGS,
	   rather than streamed like BODY[]. */
	imap_fetch_add_handler(ctx, IMAP_FETCH_HANDLER_FLAG_BUFFERED,
			       "NIL", xfname_fetch, NULL);
	return TRUE;
}

static const struct imap_fetch_handler xfname_fetch_handlers[] = {
	{ XFNAME_ITEM, xfname_fetch_init },
};

void imap_xfname_plugin_init(struct module *module ATTR_UNUSED)
{
	imap_fetch_handlers_register(xfname_fetch_handlers,
				     N_ELEMENTS(xfname_fetch_handlers));
}

void imap_xfname_plugin_deinit(void)
{
	imap_fetch_handler_unregister(XFNAME_ITEM);
}
