#!/usr/bin/env python3
"""The imaplib client of OpenMailboxBench.

Usage: open_mailbox_imaplib.py SERVER_PROGRAM

Starts the IMAP server once with imaplib.IMAP4_stream(SERVER_PROGRAM) (the
benchmark starts this script with HOME, USER and MAIL set for the mail user,
which the server program inherits) and then answers a line protocol on
standard input and output:

  load NAME COUNT   the next COUNT lines are the commands, without tags, that
                    one open of the mailbox sends ("SELECT ...",
                    "UID SEARCH ...", "UID FETCH ..."); answers "ok"
  open NAME MODE    sends those commands once and answers
                    "ok SECONDS MESSAGES CPU": SECONDS measured with
                    time.perf_counter() around the commands only, MESSAGES the
                    number of header blocks fetched, CPU the seconds of
                    process time (time.process_time()) the open took. MODE "wire" only reads the
                    answers as imaplib returns them; "parse" also parses each
                    header block with email.parser and reads From and Subject,
                    as a Python caller showing the list would.

Any failure answers "error TEXT". End of input ends the session.
"""

import email.parser
import email.policy
import imaplib
import sys
import time


def send(imap, command):
    """Sends one command line through imaplib's own methods; returns the
    data of its answer."""
    name, _, rest = command.partition(" ")
    if name == "SELECT":
        typ, data = imap.select(rest)
    elif name == "UID":
        verb, _, args = rest.partition(" ")
        typ, data = imap.uid(verb, args)
    elif name == "NOOP":
        typ, data = imap.noop()
    else:
        raise ValueError("no imaplib method for " + name)
    if typ != "OK":
        raise imaplib.IMAP4.error("%s answered %s %r" % (name, typ, data))
    return name, rest, data


def open_mailbox(imap, commands, parse, parser):
    """One open; the number of header blocks fetched."""
    messages = 0
    for command in commands:
        name, rest, data = send(imap, command)
        if name != "UID" or not rest.startswith("FETCH "):
            continue
        for item in data:
            # A message with a literal comes as (b"n (UID ... {size}", bytes).
            if not isinstance(item, tuple):
                continue
            messages += 1
            if parse:
                header = parser.parsebytes(item[1])
                header.get("From")
                header.get("Subject")
    return messages


def main():
    if len(sys.argv) != 2:
        sys.stderr.write(__doc__)
        return 2
    imap = imaplib.IMAP4_stream(sys.argv[1])
    parser = email.parser.BytesHeaderParser(policy=email.policy.compat32)
    sequences = {}
    source = sys.stdin.buffer
    out = sys.stdout
    while True:
        line = source.readline()
        if not line:
            break
        words = line.decode().split()
        try:
            if words[0] == "load":
                count = int(words[2])
                sequences[words[1]] = [
                    source.readline().decode().rstrip("\r\n") for _ in range(count)
                ]
                out.write("ok\n")
            elif words[0] == "open":
                commands = sequences[words[1]]
                parse = words[2] == "parse"
                cpu = time.process_time()
                start = time.perf_counter()
                messages = open_mailbox(imap, commands, parse, parser)
                seconds = time.perf_counter() - start
                cpu = time.process_time() - cpu
                out.write("ok %.9f %d %.9f\n" % (seconds, messages, cpu))
            else:
                out.write("error unknown request %s\n" % words[0])
        except Exception as error:  # reported to the benchmark, which stops
            out.write("error %s\n" % " ".join(str(error).split()))
        out.flush()
    imap.logout()
    return 0


if __name__ == "__main__":
    sys.exit(main())
