#!/usr/bin/env python3
"""Reads the same mbox files with ZeMbox (through the MboxDump program) and
with Python's mailbox.mbox, and compares the number of messages, each
message's bytes and its Status/X-Status flags; UIDs must be unique and not 0.

The files: the corpus's own mbox file (a single message without a From_
line: both readers find no message in it), one mbox holding every corpus
message as the appliance's writers write it (From_ line, the message with
">From "-quoted lines, a blank line; each message must also come back as
written), the same without the blank lines, hand-made hostile files, and a
thousand small files put together at random from mbox pieces.

Both readers cut a file at every line beginning with "From ", but hand out
different bytes, so Python's message is first turned into what this library
is expected to give:

- the mboxrd unquoting is applied (one ">" goes from every line of ">"s
  followed by "From "); Python does not unquote;
- where no blank line ("\\n") stands before the next From_ line, Python keeps
  the message's last line end (LF or CR LF) and this library gives it to the
  separator;
- Python takes only "\\n" for a blank line, this library "\\r\\n" as well: a
  CR LF blank line before a From_ line is the case above, one at the very end
  of the file is taken off Python's bytes.

Flags are compared only where both read the header alike: a blank line after
it and every line before that a field or a folded line (Python stops at the
first line that is no field, this library reads on to the blank line).

Exit status 0 when everything agrees, 1 otherwise; the figures are printed.
"""

import argparse
import json
import mailbox
import os
import random
import re
import subprocess
import sys
import tempfile

QUOTE = re.compile(rb"^(>*From )", re.M)
UNQUOTE = re.compile(rb"^>(>*From )", re.M)
FIELD = re.compile(rb"^[\x21-\x39\x3b-\x7e]+:")
LETTERS = {"A": 0x2, "F": 0x8, "R": 0x10, "O": 0x20, "D": 0x40}


def write_mbox(messages, blank_line=True):
    """The messages as a writer stores them (mboxrd quoting)."""
    out = []
    for i, msg in enumerate(messages):
        out.append(b"From writer%d@example.org Mon Mar  7 14:23:23 2011\n" % i)
        out.append(QUOTE.sub(rb">\1", msg if msg.endswith(b"\n") else msg + b"\n"))
        out.append(b"\n" if blank_line else b"")
    return b"".join(out)


def run_dump(dump, path):
    """COUNT, then per message "MESSAGE uid flags date size length" and its bytes."""
    raw = subprocess.run([dump, path], check=True, stdout=subprocess.PIPE).stdout
    head, _, rest = raw.partition(b"\n")
    messages = []
    while rest:
        line, _, rest = rest.partition(b"\n")
        _, uid, flags, _, size, length = line.split()
        length = int(length)
        messages.append((int(uid), int(flags), int(size), rest[:length]))
        rest = rest[length + 1:]
    return int(head.split()[1]), messages


def expected_from_python(data, box, key):
    """Python's message turned into what this library must give (see above)."""
    _, stop = box._toc[key]  # Python's own table of contents
    ours = UNQUOTE.sub(rb"\1", box.get_bytes(key))
    if stop < len(data) and data[stop:stop + 1] == b"\n":
        return ours  # Python left out the blank line, as this library does
    if stop < len(data) or ours.endswith(b"\n\r\n") or ours == b"\r\n":
        for eol in (b"\r\n", b"\n"):
            if ours.endswith(eol):
                return ours[:-len(eol)]
    return ours


def header_is_plain(msg):
    head, sep, _ = msg.replace(b"\r\n", b"\n").partition(b"\n\n")
    return bool(sep) and b"\0" not in head and all(
        FIELD.match(line) or line[:1] in (b" ", b"\t") for line in head.split(b"\n"))


def compare(dump, path, originals, stats):
    """The problems found in one file; stats gathers the figures."""
    with open(path, "rb") as f:
        data = f.read()
    count, ours = run_dump(dump, path)
    box = mailbox.mbox(path, create=False)
    keys = box.keys()
    stats["messages"] += len(keys)
    if count != len(keys) or len(ours) != len(keys):
        return [f"{path}: {count}/{len(ours)} messages here, {len(keys)} in Python"]
    problems = []
    for i, (key, (_, flags, size, mine)) in enumerate(zip(keys, ours), 1):
        expected = expected_from_python(data, box, key)
        stats["bytes"] += len(expected)
        if mine != expected:
            problems.append(f"{path}: message {i} differs: {mine[:80]!r} against {expected[:80]!r}")
        if size != len(mine):
            problems.append(f"{path}: message {i}: size {size} for {len(mine)} bytes")
        if originals is not None and mine != originals[i - 1]:
            problems.append(f"{path}: message {i} is not the message written")
        if header_is_plain(expected):
            stats["flags"] += 1
            letters = box[key].get_flags().upper()
            theirs = sum(bit for letter, bit in LETTERS.items() if letter in letters)
            if flags != theirs:
                problems.append(f"{path}: message {i}: flags {flags:#x}, Python {theirs:#x}")
    uids = [m[0] for m in ours]
    if len(set(uids)) != len(uids) or 0 in uids:
        problems.append(f"{path}: UIDs not unique: {uids}")
    box.close()
    return problems


