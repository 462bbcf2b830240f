#!/usr/bin/env bash
# The demo: the headless client's main job against the local server, in a fresh
# temporary home, and what each side holds afterwards.
set -uo pipefail
build=${1:-build}
client="$PWD/$build/src/app/corvalink-sync"
server="$PWD/$build/tools/devserver/corvalink-devserver"
source "$(dirname "$0")/devserver.sh"

work=$(mktemp -d /tmp/corvalink-demo-XXXXXX)
home="$work/home"
storage="$work/server/Docs"
mkdir -p "$home" "$storage/Reports/2026" "$storage/Empty folder" "$storage/Fotos/Été 2026" "$storage/Private"
printf 'Quarterly figures\n' > "$storage/Reports/2026/Q3 results.txt"
printf 'Meeting notes: a&b, 50%% done\n' > "$storage/Reports/notes #1.txt"
printf 'Grüße aus Köln\n' > "$storage/Grüße.txt"
for i in $(seq 1 20); do printf 'line %s of a compressible text\n' $(seq 1 400) > "$storage/Reports/log $i.txt"; done
head -c 300000 /dev/urandom > "$storage/Fotos/Été 2026/plage.jpg"
head -c $((20 * 1024 * 1024)) /dev/urandom > "$storage/big archive.bin"
: > "$storage/empty.txt"
printf 'not for this machine\n' > "$storage/Private/secret.txt"

echo "== Local server, storage Docs in $storage"
start_devserver "$work/server.out" "$work/server.requests" --user alice:secret --storage "Docs=$storage" --verbose
echo "   listening on $url"

# The demo's client keeps its local socket in its own home, away from a real client's.
export XDG_RUNTIME_DIR="$home/run"
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
sync_cmd() { HOME="$home" "$client" "$@"; }

echo
echo "== First start with no account: the client says so"
sync_cmd --headless --once --time-scale 0.05
echo "   exit code: $? (2: no account signed in)"

echo
echo "== Sign in from the terminal: corvalink-sync login $url alice --password-stdin"
echo "   (a wrong password first)"
echo wrong | sync_cmd login "$url" alice --password-stdin 2>&1 | sed 's/^/   /'
echo secret | sync_cmd login "$url" alice --password-stdin 2>&1 | sed 's/^/   /'
settings="$home/Corvalink/.Settings"
echo
echo "== The server's folders of Docs, then: select Docs all, select Docs/Private none"
sync_cmd folders Docs | sed 's/^/   /'
sync_cmd select Docs all | sed 's/^/   /'
sync_cmd select Docs/Private none | sed 's/^/   /'
sync_cmd status | sed 's/^/   /'
echo
echo "== corvalink-sync --headless --once"
sync_cmd --headless --once --time-scale 0.05
code=$?
echo "   exit code: $code (0: everything in step)"

echo
echo "== Both trees side by side (server | client), with sizes"
(cd "$storage" && find . -mindepth 1 | sort | while read -r p; do
   if [ -d "$p" ]; then echo "$p/"; else echo "$p $(stat -c %s "$p")"; fi; done) > "$work/server.tree"
(cd "$home/Corvalink/Docs" 2>/dev/null && find . -mindepth 1 | sort | while read -r p; do
   if [ -d "$p" ]; then echo "$p/"; else echo "$p $(stat -c %s "$p")"; fi; done) > "$work/client.tree"
diff -y -W 110 "$work/server.tree" "$work/client.tree" | sed 's/^/   /'
if diff -rq "$storage" "$home/Corvalink/Docs" --exclude=Private > /dev/null 2>&1 \
   && [ ! -e "$home/Corvalink/Docs/Private" ]; then
  echo "   => identical byte for byte (Private stays on the server by its rule)"
else
  echo "   => the trees differ:"; diff -rq "$storage" "$home/Corvalink/Docs" | sed 's/^/      /'
fi
echo
echo "== The client keeps running: a change on each side reaches the other"
sync_cmd --headless --time-scale 0.05 > "$work/client.out" 2>&1 &
client_pid=$!
trap 'kill $client_pid $server_pid 2>/dev/null; wait $client_pid $server_pid 2>/dev/null' EXIT
for _ in $(seq 1 100); do grep -q "Status: in step" "$work/client.out" && break; sleep 0.1; done
local_docs="$home/Corvalink/Docs"
printf 'Written on this machine at %s\n' "$(date -u +%H:%M:%S)" > "$local_docs/Reports/from this machine.txt"
mv "$local_docs/Reports/notes #1.txt" "$local_docs/Reports/notes #1 (renamed here).txt"
printf 'Quarterly figures, corrected on the server\n' > "$storage/Reports/2026/Q3 results.txt"
echo "   locally: a new file Reports/from this machine.txt, Reports/notes #1.txt renamed"
echo "   on the server: Reports/2026/Q3 results.txt rewritten"
arrived() {
  [ -f "$storage/Reports/from this machine.txt" ] && [ -f "$storage/Reports/notes #1 (renamed here).txt" ] \
    && [ ! -e "$storage/Reports/notes #1.txt" ] \
    && cmp -s "$storage/Reports/2026/Q3 results.txt" "$local_docs/Reports/2026/Q3 results.txt"
}
for _ in $(seq 1 300); do arrived && break; sleep 0.1; done
if arrived; then
  echo "   => the server has: $(cat "$storage/Reports/from this machine.txt")"
  echo "   => the server has Reports/notes #1 (renamed here).txt and no Reports/notes #1.txt"
  echo "   => this machine has: $(cat "$local_docs/Reports/2026/Q3 results.txt")"
else
  echo "   => not in step after 30 seconds; see $work/client.out and the logs"; code=1
fi
echo
echo "== corvalink-sync status, from a second terminal while the client runs"
sync_cmd status | sed 's/^/   /'
echo "== A second client does not start:"
sync_cmd --headless --time-scale 0.05 | sed 's/^/   /'
echo "== corvalink-sync quit"
sync_cmd quit | sed 's/^/   /'
wait $client_pid 2>/dev/null
if diff -rq "$storage" "$local_docs" --exclude=Private > /dev/null 2>&1; then
  echo "   => both trees identical byte for byte again"
else
  echo "   => the trees differ:"; diff -rq "$storage" "$local_docs" --exclude=Private | sed 's/^/      /'; code=1
fi
echo
echo "== DownloadedFiles.xml holds $(grep -c '<DownloadedFile>' "$settings/DownloadedFiles.xml" 2>/dev/null || echo 0) records"
echo
echo "== Configuration.xml is now enciphered (first bytes):"
head -c 48 "$settings/Configuration.xml" | xxd | sed 's/^/   /'
echo
echo "== The requests the local server answered:"
sort "$work/server.requests" | uniq -c | sort -rn | sed 's/^/   /'
echo
echo "== What the client wrote under ~/Corvalink/.Settings:"
(cd "$home" && find Corvalink/.Settings -maxdepth 2 | sort | sed 's/^/   /')
echo
log=$(find "$settings/CVLogger/CVMainLogs" -name 'LOG *_1.txt' | head -1)
echo "== Main log: $log"
grep -E "Application started|DEVSTATUS|Status:|Last synchronization|_SRV|_LOC|OPERATION FAILED|Application ended" "$log" | head -40 | sed 's/^/   /'
echo
echo "Everything of this run is in $work"
exit $code
