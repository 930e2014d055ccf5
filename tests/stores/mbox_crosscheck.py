#!/usr/bin/env python3
"""Reads the same mbox files with ZeMbox (through the MboxDump program) and
with Python's mailbox.mbox, and compares what they find: the number of
messages, each message's bytes and its Status/X-Status flags.

The files: the corpus's own mbox file (a single message without a From_
line: both readers find no message in it), one mbox holding every message of
the corpus (written the way the appliance's writers write: From_ line, the
message with ">From "-quoted lines, a blank line; each message must also come
back as written), the same messages without the blank lines between them, a
set of hand-made hostile files, and a thousand small files put together at
random from mbox pieces.

The two readers cut a file at the same lines (every line beginning with
"From "), but do not hand out the same bytes. Before comparing, Python's
message is turned into what this library is expected to give:

- Python does not unquote ">From " lines; the mboxrd unquoting is applied to
  its bytes (one ">" is removed from every line of ">"s followed by "From ").
- Python keeps a message's last line end when no blank line ("\\n") stands
  before the next From_ line; this library gives every message's last line
  end before a From_ line to the separator. That line end (LF or CR LF) is
  taken from Python's bytes.
- Python takes only "\\n" for a blank line; this library also takes "\\r\\n". A
  CR LF blank line before a From_ line is thus covered by the rule above, and
  a CR LF blank line at the very end of the file is taken from Python's bytes.

Flags are compared only where Python's header parser reads the header as
this library does (the message has a blank line after its header and every
header line before it is a field or a folded line); Python stops reading the
header at the first line that is no field, this library reads on to the
blank line.

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
flags_compared = [0]


def write_mbox(messages, blank_line=True, crlf=False):
    """The messages as a writer stores them (mboxrd quoting)."""
    eol = b"\r\n" if crlf else b"\n"
    out = []
    for i, msg in enumerate(messages):
        if not msg.endswith(b"\n"):
            msg += eol
        out.append(b"From writer%d@example.org Mon Mar  7 14:23:23 2011" % i + eol)
        out.append(QUOTE.sub(rb">\1", msg))
        if blank_line:
            out.append(eol)
    return b"".join(out)


def run_dump(dump, path):
    raw = subprocess.run([dump, path], check=True, stdout=subprocess.PIPE).stdout
    head, _, rest = raw.partition(b"\n")
    count = int(head.split()[1])
    messages = []
    while rest:
        line, _, rest = rest.partition(b"\n")
        _, uid, flags, date, size, length = line.split()
        length = int(length)
        messages.append(
            {"uid": int(uid), "flags": int(flags), "size": int(size), "bytes": rest[:length]}
        )
        rest = rest[length + 1 :]
    return count, messages


def expected_from_python(data, box, key):
    """Python's message turned into what this library must give (see above)."""
    start, stop = box._toc[key]  # Python's own table of contents
    ours = UNQUOTE.sub(rb"\1", box.get_bytes(key))
    if stop < len(data) and data[stop:stop + 1] == b"\n":
        return ours  # Python left out the blank line, as this library does
    if stop < len(data) or ours.endswith(b"\n\r\n") or ours == b"\r\n":
        if ours.endswith(b"\r\n"):
            return ours[:-2]
        if ours.endswith(b"\n"):
            return ours[:-1]
    return ours


def header_is_plain(msg):
    """True when the message has a header block that both readers read alike."""
    head, sep, _ = msg.replace(b"\r\n", b"\n").partition(b"\n\n")
    if not sep:
        return False
    for line in head.split(b"\n"):
        if not (FIELD.match(line) or line[:1] in (b" ", b"\t")):
            return False
    return b"\0" not in head


def python_flags(message):
    letters = message.get_flags()
    return sum(bit for letter, bit in LETTERS.items() if letter in letters.upper())


def compare(dump, path, originals=None):
    """Compares one file; returns (messages, bytes, problems)."""
    with open(path, "rb") as f:
        data = f.read()
    count, ours = run_dump(dump, path)
    box = mailbox.mbox(path, create=False)
    keys = box.keys()
    problems = []
    if count != len(keys) or len(ours) != len(keys):
        problems.append(f"{path}: {count}/{len(ours)} messages here, {len(keys)} in Python")
        return len(keys), 0, problems
    compared = 0
    for i, key in enumerate(keys):
        mine = ours[i]
        expected = expected_from_python(data, box, key)
        if mine["bytes"] != expected:
            problems.append(f"{path}: message {i + 1} differs: {mine['bytes'][:80]!r} "
                            f"against {expected[:80]!r}")
        if mine["size"] != len(mine["bytes"]):
            problems.append(f"{path}: message {i + 1}: size {mine['size']} for "
                            f"{len(mine['bytes'])} bytes")
        if originals is not None and mine["bytes"] != originals[i]:
            problems.append(f"{path}: message {i + 1} is not the message written")
        if header_is_plain(expected):
            flags_compared[0] += 1
            if mine["flags"] != python_flags(box[key]):
                problems.append(f"{path}: message {i + 1}: flags {mine['flags']:#x}, "
                                f"Python {python_flags(box[key]):#x}")
        compared += len(expected)
    uids = [m["uid"] for m in ours]
    if len(set(uids)) != len(uids) or 0 in uids:
        problems.append(f"{path}: UIDs not unique: {uids}")
    box.close()
    return len(keys), compared, problems


