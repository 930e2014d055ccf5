#!/usr/bin/env bash
# The demo: installs what is missing, builds the zemail program, creates a demo
# mail store under build/demo (two users, nested folders, a few hundred real
# messages from the corpus, some read, flagged or marked deleted) and runs
# zemail against it, through the real Dovecot IMAP server and directly on
# disk. Every zemail run starts its own IMAP server child and ends it, so
# nothing is left running afterwards.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
cd "$top"
jobs=$(nproc 2>/dev/null || echo 2)
corpus=${ZEMAIL_CORPUS_DIR:-$top/../shared/corpus}

bash scripts/setup.sh
echo "== building"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target zemail_program zemail_demo_store dovecot_xfname >/dev/null

plugin=$(find build/contrib -name 'lib90_imap_xfname_plugin.so' | head -n1)
eval "$(build/tools/zemail_demo_store "$top/build/demo" "$corpus" "$top/$plugin")"
export ZEMAIL_IMAP_PROGRAM ZEMAIL_MAIL_ROOT
echo "demo store: $ZEMAIL_MAIL_ROOT ($DEMO_MESSAGES messages from $corpus)"

zemail=build/tools/zemail
run() {
  echo
  echo "\$ zemail $*"
  "$zemail" "$@"
}

run --user ann@example.org folders
run --user ann@example.org list INBOX --per-page 10
run --user ann@example.org list Lists/Mailman --subject multipart --per-page 5
run --user ann@example.org list INBOX --flagged --attachment

# The newest multipart message of the inbox: its structure and readable body.
uid=$("$zemail" --user ann@example.org --json list INBOX --per-page 200 | python3 -c '
import json, subprocess, sys
for m in json.load(sys.stdin)["messages"]:
    shown = json.loads(subprocess.run(
        [sys.argv[1], "--user", "ann@example.org", "--json", "show", "INBOX", str(m["uid"])],
        capture_output=True, text=True, check=True).stdout)
    parts = (shown.get("structure") or {}).get("parts") or []
    if len(parts) > 1 and shown.get("body"):
        print(m["uid"]); break
' "$zemail")
run --user ann@example.org show INBOX "$uid"

# A flag set through the server, then read directly from the Maildir.
run --user ann@example.org flag INBOX "$uid" +Flagged +Seen
run --user ann@example.org --direct list INBOX --flagged --per-page 5
echo
echo "\$ ls $ZEMAIL_MAIL_ROOT/example.org/ann/Maildir/cur | grep ':2,.*F'"
ls "$ZEMAIL_MAIL_ROOT/example.org/ann/Maildir/cur" | grep ':2,.*F' | head -n 5

run --user ann@example.org quota
run --user bob@example.org --direct folders
echo
echo "demo done; the store stays in build/demo, no server is left running:"
pgrep -fa "dovecot/imap" || echo "(no IMAP server process)"
