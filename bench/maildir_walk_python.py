#!/usr/bin/env python3
"""The Python side of MaildirWalkBench: walks over one Maildir folder with the
standard library's mailbox.Maildir.

Usage: maildir_walk_python.py MAILDIR

Reads MAILDIR/.dovecot-uidlist into a dict (base name -> UID) once, answers
"ready RECORDS", then answers a line protocol on standard input and output:

  walk MODE   one walk over the folder; answers
              "ok SECONDS CPU MESSAGES KNOWN UIDSUM SEEN SUBJECTS", SECONDS
              taken with time.perf_counter() around the walk, including the
              making of the mailbox.Maildir object, CPU the process time
              (time.process_time(), user and system) of the same span.

Modes (every one makes a new mailbox.Maildir, so each walk lists the folder
again, as the library's walk opens it again):

  toc       the envelope walk: Maildir._refresh() lists new/ and cur/ into
            the private table Maildir._toc (key -> "cur/<file name>"); for
            each entry the flag letters after ":2," (as MaildirMessage's
            get_flags() gives them), the delivery time from the name's
            leading digits and the UID looked up in the dict by the base name.
            Python's mailbox has no UIDs: the dict stands in for them.
  iterkeys  the same through the public interface: iterkeys() (which checks
            that each file still exists) and the name from _toc; no UIDs.
  message   get_message(key) for every key (reads and parses the whole file
            into a MaildirMessage), then msg["Subject"] and msg.get_flags();
            no UIDs.
  headers   the header block only: each file opened and parsed with
            email.parser.BytesHeaderParser, then Subject; flags, date and UID
            from the name as in toc.

Any failure answers "error TEXT". End of input ends the session.
"""

import email.parser
import email.policy
import mailbox
import os
import sys
import time


def load_uids(path):
    uids = {}
    with open(path, "rb") as f:
        f.readline()  # the header line
        for line in f:
            number, _, rest = line.partition(b" ")
            _, colon, name = rest.partition(b":")
            if not colon:
                continue
            base = name.rstrip(b"\n").split(b",", 1)[0].decode()
            uids.setdefault(base, int(number))
    return uids


def flags_of(subpath):
    """The letters after ":2," of a file name, as get_flags() gives them."""
    _, sep, info = subpath.rpartition(":")
    if sep and info.startswith("2,"):
        return info[2:]
    return ""


def walk_toc(path, uids):
    box = mailbox.Maildir(path, factory=None, create=False)
    box._refresh()
    messages = known = uid_sum = seen = 0
    for key, subpath in box._toc.items():
        flags = flags_of(subpath)
        date = int(key.partition(".")[0])
        uid = uids.get(key.partition(",")[0])
        messages += 1
        if uid is not None:
            known += 1
            uid_sum += uid
        if "S" in flags:
            seen += 1
    return messages, known, uid_sum, seen, 0


def walk_iterkeys(path, uids):
    box = mailbox.Maildir(path, factory=None, create=False)
    messages = seen = 0
    for key in box.iterkeys():
        flags = flags_of(box._toc[key])
        date = int(key.partition(".")[0])
        messages += 1
        if "S" in flags:
            seen += 1
    return messages, 0, 0, seen, 0


def walk_message(path, uids):
    box = mailbox.Maildir(path, factory=None, create=False)
    messages = seen = subjects = 0
    for key in box.iterkeys():
        msg = box.get_message(key)
        if msg["Subject"]:
            subjects += 1
        if "S" in msg.get_flags():
            seen += 1
        messages += 1
    return messages, 0, 0, seen, subjects


def walk_headers(path, uids):
    box = mailbox.Maildir(path, factory=None, create=False)
    box._refresh()
    parser = email.parser.BytesHeaderParser(policy=email.policy.compat32)
    messages = known = uid_sum = seen = subjects = 0
    for key, subpath in box._toc.items():
        flags = flags_of(subpath)
        date = int(key.partition(".")[0])
        uid = uids.get(key.partition(",")[0])
        with open(os.path.join(path, subpath), "rb") as f:
            headers = parser.parse(f)
        if headers["Subject"]:
            subjects += 1
        messages += 1
        if uid is not None:
            known += 1
            uid_sum += uid
        if "S" in flags:
            seen += 1
    return messages, known, uid_sum, seen, subjects


MODES = {
    "toc": walk_toc,
    "iterkeys": walk_iterkeys,
    "message": walk_message,
    "headers": walk_headers,
}


def main():
    path = sys.argv[1]
    uids = load_uids(os.path.join(path, ".dovecot-uidlist"))
    print("ready", len(uids), flush=True)
    for line in sys.stdin:
        words = line.split()
        try:
            if len(words) != 2 or words[0] != "walk" or words[1] not in MODES:
                raise ValueError("unknown request " + line.strip())
            walk = MODES[words[1]]
            start = time.perf_counter()
            cpu_start = time.process_time()
            counts = walk(path, uids)
            cpu = time.process_time() - cpu_start
            seconds = time.perf_counter() - start
            print("ok", "%.9f" % seconds, "%.9f" % cpu, *counts, flush=True)
        except Exception as error:  # the benchmark shows the text
            print("error", str(error).replace("\n", " "), flush=True)


if __name__ == "__main__":
    main()