def hostile_files():
    big = b"x" * (2 << 20)
    return {
        "no-blank-lines": b"From a\nA: 1\n\none\nFrom b\nB: 2\n\ntwo\nFrom c\n\nthree",
        "crlf": b"From a x\r\nStatus: RO\r\n\r\nbody\r\n\r\nFrom b y\r\nX-Status: AF\r\n\r\n"
                b"two\r\n\r\n",
        "broken-from-lines": b"From \nFrom garbage\n\nx\n\nFrom \x00\xff\ny\n\nFrom\n",
        "nul-bytes": b"From a\nS: \x00\n\n\x00\x00body\x00\n\nFrom b\n\x00",
        "truncated-last": b"From a\nSubject: one\n\nfull\n\nFrom b\nSubject: two\n\ncut sh",
        "cut-in-from-line": b"From a\n\nfull\n\nFrom b Mon Ma",
        "leading-junk": b"Subject: not a message\n\njunk\nFrom a\n\nfirst\n\n",
        "not-an-mbox": b"Subject: plain message\n\nno separator here\n",
        "unquoted-from-in-body": b"From a\n\nhello\n\nFrom the past, a line\nmore\n\n",
        "quoted-lines": b"From a\n>From x\n>>From y\n>From\n> From z\n\n>From body\n\n"
                        b"From b\n\n>>>From deep\n",
        "huge-line": b"From a\n\n" + big + b"\n\nFrom b\n\nafter\n\n",
        "huge-from-line": b"From " + big + b"\n\nbody\n\nFrom b\n\nafter",
        "empty-messages": b"From a\nFrom b\n\nFrom c\n\n\nFrom d\n",
        "carriage-returns": b"From a\n\r\n\rx\r\r\n\r\nFrom b\r\n\r\n\r\n",
        "status-headers": b"From a\nStatus: ro\nX-Status: daf\n\n\nFrom b\nX-Status: A\n F\n"
                          b"Status: RZ\n\nStatus: D\n\nFrom c\nX-UID: 1\n\n\nFrom d\nX-UID: 1\n\n",
        "empty-file": b"",
    }


def random_files(count, seed):
    pieces = [b"From ", b"From a\n", b"\n", b"\r\n", b"\r", b">", b">From ", b"x", b"From",
              b"Status: RO\n", b"X-Status: F\n", b"X-UID: 3\n", b" ", b"\0", b"\n\n", b"F"]
    rng = random.Random(seed)
    for _ in range(count):
        yield b"".join(rng.choice(pieces) for _ in range(rng.randint(0, 60)))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--dump", required=True, help="the MboxDump program")
    parser.add_argument("--corpus", required=True, help="the folder of corpus messages")
    parser.add_argument("--random", type=int, default=1000, help="random files to try")
    args = parser.parse_args()

    problems = []
    totals = {}

    def check(group, path, originals=None):
        messages, compared, found = compare(args.dump, path, originals)
        files, m, b = totals.get(group, (0, 0, 0))
        totals[group] = (files + 1, m + messages, b + compared)
        problems.extend(found)

    with tempfile.TemporaryDirectory(prefix="zemail-mbox-check.") as work:
        corpus_mbox = os.path.join(args.corpus, "dkim__message.mbox")
        manifest = os.path.join(args.corpus, "manifest.json")
        if os.path.exists(corpus_mbox) and os.path.exists(manifest):
            check("corpus mbox file", corpus_mbox)
            with open(manifest) as f:
                names = [entry["name"] for entry in json.load(f)]
            messages = []
            for name in names:
                with open(os.path.join(args.corpus, name), "rb") as f:
                    messages.append(f.read())
            written = [m if m.endswith(b"\n") else m + b"\n" for m in messages]
            for label, content, originals in (
                ("corpus, one mbox", write_mbox(messages), written),
                ("corpus, no blank lines", write_mbox(messages, blank_line=False), None),
            ):
                path = os.path.join(work, label.replace(" ", "-").replace(",", ""))
                with open(path, "wb") as f:
                    f.write(content)
                check(label, path, originals)
        else:
            print(f"corpus not found at {args.corpus}: corpus files skipped")

        for name, content in hostile_files().items():
            path = os.path.join(work, name)
            with open(path, "wb") as f:
                f.write(content)
            check("hostile", path)
        for i, content in enumerate(random_files(args.random, 4155)):
            path = os.path.join(work, f"random-{i}")
            with open(path, "wb") as f:
                f.write(content)
            check("random", path)

    for group, (files, messages, compared) in totals.items():
        print(f"{group}: {files} files, {messages} messages, {compared} bytes compared")
    for problem in problems[:40]:
        print("MISMATCH", problem)
    print(f"flags compared for {flags_compared[0]} messages")
    print(f"{len(problems)} mismatches")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