HOSTILE = {
    "no-blank-lines": b"From a\nA: 1\n\none\nFrom b\nB: 2\n\ntwo\nFrom c\n\nthree",
    "crlf": b"From a x\r\nStatus: RO\r\n\r\nbody\r\n\r\nFrom b y\r\nX-Status: AF\r\n\r\ntwo\r\n\r\n",
    "broken-from-lines": b"From \nFrom garbage\n\nx\n\nFrom \x00\xff\ny\n\nFrom\n",
    "nul-bytes": b"From a\nS: \x00\n\n\x00\x00body\x00\n\nFrom b\n\x00",
    "truncated-last": b"From a\nSubject: one\n\nfull\n\nFrom b\nSubject: two\n\ncut sh",
    "cut-in-from-line": b"From a\n\nfull\n\nFrom b Mon Ma",
    "leading-junk": b"Subject: not a message\n\njunk\nFrom a\n\nfirst\n\n",
    "not-an-mbox": b"Subject: plain message\n\nno separator here\n",
    "unquoted-from-in-body": b"From a\n\nhello\n\nFrom the past, a line\nmore\n\n",
    "quoted-lines": b"From a\n>From x\n>>From y\n>From\n> From z\n\n>From body\n\n"
                    b"From b\n\n>>>From deep\n",
    "huge-line": b"From a\n\n" + b"x" * (2 << 20) + b"\n\nFrom b\n\nafter\n\n",
    "huge-from-line": b"From " + b"x" * (2 << 20) + b"\n\nbody\n\nFrom b\n\nafter",
    "empty-messages": b"From a\nFrom b\n\nFrom c\n\n\nFrom d\n",
    "carriage-returns": b"From a\n\r\n\rx\r\r\n\r\nFrom b\r\n\r\n\r\n",
    "status-headers": b"From a\nStatus: ro\nX-Status: daf\n\n\nFrom b\nX-Status: A\n F\n"
                      b"Status: RZ\n\nStatus: D\n\nFrom c\nX-UID: 1\n\n\nFrom d\nX-UID: 1\n\n",
    "empty-file": b"",
}
PIECES = [b"From ", b"From a\n", b"\n", b"\r\n", b"\r", b">", b">From ", b"x", b"From",
          b"Status: RO\n", b"X-Status: F\n", b"X-UID: 3\n", b" ", b"\0", b"\n\n", b"F"]


def files(corpus, count):
    """(group, name, content or None for a file already on disk, originals)."""
    mbox = os.path.join(corpus, "dkim__message.mbox")
    manifest = os.path.join(corpus, "manifest.json")
    if os.path.exists(mbox) and os.path.exists(manifest):
        yield "corpus mbox file", mbox, None, None
        with open(manifest) as f:
            names = [entry["name"] for entry in json.load(f)]
        messages = []
        for name in names:
            with open(os.path.join(corpus, name), "rb") as f:
                messages.append(f.read())
        written = [m if m.endswith(b"\n") else m + b"\n" for m in messages]
        yield "corpus, one mbox", "corpus", write_mbox(messages), written
        yield "corpus, no blank lines", "corpus-unspaced", write_mbox(messages, False), None
    else:
        print(f"corpus not found at {corpus}: corpus files skipped")
    for name, content in HOSTILE.items():
        yield "hostile", name, content, None
    rng = random.Random(4155)
    for i in range(count):
        yield "random", f"random-{i}", b"".join(
            rng.choice(PIECES) for _ in range(rng.randint(0, 60))), None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dump", required=True, help="the MboxDump program")
    parser.add_argument("--corpus", required=True, help="the folder of corpus messages")
    parser.add_argument("--random", type=int, default=1000, help="random files to try")
    args = parser.parse_args()

    problems = []
    totals = {}
    with tempfile.TemporaryDirectory(prefix="zemail-mbox-check.") as work:
        for group, name, content, originals in files(args.corpus, args.random):
            path = name
            if content is not None:
                path = os.path.join(work, name)
                with open(path, "wb") as f:
                    f.write(content)
            stats = totals.setdefault(group, {"files": 0, "messages": 0, "bytes": 0, "flags": 0})
            stats["files"] += 1
            problems.extend(compare(args.dump, path, originals, stats))

    for group, stats in totals.items():
        print(f"{group}: {stats['files']} files, {stats['messages']} messages, "
              f"{stats['bytes']} bytes compared, flags compared for {stats['flags']} messages")
    for problem in problems[:40]:
        print("MISMATCH", problem)
    print(f"{len(problems)} mismatches")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
